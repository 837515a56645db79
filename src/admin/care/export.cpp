// See export.h. A document is written only if reading it gives the very tree that it was made from.
#include "admin/care/export.h"

#include <utility>

#include "admin/care/findings.h"
#include "admin/care/whole_tree.h"
#include "admin/document/encoding.h"
#include "admin/document/key_tree.h"
#include "admin/document/meanings.h"
#include "admin/document/reader.h"
#include "admin/document/writer.h"
#include "admin/registry.h"

namespace keyview::admin {

static key_node tree_of(const key_map &keys) {
    key_node tree;
    for (const auto &[path, value] : keys)
        if (below_a_root(path)) tree.make(path).value = value;
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

// Reads the document as an import would.
static void check_round_trip(const key_node &tree, const std::string &document,
                             problem_list *problems) {
    document_plan plan = read_document(document, problems);
    for (const question &asked : plan.instances)
        problems->add(asked.asker, "names an instance that the database does not have");
    key_node back;
    for (const key_row &one : plan.changes)
        back.make(one.path).value = *one.value;
    if (problems->empty()) compare(tree, back, "", problems);
}

// The document of a tree, if it gives that tree.
static std::string document_of(const key_map &keys, problem_list *problems) {
    key_node tree = tree_of(keys);
    std::string document = write_document(&tree, problems);
    if (problems->empty()) check_round_trip(tree, document, problems);
    return document;
}

// Leaves out each key that no document can express, until there is none, or only names them.
static void remove_inexpressible(bool salvage, key_map *keys, problem_list *left_out) {
    for (bool again = true; again;) {
        again = false;
        for (const finding &found : findings_of(*keys)) {
            if (!found.row->by_export) continue;
            left_out->add(found.path, found.reason);
            if (salvage) leave_out(found, keys);
            again = salvage;
        }
    }
}

// A record whose own value is lost keeps what is below it.
static void restore_names(const problem_list &damage, key_map *keys) {
    for (const problem &found : damage.kept()) {
        key_location location = locate_key(found.place);
        bool is_record =
            location.record != nullptr && location.field == nullptr && !location.is_type;
        auto below = keys->upper_bound(found.place);
        bool has_keys = below != keys->end() && path_within(below->first, found.place);
        if (is_record && has_keys) keys->emplace(found.place, own_value(last_element(found.place)));
    }
}

exported export_document(bool salvage) {
    whole_tree whole = read_whole_tree(
        salvage,
        "the registry is damaged; nothing was exported; \"keyviewctl export --salvage FILE\" leaves "
        "out what is damaged");
    exported out;
    out.left_out = std::move(whole.damage);
    restore_names(out.left_out, &whole.keys);
    remove_inexpressible(salvage, &whole.keys, &out.left_out);
    problem_list problems;
    if (!salvage) {
        for (const problem &found : out.left_out.kept())
            problems.add(found.place, found.reason);
    }
    if (problems.empty()) out.document = document_of(whole.keys, &problems);
    problems.throw_if_any(
        "the tree holds what a document cannot express; nothing was exported; \"keyviewctl export "
        "--salvage FILE\" leaves it out");
    return out;
}

std::string export_database(const std::string &key, uint64_t *revision) {
    key_map keys;
    *revision = registry::open().read({{key, reach::all_below}}, &keys);
    if (keys.empty()) throw error(KEYVIEW_FAILURE_NOT_FOUND, "there is no key " + key);
    problem_list problems;
    std::string document = document_of(keys, &problems);
    problems.throw_if_any("the database holds what a document cannot express");
    return document;
}

}  // namespace keyview::admin
