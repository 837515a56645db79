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
    uint64_t checksum;
    uint8_t format;
    uint8_t zero;
    uint16_t path_length;
    uint32_t children;
};
static_assert(sizeof(row_head) == 16, "rows are read by other builds, too");

static std::string whole_place(std::string_view path) {
    std::string place(path);
    std::replace(place.begin(), place.end(), '.', INNER);
    size_t last = place.rfind(INNER);
    if (last != place.npos) place[last] = LAST;
    return place;
}

std::string place_of(std::string_view path) {
    std::string place = whole_place(path);
    if (place.size() <= LONGEST_PLACE) return place;
    XXH128_canonical_t hash;
    XXH128_canonicalFromHash(&hash, XXH3_128bits(place.data(), place.size()));
    place.resize(CUT_HEAD);
    place += CUT;
    place.append(reinterpret_cast<const char *>(hash.digest), sizeof(hash.digest));
    return place;
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
    return whole_place(a) < whole_place(b);
}

std::vector<place_range> place_ranges(std::string_view path, reach which) {
    std::string above(path);
    std::replace(above.begin(), above.end(), '.', INNER);
    char behind = which == reach::children ? INNER : CUT;

    std::vector<place_range> ranges;
    if (above.size() + 1 < LONGEST_PLACE) ranges.push_back({above + LAST, above + behind});
    if (above.size() + 1 > CUT_HEAD) {
        above.resize(CUT_HEAD);
        ranges.push_back({above + CUT, above + static_cast<char>(CUT + 1)});
    }
    return ranges;
}

// The place is the seed, so that a row cannot pass for that of another key.
static uint64_t checksum(std::string_view place, std::string_view bytes) noexcept {
    std::string_view covered = bytes.substr(sizeof(uint64_t));
    XXH64_hash_t seed = XXH3_64bits(place.data(), place.size());
    return XXH3_64bits_withSeed(covered.data(), covered.size(), seed);
}

bool read_row(std::string_view place, std::string_view bytes, row *out) noexcept {
    row_head head;
    if (bytes.size() < sizeof(head)) return false;
    memcpy(&head, bytes.data(), sizeof(head));
    if (head.checksum != checksum(place, bytes) || head.format != FORMAT) return false;
    std::string_view rest = bytes.substr(sizeof(head));
    if (head.path_length > rest.size()) return false;
    out->path = rest.substr(0, head.path_length);
    out->children = head.children;
    out->value = rest.substr(head.path_length);
    return true;
}

std::string write_row(std::string_view place, std::string_view path, uint32_t children,
                      std::string_view value) {
    std::string_view kept = place_is_cut(place) ? path : std::string_view();
    row_head head = {0, FORMAT, 0, static_cast<uint16_t>(kept.size()), children};
    std::string bytes(sizeof(head), '\0');
    memcpy(bytes.data(), &head, sizeof(head));
    bytes += kept;
    bytes += value;
    head.checksum = checksum(place, bytes);
    memcpy(bytes.data(), &head.checksum, sizeof(head.checksum));
    return bytes;
}

}  // namespace keyview::host
