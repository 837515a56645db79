// The check of rows against each other.
#include "host/embedded/lmdb_check.h"

#include <map>
#include <string>
#include <string_view>

#include "host/embedded/page_walk.h"
#include "host/embedded/row.h"
#include "host/registry/path.h"

namespace keyview::host {

namespace {

// What is known of one key.
struct audited {
    bool there = false;  // it has a row
    bool sound = false;  // and that can be read
    uint32_t told = 0;   // the number of children in it
    uint32_t found = 0;  // the number of children that have rows
};

// Children by their parents. Rows may come in any order.
class row_audit {
  public:
    row_audit(const damage_sink &damage, const row_sink &sink) : damage_(damage), sink_(sink) {}

    void add(std::string_view place, std::string_view bytes) {
        row found = {};
        bool sound = read_row(place, bytes, &found);
        std::string path(found.path);
        if (!place_is_cut(place)) {
            path.clear();
            append_path(&path, place);
        } else if (!sound) {
            append_path(&path, place.substr(0, place.find('\x02')));
            path += "...";
        }
        if (!sound) {
            damage_(path, "has stored bytes that are not those that were written");
        } else if (path_fault(path) != nullptr || place_of(path).view() != place) {
            return damage_(path, "stands at a place that is not its own");
        }
        audited &key = keys_[path];
        key.there = true;
        key.sound = sound;
        key.told = found.children;
        std::string_view parent = parent_path(path);
        if (!parent.empty()) ++keys_[std::string(parent)].found;
        if (sound) sink_(path, found.value);
    }

    // Names what is missing.
    void compare(const damage_sink &damage) {
        for (const auto &[path, key] : keys_) {
            if (!key.there) {
                damage(path, "is missing, though there are keys below it");
            } else if (key.sound && key.told != key.found) {
                damage(path, "has " + std::to_string(key.found) + " keys below it and had " +
                                 std::to_string(key.told));
            }
        }
    }

  private:
    damage_sink damage_;
    row_sink sink_;
    std::map<std::string, audited> keys_;
};

}  // namespace

// ---- For those who open it ----------------------------------------------------------------------

void require_all_found(int fd, const meta &state, const damage_sink &damage) {
    bool all_sound = true;
    page_walk(fd, state, damage).run([&](std::string_view place, std::string_view bytes) {
        row found;
        all_sound = all_sound && read_row(place, bytes, &found);
    });
    if (all_sound) return;
    // A damaged row may be one whose key was damaged: then its true key cannot be found.
    row_audit audit([](auto &, auto &) {}, [](auto, auto) {});
    page_walk(fd, state, damage).run([&](std::string_view place, std::string_view bytes) {
        audit.add(place, bytes);
    });
    audit.compare(damage);
}

// ---- In full ------------------------------------------------------------------------------------

check_counts check_data_file(int fd, const damage_sink &damage, const row_sink &sink) {
    check_counts counts;
    data_head head;
    if (!read_head(fd, &head, damage)) return counts;
    row_audit audit(damage, sink);
    page_walk walk(fd, head.newest(), damage);
    walk.run([&](std::string_view place, std::string_view bytes) {
        ++counts.keys;
        audit.add(place, bytes);
    });
    audit.compare(damage);
    counts.pages = walk.pages();
    return counts;
}

}  // namespace keyview::host
