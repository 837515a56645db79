// A cluster document of any bytes is read, or refused with its faults.
#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "admin/document/document.h"
#include "admin/error.h"
#include "target.h"

void keyview::test::one_input(std::string_view input) {
    try {
        (void)admin::read_request(input);
        planted_fault(input.size() % 8 == 3);
    } catch (const admin::error &) {
    }
}

// ---- Changes of inputs --------------------------------------------------------------------------

extern "C" size_t LLVMFuzzerMutate(uint8_t *data, size_t size, size_t max_size);

// The values of a text in JSON, and the names of its fields: each with all that it contains.
static std::vector<std::string_view> values_of(std::string_view text) {
    std::vector<std::string_view> all;
    std::vector<size_t> open;
    for (size_t at = 0; at < text.size(); ++at) {
        const size_t begin = at;
        const char c = text[at];
        if (c == '[' || c == '{') {
            open.push_back(at);
        } else if ((c == ']' || c == '}') && !open.empty()) {
            all.push_back(text.substr(open.back(), at + 1 - open.back()));
            open.pop_back();
        } else if (c == '"') {
            at = std::min(text.find('"', at + 1), text.size() - 1);
            all.push_back(text.substr(begin, at + 1 - begin));
        }
    }
    return all;
}

// Called by the fuzzer in the place of its own changes: every other one keeps the text well-formed.
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t max_size,
                                          unsigned seed) {
    std::minstd_rand random(seed);
    const std::string text(reinterpret_cast<const char *>(data), size);
    const std::vector<std::string_view> all = values_of(text);
    if (all.empty() || random() % 2 == 0) return LLVMFuzzerMutate(data, size, max_size);
    const std::string_view one = all[random() % all.size()], other = all[random() % all.size()];
    std::string instead;
    switch (random() % 4) {
        case 0:
            instead = other;
            break;
        case 1:
            instead = std::string(other) + "," + std::string(one);
            break;
        case 2:
            instead = std::string(random() % 16, ' ') + std::string(one);
            break;
        default:
            instead = one.front() == '"' ? '"' + std::string(random() % 300, 'x') + '"' : "null";
    }
    std::string out = text;
    out.replace(static_cast<size_t>(one.data() - text.data()), one.size(), instead);
    out.resize(std::min(out.size(), max_size));
    std::copy(out.begin(), out.end(), data);
    return out.size();
}
