// A database's record by one range select over a SQLite table: the statement is prepared once. In
// the header and without the C++ library, for the program that does nothing else (select_once.cpp).
#pragma once

#include <sqlite3.h>

#include "bench/record_builder.h"

namespace keyview::bench {

constexpr char SELECT_RANGE[] = "SELECT path, value FROM tree WHERE path >= ?1 AND path < ?2";

inline bytes_view column_view(sqlite3_stmt *select, int column) {
    const void *data = sqlite3_column_blob(select, column);
    return {static_cast<const char *>(data),
            static_cast<size_t>(sqlite3_column_bytes(select, column))};
}

// prefix ends with a zero byte; behind is the same with a one there.
inline prsr_cfg *select_record(sqlite3_stmt *select, const bytes_view &prefix,
                               const bytes_view &behind) {
    sqlite3_bind_blob(select, 1, prefix.data, static_cast<int>(prefix.size), SQLITE_STATIC);
    sqlite3_bind_blob(select, 2, behind.data, static_cast<int>(behind.size), SQLITE_STATIC);
    record_builder builder = start_record();
    while (sqlite3_step(select) == SQLITE_ROW)
        take_row(&builder, column_view(select, 0), column_view(select, 1));
    sqlite3_reset(select);
    return builder.cfg;
}

}  // namespace keyview::bench
