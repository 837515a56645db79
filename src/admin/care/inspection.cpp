// See inspection.h.
#include "admin/care/inspection.h"

#include <map>
#include <optional>
#include <set>
#include <utility>

#include "admin/care/whole_tree.h"
#include "admin/document/encoding.h"
#include "model/locks.h"
#include "model/records.h"
#include "model/roots.h"

namespace keyview::admin {

namespace {

struct diagnose_call : callback_guard {
    std::vector<symptom> symptoms = {};
};

}  // namespace

static bool can_be_opened() {
    try {
        (void)registry::open();
        return true;
    } catch (const error &) {
        return false;
    }
}

// The findings of a command.
static inspection_report report_of(const key_map &keys, const inspected &counts,
                                   const problem_list &damage, bool finding_row::*covered) {
    inspection_report report = {{}, counts.keys, counts.pages};
    bool repairable = damage.empty() || can_be_opened();
    for (finding &found : findings_of(keys, damage.kept(), repairable))
        if (found.row->*covered) report.findings.push_back(std::move(found));
    return report;
}

static inspection_report inspect(bool finding_row::*covered) {
    key_map keys;
    problem_list damage(problem_list::NO_LIMIT);
    inspected counts = inspect_registry(&keys, &damage);
    return report_of(keys, counts, damage, covered);
}

inspection_report check_registry() {
    return inspect(&finding_row::by_check);
}

// Inspects the files only if reading fails: writers need not wait, and any release of LMDB will do.
inspection_report lint_registry() {
    key_map keys;
    try {
        (void)registry::open().read({{ROOT, reach::all_below}}, &keys);
    } catch (const error &failed) {
        if (failed.kind != KEYVIEW_FAILURE_CONTENT) throw;
        return inspect(&finding_row::by_lint);
    }
    return report_of(keys, {keys.size()}, problem_list(), &finding_row::by_lint);
}

static void add_symptom(void *arg, keyview_bytes subject, int32_t health, keyview_bytes text) {
    auto *call = static_cast<diagnose_call *>(arg);
    call->run([&] { call->symptoms.push_back({text_of(subject), health, text_of(text)}); });
}

std::vector<symptom> diagnose_registry() {
    diagnose_call call;
    call.finish(keyview_registry_diagnose(add_symptom, &call));
    return std::move(call.symptoms);
}

std::vector<listed_database> list_databases(const std::string &key) {
    key_map keys;
    std::vector<std::string> damaged;
    const reach depth = key == DB_ROOT ? reach::children : reach::key_alone;
    (void)registry::open().read({{key, depth}}, &keys, &damaged);
    std::map<std::string, listed_database> found;
    for (const auto &[path, value] : keys) {
        if (parent_path(path) != DB_ROOT) continue;
        std::string element(last_element(path)), name;
        std::optional<fault> wrong = decode_own_value(DATABASE, element, value, &name);
        found[element] = {element, wrong ? path + " " + wrong->reason : ""};
    }
    for (const std::string &path : damaged) {
        if (parent_path(path) != DB_ROOT) continue;
        std::string element(last_element(path));
        found[element] = {element, path + " has stored bytes that are not those that were written"};
    }
    std::vector<listed_database> out;
    out.reserve(found.size());
    for (auto &[element, one] : found)
        out.push_back(std::move(one));
    return out;
}

void check_listing() {
    key_map list;
    (void)registry::open().read({{DB_ROOT, reach::children}}, &list);
}

// The names that programs lock by: of the sections' lists, and of the records in them.
static std::vector<std::string> known_names(const registry &from) {
    key_map found;
    std::vector<part> parts;
    std::set<std::string> names;
    for (const list_row &section : SECTIONS) {
        parts.push_back({section.key, section.record->scoped ? reach::all_below : reach::children});
        names.insert(lock_of(section.key));
    }
    (void)from.read(parts, &found);
    for (const auto &[path, value] : found)
        names.insert(lock_of(path));
    return {names.begin(), names.end()};
}

std::vector<lock_user> list_locks() {
    registry present = registry::open();
    return present.lock_users(known_names(present));
}

}  // namespace keyview::admin
