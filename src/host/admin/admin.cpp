// The entry points: a document into the registry, and out of it.
#include <algorithm>
#include <chrono>
#include <memory>
#include <new>
#include <set>
#include <vector>

#include "host/admin/document_reader.h"
#include "host/admin/document_writer.h"
#include "host/admin/encoding.h"
#include "host/admin/fields.h"
#include "host/admin/key_tree.h"
#include "host/admin/tree_check.h"
#include "host/if/keyview_admin.h"
#include "host/registry/backend.h"
#include "host/registry/diagnosis.h"
#include "host/registry/path.h"
#include "host/registry/snapshot.h"
#include "host/support/error.h"

namespace keyview::admin {

using host::failure;
using host::host_error;

static status status_of(failure kind) {
    switch (kind) {
        case failure::usage:
            return status::usage;
        case failure::not_found:
            return status::not_found;
        case failure::registry:
            return status::registry;
        case failure::lock:
            return status::lock;
        case failure::changed:
            return status::changed;
        case failure::denied:
            return status::denied;
        case failure::content:
            return status::content;
        case failure::internal:
            break;
    }
    return status::internal;
}

// Runs one entry point; what it throws becomes its result.
template <typename outcome, typename work>
static outcome guarded(work &&run) noexcept {
    outcome out;
    try {
        run(&out);
    } catch (const host_error &error) {
        out = outcome();
        out.code = status_of(error.kind);
        out.text = error.what();
    } catch (const std::bad_alloc &) {
        out = outcome();
        out.code = status::internal;
        out.text = "out of memory";
    } catch (const std::exception &error) {
        out = outcome();
        out.code = status::internal;
        out.text = error.what();
    }
    return out;
}

// ---- Into the registry --------------------------------------------------------------------------

static constexpr const char *INVALID_DOCUMENT = "the document is invalid; nothing was written";

using held_locks = std::vector<std::shared_ptr<host::held_lock>>;

// The names are sorted, so that two programs that lock several never wait for each other in a ring.
static held_locks lock_all(host::lock_service *locks, const std::set<std::string> &names) {
    using std::chrono::milliseconds;
    using std::chrono::steady_clock;
    auto deadline = steady_clock::now() + milliseconds(host::lock_wait_ms());
    held_locks held;
    for (const std::string &name : names) {
        auto left = std::chrono::duration_cast<milliseconds>(deadline - steady_clock::now());
        auto wait_ms = static_cast<uint32_t>(std::max<int64_t>(left.count(), 0));
        held.push_back(locks->acquire(name, host::lock_mode::exclusive, wait_ms));
    }
    return held;
}

static host::apply_terms terms_of(const held_locks &held) {
    host::apply_terms terms;
    for (const auto &lock : held)
        terms.fences.push_back(lock.get());
    return terms;
}

// What only the registry can tell about the document; keys may be null, for an empty registry.
static void check_against(host::moment *keys, const document_plan &plan, problem_list *problems) {
    std::string value;
    for (const question &asked : plan.instances) {
        if (keys != nullptr && keys->read(asked.path, &value)) continue;
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

// Null if there is none yet: then nothing is created before the document has passed all checks.
static host::backend open_existing() {
    try {
        return host::open_backend(host::registry_url(), host::open_mode::existing);
    } catch (const host_error &error) {
        if (error.kind != failure::not_found) throw;
        return {};
    }
}

static void apply_plan(const document_plan &plan, apply_result *out) {
    host::backend registry = open_existing();
    problem_list problems;
    if (!registry.keys) {
        check_against(nullptr, plan, &problems);
        if (!problems.empty()) return problems.report(INVALID_DOCUMENT, out);
        registry = host::open_backend(host::registry_url(), host::open_mode::create);
    }
    held_locks held = lock_all(registry.locks.get(), plan.locks);
    check_against(registry.keys->now().get(), plan, &problems);
    if (!problems.empty()) return problems.report(INVALID_DOCUMENT, out);
    host::change_counts counts = registry.keys->apply(plan.changes, terms_of(held));
    out->created = counts.created;
    out->replaced = counts.replaced;
}

apply_result apply_document(std::string_view document) noexcept {
    return guarded<apply_result>([&](apply_result *out) {
        problem_list problems;
        document_plan plan = read_document(document, &problems);
        if (!problems.empty()) return problems.report(INVALID_DOCUMENT, out);
        apply_plan(plan, out);
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

static host::backend open_present() {
    host::backend registry = open_existing();
    if (registry.keys) return registry;
    throw host_error(failure::registry, "there is no registry at " + host::registry_url());
}

static bool below_a_root(std::string_view path) {
    return std::any_of(SECTIONS.begin(), SECTIONS.end(), [&](const list_row &section) {
        return host::path_within(path, section.key);
    });
}

// All roots in one read, so that they show one moment.
static key_node read_tree(host::store *keys) {
    key_node tree;
    host::snapshot all("DATABASE", host::reach::all_below);
    (void)keys->now()->copy("DATABASE", host::reach::all_below, &all);  // none gives an empty tree
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
        host::snapshot list(SECTIONS.first->key, host::reach::children);
        (void)open_present().keys->now()->copy(SECTIONS.first->key, host::reach::children, &list);
    });
}

}  // namespace keyview::admin
