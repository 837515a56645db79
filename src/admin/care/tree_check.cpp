// Walks the tree along the table of the document's fields, as its readers do.
#include "admin/care/tree_check.h"

#include "admin/document/encoding.h"
#include "model/records.h"

namespace keyview::admin {

static void check_list(const list_row &list, key_node *holder, const std::string &path,
                       problem_list *problems);

static void check_record(const record_table &table, const std::string &element, key_node *node,
                         const std::string &path, problem_list *problems) {
    std::string name;
    std::optional<fault> wrong;
    if (node->told) wrong = decode_own_value(table, element, node->value, &name);
    if (wrong) problems->add(path, wrong->reason);
    for (const field_row &row : table.fields) {
        key_node *key = node->find(row.key);
        if (key == nullptr || !key->told) continue;
        wrong = check_stored(row, key->value);
        if (wrong) problems->add(path_below(path, row.key), wrong->reason);
    }
    for (const list_row &row : table.lists) {
        // Two lists that share their key hold the same kind of records.
        if (&row != table.lists.begin() && (&row)[-1].key == std::string_view(row.key)) continue;
        check_list(row, node, path, problems);
    }
}

static void check_list(const list_row &list, key_node *holder, const std::string &path,
                       problem_list *problems) {
    key_node *found = holder->find(list.key);
    if (found == nullptr) return;
    std::string list_path = path_below(path, list.key);
    for (auto &[element, node] : found->children) {
        std::string below = path_below(list_path, element);
        if (!list.record->scoped) {
            check_record(*list.record, element, &node, below, problems);
            continue;
        }
        for (auto &[name, entry] : node.children)
            check_record(*list.record, name, &entry, path_below(below, name), problems);
    }
}

void check_tree(key_node *tree, problem_list *problems) {
    for (const list_row &section : SECTIONS)
        check_list(section, tree, "", problems);
}

}  // namespace keyview::admin
