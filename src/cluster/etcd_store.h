// The store of a cluster: keys in etcd, in the layout of layout.h.
#pragma once

#include <memory>
#include <string_view>
#include <vector>

#include "cluster/session.h"
#include "host/registry/store.h"

namespace keyview::host {

class etcd_store final : public store {
  public:
    explicit etcd_store(std::shared_ptr<session> cluster) : cluster_(std::move(cluster)) {}

    // Requires that the registry exists, or creates it.
    void open(bool create);

    std::unique_ptr<moment> now(std::string_view part, reach depth) override;
    bool set(std::string_view path, std::string_view value, const held_lock *fence,
             std::string *replaced) override;
    void history(uint64_t since, const history_sink &sink) override;
    using store::apply;
    change_counts apply(const change_source &changes, const apply_terms &terms) override;
    std::optional<change_batch> changes_since(std::string_view path, uint64_t since,
                                              std::chrono::milliseconds wait) override;
    bool finish_apply(finish how) override;
    uint64_t round_trips() const override { return cluster_->calls().round_trips(); }

    const std::shared_ptr<session> &cluster() const { return cluster_; }

  private:
    std::shared_ptr<session> cluster_;
};

}  // namespace keyview::host
