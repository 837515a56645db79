// Places and rows of the embedded registry.
#define XXH_INLINE_ALL
#include <xxhash.h>

#include "host/embedded/row.h"

#include <algorithm>
#include <cstring>

namespace keyview::host {

static constexpr size_t LONGEST_PLACE = 511;  // LMDB's limit
static constexpr size_t CUT_HEAD = LONGEST_PLACE - 1 - sizeof(XXH128_canonical_t);
static constexpr char INNER = '\x01';
static constexpr char LAST = '\x00';
static constexpr char CUT = '\x02';
static constexpr uint8_t FORMAT = 1;

struct row_head {
    uint8_t format;
    uint8_t zero;
    uint16_t path_length;
    uint32_t children;
};
static_assert(sizeof(row_head) == 8, "rows are read by other builds, too");

using checksum = XXH64_hash_t;

static size_t whole_place(std::string_view path, char *out) {
    size_t last = path.npos;
    for (size_t i = 0; i < path.size(); ++i) {
        bool dot = path[i] == '.';
        out[i] = dot ? INNER : path[i];
        if (dot) last = i;
    }
    if (last != path.npos) out[last] = LAST;
    return path.size();
}

place_of::place_of(std::string_view path) : size_(whole_place(path, text_)) {
    if (size_ <= LONGEST_PLACE) return;
    XXH128_canonical_t hash;
    XXH128_canonicalFromHash(&hash, XXH3_128bits(text_, size_));
    text_[CUT_HEAD] = CUT;
    memcpy(text_ + CUT_HEAD + 1, hash.digest, sizeof(hash.digest));
    size_ = LONGEST_PLACE;
}

bool place_is_cut(std::string_view place) noexcept {
    return place.size() == LONGEST_PLACE && place[CUT_HEAD] == CUT;
}

void append_path(std::string *out, std::string_view place) {
    size_t start = out->size();
    out->append(place);
    for (size_t i = start; i < out->size(); ++i) {
        char &c = (*out)[i];
        if (c == INNER || c == LAST) c = '.';
    }
}

bool path_before(std::string_view a, std::string_view b) {
    char place_a[MAX_PATH_LENGTH];
    char place_b[MAX_PATH_LENGTH];
    return std::string_view(place_a, whole_place(a, place_a)) <
           std::string_view(place_b, whole_place(b, place_b));
}

std::vector<place_range> place_ranges(std::string_view path, reach which) {
    std::string above(path);
    std::replace(above.begin(), above.end(), '.', INNER);
    char behind = which == reach::children ? INNER : CUT;

    std::vector<place_range> ranges;
    if (above.size() + 1 < LONGEST_PLACE) ranges.push_back({above + LAST, above + behind});
    if (above.size() + 1 > CUT_HEAD) {
        ranges.push_back(cut_range(above));
    }
    return ranges;
}

place_range cut_range(std::string_view place) {
    std::string head(place.substr(0, CUT_HEAD));
    return {head + CUT, head + static_cast<char>(CUT + 1)};
}

// covered is the row without its checksum.
static checksum checksum_of(std::string_view place, std::string_view covered) noexcept {
    static constexpr checksum SPREAD = 0x9E3779B97F4A7C15;
    checksum sum = 0;
    if (place.data() + place.size() == covered.data()) {
        sum = XXH3_64bits(place.data(), place.size() + covered.size());
    } else {
        XXH3_state_t state;
        XXH3_64bits_reset(&state);
        XXH3_64bits_update(&state, place.data(), place.size());
        XXH3_64bits_update(&state, covered.data(), covered.size());
        sum = XXH3_64bits_digest(&state);
    }
    return sum ^ place.size() * SPREAD;
}

bool read_row(std::string_view place, std::string_view bytes, row *out) noexcept {
    row_head head;
    checksum sum = 0;
    if (bytes.size() < sizeof(head) + sizeof(sum)) return false;
    std::string_view covered = bytes.substr(0, bytes.size() - sizeof(sum));
    memcpy(&head, covered.data(), sizeof(head));
    memcpy(&sum, covered.data() + covered.size(), sizeof(sum));
    if (sum != checksum_of(place, covered) || head.format != FORMAT) return false;
    std::string_view rest = covered.substr(sizeof(head));
    if (head.path_length > std::min(rest.size(), MAX_PATH_LENGTH)) return false;
    out->path = rest.substr(0, head.path_length);
    out->children = head.children;
    out->value = rest.substr(head.path_length);
    return true;
}

// The stored path, which may be damaged with its row.
static std::string_view stored_path(std::string_view bytes) {
    row_head head;
    if (bytes.size() < sizeof(head)) return {};
    memcpy(&head, bytes.data(), sizeof(head));
    return bytes.substr(sizeof(head), std::min<size_t>(head.path_length, MAX_PATH_LENGTH));
}

std::string path_of_row(std::string_view place, std::string_view bytes) {
    std::string_view stored = place_is_cut(place) ? stored_path(bytes) : std::string_view();
    if (!stored.empty() && place_of(stored).view() == place) return std::string(stored);
    std::string path;
    append_path(&path, place_is_cut(place) ? place.substr(0, CUT_HEAD) : place);
    if (place_is_cut(place)) path += "...";
    return path;
}

bool row_is_below(std::string_view place, std::string_view bytes, std::string_view path,
                  reach which) {
    if (!place_is_cut(place) || path.size() < CUT_HEAD) return true;
    std::string found = path_of_row(place, bytes);
    return found.size() > path.size() && path_within(found, path, which);
}

bool row_is_misplaced(std::string_view place, std::string_view bytes) {
    std::string_view stored = place_is_cut(place) ? stored_path(bytes) : std::string_view();
    row found;
    return !stored.empty() && read_row(place_of(stored).view(), bytes, &found);
}

std::string write_row(std::string_view place, std::string_view path, uint32_t children,
                      std::string_view value) {
    std::string_view kept = place_is_cut(place) ? path : std::string_view();
    row_head head = {FORMAT, 0, static_cast<uint16_t>(kept.size()), children};
    std::string bytes(reinterpret_cast<const char *>(&head), sizeof(head));
    bytes += kept;
    bytes += value;
    checksum sum = checksum_of(place, bytes);
    return bytes.append(reinterpret_cast<const char *>(&sum), sizeof(sum));
}

}  // namespace keyview::host
