// The names of locks: a head and the path of the part of the tree that the lock covers.
#pragma once

#include <string>
#include <string_view>

#include "model/path.h"
#include "model/roots.h"

namespace model {

// "LKRT.DATABASE.DATABASES.<db>" covers a database, "LKRT.DATABASE.NODEAPPS.<node>" the
// applications of a node. "LKRT.DATABASE.DATABASES" covers the listing: the root and its children,
// no deeper.
inline constexpr char LOCK_HEAD[] = "LKRT.";

// "LKRT.STG.DATABASE.STG.<scope>.<name>" covers a storage manager entry.
inline constexpr char STG_LOCK_HEAD[] = "LKRT.STG.";

// In a cluster this one takes the place of all: it is granted once no earlier lock is held or awaited,
// and every later one waits for it.
inline constexpr char ALL_LOCKS[] = "*";

// The part of the tree that a lock protects.
struct lock_cover {
    std::string_view path;  // a part of the lock's name, "" if it covers nothing
    reach depth = reach::all_below;
};

constexpr lock_cover cover_of(std::string_view lock_name) noexcept {
    constexpr std::string_view HEAD = LOCK_HEAD, STG_HEAD = STG_LOCK_HEAD;
    if (lock_name.substr(0, HEAD.size()) != HEAD) return {};
    bool stg = lock_name.substr(0, STG_HEAD.size()) == STG_HEAD;
    std::string_view path = lock_name.substr(stg ? STG_HEAD.size() : HEAD.size());
    if (path_fault(path) != nullptr) return {};
    return {path, !stg && path == DB_ROOT ? reach::children : reach::all_below};
}

// The key whose lock covers a key that is changed: its database, entry or node; above those, the key
// itself.
constexpr std::string_view locked_key_of(std::string_view path) noexcept {
    bool stg = path_within(path, STG_ROOT);
    bool record = stg || path_within(path, DB_ROOT) || path_within(path, NODEAPPS_ROOT);
    return record ? first_elements(path, stg ? 4 : 3) : path;
}

// Whether it is a storage manager entry.
constexpr bool is_locked_entry(std::string_view locked_key) noexcept {
    return path_within(locked_key, STG_ROOT) && locked_key != first_elements(locked_key, 3);
}

// Whether it is a database, an entry or a node: a record with a lock of its own.
constexpr bool is_locked_record(std::string_view locked_key) noexcept {
    auto below = [&](std::string_view root) {
        return path_within(locked_key, root) && locked_key != root;
    };
    return is_locked_entry(locked_key) || below(DB_ROOT) || below(NODEAPPS_ROOT);
}

// The lock under which a key is changed.
inline std::string lock_of(std::string_view path) {
    const std::string_view key = locked_key_of(path);
    const std::string_view head = is_locked_entry(key) ? STG_LOCK_HEAD : LOCK_HEAD;
    std::string name;
    name.reserve(head.size() + key.size());
    return name.append(head).append(key);
}

// In the text about the holder of a lock, before the time from which it holds it.
inline constexpr std::string_view SINCE = ", since ";

// Such a text in its two parts; the time is "" if it is not known.
struct lock_holder {
    std::string_view process, since;
};

constexpr lock_holder holder_in_parts(std::string_view text) noexcept {
    size_t at = text.rfind(SINCE);
    if (at == text.npos) return {text, {}};
    return {text.substr(0, at), text.substr(at + SINCE.size())};
}

// What a command that runs under locks, held by the process that started it, knows of them: a line
// for each, made of the process, the registry's URL and the name, with tabs between.
inline constexpr char LOCKS_ABOVE[] = "KEYVIEW_LOCKS_ABOVE";

// The line of a lock in such a text; "" if there is none.
constexpr std::string_view line_of_lock(std::string_view lines, std::string_view name) noexcept {
    while (!lines.empty()) {
        std::string_view line = lines.substr(0, lines.find('\n'));
        if (line.substr(line.rfind('\t') + 1) == name) return line;
        lines.remove_prefix(line.size() < lines.size() ? line.size() + 1 : line.size());
    }
    return {};
}

}  // namespace model
