// The private copy of a part of the tree.
#include "host/registry/snapshot.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "host/support/error.h"

namespace keyview::host {

static constexpr size_t FIRST_CAPACITY = 4096;
static constexpr size_t LARGE_CAPACITY = size_t{256} << 10;
static constexpr size_t KEYS_OF_A_RECORD = 1024;
static constexpr size_t BYTES_OF_A_RECORD = size_t{64} << 10;

void byte_block::grow(size_t more) {
    size_t factor = capacity_ < LARGE_CAPACITY ? 4 : 2;
    reserve(std::max({FIRST_CAPACITY, capacity_ * factor, size_ + more}));
}

void byte_block::reserve(size_t capacity) {
    std::unique_ptr<char[]> larger(new char[capacity + READABLE]);
    if (size_ > 0) memcpy(larger.get(), bytes_.get(), size_);
    bytes_ = std::move(larger);
    capacity_ = capacity;
}

snapshot::snapshot(std::string_view top, reach depth) : depth_(depth), top_(top) {
    if (depth != reach::all_below) return;
    keys_.reserve(KEYS_OF_A_RECORD);
    bytes_.reserve(BYTES_OF_A_RECORD);
}

static char *put(char *to, std::string_view text) {
    memcpy(to, text.data(), text.size());
    return to + text.size();
}

char *snapshot::room(size_t more) {
    if (more > std::numeric_limits<uint32_t>::max() - bytes_.size()) {
        throw host_error(failure::content, top_ + " has more than 4 GiB below it");
    }
    return bytes_.add(more);
}

// ---- Filling ------------------------------------------------------------------------------------

void snapshot::add_top(std::string_view value, uint32_t children) {
    // Longer values than before have left bytes that nothing uses.
    if (bytes_.size() > 2 * used()) clear();
    filled_ = 0;
    list_of_ = NONE;
    to_come_.assign(1, {TOP, TOP + 1, {}});
    if (keys_.empty() || !same_row(top_, value, children)) put_row(top_, value, children);
}

bool snapshot::add(std::string_view name, std::string_view value, uint32_t children) {
    if (filled_ < size() && same_row(name, value, children)) return true;
    if (keys_[list_of_].first < filled_ && this->name(filled_ - 1) >= name) return false;
    put_row(name, value, children);
    return true;
}

bool snapshot::same_row(std::string_view name, std::string_view value, uint32_t children) {
    const row &known = keys_[filled_];
    if (known.parent != list_of_ || known.count != children || this->name(filled_) != name) {
        end_rows(filled_);
        return false;
    }
    if (this->value(filled_) != value) set_value(filled_, value);
    ++filled_;
    return true;
}

void snapshot::end_rows(uint32_t count) {
    ++shape_;
    keys_.resize(count);
    latest_ = TOP;
}

void snapshot::clear() {
    end_rows(0);
    bytes_.clear();
}

size_t snapshot::used() const {
    size_t sum = 0;
    for (const row &key : keys_)
        sum += size_t{key.path_size} + 1 + key.value_size;
    return sum;
}

// The row's path is the path of the list's key, if any, and the name; a zero byte follows it.
void snapshot::put_row(std::string_view name, std::string_view value, uint32_t children) {
    size_t name_at = list_of_ == NONE ? 0 : keys_[list_of_].path_size + size_t{1};
    size_t path_size = name_at + name.size();
    auto at = static_cast<uint32_t>(bytes_.size());
    char *to = room(path_size + 1 + value.size());
    if (name_at > 0) *put(to, path(list_of_)) = '.';
    to = put(to + name_at, name);
    *to = '\0';
    put(to + 1, value);
    keys_.push_back({at, static_cast<uint16_t>(path_size), static_cast<uint16_t>(name_at),
                     at + static_cast<uint32_t>(path_size) + 1, static_cast<uint32_t>(value.size()),
                     list_of_, 0, children});
    ++filled_;
}

// Ends a list and returns the key whose list must follow; NONE if there is none, or if the list
// that ends is not complete.
uint32_t snapshot::next_key() {
    if (list_of_ != NONE) {
        const row &parent = keys_[list_of_];
        if (parent.first + parent.count != filled_) return NONE;
        if (depth_ == reach::all_below) to_come_.push_back({parent.first, filled_, list_});
        list_of_ = NONE;
    }
    for (; !to_come_.empty(); to_come_.pop_back()) {
        open_range &keys = to_come_.back();
        while (keys.next < keys.end && keys_[keys.next].count == 0)
            ++keys.next;
        if (keys.next < keys.end) return keys.next++;
    }
    return NONE;
}

bool snapshot::begin_list(std::string_view key, char separator) {
    uint32_t parent = next_key();
    if (parent == NONE) return false;
    std::string_view above = to_come_.back().list;
    std::string_view name = this->name(parent);
    bool follows = key.size() == above.size() + 1 + name.size() && key[above.size()] == separator &&
                   std::string_view(key.data(), above.size()) == above &&
                   std::string_view(key.data() + above.size() + 1, name.size()) == name;
    // The list of the top may be filled without its path as key.
    if (parent != TOP && !follows) return false;
    list_of_ = parent;
    list_ = key;
    keys_[parent].first = filled_;
    return true;
}

// ---- Reading ------------------------------------------------------------------------------------

// Up from the latest key to an ancestor of the path, and down from there, element by element.
uint32_t snapshot::find(std::string_view path) {
    if (keys_.empty()) return NONE;
    uint32_t key = latest_;
    const size_t alike = common_head(path, this->path(key));
    auto is_above = [&](size_t end) {
        return end <= alike && (end == path.size() || path[end] == '.');
    };
    while (key != TOP && !is_above(keys_[key].path_size))
        key = keys_[key].parent;
    for (size_t end = keys_[key].path_size; end < path.size();) {
        size_t start = end + 1;
        end = std::min(path.find('.', start), path.size());
        key = child(key, path.substr(start, end - start));
        if (key == NONE) return NONE;
    }
    return found(key);
}

uint32_t snapshot::child(uint32_t parent, std::string_view name) const {
    uint32_t low = keys_[parent].first;
    uint32_t high = low == 0 ? 0 : low + keys_[parent].count;
    while (low < high) {
        uint32_t middle = low + (high - low) / 2;
        int order = this->name(middle).compare(name);
        if (order == 0) return middle;
        if (order < 0) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return NONE;
}

void snapshot::set_value(uint32_t key, std::string_view value) {
    if (value.size() <= keys_[key].value_size) {
        put(bytes_.at(keys_[key].value_at), value);
        keys_[key].value_size = static_cast<uint32_t>(value.size());
        return;
    }
    auto at = static_cast<uint32_t>(bytes_.size());
    put(room(value.size()), value);  // may throw; the row then keeps its value
    keys_[key].value_at = at;
    keys_[key].value_size = static_cast<uint32_t>(value.size());
}

}  // namespace keyview::host
