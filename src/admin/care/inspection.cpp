// See inspection.h.
#include "admin/care/inspection.h"

#include <set>
#include <utility>

#include "admin/care/tree_check.h"
#include "model/locks.h"
#include "model/records.h"

namespace keyview::admin {

namespace {

struct check_call : callback_guard {
    check_report *report;
    key_node tree = {};
};

struct diagnose_call : callback_guard {
    std::vector<symptom> symptoms = {};
};

}  // namespace

static void add_damage(void *arg, keyview_bytes location, keyview_bytes reason) {
    auto *call = static_cast<check_call *>(arg);
    call->run([&] { call->report->damage.add(text_of(location), text_of(reason)); });
}

static void add_row(void *arg, keyview_bytes path, const keyview_bytes *value) {
    auto *call = static_cast<check_call *>(arg);
    call->run([&] {
        if (!below_a_root(text_of(path))) return;
        key_node &node = call->tree.make(text_of(path));
        node.value = text_of(*value);
        node.told = true;
    });
}

check_report check_registry() {
    check_report report;
    check_call call{{}, &report};
    int32_t rc = keyview_registry_check(add_damage, add_row, &call, &report.keys, &report.pages);
    call.finish(rc == KEYVIEW_FAILURE_NOT_FOUND ? KEYVIEW_FAILURE_REGISTRY : rc);
    check_tree(&call.tree, &report.damage);
    return report;
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
