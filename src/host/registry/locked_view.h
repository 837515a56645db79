// The view that the holder of a lock has of the part of the tree that the lock covers: one moment,
// that of its first read, with its own changes.
//
// The first read copies the top and its children, which most reads concern. A key further down is
// looked up alone. An enumeration of its children copies everything below it in one pass, because a
// reader of a list reads its entries.
//
// A registry handle caches the copies, and leaves them to the next handle of the same registry when
// it is closed. They are used again under the next lock if the part still has the same revision;
// else each is filled again when it is needed, which a reader whose keys are the same as before does
// not notice.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/registry/snapshot.h"
#include "host/registry/store.h"
#include "host/support/unique.h"
#include "model/locks.h"

namespace keyview::host {

struct copies;

// A key of a copy; null both, or the key alone, if the key does not exist.
struct copied_key {
    snapshot *part = nullptr;
    const snapshot::row *key = nullptr;
};

struct found_key : copied_key {
    copies *of = nullptr;  // owns the part
};

// A part by its number, and a key of it.
struct read_key {
    uint32_t part;
    uint32_t key;
    bool operator==(const read_key &other) const { return part == other.part && key == other.key; }
};

// Keys in the order in which a reader read them.
using order_of_reads = std::vector<read_key>;

// The copies of one part of the tree, as of one revision.
struct copies : std::enable_shared_from_this<copies> {
    std::string top;
    revision as_of;
    std::vector<std::unique_ptr<snapshot>> parts;  // the top with its children first
    size_t single_keys = 0;                        // number of parts with one key only

    // Of the reader that read most. At first a guess, that of another part of the tree: records of
    // the same shape have their keys at the same places. expected has its first keys: all that are there
    // when a view begins or a part is added.
    order_of_reads order;
    std::vector<copied_key> expected;
    bool order_is_guess = false;

    copies(std::string_view key, const revision &state) : top(key), as_of(state) {}

    void become_stale(const revision &now);
    void guess_order(const copies &other);
    void add_part(std::unique_ptr<snapshot> part);
    void end_order(size_t count);
    void replace_order(order_of_reads *by);
    void expect_more();
    size_t bytes() const;
};

// Copies that a registry handle knows, and how many of its open keys refer to them. The keys are
// counted here and not by shared_ptr, because each open and close of a key does it. The copies are in
// use while a key or a view refers to them.
struct known_copies {
    std::shared_ptr<copies> of;
    size_t keys = 0;
    size_t bytes = 0;         // as of the next take behind its own
    bool used_again = false;  // taken more than once

    bool in_use() const { return keys > 0 || of.use_count() > 1; }
};

// The copies that a registry handle caches, up to a bound, and others that are in use. Most of those
// that were used once leave first: a reader of a long list of parts, one after the other, does not drive
// out those that are used again, and writes each copy to memory that the processor has in its cache.
class kept_copies : unique {
  public:
    // Begins with those of a handle that was closed, and leaves its own to the next one.
    explicit kept_copies(std::shared_ptr<store> keys);
    ~kept_copies();

    // The cached copies, stale unless they are of that revision, or new ones without a part. They
    // remain known to the handle as long as they are in use.
    known_copies *take(std::string_view top, const revision &as_of, std::shared_ptr<copies> *taken);

    // The same for copies that may be another handle's.
    known_copies *known(copies *wanted);

  private:
    static constexpr size_t MAX_KEPT = 64;

    void drop_oldest();
    void drop_unused();
    bool left_of_late(std::string_view top) const;

    std::shared_ptr<store> keys_;
    std::vector<std::shared_ptr<known_copies>> cached_;  // the latest last
    std::vector<std::shared_ptr<known_copies>> others_;

    // Hashes of the tops of those that left, as many as are kept: a ring.
    std::array<size_t, MAX_KEPT> left_ = {};
    size_t next_left_ = 0;
};

// The source of a read: the store, and the copies that a registry handle made before.
struct tree_reader {
    store *keys;
    kept_copies *kept;
    uint64_t handle;
};

class locked_view {
  public:
    // granted is the moment that came with the lock; null if the store delivers it.
    explicit locked_view(std::unique_ptr<moment> granted) : moment_(std::move(granted)) {}

    // Whether the view covers a key, or its list.
    static bool covers(const lock_cover &cover, std::string_view path);
    static bool covers_children(const lock_cover &cover, std::string_view path);

    // Find a key, or its list, that the view covers.
    void find(const tree_reader &reader, const lock_cover &cover, const char *path,
              found_key *found);
    found_key find_list(const tree_reader &reader, const lock_cover &cover, std::string_view path);

    // Whether the copies are those of a registry handle; known() is the handle's then.
    bool is_of(uint64_t handle) const { return handle == handle_; }
    known_copies *known() const { return known_; }

    // The key that the reader before read at this point, of a view with copies; null if none is known.
    // The next one is expected then.
    const copied_key *pass_expected() {
        if (next_ >= copies_->expected.size()) return nullptr;
        const copied_key *expected = &copies_->expected[next_];
        if (expected->part->stale) return nullptr;
        ++next_;
        return expected;
    }
    void step_back() { --next_; }

    // Finds a key without a search if the keys that were found last predict it.
    bool find_predicted(const char *path, found_key *found);

    // Updates a value that the holder set.
    void update_value(std::string_view path, std::string_view value);

    // Copies the rest of the part and ends the moment of the store.
    void detach(const lock_cover &cover);

  private:
    void begin(const tree_reader &reader, const lock_cover &cover);
    bool is_read_alone(std::string_view path) const;
    bool find_copy(std::string_view path, uint32_t *key);
    void record_order(uint32_t key, found_key *found);
    uint32_t look_up(const lock_cover &cover, std::string_view path);
    found_key copy(std::string_view path, reach which);
    bool fill(snapshot *part);
    bool read_alone(snapshot *part);
    snapshot *add_part(std::unique_ptr<snapshot> part);
    void forget_order();
    void update(snapshot *part, std::string_view path, std::string_view value);

    std::unique_ptr<moment> moment_;  // null before the first read of the store, and after detach
    std::shared_ptr<copies> copies_;  // null before the first read
    known_copies *known_ = nullptr;   // the same; dangling once the handle is closed
    uint64_t handle_ = 0;             // that made the first read
    uint32_t latest_ = 0;             // the part that contains the key found last
    size_t next_ = 0;                 // in copies_->order; beyond it, the order is another one
    order_of_reads own_order_;        // from then on
    std::vector<std::pair<std::string, std::string>> changes_;  // since the moment
};

}  // namespace keyview::host
