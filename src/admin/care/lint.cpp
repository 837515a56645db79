// See lint.h: a rule a row, and a walk along the tables of the model.
#include "admin/care/lint.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <utility>

#include "admin/document/encoding.h"
#include "admin/registry.h"
#include "model/folding.h"
#include "model/records.h"

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

struct lint_rule {
    const char *rule, *severity;
};

// In the order of rule_number.
static constexpr lint_rule RULES[] = {
    {"name-missing", "error"},      // a record's key has no own value, which is its registered name
    {"name-other", "error"},        // a key's own value is another name than the key's element
    {"name-long", "error"},         // an own value is longer than its readers take
    {"type-case", "error"},         // a type word is not PREFERRED or AVAILABLE in upper case
    {"type-missing", "error"},      // a service's instance has no type
    {"flag-two-ways", "error"},     // a flag is neither TRUE nor FALSE: readers differ about it
    {"list-single", "error"},       // a single string lacks the list's final zero byte
    {"list-form", "error"},         // a list does not end as a list does
    {"value-long", "error"},        // a value is longer than its readers take
    {"word-unknown", "error"},      // a value is none of the words that its readers know
    {"instance-missing", "error"},  // a service names an instance that the database does not have
    {"node-twice", "warning"},      // two instances of a database are on one node
    {"node-case", "warning"},       // the name of a node is not in lower case
};
static_assert(std::size(RULES) == NODE_CASE + 1, "a row for each rule");

namespace {

using command = std::vector<std::string>;

class lint_walk {
  public:
    lint_walk(const key_map &keys, std::vector<finding> *findings)
        : keys_(keys), findings_(findings) {}

    void walk() {
        for (const list_row &section : SECTIONS)
            inspect_list(section, section.key);
    }

  private:
    void mend(rule_number rule, const std::string &path, std::string readers_see, command remedy) {
        findings_->push_back({RULES[rule].rule, RULES[rule].severity, path, std::move(readers_see),
                              std::move(remedy)});
    }
    void ask(rule_number rule, const std::string &path, std::string readers_see,
             std::string decision) {
        mend(rule, path, std::move(readers_see), {});
        findings_->back().decision = std::move(decision);
    }

    const std::string *value_at(const std::string &path) const {
        auto found = keys_.find(path);
        return found == keys_.end() ? nullptr : &found->second;
    }

    static std::string text_in(const std::string &stored) {
        return stored.substr(0, stored.find('\0'));
    }

    // The elements one level below a key.
    std::vector<std::string> children(const std::string &path) const {
        std::vector<std::string> out;
        for (auto at = keys_.upper_bound(path); at != keys_.end() && path_within(at->first, path);
             ++at) {
            if (parent_path(at->first) == path) out.emplace_back(last_element(at->first));
        }
        return out;
    }

    void inspect_list(const list_row &list, const std::string &path) {
        for (const std::string &element : children(path)) {
            std::string below = path_below(path, element);
            if (!list.record->scoped) {
                inspect_record(list, element, below);
                continue;
            }
            for (const std::string &name : children(below))
                inspect_record(list, name, path_below(below, name));
        }
    }

    void inspect_record(const list_row &list, const std::string &element, const std::string &path) {
        inspect_name(*list.record, element, path);
        for (const field_row &row : list.record->fields)
            inspect_field(row, path_below(path, row.key));
        if (list.type != nullptr) inspect_service_instance(element, path);
        for (const list_row &below : list.record->lists)
            if (*below.meaning != '\0') inspect_list(below, path_below(path, below.key));
        if (list.record == &DATABASE) inspect_nodes(path);
    }

    void inspect_name(const record_table &table, const std::string &element,
                      const std::string &path) {
        const std::string &stored = *value_at(path);
        std::string text = text_in(stored);
        if (text.empty()) {
            mend(NAME_MISSING, path, "an empty name", {"set", path, element});
        } else if (element_of(text, table.dotted_name) != element) {
            ask(NAME_OTHER, path, "the name " + text + ", or none, if it is longer",
                "whether the name is " + element +
                    " in some case, or the record belongs below the key of " + text);
        } else if (stored.size() > element.size() + 1) {
            mend(NAME_LONG, path, "no name: it cannot be read", {"set", path, text});
        }
    }

    static std::string words_of(const field_row &row) {
        std::string all;
        for (const char *word : row.words)
            all += (all.empty() ? "" : ", ") + std::string(word);
        return all;
    }

    static bool is_word(const field_row &row, const std::string &folded) {
        return std::any_of(row.words.begin(), row.words.end(),
                           [&](const char *word) { return element_of(word) == folded; });
    }

    void inspect_field(const field_row &row, const std::string &path) {
        const std::string *stored = value_at(path);
        if (stored == nullptr) return;
        if (stored->size() > row.limit) {
            return ask(VALUE_LONG, path, "nothing: the value cannot be read",
                       "which value of up to " + bytes_text(row.limit) + " replaces it");
        }
        std::string text = text_in(*stored);
        std::string folded = element_of(text);
        if (row.kind == value_kind::flag && folded != "true" && folded != "false") {
            ask(FLAG_TWO_WAYS, path, "1 in the record, 0 when asked for the flag alone",
                "whether it is true or false");
        }
        if (row.kind == value_kind::env) inspect_env(path, *stored);
        if (row.kind == value_kind::word && !is_word(row, folded))
            ask(WORD_UNKNOWN, path, "an unknown word", "which of " + words_of(row) + " it is");
        if (row.key == std::string_view(KEY_NODE) && folded != text) {
            mend(NODE_CASE, path, "no instance when asked by the node's name",
                 {"set", path, folded});
        }
    }

    void inspect_env(const std::string &path, const std::string &stored) {
        if (stored.empty() || !check_stored_list(stored)) return;
        bool single = stored.find('\0') + 1 == stored.size();
        command remedy = {"set", path};
        for (size_t at = 0; at < stored.size();) {
            size_t end = std::min(stored.find('\0', at), stored.size());
            if (end > at) remedy.push_back(stored.substr(at, end - at));
            at = end + 1;
        }
        mend(single ? LIST_SINGLE : LIST_FORM, path,
             single ? "no strings at all" : "fewer or other strings", std::move(remedy));
    }

    // path is below a service.
    void inspect_service_instance(const std::string &element, const std::string &path) {
        static const std::string TYPES = TYPE_PREFERRED + std::string(" or ") + TYPE_AVAILABLE;
        std::string type_path = path_below(path, KEY_TYPE);
        const std::string *stored = value_at(type_path);
        std::string text = stored == nullptr ? "" : text_in(*stored);
        if (stored == nullptr) {
            ask(TYPE_MISSING, type_path, "no such instance; the roster fails",
                "whether it is " + TYPES);
        } else if (text != TYPE_PREFERRED && text != TYPE_AVAILABLE) {
            const char *see = "neither a preferred nor an available instance";
            const char *meant = element_of(text) == element_of(TYPE_PREFERRED)   ? TYPE_PREFERRED
                                : element_of(text) == element_of(TYPE_AVAILABLE) ? TYPE_AVAILABLE
                                                                                 : nullptr;
            if (meant != nullptr) {
                mend(TYPE_CASE, type_path, see, {"set", type_path, meant});
            } else {
                ask(TYPE_CASE, type_path, see, "whether it is " + TYPES);
            }
        }
        std::string instances = path_below(std::string(first_elements(path, 3)), KEY_INSTANCE);
        if (value_at(path_below(instances, element)) == nullptr) {
            ask(INSTANCE_MISSING, path, "an instance without a node; the roster fails",
                "whether the service leaves it out, or the database gets this instance");
        }
    }

    void inspect_nodes(const std::string &database) {
        std::map<std::string, std::string> first;
        std::string list = path_below(database, KEY_INSTANCE);
        for (const std::string &element : children(list)) {
            std::string path = path_below(path_below(list, element), KEY_NODE);
            const std::string *stored = value_at(path);
            std::string node = stored == nullptr ? "" : text_in(*stored);
            if (node.empty()) continue;
            auto [at, fresh] = first.emplace(element_of(node), element);
            if (fresh) continue;
            ask(NODE_TWICE, path, "instance " + at->second + " only, when asked by the node's name",
                "on which node each of " + at->second + " and " + element + " runs");
        }
    }

    const key_map &keys_;
    std::vector<finding> *findings_;
};

}  // namespace

lint_result lint_registry() {
    key_map keys;
    (void)registry::open().read({{ROOT, reach::all_below}}, &keys);
    lint_result out;
    out.keys = keys.size();
    lint_walk(keys, &out.findings).walk();
    return out;
}

}  // namespace keyview::admin
