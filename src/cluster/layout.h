// The keys of a registry in the cluster, below its prefix:
//
//     /tree                      exists with the registry: the format, the depth of the tree, and
//                                the writer of the latest change set. Each change of the tree
//                                writes it, so its revision is that of the tree
//     /kv/<depth><path>          a key of the tree: the number of its elements as one byte, then
//                                its elements, each followed by 0x01; the value as given. So the
//                                children of a key are one range, as are its descendants of each
//                                depth
//     /kv/<1>keyview-history-... an entry of the history, named by the number of changes that the tree
//                                had about when it was made, and an id; its revision is that of the
//                                change
//     /lk/<name>\0r/<id>         an entry in the queue of a lock, "w" for an exclusive one
//     /apply                     the marker of a change set that is carried out in pieces
//     /journal/<id>/<piece>/...  what those pieces do and undo
//
// Readers read /tree, /kv/ and /apply and write below /lk/; setting values also writes /tree and
// /kv/; applying documents writes all of them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "host/registry/backend.h"
#include "model/roots.h"

namespace keyview::host {

// The keys from begin on that are before end; end is empty for begin alone.
struct key_range {
    std::string begin;
    std::string end;
};

// The range of all keys that begin with these bytes, the last of which must not be 0xFF.
key_range beginning_with(std::string bytes);

constexpr char SEPARATOR = '\x01';
constexpr uint32_t MOST_ELEMENTS = 100;  // a transaction reads each depth on its own

uint32_t elements_of(std::string_view path);

class layout {
  public:
    explicit layout(const std::string &prefix) : prefix_(prefix), kv_(prefix + "/kv/") {}

    std::string tree() const { return prefix_ + "/tree"; }
    std::string marker() const { return prefix_ + "/apply"; }
    key_range journals() const { return beginning_with(prefix_ + "/journal/"); }
    std::string journal(std::string_view id, uint32_t piece, bool undo) const;
    std::string journal_entry(std::string_view id) const;  // of the history

    // path is valid for a key and has no more than MOST_ELEMENTS.
    std::string key(std::string_view path) const { return row(elements_of(path), path); }

    // The keys below path that have that many elements, which are more than the path's.
    key_range below(std::string_view path, uint32_t elements) const {
        return beginning_with(row(elements, path));
    }

    // Entries of the history (etcd_history.h), all of them and those before a number.
    std::string history_entry(uint64_t number, std::string_view id) const;
    key_range history() const;
    key_range history_before(uint64_t number) const;

    // All keys of the tree.
    key_range all_keys() const { return beginning_with(kv_); }

    // The elements of a key, separated by 0x01, as a view into the key; nothing if it is not the
    // key of any path.
    std::optional<std::string_view> elements(std::string_view key) const;

    std::string lock_entry(std::string_view name, lock_mode mode, std::string_view id) const;
    key_range lock_queue(std::string_view name) const;
    key_range lock_writers(std::string_view name) const;
    key_range lock_of_all() const { return lock_queue(ALL_LOCKS); }
    key_range all_locks() const { return beginning_with(prefix_ + "/lk/"); }

    // The name and the mode of the lock of an entry; false for another key.
    bool lock_of_entry(std::string_view key, std::string *name, lock_mode *mode) const;

  private:
    std::string row(uint32_t elements, std::string_view path) const;

    std::string prefix_;
    std::string kv_;
};

std::string path_of_elements(std::string_view elements);

// The value of /tree.
struct tree_facts {
    uint32_t deepest = 0;  // no key has more elements
    std::string writer;    // of the latest change set

    std::string text() const;
    static tree_facts parse(std::string_view text);  // throws failure::content
};

}  // namespace keyview::host
