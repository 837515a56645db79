// See document.h.
#include "admin/document/document.h"

#include <utility>

#include "admin/document/encoding.h"
#include "admin/document/key_tree.h"
#include "admin/document/reader.h"
#include "admin/document/writer.h"
#include "model/folding.h"

namespace keyview::admin {

// ---- Into the registry --------------------------------------------------------------------------

// What only the registry shows about the document. What is pruned cannot be relied on.
static void check_against(const key_map &present, const document_plan &plan, bool prune,
                          problem_list *problems) {
    for (const question &asked : plan.instances) {
        if (!prune && present.count(asked.path) > 0) continue;
        problems->add(asked.place,
                      "names an instance that neither the document nor the registry has");
    }
    for (const question &asked : plan.services) {
        // "a.b" and "a*b" share a key; to store one over the other would lose a service.
        auto stored = present.find(asked.path);
        if (stored == present.end() || stored->second == DAMAGED_VALUE) continue;
        std::string name = stored->second.substr(0, stored->second.find('\0'));
        if (!name.empty() && element_of(name) != element_of(asked.name)) {
            problems->add(asked.place,
                          "stands for a key at which the registry has another service: " + name);
        }
    }
}

change_result apply_document(std::string_view document, const change_options &options) {
    static constexpr const char *INVALID = "the document is invalid; nothing was written";
    problem_list faults;
    document_plan plan = read_document(document, &faults);
    faults.throw_if_any(INVALID);
    change_request request = {std::move(plan.changes), std::move(plan.locks)};
    for (const auto *questions : {&plan.instances, &plan.services})
        for (const question &asked : *questions)
            request.examines.push_back(asked.path);
    request.check = [&](const key_map &present) {
        problem_list problems;
        check_against(present, plan, options.prune, &problems);
        problems.throw_if_any(INVALID);
    };
    return change_registry("", request, options);
}

// ---- Out of the registry ------------------------------------------------------------------------

// All roots in one read, so that they show one moment.
static key_node read_tree() {
    key_map keys;
    (void)registry::open().read({{ROOT, reach::all_below}}, &keys);
    key_node tree;
    for (auto &[path, value] : keys)
        if (below_a_root(path)) tree.make(path).value = std::move(value);
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

// Reads the document as an import would: only a document that gives the same tree is written.
static void check_round_trip(const key_node &tree, const std::string &document,
                             problem_list *problems) {
    document_plan plan = read_document(document, problems);
    for (const question &asked : plan.instances) {
        problems->add(asked.path, "is missing, though a service names this instance");
    }
    key_node back;
    for (const change &one : plan.changes)
        back.make(one.path).value = *one.value;
    if (problems->empty()) compare(tree, back, "", problems);
}

std::string export_document() {
    key_node tree = read_tree();
    problem_list problems;
    std::string document = write_document(&tree, &problems);
    if (problems.empty()) check_round_trip(tree, document, &problems);
    problems.throw_if_any("the tree holds what a document cannot express; nothing was exported");
    return document;
}

}  // namespace keyview::admin
