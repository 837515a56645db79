// Walks the tree along the table of the document's fields. What no field tells is a problem, so
// that nothing is lost silently.
#include "admin/document/writer.h"

#include <nlohmann/json.hpp>

#include "admin/document/byte_strings.h"
#include "admin/document/encoding.h"
#include "model/folding.h"
#include "model/records.h"

namespace keyview::admin {

using nlohmann::ordered_json;

namespace {

class tree_walk {
  public:
    explicit tree_walk(problem_list *problems) : problems_(problems) {}

    ordered_json write(key_node *tree) {
        ordered_json document = {{"format", FORMAT}, {"version", VERSION}};
        for (const list_row &section : SECTIONS) {
            write_list(section, tree, "", &document);
            key_node *root = tree->find(section.key);
            if (root != nullptr) report_untold(*root, section.key);
        }
        return document;
    }

  private:
    // path is that of the record that holds the list, empty at the top.
    void write_list(const list_row &row, key_node *holder, const std::string &path,
                    ordered_json *record) {
        key_node *list = holder->find(row.key);
        if (list == nullptr) return;
        std::string list_path = path_below(path, row.key);
        ordered_json items = ordered_json::array();
        tell_parent(list, list_path);
        for (auto &[element, node] : list->children) {
            if (row.type != nullptr && !has_type(node, row.type)) continue;
            if (row.record->scoped) {
                write_scope(row, element, &node, list_path, &items);
            } else {
                items.push_back(write_record(row, element, &node, list_path));
            }
        }
        (*record)[row.field] = std::move(items);
    }

    static bool has_type(const key_node &node, const char *type) {
        auto stored = node.children.find(KEY_TYPE);
        return stored != node.children.end() && stored->second.value == own_value(type);
    }

    // A key of which only the subkeys count.
    void tell_parent(key_node *node, const std::string &path) {
        if (!node->told && !node->value.empty()) {
            problems_->add(path, "has a value of its own, which no field of a document stands for");
        }
        node->told = true;
    }

    void write_scope(const list_row &row, const std::string &scope, key_node *node,
                     const std::string &root, ordered_json *items) {
        std::string path = path_below(root, scope);
        std::optional<fault> wrong = check_name(scope, false, row.record->name_limit);
        if (!wrong && element_of(scope) != scope) wrong = fault{"is not in lower case"};
        if (!wrong && node->children.empty()) wrong = fault{"is a scope without an entry"};
        if (wrong) problems_->add(path, wrong->reason);
        tell_parent(node, path);
        for (auto &[element, entry] : node->children) {
            ordered_json record = {{"scope", scope}};
            record.update(write_record(row, element, &entry, path));
            items->push_back(std::move(record));
        }
    }

    ordered_json write_record(const list_row &list, const std::string &element, key_node *node,
                              const std::string &parent) {
        const record_table &table = *list.record;
        std::string path = path_below(parent, element);
        std::string name;
        std::optional<fault> wrong = decode_own_value(table, element, node->value, &name);
        if (!wrong) wrong = check_path(table, path);
        if (wrong) problems_->add(path, wrong->reason);
        node->told = true;
        if (list.type != nullptr) node->find(KEY_TYPE)->told = true;

        ordered_json record = {{"name", name}};
        for (const field_row &row : table.fields)
            write_field(row, node, path, &record);
        for (const list_row &row : table.lists)
            write_list(row, node, path, &record);
        if (table.dotted_name) report_typeless(node, path);
        return record;
    }

    void write_field(const field_row &row, key_node *node, const std::string &path,
                     ordered_json *record) {
        key_node *key = node->find(row.key);
        if (key == nullptr) return;
        std::string first = std::string(row.key).substr(0, std::string_view(row.key).find('.'));
        if (first != row.key) tell_parent(node->find(first), path_below(path, first));
        key->told = true;
        nlohmann::json value;
        std::optional<fault> wrong = decode_value(row, key->value, &value);
        if (wrong) return problems_->add(path_below(path, row.key), wrong->reason);
        put_strings(row, value, record);
    }

    // A service instance that went into neither list.
    void report_typeless(key_node *service, const std::string &path) {
        key_node *list = service->find(KEY_INSTANCES);
        if (list == nullptr) return;
        std::string list_path = path_below(path, KEY_INSTANCES);
        for (auto &[element, node] : list->children) {
            if (node.told) continue;
            tell_all(&node);
            problems_->add(
                path_below(path_below(list_path, element), KEY_TYPE),
                "is neither PREFERRED nor AVAILABLE, in upper case and with its zero byte");
        }
    }

    static void tell_all(key_node *node) {
        node->told = true;
        for (auto &[element, child] : node->children)
            tell_all(&child);
    }

    // A key that is not told is named without what is below it.
    void report_untold(const key_node &node, const std::string &path) {
        if (!node.told)
            return problems_->add(path, "is a key that no field of a document stands for");
        for (const auto &[element, child] : node.children) {
            report_untold(child, path_below(path, element));
        }
    }

    problem_list *problems_;
};

}  // namespace

std::string write_document(key_node *tree, problem_list *problems) {
    ordered_json document = tree_walk(problems).write(tree);
    // A name that is no UTF-8 is among the problems already.
    return document.dump(2, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace keyview::admin
