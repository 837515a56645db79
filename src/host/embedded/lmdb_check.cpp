// The check of rows against each other.
#include "host/embedded/lmdb_check.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "host/embedded/pages/page_walk.h"
#include "host/embedded/row.h"
#include "model/path.h"
#include "model/roots.h"

namespace keyview::host {

namespace {

// What is known of one key.
struct audited {
    bool stored = false;  // it has a row
    bool sound = false;   // and that can be read
    uint32_t stated = 0;  // the number of children in it
    uint32_t found = 0;   // the number of children that have rows
};

// Children by their parents. Rows may come in any order.
class row_audit {
  public:
    row_audit(const damage_sink &damage, const row_sink &sink) : damage_(damage), sink_(sink) {}

    void add(std::string_view key, std::string_view bytes) {
        row found = {};
        bool sound = read_row(key, bytes, &found);
        std::string path = path_of_row(key, bytes);
        if (!sound) {
            damage_(path, "has stored bytes that are not those that were written");
        } else if (path_fault(path) != nullptr || row_key(path).view() != key) {
            return damage_(path, "has the LMDB key of another path");
        }
        if (!sound && path_fault(path) != nullptr && key_is_hashed(key) &&
            !row_is_misplaced(key, bytes)) {
            nameless_.emplace(key);
            return;
        }
        audited &known = keys_[path];
        known.stored = true;
        known.sound = sound;
        known.stated = found.children;
        std::string_view parent = parent_path(path);
        if (!parent.empty()) ++keys_[std::string(parent)].found;
        if (sound && !is_history(key)) sink_(path, found.value);
    }

    // Names what is missing.
    void compare(const damage_sink &damage) {
        for (const auto &[path, known] : keys_) {
            if (!known.stored && nameless_.count(std::string(row_key(path).view())) == 0) {
                damage(path, "is missing, though there are keys below it");
            } else if (known.sound && known.stated != known.found &&
                       known.stated - known.found > nameless_below(path)) {
                damage(path, "has " + std::to_string(known.found) + " keys below it and had " +
                                 std::to_string(known.stated));
            }
        }
    }

  private:
    // How many rows without a path may be those of children of a key.
    uint32_t nameless_below(const std::string &path) const {
        uint32_t count = 0;
        for (const std::string &key : nameless_) {
            std::string head = path_of_row(key, {});
            size_t common = std::min(path.size(), head.size() - strlen("..."));
            if (head.compare(0, common, path, 0, common) == 0) ++count;
        }
        return count;
    }

    damage_sink damage_;
    row_sink sink_;
    std::map<std::string, audited> keys_;
    std::set<std::string> nameless_;  // LMDB keys; a search for the true path still ends there
};

}  // namespace

// ---- On opening ---------------------------------------------------------------------------------

void require_all_found(int fd, const meta &state, const damage_sink &damage) {
    bool all_sound = true;
    walk_pages(fd, state, damage, [&](std::string_view key, std::string_view bytes) {
        row found;
        all_sound = all_sound && read_row(key, bytes, &found);
    });
    if (all_sound) return;
    // A damaged row may be one whose key was damaged: then its true key cannot be found.
    row_audit audit([](auto &, auto &) {}, [](auto, auto) {});
    walk_pages(fd, state, damage,
               [&](std::string_view key, std::string_view bytes) { audit.add(key, bytes); });
    audit.compare(damage);
}

// ---- In full ------------------------------------------------------------------------------------

check_counts check_data_file(int fd, const damage_sink &damage, const row_sink &sink) {
    check_counts counts;
    std::string foreign = foreign_format(fd);
    if (!foreign.empty()) {
        damage("data.mdb", "was not inspected: " + foreign);
        return counts;
    }
    file_head head;
    if (!read_head(fd, &head, damage)) return counts;
    row_audit audit(damage, sink);
    walk_pages(fd, head.newest(), damage, [&](std::string_view key, std::string_view bytes) {
        if (!is_history(key)) ++counts.keys;
        audit.add(key, bytes);
    });
    audit.compare(damage);
    counts.pages = head.newest().last_page + 1;
    return counts;
}

}  // namespace keyview::host
