// The private copy that the holder of a lock reads.
#include "host/registry/snapshot.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "host/support/error.h"

namespace keyview::host {

static constexpr char INNER = '\x01';
static constexpr char LAST = '\x00';

// The place of a path below the top, in a buffer that any path fits into.
class place_text {
  public:
    place_text(std::string_view path, std::string_view top) : size_(path.size() - top.size()) {
        memcpy(text_, path.data() + top.size(), size_);
        char *last = nullptr;
        for (size_t i = 0; i < size_; ++i) {
            if (text_[i] != '.') continue;
            text_[i] = INNER;
            last = text_ + i;
        }
        if (last != nullptr) *last = LAST;
    }

    std::string_view view() const { return {text_, size_}; }

  private:
    size_t size_;
    char text_[MAX_PATH_LENGTH];
};

snapshot::snapshot(store *keys, const lock_cover &cover) : cover_(cover) {
    load(keys);
    auto before = [this](const entry &a, const entry &b) {
        return bytes(a.place) < bytes(b.place);
    };
    if (!std::is_sorted(keys_.begin(), keys_.end(), before)) {
        std::sort(keys_.begin(), keys_.end(), before);
    }
}

void snapshot::load(store *keys) {
    auto take = [this](std::string_view path, std::string_view value) { add(path, value); };
    if (!cover_.children_only) {
        (void)keys->read_subtree(cover_.path, take);  // a missing key leaves the snapshot empty
        return;
    }
    std::string top;
    if (!keys->read(cover_.path, &top)) return;
    add(cover_.path, top);
    bool there = keys->read_children(
        cover_.path, [](uint32_t) {}, take);
    if (!there) keys_.clear();
}

void snapshot::add(std::string_view path, std::string_view value) {
    place_text place(path, cover_.path);
    span kept = keep(place.view());
    keys_.push_back({kept, keep(value)});
}

snapshot::span snapshot::keep(std::string_view text) {
    if (text.size() > std::numeric_limits<uint32_t>::max() - bytes_.size()) {
        throw host_error(failure::content, cover_.path + " has more than 4 GiB below it");
    }
    span kept = {static_cast<uint32_t>(bytes_.size()), static_cast<uint32_t>(text.size())};
    bytes_ += text;
    return kept;
}

bool snapshot::tells(std::string_view path) const {
    if (!path_within(path, cover_.path)) return false;
    if (!cover_.children_only || path.size() == cover_.path.size()) return true;
    return path.find('.', cover_.path.size() + 1) == path.npos;
}

uint32_t snapshot::first_from(std::string_view place) const {
    auto found = std::lower_bound(
        keys_.begin(), keys_.end(), place,
        [this](const entry &key, std::string_view text) { return bytes(key.place) < text; });
    return static_cast<uint32_t>(found - keys_.begin());
}

uint32_t snapshot::find(std::string_view path) {
    place_text place(path, cover_.path);
    uint32_t key = next_;
    if (key >= keys_.size() || bytes(keys_[key].place) != place.view()) {
        key = first_from(place.view());
        if (key == keys_.size() || bytes(keys_[key].place) != place.view()) return NONE;
    }
    next_ = key + 1;
    return key;
}

std::string snapshot::path(uint32_t key) const {
    std::string path = cover_.path;
    for (char c : bytes(keys_[key].place))
        path += c == INNER || c == LAST ? '.' : c;
    return path;
}

snapshot::range snapshot::children(uint32_t key) const {
    std::string from(bytes(keys_[key].place));
    size_t last = from.rfind(LAST);
    if (last != from.npos) from[last] = INNER;
    std::string behind = from;
    from += LAST;
    behind += INNER;
    uint32_t first = first_from(from);
    return {first, first_from(behind) - first};
}

std::string_view snapshot::name(uint32_t key) const {
    std::string_view place = bytes(keys_[key].place);
    return place.substr(place.rfind(LAST) + 1);  // only called for children, which have one
}

}  // namespace keyview::host
