// The engine used directly.
#include "bench/peer_lmdb.h"

#include <sys/stat.h>

#include "bench/failure.h"
#include "bench/record_builder.h"

namespace keyview::bench {

static constexpr size_t MAP_SIZE = size_t{256} << 20;

static void check(int rc, const char *call) {
    if (rc != MDB_SUCCESS) throw std::runtime_error(std::string(call) + ": " + mdb_strerror(rc));
}

static MDB_val value_of(const std::string &text) {
    return {text.size(), const_cast<char *>(text.data())};
}

static bytes_view view_of(const MDB_val &value) {
    return {static_cast<const char *>(value.mv_data), value.mv_size};
}

void lmdb_peer::open(const std::string &directory) {
    check(mdb_env_create(&env_), "mdb_env_create");
    check(mdb_env_set_mapsize(env_, MAP_SIZE), "mdb_env_set_mapsize");
    check(mdb_env_open(env_, directory.c_str(), MDB_NOTLS, 0600), "mdb_env_open");
}

lmdb_peer::lmdb_peer(const std::string &directory) {
    open(directory);
    MDB_txn *opening = nullptr;
    check(mdb_txn_begin(env_, nullptr, MDB_RDONLY, &opening), "mdb_txn_begin");
    check(mdb_dbi_open(opening, nullptr, 0, &dbi_), "mdb_dbi_open");
    check(mdb_txn_commit(opening), "mdb_txn_commit");
    open_reader();
}

lmdb_peer::lmdb_peer(const std::string &directory, const std::vector<peer_row> &rows) {
    require_call(mkdir(directory.c_str(), 0700) == 0, "mkdir");
    open(directory);
    MDB_txn *filling = nullptr;
    check(mdb_txn_begin(env_, nullptr, 0, &filling), "mdb_txn_begin");
    check(mdb_dbi_open(filling, nullptr, 0, &dbi_), "mdb_dbi_open");
    for (const peer_row &row : rows) {
        MDB_val name = value_of(row.name);
        MDB_val value = value_of(row.value);
        check(mdb_put(filling, dbi_, &name, &value, MDB_APPEND), "mdb_put");
    }
    check(mdb_txn_commit(filling), "mdb_txn_commit");
    open_reader();
}

lmdb_peer::~lmdb_peer() {
    mdb_cursor_close(cursor_);
    mdb_txn_abort(txn_);
    mdb_env_close(env_);
}

void lmdb_peer::open_reader() {
    check(mdb_txn_begin(env_, nullptr, MDB_RDONLY, &txn_), "mdb_txn_begin");
    check(mdb_cursor_open(txn_, dbi_, &cursor_), "mdb_cursor_open");
    mdb_txn_reset(txn_);
}

void lmdb_peer::begin() {
    check(mdb_txn_renew(txn_), "mdb_txn_renew");
    check(mdb_cursor_renew(txn_, cursor_), "mdb_cursor_renew");
}

peer_row lmdb_peer::row(const std::string &name) {
    begin();
    MDB_val key = value_of(name);
    MDB_val value = {};
    check(mdb_get(txn_, dbi_, &key, &value), "mdb_get");
    peer_row found = {name, {static_cast<const char *>(value.mv_data), value.mv_size}};
    mdb_txn_reset(txn_);
    return found;
}

peer_row lmdb_peer::last_row() {
    begin();
    MDB_val key = {}, value = {};
    check(mdb_cursor_get(cursor_, &key, &value, MDB_LAST), "mdb_cursor_get");
    std::string name(static_cast<const char *>(key.mv_data), key.mv_size);
    mdb_txn_reset(txn_);
    return row(name);
}

void lmdb_peer::commit(const std::vector<peer_row> &rows) {
    MDB_txn *writing = nullptr;
    check(mdb_txn_begin(env_, nullptr, 0, &writing), "mdb_txn_begin");
    for (const peer_row &row : rows) {
        MDB_val name = value_of(row.name);
        MDB_val value = value_of(row.value);
        check(mdb_put(writing, dbi_, &name, &value, 0), "mdb_put");
    }
    check(mdb_txn_commit(writing), "mdb_txn_commit");
}

prsr_cfg *lmdb_peer::fetch(const std::string &prefix) {
    begin();
    record_builder builder = start_record();
    MDB_val name = value_of(prefix);
    MDB_val value = {};
    int rc = mdb_cursor_get(cursor_, &name, &value, MDB_SET_RANGE);
    while (rc == MDB_SUCCESS && name.mv_size > prefix.size() &&
           memcmp(name.mv_data, prefix.data(), prefix.size()) == 0) {
        take_row(&builder, view_of(name), view_of(value));
        rc = mdb_cursor_get(cursor_, &name, &value, MDB_NEXT);
    }
    mdb_txn_reset(txn_);
    return builder.cfg;
}

prsr_cfg *lmdb_peer::fetch_by_key(const std::vector<peer_row> &rows) {
    begin();
    record_builder builder = start_record();
    for (const peer_row &row : rows) {
        MDB_val name = value_of(row.name);
        MDB_val value = {};
        if (mdb_get(txn_, dbi_, &name, &value) == MDB_SUCCESS) {
            take_row(&builder, view_of(name), view_of(value));
        }
    }
    mdb_txn_reset(txn_);
    return builder.cfg;
}

name_list lmdb_peer::list() {
    begin();
    MDB_stat stat = {};
    (void)mdb_stat(txn_, dbi_, &stat);  // cannot fail on a live transaction
    name_list found = {static_cast<char **>(malloc(stat.ms_entries * sizeof(char *))), 0};
    MDB_val name = {};
    MDB_val value = {};
    int rc = mdb_cursor_get(cursor_, &name, &value, MDB_FIRST);
    for (; rc == MDB_SUCCESS; rc = mdb_cursor_get(cursor_, &name, &value, MDB_NEXT))
        found.names[found.count++] = copy_bytes(view_of(value).data, value.mv_size);
    mdb_txn_reset(txn_);
    return found;
}

}  // namespace keyview::bench
