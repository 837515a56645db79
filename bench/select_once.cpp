// select_once FILE DATABASE: a program that only selects a record from a SQLite file.
#include "bench/sqlite_select.h"

using namespace keyview::bench;

int main(int argc, char **argv) {
    if (argc != 3) return 2;
    sqlite3 *db = nullptr;
    sqlite3_stmt *select = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX;
    if (sqlite3_open_v2(argv[1], &db, flags, nullptr) != SQLITE_OK) return 3;
    if (sqlite3_prepare_v2(db, SELECT_RANGE, -1, &select, nullptr) != SQLITE_OK) return 3;
    char bounds[2][64];
    const size_t size = strlen(argv[2]) + 1;
    if (size > sizeof bounds[0]) return 2;
    for (char *bound : bounds)
        memcpy(bound, argv[2], size);
    bounds[1][size - 1] = '\1';
    prsr_cfg *cfg = select_record(select, {bounds[0], size}, {bounds[1], size});
    const bool found = cfg->sp_name != nullptr && cfg->service_count != 0;
    free_record(cfg);
    sqlite3_finalize(select);
    sqlite3_close(db);
    return found ? 0 : 1;
}
