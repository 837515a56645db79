// What the holder of a lock sees of the part of the tree that the lock covers: one moment, that of
// its first look, with its own changes.
//
// The top and its children are copied at the first look, because that is where most questions go.
// A key further down is looked up alone, until its children are asked for: then all below it is
// copied in one pass, because a reader of a list goes through what is in it.
//
// A registry handle keeps the copies. Whoever takes the lock again while the part still has the
// same revision goes on with them.
#ifndef KEYVIEW_HOST_REGISTRY_LOCKED_VIEW_H
#define KEYVIEW_HOST_REGISTRY_LOCKED_VIEW_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/registry/snapshot.h"
#include "host/registry/store.h"
#include "model/locks.h"

namespace keyview::host {

// A key of a copy; without a part, or with NONE, if there is no such key.
struct copied_key {
    std::shared_ptr<snapshot> part;
    uint32_t key = snapshot::NONE;
};

// What was copied of one part of the tree, as of one revision.
struct copies {
    std::string top;
    revision as_of;
    std::vector<std::shared_ptr<snapshot>> parts;  // the top with its children first
    size_t single_keys = 0;                        // how many parts are a key alone

    // What the latest reader asked for, in order: a part and a key of it.
    std::vector<std::pair<uint32_t, uint32_t>> asked;

    size_t bytes() const;
};

// The copies that a registry handle keeps, up to a bound.
class kept_copies {
  public:
    // Those of that revision, or new ones without a part.
    std::shared_ptr<copies> take(std::string_view top, const revision &as_of);

  private:
    void drop_oldest();

    std::vector<std::shared_ptr<copies>> all_;  // the latest last
};

// Who reads: where the keys are and what was copied before.
struct tree_reader {
    store *keys;
    kept_copies *kept;
};

class locked_view {
  public:
    // With the moment that came with the lock; null if the store is to be asked.
    explicit locked_view(std::unique_ptr<moment> granted) : moment_(std::move(granted)) {}

    // Whether the view has the answer for a key, or for its list.
    static bool tells(const lock_cover &cover, std::string_view path);
    static bool tells_children(const lock_cover &cover, std::string_view path);

    // Answers for what the view tells.
    void find(const tree_reader &reader, const lock_cover &cover, std::string_view path,
              copied_key *found);
    copied_key find_list(const tree_reader &reader, const lock_cover &cover, std::string_view path);

    // Finds a key quickly if it is the one that the reader before asked for at this point.
    bool find_again(std::string_view path, copied_key *found) {
        if (copies_ == nullptr || next_ >= copies_->asked.size()) return false;
        auto [part, key] = copies_->asked[next_];
        const std::shared_ptr<snapshot> &copy = copies_->parts[part];
        if (copy->path(key) != path) return false;
        *found = {copy, key};
        ++next_;
        return true;
    }

    // Brings a value that the holder set into the view.
    void note_value(std::string_view path, std::string_view value);

    // Copies what was not copied yet and lets go of the store.
    void copy_out(const lock_cover &cover);

  private:
    void look(const tree_reader &reader, const lock_cover &cover);
    bool find_copy(std::string_view path, uint32_t *key);
    void note_asked(uint32_t key, copied_key *found);
    uint32_t look_up(const lock_cover &cover, std::string_view path);
    copied_key copy(std::string_view path, reach which);
    void add_part(const std::shared_ptr<snapshot> &part);
    void bring(snapshot *part, std::string_view path, std::string_view value);

    std::unique_ptr<moment> moment_;  // null before the look at the store, and after copy_out
    std::shared_ptr<copies> copies_;  // null before the first look
    size_t latest_ = 0;               // the part that had the latest answer
    size_t next_ = 0;                 // in copies_->asked
    std::vector<std::pair<std::string, std::string>> changes_;  // since the moment
};

}  // namespace keyview::host

#endif
