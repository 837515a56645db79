// Row keys and rows of the embedded registry.
#define XXH_INLINE_ALL
#include <xxhash.h>

#include "host/embedded/row.h"

#include <algorithm>
#include <cstring>

#include "host/embedded/pages/page_format.h"

namespace keyview::host {

static constexpr size_t HASHED_HEAD = LONGEST_KEY - 1 - sizeof(XXH128_canonical_t);
static constexpr char INNER = '\x01';
static constexpr char LAST = '\x00';
static constexpr char HASHED = '\x02';
static constexpr uint8_t FORMAT = 1;

struct row_head {
    uint8_t format;
    uint8_t zero;
    uint16_t path_length;
    uint32_t children;
};
static_assert(sizeof(row_head) == 8, "rows are read by other builds, too");

using checksum = XXH64_hash_t;

static size_t whole_key(std::string_view path, char *out) {
    std::copy(path.begin(), path.end(), out);
    char *last = nullptr, *from = out, *end = out + path.size();
    while (void *dot = memchr(from, '.', static_cast<size_t>(end - from))) {
        last = static_cast<char *>(dot);
        *last = INNER;
        from = last + 1;
    }
    if (last != nullptr) *last = LAST;
    return path.size();
}

row_key::row_key(std::string_view path) : size_(whole_key(path, text_)) {
    if (size_ <= LONGEST_KEY) return;
    XXH128_canonical_t hash;
    XXH128_canonicalFromHash(&hash, XXH3_128bits(text_, size_));
    text_[HASHED_HEAD] = HASHED;
    memcpy(text_ + HASHED_HEAD + 1, hash.digest, sizeof(hash.digest));
    size_ = LONGEST_KEY;
}

bool key_is_hashed(std::string_view key) noexcept {
    return key.size() == LONGEST_KEY && key[HASHED_HEAD] == HASHED;
}

bool path_before(std::string_view a, std::string_view b) {
    char place_a[MAX_PATH_LENGTH];
    char place_b[MAX_PATH_LENGTH];
    return std::string_view(place_a, whole_key(a, place_a)) <
           std::string_view(place_b, whole_key(b, place_b));
}

static size_t last_dot(std::string_view path) noexcept {
    const void *dot = memrchr(path.data(), '.', path.size());
    return dot == nullptr ? path.npos
                          : static_cast<size_t>(static_cast<const char *>(dot) - path.data());
}

bool row_before(std::string_view a, std::string_view b) noexcept {
    const size_t last_a = last_dot(a), last_b = last_dot(b);
    const size_t at = common_head(a, b);
    const size_t last = std::min(last_a, last_b);
    if (last_a != last_b && last < at) return last_a == last;
    if (at == std::min(a.size(), b.size())) return a.size() < b.size();
    auto byte = [at](std::string_view path, size_t end) {
        if (path[at] == '.') return at == end ? LAST : INNER;
        return path[at];
    };
    return static_cast<unsigned char>(byte(a, last_a)) <
           static_cast<unsigned char>(byte(b, last_b));
}

std::vector<key_range> key_ranges(std::string_view path, reach which) {
    std::string above(path);
    std::replace(above.begin(), above.end(), '.', INNER);
    char behind = which == reach::children ? INNER : HASHED;

    std::vector<key_range> ranges;
    if (above.size() + 1 < LONGEST_KEY) ranges.push_back({above + LAST, above + behind});
    if (above.size() + 1 > HASHED_HEAD) {
        ranges.push_back(hashed_range(above));
    }
    return ranges;
}

key_range hashed_range(std::string_view key) {
    std::string head(key.substr(0, HASHED_HEAD));
    return {head + HASHED, head + static_cast<char>(HASHED + 1)};
}

// covered is the row without its checksum.
static checksum checksum_of(std::string_view key, std::string_view covered) noexcept {
    static constexpr checksum SPREAD = 0x9E3779B97F4A7C15;
    checksum sum = 0;
    if (key.data() + key.size() == covered.data()) {
        sum = XXH3_64bits(key.data(), key.size() + covered.size());
    } else {
        XXH3_state_t state;
        XXH3_64bits_reset(&state);
        XXH3_64bits_update(&state, key.data(), key.size());
        XXH3_64bits_update(&state, covered.data(), covered.size());
        sum = XXH3_64bits_digest(&state);
    }
    return sum ^ key.size() * SPREAD;
}

bool read_row(std::string_view key, std::string_view bytes, row *out) noexcept {
    row_head head;
    checksum sum = 0;
    if (bytes.size() < sizeof(head) + sizeof(sum)) return false;
    const size_t covered = bytes.size() - sizeof(sum), room = covered - sizeof(head);
    memcpy(&head, bytes.data(), sizeof(head));
    memcpy(&sum, bytes.data() + covered, sizeof(sum));
    if (sum != checksum_of(key, {bytes.data(), covered}) || head.format != FORMAT) return false;
    if (head.path_length > std::min(room, MAX_PATH_LENGTH)) return false;
    out->path = {bytes.data() + sizeof(head), head.path_length};
    out->children = head.children;
    out->value = {out->path.data() + out->path.size(), room - out->path.size()};
    return true;
}

// The stored path, which may be damaged with its row.
static std::string_view stored_path(std::string_view bytes) {
    row_head head;
    if (bytes.size() < sizeof(head)) return {};
    memcpy(&head, bytes.data(), sizeof(head));
    return bytes.substr(sizeof(head), std::min<size_t>(head.path_length, MAX_PATH_LENGTH));
}

std::string path_of_row(std::string_view key, std::string_view bytes) {
    std::string_view stored = key_is_hashed(key) ? stored_path(bytes) : std::string_view();
    if (!stored.empty() && row_key(stored).view() == key) return std::string(stored);
    std::string path(key.substr(0, key_is_hashed(key) ? HASHED_HEAD : key.size()));
    std::replace_if(
        path.begin(), path.end(), [](char c) { return c == INNER || c == LAST; }, '.');
    return key_is_hashed(key) ? path + "..." : path;
}

bool row_is_below(std::string_view key, std::string_view bytes, std::string_view path,
                  reach which) {
    if (!key_is_hashed(key) || path.size() < HASHED_HEAD) return true;
    std::string found = path_of_row(key, bytes);
    return found.size() > path.size() && path_within(found, path, which);
}

bool row_is_misplaced(std::string_view key, std::string_view bytes) {
    std::string_view stored = key_is_hashed(key) ? stored_path(bytes) : std::string_view();
    row found;
    return !stored.empty() && read_row(row_key(stored).view(), bytes, &found);
}

std::string_view write_row(std::string_view key, std::string_view path, uint32_t children,
                           std::string_view value, std::string *buffer) {
    std::string_view kept = key_is_hashed(key) ? path : std::string_view();
    row_head head = {FORMAT, 0, static_cast<uint16_t>(kept.size()), children};
    buffer->assign(key);
    buffer->append(reinterpret_cast<const char *>(&head), sizeof(head));
    buffer->append(kept).append(value);
    const std::string_view whole = *buffer;
    checksum sum = checksum_of(whole.substr(0, key.size()), whole.substr(key.size()));
    buffer->append(reinterpret_cast<const char *>(&sum), sizeof(sum));
    return std::string_view(*buffer).substr(key.size());
}

}  // namespace keyview::host
