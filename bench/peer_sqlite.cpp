// The tree in a SQLite file.
#include "bench/peer_sqlite.h"

#include "bench/failure.h"
#include "bench/sqlite_select.h"

namespace keyview::bench {

static constexpr int OPEN_FLAGS =
    SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_PRIVATECACHE;

static void bind(sqlite3_stmt *statement, int at, const std::string &bytes) {
    sqlite3_bind_blob(statement, at, bytes.data(), static_cast<int>(bytes.size()), SQLITE_STATIC);
}

static void step_once(sqlite3_stmt *statement) {
    require(sqlite3_step(statement) == SQLITE_DONE, "sqlite3_step");
    sqlite3_reset(statement);
}

sqlite_peer::sqlite_peer(const std::string &file, const std::vector<peer_row> &rows) {
    require(sqlite3_open_v2(file.c_str(), &db_, OPEN_FLAGS, nullptr) == SQLITE_OK, "sqlite3_open");
    run("PRAGMA journal_mode = WAL");
    run("PRAGMA synchronous = FULL");
    run("PRAGMA mmap_size = 268435456");
    run("PRAGMA cache_size = -65536");
    run("CREATE TABLE tree (path BLOB PRIMARY KEY, value BLOB NOT NULL) WITHOUT ROWID");
    begin_ = prepare("BEGIN");
    commit_ = prepare("COMMIT");
    fill(rows);
    run("PRAGMA wal_checkpoint(TRUNCATE)");
    range_ = prepare(SELECT_RANGE);
    single_ = prepare("SELECT value FROM tree WHERE path = ?1");
    all_ = prepare("SELECT value FROM tree");
}

sqlite_peer::~sqlite_peer() {
    for (sqlite3_stmt *statement : {range_, single_, all_, begin_, commit_})
        sqlite3_finalize(statement);
    sqlite3_close(db_);
}

void sqlite_peer::run(const char *statement) {
    require(sqlite3_exec(db_, statement, nullptr, nullptr, nullptr) == SQLITE_OK, statement);
}

sqlite3_stmt *sqlite_peer::prepare(const char *statement) {
    sqlite3_stmt *prepared = nullptr;
    require(sqlite3_prepare_v3(db_, statement, -1, SQLITE_PREPARE_PERSISTENT, &prepared, nullptr) ==
                SQLITE_OK,
            statement);
    return prepared;
}

void sqlite_peer::fill(const std::vector<peer_row> &rows) {
    sqlite3_stmt *insert = prepare("INSERT INTO tree VALUES (?1, ?2)");
    step_once(begin_);
    for (const peer_row &row : rows) {
        bind(insert, 1, row.name);
        // An empty value is a blob of no bytes, not null.
        sqlite3_bind_blob(insert, 2, row.value.c_str(), static_cast<int>(row.value.size()),
                          SQLITE_STATIC);
        step_once(insert);
    }
    step_once(commit_);
    sqlite3_finalize(insert);
}

prsr_cfg *sqlite_peer::fetch(const std::string &prefix) {
    std::string behind = prefix;
    behind.back() = '\1';
    return select_record(range_, {prefix.data(), prefix.size()}, {behind.data(), behind.size()});
}

prsr_cfg *sqlite_peer::fetch_by_key(const std::vector<peer_row> &rows) {
    step_once(begin_);
    record_builder builder = start_record();
    for (const peer_row &row : rows) {
        bind(single_, 1, row.name);
        if (sqlite3_step(single_) == SQLITE_ROW) {
            take_row(&builder, {row.name.data(), row.name.size()}, column_view(single_, 0));
        }
        sqlite3_reset(single_);
    }
    step_once(commit_);
    return builder.cfg;
}

name_list sqlite_peer::list() {
    name_list found = {};
    while (sqlite3_step(all_) == SQLITE_ROW) {
        const bytes_view value = column_view(all_, 0);
        append(&found.names, &found.count, copy_bytes(value.data, value.size));
    }
    sqlite3_reset(all_);
    return found;
}

}  // namespace keyview::bench
