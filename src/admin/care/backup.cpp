// The whole tree as a text file: a head, a line for each key, and a checksum over all of it.
//
//     keyview-backup 1
//     revision 17
//     keys 248
//     DATABASE <the value in base64>
//     ...
//     checksum <32 hexadecimal digits>
//
// A path holds no control character, so its line ends where it should; a value has no blank.
#define XXH_INLINE_ALL
#include <xxhash.h>

#include <cstdio>

#include "admin/change/key_map.h"
#include "admin/change/plan.h"
#include "admin/document/base64.h"
#include "admin/entry.h"
#include "host/support/error.h"

namespace keyview::admin {

using host::failure;
using host::host_error;

static constexpr std::string_view HEAD = "keyview-backup ";
static constexpr std::string_view FIRST_LINE = "keyview-backup 1\n";
static constexpr std::string_view CHECKSUM = "checksum ";

static std::string checksum_line(std::string_view body) {
    XXH128_hash_t sum = XXH3_128bits(body.data(), body.size());
    char text[64];
    (void)snprintf(text, sizeof text, "%s%016llx%016llx\n", CHECKSUM.data(),
                   static_cast<unsigned long long>(sum.high64),
                   static_cast<unsigned long long>(sum.low64));  // it fits
    return text;
}

static std::string backup_of(const key_map &keys, uint64_t revision) {
    std::string out(FIRST_LINE);
    out += "revision " + std::to_string(revision) + "\n";
    out += "keys " + std::to_string(keys.size()) + "\n";
    for (const auto &[path, value] : keys)
        out += path + " " + to_base64(value) + "\n";
    return out + checksum_line(out);
}

backup_result backup_registry() noexcept {
    return guarded<backup_result>([](backup_result *out) {
        key_map keys;
        {
            auto present = open_present().keys->now();
            out->revision = present->current().tree;
            read_below(present.get(), TOP, reach::all_below, &keys);
        }
        out->keys = keys.size();
        out->content = backup_of(keys, out->revision);
    });
}

bool is_backup(std::string_view content) {
    return content.substr(0, HEAD.size()) == HEAD;
}

[[noreturn]] static void refuse(const std::string &why) {
    throw host_error(failure::content, "this is no sound backup: " + why + "; nothing was written");
}

namespace {

// The lines of a verified text.
struct line_reader {
    // Everything up to the next line feed; the text has one.
    std::string_view next() {
        size_t end = left.find('\n');
        if (end == left.npos) refuse("it ends too early");
        std::string_view line = left.substr(0, end);
        left.remove_prefix(end + 1);
        return line;
    }

    std::string_view left;
};

}  // namespace

// The text before its checksum.
static std::string_view verified(std::string_view content) {
    if (!is_backup(content)) refuse("it does not begin with \"keyview-backup\"");
    if (content.substr(0, FIRST_LINE.size()) != FIRST_LINE) refuse("its format is not 1");
    size_t at = content.rfind(CHECKSUM);
    if (at == content.npos || content[at - 1] != '\n')
        refuse("it has no checksum: it was cut short");
    std::string_view body = content.substr(0, at);
    if (content.substr(at) != checksum_line(body)) refuse("its checksum does not fit its content");
    return body;
}

static key_map keys_of(std::string_view content) {
    line_reader lines = {verified(content).substr(FIRST_LINE.size())};
    (void)lines.next();  // the revision is for people
    std::string count(lines.next());
    key_map keys;
    while (!lines.left.empty()) {
        std::string_view line = lines.next();
        size_t blank = line.rfind(' ');
        std::string value;
        bool sound = blank != line.npos && from_base64(line.substr(blank + 1), &value);
        if (!sound) refuse("a line is no key with its value");
        keys.emplace(line.substr(0, blank), std::move(value));
    }
    if (count != "keys " + std::to_string(keys.size())) refuse("it holds another number of keys");
    return keys;
}

static void bring_to(const std::string &url, const key_map &keys, bool force,
                     change_options options, change_result *out) {
    wish wanted = {};
    wanted.within = wish::scope::all;
    options.prune = true;
    for (const auto &[path, value] : keys)
        wanted.changes.push_back({host::change::kind::put, path, value});
    wanted.check = [&](host::moment *present, problem_list *) {
        std::string value;
        if (force || present == nullptr || !present->read(TOP, &value)) return;
        throw host_error(failure::usage, "the registry " + url +
                                             " is not empty; nothing was written; with --force "
                                             "what is in it goes");
    };
    change_registry(url, wanted, options, out);
}

change_result restore_registry(std::string_view backup, bool force,
                               const change_options &options) noexcept {
    return guarded<change_result>([&](change_result *out) {
        bring_to(host::registry_url(), keys_of(backup), force, options, out);
    });
}

change_result copy_registry(const std::string &to_url, bool force,
                            const change_options &options) noexcept {
    return guarded<change_result>([&](change_result *out) {
        key_map keys;
        read_below(open_present().keys->now().get(), TOP, reach::all_below, &keys);
        bring_to(to_url, keys, force, options, out);
    });
}

}  // namespace keyview::admin
