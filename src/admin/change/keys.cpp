// Single keys: read, set and removed; how a person writes and reads their values.
#include <algorithm>
#include <chrono>

#include "admin/change/key_map.h"
#include "admin/change/plan.h"
#include "admin/document/base64.h"
#include "admin/document/encoding.h"
#include "admin/document/fields.h"
#include "admin/document/key_guide.h"
#include "admin/entry.h"
#include "host/support/error.h"
#include "model/path.h"

namespace keyview::admin {

using host::change;
using host::failure;
using host::host_error;

// ---- Reading ------------------------------------------------------------------------------------

keys_result read_keys(std::string_view path, depth how_far) noexcept {
    return guarded<keys_result>([&](keys_result *out) {
        auto keys = open_present().keys->now();
        key_map found;
        read_below(keys.get(), path, static_cast<reach>(how_far), &found);
        out->revision = keys->current().tree;
        if (found.empty()) {
            throw host_error(failure::not_found, "there is no key " + std::string(path));
        }
        for (auto &[key, value] : found)
            out->keys.push_back({key, std::move(value)});
    });
}
static_assert(static_cast<int>(depth::all) == static_cast<int>(reach::all_below) &&
                  static_cast<int>(depth::children) == static_cast<int>(reach::children),
              "a depth is a reach");

keys_result read_revision() noexcept {
    return guarded<keys_result>(
        [](keys_result *out) { out->revision = open_present().keys->now()->current().tree; });
}

changes_result read_changes(std::string_view path, uint64_t since, uint32_t wait_ms) noexcept {
    return guarded<changes_result>([&](changes_result *out) {
        host::backend registry = open_present();
        auto batch = registry.keys->changes_since(path, since, std::chrono::milliseconds(wait_ms));
        if (!batch) return;
        static thread_local host::backend connected;  // for the next call, which follows soon
        connected = std::move(registry);
        out->keeps_history = true;
        out->up_to = batch->up_to;
        for (host::tree_change &one : batch->changes)
            out->changes.push_back(
                {one.revision, {std::move(one.path), std::move(one.before), std::move(one.after)}});
    });
}

static key_map map_of(const std::vector<key_row> &rows) {
    key_map out;
    for (const key_row &row : rows)
        out.emplace_hint(out.end(), row.path, row.value);
    return out;
}

std::vector<key_change> compare_keys(const std::vector<key_row> &before,
                                     const std::vector<key_row> &after) {
    return differences(map_of(before), map_of(after));
}

// ---- Values -------------------------------------------------------------------------------------

static nlohmann::json json_meant(value_kind kind, const std::vector<std::string> &values) {
    for (const std::string &value : values) {
        if (!valid_utf8(value)) throw host_error(failure::content, "the value is not valid UTF-8");
    }
    if (kind == value_kind::env) return values;
    if (values.size() != 1) throw host_error(failure::usage, "this key takes one value");
    if (kind != value_kind::flag) return values[0];
    std::string word = element_of(values[0], false);
    if (word == "true" || word == "false") return word == "true";
    throw host_error(failure::content, "the value of a flag is true or false, not " + values[0]);
}

static std::string encode_name(const record_table &table, std::string_view path,
                               const std::vector<std::string> &values) {
    if (values.size() != 1) throw host_error(failure::usage, "this key takes one value");
    std::string stored = own_value(values[0]), name;
    std::string_view element = path.substr(parent_path(path).size() + 1);
    std::optional<fault> wrong = decode_own_value(table, element, stored, &name);
    if (wrong) throw host_error(failure::content, std::string(path) + " " + wrong->reason);
    return stored;
}

static std::string encode_type(const std::vector<std::string> &values) {
    for (const char *word : {"PREFERRED", "AVAILABLE"})
        if (values.size() == 1 && values[0] == word) return own_value(word);
    throw host_error(failure::content,
                     "the value of TYPE is PREFERRED or AVAILABLE, in upper case");
}

static std::string encode_meant(std::string_view path, const std::vector<std::string> &values) {
    key_place place = place_of_key(path);
    if (place.is_type) return encode_type(values);
    if (place.field == nullptr && place.record != nullptr)
        return encode_name(*place.record, path, values);
    if (place.field == nullptr) {
        throw host_error(
            failure::content,
            std::string(path) + " has no meaning here: say how its value is stored, with --as");
    }
    std::string stored;
    std::optional<fault> wrong =
        encode_value(*place.field, json_meant(place.field->kind, values), &stored);
    if (wrong)
        throw host_error(failure::content,
                         "the value of " + std::string(path) + " " + wrong->reason);
    return stored;
}

static std::string encode_list(const std::vector<std::string> &values) {
    std::string out;
    for (const std::string &value : values)
        out += own_value(value);
    return out + '\0';
}

encoded_result encode_for(std::string_view path, encoding how,
                          const std::vector<std::string> &values) noexcept {
    return guarded<encoded_result>([&](encoded_result *out) {
        if (how == encoding::list) {
            out->value = encode_list(values);
        } else if (how == encoding::as_meant) {
            out->value = encode_meant(path, values);
        } else if (values.size() == 1) {
            out->value = own_value(values[0]);
        } else {
            throw host_error(failure::usage, "a text is one value");
        }
    });
}

std::string value_for_people(std::string_view value) {
    if (value.empty()) return "";
    bool ends = value.back() == '\0';
    std::string_view text = value.substr(0, value.size() - (ends ? 1 : 0));
    if (ends && text.find('\0') == text.npos) return std::string(text);
    bool list = text.size() > 1 && ends && text.back() == '\0' && text[0] != '\0' &&
                text.find(std::string_view("\0\0", 2)) == text.npos;
    if (!list) return std::string(value) + (ends ? "" : " (without a zero byte)");
    std::string out = "[";
    for (size_t at = 0; at < text.size();) {
        size_t end = text.find('\0', at);
        out += (at > 0 ? ", " : "") + std::string(text.substr(at, end - at));
        at = end + 1;
    }
    return out + "]";
}

std::string base64_of(std::string_view bytes) {
    return to_base64(bytes);
}

bool bytes_of_base64(std::string_view text, std::string *bytes) {
    return from_base64(text, bytes);
}

// ---- Changing -----------------------------------------------------------------------------------

change_result set_key(std::string_view path, std::string_view value,
                      const change_options &options) noexcept {
    return guarded<change_result>([&](change_result *out) {
        const char *fault = path_fault(path);
        if (fault != nullptr) {
            throw host_error(failure::usage, "no key can be '" + std::string(path) + "': " + fault);
        }
        wish wanted = {{{change::kind::put, std::string(path), std::string(value)}},
                       {lock_of(path)}};
        change_registry(host::registry_url(), wanted, options, out);
    });
}

change_result remove_key(std::string_view path, const change_options &options) noexcept {
    return guarded<change_result>([&](change_result *out) {
        wish wanted = {{{change::kind::remove, std::string(path), ""}}, {lock_of(path)}};
        wanted.check = [&](host::moment *keys, problem_list *) {
            std::string value;
            if (keys != nullptr && keys->read(path, &value)) return;
            throw host_error(failure::not_found, "there is no key " + std::string(path));
        };
        (void)open_present();
        change_registry(host::registry_url(), wanted, options, out);
    });
}

}  // namespace keyview::admin
