// The entry points: a document into the registry, and out of it.
#include <string>
#include <utility>

#include "admin/admin.h"
#include "admin/care/tree_check.h"
#include "admin/change/key_map.h"
#include "admin/change/plan.h"
#include "admin/document/encoding.h"
#include "admin/document/fields.h"
#include "admin/document/key_tree.h"
#include "admin/document/reader.h"
#include "admin/document/writer.h"
#include "admin/entry.h"
#include "host/registry/backend.h"
#include "host/registry/diagnosis.h"
#include "host/registry/snapshot.h"
#include "host/support/error.h"
#include "model/path.h"

namespace keyview::admin {

using host::failure;
using host::host_error;

// ---- Into the registry --------------------------------------------------------------------------

static constexpr const char *INVALID_DOCUMENT = "the document is invalid; nothing was written";

// What only the registry can tell about the document; keys may be null, for an empty registry. What
// is pruned cannot be counted on.
static void check_against(host::moment *keys, const document_plan &plan, bool prune,
                          problem_list *problems) {
    std::string value;
    for (const question &asked : plan.instances) {
        if (keys != nullptr && !prune && keys->read(asked.path, &value)) continue;
        problems->add(asked.place,
                      "names an instance that neither the document nor the registry has");
    }
    if (keys == nullptr) return;
    for (const question &asked : plan.services) {
        // "a.b" and "a*b" share a key; to store one over the other would lose a service.
        if (!keys->read(asked.path, &value) || value.empty()) continue;
        if (value.back() == '\0') value.pop_back();
        if (element_of(value, false) != element_of(asked.name, false)) {
            problems->add(asked.place,
                          "stands for a key at which the registry has another service: " + value);
        }
    }
}

change_result apply_document(std::string_view document, const change_options &options) noexcept {
    return guarded<change_result>([&](change_result *out) {
        problem_list problems;
        document_plan plan = read_document(document, &problems);
        if (!problems.empty()) return problems.report(INVALID_DOCUMENT, out);
        wish wanted = {std::move(plan.changes), std::move(plan.locks)};
        wanted.refusal = INVALID_DOCUMENT;
        wanted.check = [&](host::moment *keys, problem_list *found) {
            check_against(keys, plan, options.prune, found);
        };
        change_registry(host::registry_url(), wanted, options, out);
    });
}

result check_document(std::string_view document) noexcept {
    return guarded<result>([&](result *out) {
        problem_list problems;
        (void)read_document(document, &problems);  // only its problems are of interest
        if (!problems.empty()) problems.report("the document is invalid", out);
    });
}

// ---- Out of the registry ------------------------------------------------------------------------

// All roots in one read, so that they show one moment.
static key_node read_tree(host::store *keys) {
    key_node tree;
    host::snapshot all(TOP, reach::all_below);
    (void)keys->now()->copy(TOP, reach::all_below, &all);  // none gives an empty tree
    for (uint32_t key = 0; key < all.size(); ++key) {
        std::string_view path = all.path(key);
        if (below_a_root(path)) tree.make(path).value = all.value(key);
    }
    return tree;
}

// Names each key that differs between the tree and what its document would bring back.
static void compare(const key_node &tree, const key_node &back, const std::string &path,
                    problem_list *problems) {
    if (tree.value != back.value) problems->add(path, "would come back with another value");
    for (const auto &[element, node] : tree.children) {
        std::string below = path_below(path, element);
        auto other = back.children.find(element);
        if (other == back.children.end()) {
            problems->add(below, "would not come back");
        } else {
            compare(node, other->second, below, problems);
        }
    }
    for (const auto &[element, node] : back.children) {
        if (tree.children.count(element) > 0) continue;
        problems->add(path_below(path, element), "would come back although it is not there");
    }
}

// Reads the document as an import would: only a document that gives the same tree leaves the house.
static void check_round_trip(const key_node &tree, const std::string &document,
                             problem_list *problems) {
    document_plan plan = read_document(document, problems);
    for (const question &asked : plan.instances) {
        problems->add(asked.path, "is missing, though a service names this instance");
    }
    key_node back;
    for (const host::change &change : plan.changes)
        back.make(change.path).value = change.value;
    if (problems->empty()) compare(tree, back, "", problems);
}

export_result export_document() noexcept {
    return guarded<export_result>([](export_result *out) {
        host::backend registry = open_present();
        key_node tree = read_tree(registry.keys.get());
        problem_list problems;
        std::string document = write_document(&tree, &problems);
        if (problems.empty()) check_round_trip(tree, document, &problems);
        if (problems.empty()) {
            out->document = std::move(document);
        } else {
            problems.report("the tree holds what a document cannot say; nothing was exported", out);
        }
    });
}

// ---- Damage -------------------------------------------------------------------------------------

static void check_present(check_report *out) {
    problem_list problems;
    key_node tree;
    host::check_counts counts = host::check_backend(
        host::registry_url(),
        [&](const std::string &place, const std::string &reason) { problems.add(place, reason); },
        [&](std::string_view path, std::string_view value) {
            if (!below_a_root(path)) return;
            key_node &node = tree.make(path);
            node.value = value;
            node.told = true;
        });
    check_tree(&tree, &problems);
    if (!problems.empty()) problems.report("the registry is damaged", out);
    out->keys = counts.keys;
    out->pages = counts.pages;
}

check_report check_registry() noexcept {
    return guarded<check_report>([](check_report *out) {
        try {
            check_present(out);
        } catch (const host_error &error) {
            if (error.kind != failure::not_found) throw;
            throw host_error(failure::registry, error.what());
        }
    });
}

doctor_report examine_registry() noexcept {
    return guarded<doctor_report>([](doctor_report *out) {
        host::diagnose_backend(host::registry_url(), [&](const host::diagnosis &found) {
            auto health = found.state == host::health::good       ? symptom::state::good
                          : found.state == host::health::doubtful ? symptom::state::doubtful
                                                                  : symptom::state::bad;
            out->symptoms.push_back({found.subject, health, found.text});
        });
    });
}

result recover_registry(recovery how) noexcept {
    return guarded<result>([how](result *) {
        auto end = how == recovery::resume ? host::finish::resume : host::finish::undo;
        if (open_present().keys->finish_apply(end)) return;
        throw host_error(failure::not_found, "no change set stopped half-way");
    });
}

result check_listing() noexcept {
    return guarded<result>([](result *) {
        // Only a failure is of interest, and it is thrown.
        host::snapshot list(SECTIONS.first->key, reach::children);
        (void)open_present().keys->now()->copy(SECTIONS.first->key, reach::children, &list);
    });
}

}  // namespace keyview::admin
