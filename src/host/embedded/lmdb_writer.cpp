// Changes of the tree within one write transaction.
#include "host/embedded/lmdb_writer.h"

#include <memory>
#include <string>
#include <vector>

#include "host/registry/path.h"

namespace keyview::host {

void lmdb_writer::carry_out(const change &one) {
    if (one.what == change::kind::remove) return remove(one.path);
    if (!replace(one.path, one.value)) create(one.path, one.value);
}

bool lmdb_writer::replace(std::string_view path, std::string_view value) {
    row found;
    if (!find_row(env_, txn_, path, &found)) return false;
    if (found.value == value) return true;
    put_row(path, found.children, value);
    ++counts_.replaced;
    return true;
}

// Makes the key, its missing parents first.
void lmdb_writer::create(std::string_view path, std::string_view value) {
    std::string_view parent = parent_path(path);
    row found;
    if (!parent.empty() && !find_row(env_, txn_, parent, &found)) create(parent, {});
    put_row(path, 0, value);
    add_children(parent, 1);
    ++counts_.created;
}

// Works on places, so that a damaged row can be removed.
void lmdb_writer::remove(std::string_view path) {
    if (path_fault(path) != nullptr || !exists(path)) return;
    std::vector<std::string> places = {std::string(place_of(path).view())};
    MDB_cursor *cursor = nullptr;
    env_.check(mdb_cursor_open(txn_, environment::KEYS, &cursor), "mdb_cursor_open");
    std::unique_ptr<MDB_cursor, decltype(&mdb_cursor_close)> guard(cursor, &mdb_cursor_close);
    for (const place_range &range : place_ranges(path, reach::all_below)) {
        for (row_scan rows(env_, cursor, range); rows.more() && rows.in_range(); rows.next()) {
            row found;
            bool cut = place_is_cut(rows.place());
            if (cut && !read_row(rows.place(), rows.bytes(), &found)) {
                throw damaged_row(rows.place());
            }
            if (cut && !below(found.path, path, reach::all_below)) continue;
            places.emplace_back(rows.place());
        }
    }
    for (const std::string &place : places)
        delete_place(place);
    add_children(parent_path(path), -1);
}

bool lmdb_writer::exists(std::string_view path) {
    place_of whole(path);
    std::string_view place = whole.view();
    row found;
    if (place_is_cut(place)) return find_row(env_, txn_, path, &found);
    MDB_val key = bytes_of(place);
    MDB_val data = {};
    int rc = mdb_get(txn_, environment::KEYS, &key, &data);
    if (rc != MDB_NOTFOUND) env_.check(rc, "mdb_get");
    return rc == MDB_SUCCESS;
}

void lmdb_writer::add_children(std::string_view path, int32_t more) {
    row found;
    if (path.empty() || !find_row(env_, txn_, path, &found)) return;
    put_row(path, found.children + static_cast<uint32_t>(more), found.value);
}

void lmdb_writer::put_row(std::string_view path, uint32_t children, std::string_view value) {
    place_of whole(path);
    std::string_view place = whole.view();
    std::string bytes = write_row(place, path, children, value);
    MDB_val key = bytes_of(place);
    MDB_val data = bytes_of(bytes);
    env_.check(mdb_put(txn_, environment::KEYS, &key, &data, 0), "mdb_put");
}

void lmdb_writer::delete_place(std::string_view place) {
    MDB_val key = bytes_of(place);
    env_.check(mdb_del(txn_, environment::KEYS, &key, nullptr), "mdb_del");
    ++counts_.removed;
}

}  // namespace keyview::host
