// The store of a cluster: keys in etcd, laid out as layout.h tells.
#ifndef KEYVIEW_CLUSTER_ETCD_STORE_H
#define KEYVIEW_CLUSTER_ETCD_STORE_H

#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cluster/session.h"
#include "cluster/tree_part.h"
#include "host/registry/store.h"

namespace keyview::host {

class etcd_store final : public store, public std::enable_shared_from_this<etcd_store> {
  public:
    explicit etcd_store(std::shared_ptr<session> cluster) : cluster_(std::move(cluster)) {}

    // Looks whether there is a registry, and makes one if asked to.
    void open(bool create);

    std::unique_ptr<moment> now(std::string_view part) override;
    bool set(std::string_view path, std::string_view value, const held_lock *fence) override;
    change_counts apply(const std::vector<change> &changes, const apply_terms &terms) override;
    std::optional<change_batch> changes_since(std::string_view path, uint64_t since,
                                              std::chrono::milliseconds wait) override;
    bool finish_apply(finish how) override;
    uint64_t round_trips() const override { return cluster_->calls().round_trips(); }

    const std::shared_ptr<session> &cluster() const { return cluster_; }
    uint32_t deepest() const { return deepest_.load(); }

    // Reads a part, as of a revision or, with 0, as it is once no change set is half carried out.
    void read(tree_part *part, int64_t revision);
    void note_depth(const tree_part &part);

    // The moment of a part that was read.
    std::unique_ptr<moment> as_of(tree_part part);

  private:
    std::shared_ptr<session> cluster_;
    // As deep as the tree was when it was last looked at, and as a tree with a service in it is.
    static constexpr uint32_t USUAL_DEPTH = 8;
    std::atomic<uint32_t> deepest_{USUAL_DEPTH};
};

}  // namespace keyview::host

#endif
