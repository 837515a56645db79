// Rules for key paths and lock names.
#include "host/registry/path.h"

#include "model/locks.h"
#include "model/roots.h"

namespace keyview::host {

static constexpr std::string_view LOCK_HEAD = model::LOCK_HEAD;
static constexpr std::string_view STG_LOCK_HEAD = model::STG_LOCK_HEAD;

static bool starts_with(std::string_view text, std::string_view head) {
    return text.substr(0, head.size()) == head;
}

const char *path_fault(std::string_view path) noexcept {
    if (path.empty()) return "the path is empty";
    if (path.size() > MAX_PATH_LENGTH) return "the path is longer than 2047 bytes";
    char before = '.';
    for (char c : path) {
        auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F) return "the path holds a control character";
        if (c == '.' && before == '.') return "an element of the path is empty";
        before = c;
    }
    return before == '.' ? "an element of the path is empty" : nullptr;
}

bool path_within(std::string_view path, std::string_view top, reach depth) noexcept {
    if (!starts_with(path, top)) return false;
    if (path.size() == top.size()) return true;
    if (path[top.size()] != '.' || depth == reach::key_alone) return false;
    return depth == reach::all_below || path.find('.', top.size() + 1) == path.npos;
}

std::string_view parent_path(std::string_view path) noexcept {
    size_t end = path.rfind('.');
    return end == path.npos ? std::string_view() : path.substr(0, end);
}

lock_cover cover_of(std::string_view lock_name) {
    if (!starts_with(lock_name, LOCK_HEAD)) return {};
    bool stg = starts_with(lock_name, STG_LOCK_HEAD);
    std::string_view path = lock_name.substr(stg ? STG_LOCK_HEAD.size() : LOCK_HEAD.size());
    if (path_fault(path) != nullptr) return {};
    return {path, !stg && path == model::DB_ROOT ? reach::children : reach::all_below};
}

}  // namespace keyview::host
