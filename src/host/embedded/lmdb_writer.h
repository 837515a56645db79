// Changes of the tree within one write transaction.
#pragma once

#include <lmdb.h>

#include <string>
#include <string_view>
#include <vector>

#include "host/embedded/environment.h"
#include "host/embedded/lmdb_rows.h"
#include "host/registry/history.h"
#include "host/registry/store.h"

namespace keyview::host {

// What is known of a key that is put: how many of its children are put as well, and whether its
// parent's row counts it already. Both are of use if there was no such key.
struct in_batch {
    uint32_t children = 0;
    bool counted = false;
};

class lmdb_writer {
  public:
    // Notes what it changes, unless changes is null.
    lmdb_writer(const environment &env, MDB_txn *txn, change_recorder *changes = nullptr)
        : env_(env), txn_(txn), changes_(changes) {}

    // Damaged rows are replaced and removed like sound ones. The number of a key's children is written
    // when a key elsewhere is put, and by finish(). True if a key was created, with the children of its
    // batch counted.
    bool carry_out(const change_view &one, const in_batch &known);
    void finish() { leave({}); }

    // Replaces the value of a key; false if there is none. A value that is there already is not
    // written again.
    bool replace(std::string_view path, std::string_view value, std::string *replaced);

    bool changed() const { return counts_.created + counts_.replaced + counts_.removed > 0; }
    const change_counts &counts() const { return counts_; }

  private:
    // A key with a sound row that counts fewer children than it has got meanwhile.
    struct open_key {
        std::string path, value;
        uint32_t children;
    };

    MDB_cursor *opened(cursor_guard *cursor);
    void note(std::string_view path, const row *before, const std::string_view *after);
    void leave(std::string_view path);
    bool open(std::string_view path);
    row_state seek(std::string_view path, row *found, bool *alone);
    // False if there was a sound row.
    bool put(std::string_view path, std::string_view value, const in_batch &known);
    void replace_row(std::string_view path, const row &found, std::string_view value);
    void create(std::string_view path, std::string_view value, const in_batch &known);
    void remove(std::string_view path);
    void note_removal(std::string_view key, std::string_view bytes);
    void see_damage();
    row_state state_of(std::string_view path, row *found);
    [[nodiscard]] bool remove_strays(std::string_view path);
    void add_children(std::string_view path, int32_t more);
    uint32_t count_children(std::string_view path);
    void put_row(std::string_view path, uint32_t children, std::string_view value,
                 MDB_cursor *cursor);
    void delete_row(std::string_view key);

    const environment &env_;
    MDB_txn *txn_;
    change_recorder *changes_;
    std::vector<open_key> open_;  // each one below the one before
    cursor_guard cursor_{nullptr, &mdb_cursor_close};
    cursor_guard above_{nullptr, &mdb_cursor_close};  // at the open keys, which lie on other pages
    std::string buffer_;                              // for the latest row
    change_counts counts_;
    bool damage_seen_ = false;  // then numbers of children are counted anew
};

}  // namespace keyview::host
