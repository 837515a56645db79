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

#include <algorithm>
#include <cstdio>

#include "admin/care/backup.h"
#include "admin/care/whole_tree.h"
#include "admin/document/base64.h"
#include "admin/key_list.h"
#include "model/roots.h"

namespace keyview::admin {

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

backup backup_registry(bool salvage) {
    whole_tree tree = read_whole_tree(
        salvage,
        "the registry is damaged; nothing was saved; \"keyviewctl backup --salvage FILE\" leaves out "
        "what is damaged");
    return {backup_of(tree.keys, tree.revision), tree.keys.size(), tree.revision,
            std::move(tree.damage)};
}

bool is_backup(std::string_view content) {
    return content.substr(0, HEAD.size()) == HEAD;
}

[[noreturn]] static void refuse(const std::string &why) {
    throw error(KEYVIEW_FAILURE_CONTENT,
                "the backup is not sound: " + why + "; nothing was written");
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
    if (content.substr(0, FIRST_LINE.size()) != FIRST_LINE) {
        std::string_view version = content.substr(HEAD.size());
        refuse("it has format " +
               std::string(version.substr(0, std::min<size_t>(version.find('\n'), 20))) +
               ", and this version of keyview reads format 1");
    }
    size_t at = content.rfind(CHECKSUM);
    if (at == content.npos || content[at - 1] != '\n')
        refuse("it has no checksum: it was cut short");
    std::string_view body = content.substr(0, at);
    if (content.substr(at) != checksum_line(body)) refuse("its checksum does not fit its content");
    return body;
}

static key_list keys_of(std::string_view content) {
    line_reader lines = {verified(content).substr(FIRST_LINE.size())};
    (void)lines.next();  // the revision is for people
    std::string count(lines.next());
    key_list keys;
    while (!lines.left.empty()) {
        std::string_view line = lines.next();
        size_t blank = line.rfind(' ');
        std::string value;
        bool sound = blank != line.npos && from_base64(line.substr(blank + 1), &value);
        if (!sound) refuse("a line is no key with its value");
        (void)keys.add(line.substr(0, blank), value);
    }
    keys.sort_unique();
    if (count != "keys " + std::to_string(keys.size())) refuse("it holds another number of keys");
    return keys;
}

static change_result bring_to(const std::string &url, key_list &&keys, bool force,
                              change_options options) {
    change_request request = {};
    request.prunes_all = true;
    options.prune = true;
    request.changes = std::move(keys);
    request.check = [&](const key_list &present, bool) {
        if (force || present.empty()) return;
        throw error(KEYVIEW_FAILURE_USAGE,
                    "the registry" + (url.empty() ? "" : " " + url) +
                        " is not empty; nothing was written; --force removes what is in it");
    };
    return change_registry(url, ready(std::move(request)), options);
}

change_result restore_registry(std::string_view content, bool force,
                               const change_options &options) {
    return bring_to("", keys_of(content), force, options);
}

uint64_t keys_in(std::string_view content) {
    return keys_of(content).size();
}

change_result copy_registry(const std::string &to_url, bool force, const change_options &options,
                            problem_list *left_out) {
    whole_tree tree = read_whole_tree(
        left_out != nullptr,
        "the registry is damaged; nothing was copied; \"keyviewctl copy --salvage --to URL\" leaves "
        "out what is damaged");
    if (left_out != nullptr) *left_out = std::move(tree.damage);
    key_list keys;
    for (const auto &[path, value] : tree.keys)
        (void)keys.add(path, value);
    tree.keys.clear();
    return bring_to(to_url, std::move(keys), force, options);
}

}  // namespace keyview::admin
