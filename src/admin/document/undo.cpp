// See undo.h.
#include "admin/document/undo.h"

#include <nlohmann/json.hpp>

#include "admin/document/base64.h"
#include "admin/document/json_text.h"

namespace keyview::admin {

using nlohmann::json;

[[noreturn]] static void refuse_undo(const std::string &why) {
    throw error(KEYVIEW_FAILURE_CONTENT, "the list of changes is invalid: " + why);
}

// A text, its bytes in base64 beside a null, or null for no value.
static std::optional<std::string> value_in(const json &change, const std::string &name) {
    auto text = change.find(name), raw = change.find(name + "_base64");
    std::string bytes;
    if (text == change.end()) refuse_undo("a change has no \"" + name + "\"");
    if (text->is_string()) return text->get<std::string>();
    if (!text->is_null()) refuse_undo("\"" + name + "\" is neither a text nor null");
    if (raw == change.end()) return std::nullopt;
    if (!raw->is_string() || !from_base64(raw->get_ref<const std::string &>(), &bytes))
        refuse_undo("\"" + name + "_base64\" is no base64");
    return bytes;
}

static std::vector<key_change> changes_in(std::string_view text) {
    problem_list problems;
    json list = parse_json(text, &problems);
    problems.throw_if_any("the list of changes is no JSON");
    if (!list.is_object() || list.value("kind", json()) != "changes" || !list["changes"].is_array())
        refuse_undo("it must be an object of the kind \"changes\"");
    if (list.value("version", json(1)) != 1)
        refuse_undo("it is not of version 1, which this version of keyviewctl reads");
    std::vector<key_change> changes;
    for (const json &one : list["changes"]) {
        if (!one.is_object()) refuse_undo("a change must be an object");
        std::optional<std::string> path = value_in(one, "path");
        const char *fault = path ? path_fault(*path) : "there is none";
        if (fault != nullptr) refuse_undo("a path: " + std::string(fault));
        changes.push_back({*path, value_in(one, "before"), value_in(one, "after")});
    }
    return changes;
}

static void check_unchanged(const std::vector<key_change> &changes, const key_list &present) {
    problem_list conflicts;
    std::map<std::string_view, const key_change *> known;
    for (const key_change &one : changes) {
        if (!known.emplace(one.path, &one).second) conflicts.add(one.path, "is there twice");
        size_t at = present.find(one.path);
        std::optional<std::string_view> now;
        if (at != key_list::NONE) now = present[at].value;
        if (now != one.before && now != one.after) conflicts.add(one.path, "has changed since");
    }
    for (const key_change &one : changes) {
        if (one.before) continue;
        for (size_t at = present.lower_bound(one.path);
             at < present.size() && path_within(present.path(at), one.path); ++at) {
            const std::string_view path = present.path(at);
            if (known.emplace(path, nullptr).second)
                conflicts.add(std::string(path), "was created since");
        }
    }
    if (conflicts.empty()) return;
    throw error(
        KEYVIEW_FAILURE_CHANGED,
        "keys changed since; nothing was written; --overwrite takes their changes back, too",
        conflicts.kept(), conflicts.more());
}

static change_result take_back(const std::vector<key_change> &changes, bool overwrite,
                               const change_options &options) {
    change_request request;
    for (const key_change &one : changes)
        (void)request.changes.add(one.path, one.before);
    request.check = [&](const key_list &present, bool) {
        if (!overwrite) check_unchanged(changes, present);
    };
    return change_registry("", ready(std::move(request)), options);
}

change_result undo_changes(std::string_view text, bool overwrite, const change_options &options) {
    const std::vector<key_change> changes = changes_in(text);
    (void)registry::open();  // one that does not exist is not created
    return take_back(changes, overwrite, options);
}

change_result undo_revision(uint64_t revision, bool overwrite, const change_options &options) {
    std::optional<past_change> wanted;
    registry::open().history(revision - 1, [&](past_change &&one) {
        if (one.revision == revision) wanted = std::move(one);
        return true;
    });
    const std::string name = "the change of revision " + std::to_string(revision);
    if (!wanted) throw error(KEYVIEW_FAILURE_NOT_FOUND, "the history does not have " + name);
    if (wanted->left_out > 0) {
        throw error(KEYVIEW_FAILURE_NOT_FOUND, "the history does not have the values of " +
                                                   std::to_string(wanted->left_out) + " keys of " +
                                                   name);
    }
    return take_back(wanted->changes, overwrite, options);
}

}  // namespace keyview::admin
