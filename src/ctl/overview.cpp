// See overview.h.
#include "ctl/overview.h"

#include <algorithm>
#include <utility>

#include "admin/registry.h"
#include "ctl/output.h"
#include "ctl/record_view.h"
#include "ctl/text.h"
#include "host/if/keyview_host.h"
#include "model/folding.h"
#include "model/locks.h"

namespace keyview::ctl {

// ---- Databases ----------------------------------------------------------------------------------

// Notes why a record could not be read.
static void note_failure(const session &library, int32_t rc, const char *what, listed_record *out) {
    if (rc == PRSR_SUCCESS) return;
    const tool_error failed = library.failure(rc, what);
    if (failed.code == EXIT_LOCK) (void)keyview_host_set_lock_wait(0);
    out->why = failed.why;
    out->code = failed.code;
    if (failed.code == EXIT_LOCK || failed.code == EXIT_CONTENT) return;
    attempt(what, library.shared.registry, [] { return admin::registry::open().revision(); });
    if (failed.code != EXIT_REGISTRY) library.check(rc, what);
    out->code = EXIT_CONTENT;
}

void each_database(const session &library, const char *what,
                   const std::function<void(const listed_record &)> &visit,
                   const std::string &key) {
    const std::vector<admin::listed_database> databases = library.observed("list_databases", [&] {
        return attempt(what, library.shared.registry, [&] { return admin::list_databases(key); });
    });
    for (const admin::listed_database &one : databases) {
        library.shared.reporter->count(static_cast<uint64_t>(&one - databases.data()),
                                       databases.size());
        library.observe_lock(lock_of(database_key(one.element)));
        const admin::damage_recorder damage;
        const auto fetched = library.observed(
            "fetch_db_config", [&] { return library->fetch_db_config(one.element); });
        if (fetched.code() == PRSR_ERR_NO_DATABASE && one.reason.empty())
            continue;  // removed meanwhile
        const bool sound = damage.first().empty();
        listed_record found = {
            one.element, one.element, {}, EXIT_CONTENT, sound ? one.reason : damage.first()};
        if (found.why.empty()) {
            found.code = EXIT_DONE;
            note_failure(library, fetched.code(), what, &found);
        }
        if (fetched && sound) found.record = *fetched;
        const bool named = found.record && one.reason.empty();
        if (named) found.name = text_or_dash(found.record.sp_name());
        visit(found);
    }
}

// Without a record only its name and the trouble are known.
view database_row(const listed_record &one, bool people) {
    const prsr::database &record = one.record;
    auto known = [&](const view &shown) { return record ? shown : view{}; };
    view state = {coded{0, "unreadable", tone::bad}};
    if (record) state = enabled_view(record.enabled());
    view_fields fields = {{"database", {one.name}},
                          {people ? "state" : "enabled", people ? state : known(state)},
                          {"role", record ? text_view(record.role()) : view{}}};
    auto add_share = [&](const std::string &what, const auto &listed) {
        if (people) {
            fields.push_back({what + " enabled", known({enabled_share(listed)})});
        } else {
            fields.push_back({what, known(number_view(listed.size()))});
            fields.push_back({what + "_enabled", known(number_view(enabled_of(listed)))});
        }
    };
    add_share("instances", record ? record.instances() : prsr::instance_list());
    add_share("services", record ? record.services() : prsr::service_list());
    if (!people) {
        fields.push_back(
            {"error", one.code == EXIT_DONE ? view{} : text_view(exit_word(one.code))});
        fields.push_back({"why", optional_view(one.why)});
    }
    return {std::move(fields)};
}

overview read_overview(const session &library, const char *what) {
    const std::string &url = library.shared.registry;
    overview out;
    out.revision = attempt(what, url, [] { return admin::registry::open().revision(); });
    each_database(library, what, [&](const listed_record &one) {
        view record = one.record ? view_of(one.record, output_format::json) : view{};
        out.databases.push_back({one.element, one.name, database_row(one, false), std::move(record),
                                 one.code, one.why});
    });
    out.lint = library.observed("lint", [&] { return attempt(what, url, admin::lint_registry); });
    return out;
}

// ---- Beside the databases -----------------------------------------------------------------------

// No list operation of the library covers these; their roots may be missing.
static admin::key_map keys_of(const tool &shared, const char *root, reach depth) {
    admin::key_map keys;
    attempt("the names cannot be listed", shared.registry, [&] {
        return admin::registry::open().read({{root, depth}}, &keys);
    });
    keys.erase(root);
    return keys;
}

static std::string name_in(const std::string &path, const std::string &value) {
    return value.empty() ? std::string(last_element(path)) : value.substr(0, value.find('\0'));
}

std::vector<listed_entry> list_nodes(const tool &shared) {
    std::vector<listed_entry> nodes;
    for (const auto &[path, value] : keys_of(shared, NODEAPPS_ROOT, reach::children))
        nodes.push_back({"", std::string(last_element(path)), name_in(path, value)});
    return nodes;
}

std::vector<listed_entry> list_storage_managers(const tool &shared) {
    std::vector<listed_entry> entries;
    for (const auto &[path, value] : keys_of(shared, STG_ROOT, reach::all_below)) {
        const std::string_view scope = parent_path(path);
        if (parent_path(scope) != STG_ROOT) continue;
        entries.push_back({std::string(last_element(scope)), std::string(last_element(path)),
                           name_in(path, value)});
    }
    return entries;
}

view names_view(const std::vector<listed_entry> &nodes) {
    view_list names;
    for (const listed_entry &one : nodes)
        names.push_back({one.name});
    return {std::move(names)};
}

view scopes_view(const std::vector<listed_entry> &storage_managers) {
    view_list entries;
    for (const listed_entry &one : storage_managers)
        entries.push_back({view_fields{{"scope", {one.scope}}, {"name", {one.name}}}});
    return {std::move(entries)};
}

// Reads each entry by the function, which returns its view or throws.
static std::vector<entry_overview::record> read_each(
    const session &library, const char *what, const std::vector<listed_entry> &entries,
    const std::function<view(const listed_entry &)> &read) {
    std::vector<entry_overview::record> out;
    for (const listed_entry &one : entries) {
        try {
            out.push_back({one, read(one)});
        } catch (const tool_error &error) {
            if (error.code == EXIT_NOT_FOUND) continue;  // removed meanwhile
            if (error.code == EXIT_LOCK) (void)keyview_host_set_lock_wait(0);
            attempt(what, library.shared.registry,
                    [] { return admin::registry::open().revision(); });
            out.push_back({one, {}, error});
        }
    }
    return out;
}

entry_overview read_entries(const session &library, const char *what) {
    entry_overview out;
    out.nodes = read_each(library, what, list_nodes(library.shared), [&](const auto &one) {
        const auto found = library.read("node " + one.name + " cannot be shown", [&] {
            return library.observed("fetch_nodeapps_config",
                                    [&] { return library->fetch_nodeapps_config(one.element); });
        });
        return view_of(*found, output_format::json);
    });
    out.storage_managers =
        read_each(library, what, list_storage_managers(library.shared), [&](const auto &one) {
            const std::string shown = "storage manager entry " + one.name + " cannot be shown";
            const auto found = library.read(shown, [&] {
                return library.observed("fetch_stg_config", [&] {
                    return library->fetch_stg_config(one.scope, one.element);
                });
            });
            return view_of(*found, output_format::json);
        });
    return out;
}

// ---- Findings -----------------------------------------------------------------------------------

std::string remedy_of(const admin::finding &found) {
    if (found.remedy.empty()) return "";
    std::string out = "keyviewctl";
    for (const std::string &word : found.remedy)
        out += " " + shell_word(word);
    return out;
}

view_fields lint_view(const admin::inspection_report &report) {
    view_list findings;
    for (const admin::finding &found : report.findings)
        findings.push_back({view_fields{{"rule", {found.row->name}},
                                        {"severity", {found.row->severity}},
                                        {"path", {found.path}},
                                        {"reason", {found.reason}},
                                        {"readers_see", {found.readers_see}},
                                        {"mend", optional_view(remedy_of(found))},
                                        {"decide", optional_view(found.decision)}}});
    return {{"keys", count_view(report.keys)}, {"findings", {std::move(findings)}}};
}

}  // namespace keyview::ctl
