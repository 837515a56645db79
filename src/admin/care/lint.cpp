// What readers misread in a sound registry: a rule a row, and a walk along the table of fields.
#include <iterator>
#include <map>

#include "admin/change/key_map.h"
#include "admin/document/encoding.h"
#include "admin/document/fields.h"
#include "admin/entry.h"
#include "model/path.h"

namespace keyview::admin {

enum rule_number : size_t {
    NAME_MISSING,
    NAME_OTHER,
    NAME_LONG,
    TYPE_CASE,
    TYPE_MISSING,
    FLAG_TWO_WAYS,
    LIST_SINGLE,
    LIST_FORM,
    VALUE_LONG,
    WORD_UNKNOWN,
    INSTANCE_MISSING,
    NODE_TWICE,
    NODE_CASE,
};

// In the order of rule_number.
static constexpr lint_rule RULES[] = {
    {"name-missing", "error", "a record's key has no own value, which is its registered name"},
    {"name-other", "error", "a key's own value is another name than the key's element"},
    {"name-long", "error", "an own value is longer than its readers take"},
    {"type-case", "error", "a type word is not PREFERRED or AVAILABLE in upper case"},
    {"type-missing", "error", "a service's instance has no type"},
    {"flag-two-ways", "error", "a flag is neither TRUE nor FALSE: one reader says 1, another 0"},
    {"list-single", "error", "a single string lacks the list's final zero byte"},
    {"list-form", "error", "a list does not end as a list does"},
    {"value-long", "error", "a value is longer than its readers take"},
    {"word-unknown", "error", "a value is none of the words that its readers know"},
    {"instance-missing", "error", "a service names an instance that the database does not have"},
    {"node-twice", "warning", "two instances of a database are on one node"},
    {"node-case", "warning", "the name of a node is not in lower case"},
};
static_assert(std::size(RULES) == NODE_CASE + 1, "a row for each rule");

std::vector<lint_rule> lint_rules() {
    return {std::begin(RULES), std::end(RULES)};
}

namespace {

class lint_walk {
  public:
    lint_walk(const key_map &keys, std::vector<finding> *findings)
        : keys_(keys), findings_(findings) {}

    void walk() {
        for (const list_row &section : SECTIONS)
            look_at_list(section, section.key);
    }

  private:
    void add(rule_number rule, const std::string &path, std::string readers_see,
             std::vector<std::string> mend) {
        findings_->push_back({RULES[rule].rule, RULES[rule].severity, path, std::move(readers_see),
                              std::move(mend)});
    }

    const std::string *value_at(const std::string &path) const {
        auto found = keys_.find(path);
        return found == keys_.end() ? nullptr : &found->second;
    }

    // The elements one level below a key.
    std::vector<std::string> children(const std::string &path) const {
        std::vector<std::string> out;
        for (auto at = keys_.upper_bound(path); at != keys_.end() && path_within(at->first, path);
             ++at) {
            std::string_view rest = std::string_view(at->first).substr(path.size() + 1);
            if (rest.find('.') == rest.npos) out.emplace_back(rest);
        }
        return out;
    }

    void look_at_list(const list_row &list, const std::string &path) {
        for (const std::string &element : children(path)) {
            std::string below = path_below(path, element);
            if (!list.record->scoped) {
                look_at_record(list, element, below);
                continue;
            }
            for (const std::string &name : children(below))
                look_at_record(list, name, path_below(below, name));
        }
    }

    void look_at_record(const list_row &list, const std::string &element, const std::string &path) {
        look_at_name(*list.record, element, path);
        for (const field_row &row : list.record->fields)
            look_at_field(row, path_below(path, row.key));
        if (list.type != nullptr) look_at_service_instance(element, path);
        const list_row *before = nullptr;
        for (const list_row &below : list.record->lists) {
            bool same = before != nullptr && before->key == std::string_view(below.key);
            if (!same) look_at_list(below, path_below(path, below.key));
            before = &below;
        }
        if (list.record == &DATABASE) look_at_nodes(path);
    }

    void look_at_name(const record_table &table, const std::string &element,
                      const std::string &path) {
        const std::string &stored = *value_at(path);
        std::vector<std::string> mend = {"set", path, element};
        std::string text = stored.substr(0, stored.find('\0'));
        if (text.empty()) {
            add(NAME_MISSING, path, "an empty name", mend);
        } else if (element_of(text, table.dotted_name) != element) {
            add(NAME_OTHER, path, "the name " + text + ", or none, if it is longer", mend);
        } else if (stored.size() > element.size() + 1) {
            add(NAME_LONG, path, "no name: it cannot be read", mend);
        }
    }

    void look_at_field(const field_row &row, const std::string &path) {
        const std::string *stored = value_at(path);
        if (stored == nullptr) return;
        if (stored->size() > row.limit) {
            return add(VALUE_LONG, path, "nothing: the value cannot be read", {"rm", path});
        }
        std::string text = stored->substr(0, stored->find('\0'));
        std::string folded = element_of(text, false);
        if (row.kind == value_kind::flag && folded != "true" && folded != "false") {
            add(FLAG_TWO_WAYS, path, "1 in the record, 0 when asked for the flag alone",
                {"set", path, "false"});
        }
        if (row.kind == value_kind::env) look_at_env(path, *stored);
        if (row.kind == value_kind::word && !is_word(row, folded)) {
            add(WORD_UNKNOWN, path, "an unknown word", {"set", path, row.words.first[0]});
        }
        if (row.key == std::string_view("NODE") && folded != text) {
            add(NODE_CASE, path, "no instance when asked by the node's name",
                {"set", path, folded});
        }
    }

    static bool is_word(const field_row &row, const std::string &folded) {
        for (const char *word : row.words)
            if (element_of(word, false) == folded) return true;
        return false;
    }

    void look_at_env(const std::string &path, const std::string &stored) {
        if (stored.empty() || stored == std::string(1, '\0')) return;
        field_row plain = {"", "", value_kind::env, GROWING_LIMIT};
        if (!check_stored(plain, stored)) return;
        bool single = stored.find('\0') + 1 == stored.size();
        std::vector<std::string> mend = {"set", path};
        for (size_t at = 0; at < stored.size();) {
            size_t end = std::min(stored.find('\0', at), stored.size());
            if (end > at) mend.push_back(stored.substr(at, end - at));
            at = end + 1;
        }
        add(single ? LIST_SINGLE : LIST_FORM, path,
            single ? "no strings at all" : "fewer or other strings", mend);
    }

    // path is below a service.
    void look_at_service_instance(const std::string &element, const std::string &path) {
        std::string type_path = path_below(path, TYPE_KEY);
        const std::string *stored = value_at(type_path);
        if (stored == nullptr) {
            add(TYPE_MISSING, type_path, "no such instance; the roster fails",
                {"set", type_path, "AVAILABLE"});
        } else {
            std::string text = stored->substr(0, stored->find('\0'));
            bool preferred = element_of(text, false) == "preferred";
            if (text != "PREFERRED" && text != "AVAILABLE") {
                add(TYPE_CASE, type_path, "neither a preferred nor an available instance",
                    {"set", type_path, preferred ? "PREFERRED" : "AVAILABLE"});
            }
        }
        std::string database =
            path.substr(0, path.find('.', std::string("DATABASE.DATABASES.").size()));
        if (value_at(database + ".INSTANCE." + element) == nullptr) {
            add(INSTANCE_MISSING, path, "an instance without a node; the roster fails",
                {"rm", path});
        }
    }

    void look_at_nodes(const std::string &database) {
        std::map<std::string, std::string> first;
        std::string list = path_below(database, "INSTANCE");
        for (const std::string &element : children(list)) {
            std::string path = path_below(path_below(list, element), "NODE");
            const std::string *stored = value_at(path);
            std::string node = stored == nullptr ? "" : stored->substr(0, stored->find('\0'));
            if (node.empty()) continue;
            auto [at, fresh] = first.emplace(element_of(node, false), element);
            if (fresh) continue;
            add(NODE_TWICE, path, "instance " + at->second + " only, when asked by the node's name",
                {"set", path, ""});
        }
    }

    const key_map &keys_;
    std::vector<finding> *findings_;
};

}  // namespace

lint_result lint_registry() noexcept {
    return guarded<lint_result>([](lint_result *out) {
        key_map keys;
        read_below(open_present().keys->now().get(), TOP, reach::all_below, &keys);
        out->keys = keys.size();
        lint_walk(keys, &out->findings).walk();
    });
}

}  // namespace keyview::admin
