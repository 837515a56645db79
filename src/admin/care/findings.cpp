// See findings.h: a finding a row, and the inspection of each key as the tables of the model have it.
#include "admin/care/findings.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <set>
#include <utility>

#include "admin/document/encoding.h"
#include "admin/document/meanings.h"
#include "model/folding.h"
#include "model/path.h"

namespace keyview::admin {

enum finding_number : size_t {
    DAMAGED,
    NAME_MISSING,
    NAME_OTHER,
    NAME_LONG,
    NAME_UNENDED,
    NAME_FORM,
    PATH_LONG,
    TYPE_CASE,
    TYPE_MISSING,
    INSTANCE_MISSING,
    FLAG_TWO_WAYS,
    FLAG_CASE,
    WORD_UNKNOWN,
    LIST_SINGLE,
    LIST_FORM,
    VALUE_LONG,
    VALUE_UNENDED,
    VALUE_ZERO,
    VALUE_FORM,
    NODE_TWICE,
    NODE_CASE,
    SCOPE_NAME,
    PARENT_EMPTY,
    PARENT_VALUE,
    KEY_UNKNOWN,
};

static constexpr const char *ERROR = "error", *WARNING = "warning", *SET = "set",
                            *DECIDES = "a person decides", *EITHER = "set, or a person decides",
                            *ANY = "set or rm, or a person decides";

// In the order of finding_number.
static constexpr finding_row ROWS[] = {
    {"damaged", ERROR,
     "stored bytes that are not those that were written, or a key that is missing", DECIDES, true,
     true, true},
    {"name-missing", ERROR, "a record's key without an own value, which is its registered name",
     EITHER, true, true, true},
    {"name-other", ERROR, "an own value that is another name than the key's element", DECIDES, true,
     true, true},
    {"name-long", ERROR, "an own value that is longer than its readers take", SET, true, true,
     true},
    {"name-unended", ERROR, "an own value without its final zero byte", SET, true, true, true},
    {"name-form", ERROR, "an own value that is no name: no UTF-8, or too long", DECIDES, true, true,
     true},
    {"path-long", ERROR, "a record whose keys have longer paths than readers compose", DECIDES,
     true, true, true},
    {"type-case", ERROR, "a type word that is not PREFERRED or AVAILABLE, in upper case", EITHER,
     true, true, true},
    {"type-missing", ERROR, "a service's instance without a type", DECIDES, true, true, true},
    {"instance-missing", ERROR, "a service's instance that the database does not have", DECIDES,
     true, true, true},
    {"flag-two-ways", ERROR, "a flag that is neither TRUE nor FALSE: readers differ about it",
     DECIDES, true, true, true},
    {"flag-case", WARNING, "a flag that is not in lower case", SET, false, true, true},
    {"word-unknown", ERROR, "a value that is none of the words that its readers know", DECIDES,
     true, true, true},
    {"list-single", ERROR, "a single string without the list's final zero byte", SET, true, true,
     true},
    {"list-form", ERROR, "a list that does not end as a list does", ANY, true, true, true},
    {"value-long", ERROR, "a value that is longer than its readers take", DECIDES, true, true,
     true},
    {"value-unended", ERROR, "a value without its final zero byte", EITHER, true, true, true},
    {"value-zero", ERROR, "a value with a zero byte before its end", EITHER, true, true, true},
    {"value-form", WARNING, "an address that is empty, and stored as a text", DECIDES, false, true,
     true},
    {"node-twice", WARNING, "two instances of a database on one node", DECIDES, false, true, false},
    {"node-case", WARNING, "the name of a node that is not in lower case", SET, false, true, false},
    {"scope-name", ERROR, "a scope that is no name in lower case", DECIDES, true, true, true},
    {"parent-empty", WARNING, "a key of which only the subkeys count, without one", "rm", false,
     true, true},
    {"parent-value", WARNING, "a value of a key of which only the subkeys count", DECIDES, false,
     false, true},
    {"key-unknown", WARNING, "a key that no field stands for", DECIDES, false, false, true},
};
static_assert(std::size(ROWS) == KEY_UNKNOWN + 1, "a row for each finding");

rows<finding_row> finding_rows() {
    return ROWS;
}

bool is_about_name(const finding &found) {
    auto number = static_cast<size_t>(found.row - ROWS);
    return number >= NAME_MISSING && number <= NAME_FORM;
}

void leave_out(const finding &found, key_map *keys) {
    auto number = static_cast<size_t>(found.row - ROWS);
    auto at = keys->find(found.path);
    if (at != keys->end() && is_about_name(found)) {
        std::string name = own_value(last_element(found.path));
        if (at->second != name) {
            at->second = name;
            return;
        }
    }
    if (at != keys->end() && number == PARENT_VALUE) {
        at->second.clear();
        return;
    }
    bool is_type = number == TYPE_CASE || number == TYPE_MISSING;
    remove_below(is_type ? std::string(parent_path(found.path)) : found.path, keys);
}

static std::string text_in(const std::string &stored) {
    return stored.substr(0, stored.find('\0'));
}

static std::string words_of(const field_row &row) {
    std::string all;
    for (const char *word : row.words)
        all += (all.empty() ? "" : ", ") + std::string(word);
    return all;
}

static bool is_word(const field_row &row, const std::string &folded) {
    if (row.kind == value_kind::flag)
        return folded == element_of(FLAG_TRUE) || folded == element_of(FLAG_FALSE);
    return std::any_of(row.words.begin(), row.words.end(),
                       [&](const char *word) { return element_of(word) == folded; });
}

static std::string decoding_fault(const field_row &row, const std::string &stored) {
    nlohmann::json value;
    std::optional<fault> wrong = decode_value(row, stored, &value);
    return wrong ? wrong->reason : "";
}

namespace {

using command = std::vector<std::string>;

class inspection {
  public:
    inspection(const key_map &keys, std::vector<finding> *findings)
        : keys_(keys), findings_(findings) {}

    void add_damage(const problem &found, bool repairable) {
        damaged_.insert(found.place);
        bool is_key = path_within(found.place, ROOT) && path_fault(found.place) == nullptr;
        std::string set = locate_key(found.place).pattern.empty()
                              ? ""
                              : "which value it has: \"keyviewctl set KEY VALUE\"; or ";
        ask(DAMAGED, found.place, found.reason, "nothing: the commands that read it fail",
            repairable && is_key
                ? set +
                      "whether it is removed: \"keyviewctl rm KEY\"; or which backup comes "
                      "back: \"keyviewctl restore FILE --force\""
                : "which backup, or what of the registry \"keyviewctl backup --salvage FILE\" "
                  "saves, comes back: \"keyviewctl restore FILE --registry lmdb:DIRECTORY\", into a "
                  "new directory");
    }

    void inspect_keys() {
        std::string unknown;  // the latest key that no field stands for: all below it are its own
        for (const auto &[path, stored] : keys_) {
            bool below = !unknown.empty() && path_within(path, unknown);
            if (!below_a_root(path) || below) continue;
            key_location location = locate_key(path);
            if (location.pattern.empty()) {
                unknown = path;
                mend(KEY_UNKNOWN, path, "is a key that no field of a document stands for", "", {});
            } else if (location.field != nullptr) {
                inspect_field(*location.field, path, stored);
            } else if (location.is_type) {
                inspect_type(path, stored);
            } else if (location.record != nullptr) {
                inspect_record(*location.record, path, stored);
            } else {
                inspect_parent(path, stored);
            }
        }
    }

  private:
    void mend(finding_number number, const std::string &path, std::string reason,
              std::string readers_see, command remedy) {
        findings_->push_back(
            {&ROWS[number], path, std::move(reason), std::move(readers_see), std::move(remedy)});
    }
    void ask(finding_number number, const std::string &path, std::string reason,
             std::string readers_see, std::string decision) {
        mend(number, path, std::move(reason), std::move(readers_see), {});
        findings_->back().decision = std::move(decision);
    }

    // Null for a key that does not exist, or is damaged.
    const std::string *value_at(const std::string &path) const {
        auto found = keys_.find(path);
        return found == keys_.end() ? nullptr : &found->second;
    }

    bool is_missing(const std::string &path) const {
        return value_at(path) == nullptr && damaged_.count(path) == 0;
    }

    // The elements one level below a key.
    std::set<std::string> children(const std::string &path) const {
        std::set<std::string> out;
        for (auto at = keys_.upper_bound(path); at != keys_.end() && path_within(at->first, path);
             ++at) {
            std::string_view rest = std::string_view(at->first).substr(path.size() + 1);
            out.emplace(rest.substr(0, rest.find('.')));
        }
        return out;
    }

    // ---- Records --------------------------------------------------------------------------------

    void inspect_record(const record_table &table, const std::string &path,
                        const std::string &stored) {
        inspect_name(table, path, stored);
        std::optional<fault> wrong = check_path(table, path);
        if (wrong) {
            ask(PATH_LONG, path, wrong->reason, "nothing of the record",
                "under which shorter name the record is created");
        }
        if (&table == &SERVICE_INSTANCE) inspect_service_instance(path);
        if (&table == &DATABASE) inspect_nodes(path);
    }

    void inspect_name(const record_table &table, const std::string &path,
                      const std::string &stored) {
        std::string name, text = text_in(stored), element(last_element(path));
        std::optional<fault> wrong = decode_own_value(table, element, stored, &name);
        if (!wrong) return;
        const std::string &reason = wrong->reason;
        if (text.empty() && table.dotted_name && element.find('*') != element.npos) {
            ask(NAME_MISSING, path, reason, "an empty name",
                "which name it is: each * of " + element + " is a . or a *");
        } else if (text.empty()) {
            mend(NAME_MISSING, path, reason, "an empty name", {"set", path, element});
        } else if (element_of(text, table.dotted_name) != element) {
            ask(NAME_OTHER, path, reason, "the name " + text + ", or none, if it is longer",
                "whether the name is " + element +
                    " in some case, or the record belongs below the key of " + text);
        } else if (stored.size() > element.size() + 1) {
            mend(NAME_LONG, path, reason, "no name: it cannot be read", {"set", path, text});
        } else if (stored.back() != '\0') {
            mend(NAME_UNENDED, path, reason, "the name, or none", {"set", path, text});
        } else {
            ask(NAME_FORM, path, reason, "a name that no document can have",
                "under which name the record is created");
        }
    }

    // path is below a service.
    void inspect_service_instance(const std::string &path) {
        std::string type_path = path_below(path, KEY_TYPE);
        if (is_missing(type_path)) {
            ask(TYPE_MISSING, type_path, TYPE_REASON, "no such instance; the roster fails",
                type_decision());
        }
        std::string list = path_below(std::string(first_elements(path, 3)), KEY_INSTANCE);
        if (is_missing(path_below(list, last_element(path)))) {
            ask(INSTANCE_MISSING, path, "names an instance that the database does not have",
                "an instance without a node; the roster fails",
                "whether the service leaves it out, or the database gets this instance");
        }
    }

    void inspect_type(const std::string &path, const std::string &stored) {
        const char *see = "neither a preferred nor an available instance";
        for (const char *word : {TYPE_PREFERRED, TYPE_AVAILABLE}) {
            if (stored == own_value(word)) return;
            if (element_of(text_in(stored)) == element_of(word))
                return mend(TYPE_CASE, path, TYPE_REASON, see, {"set", path, word});
        }
        ask(TYPE_CASE, path, TYPE_REASON, see, type_decision());
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
            ask(NODE_TWICE, path, "is the node of instance " + at->second + ", too",
                "instance " + at->second + " only, when asked by the node's name",
                "on which node each of " + at->second + " and " + element + " runs");
        }
    }

    // A key of which only the subkeys count. A scope is one without a record of its own.
    void inspect_parent(const std::string &path, const std::string &stored) {
        std::string element(last_element(path));
        bool scope = parent_path(path) == STG_ROOT;
        std::optional<fault> wrong;
        if (scope) wrong = check_name(element, false, STG.name_limit);
        if (scope && !wrong && element_of(element) != element)
            wrong = fault{"is not in lower case"};
        if (wrong) {
            ask(SCOPE_NAME, path, wrong->reason, "no such scope",
                "to which scope, in lower case, its entries belong");
        } else if (!stored.empty()) {
            mend(PARENT_VALUE, path,
                 "has a value of its own, which no field of a document stands for", "", {});
        } else if (!is_list(path) && children(path).empty()) {
            mend(PARENT_EMPTY, path, "has no subkey, and only those count", "nothing",
                 {"rm", path});
        }
    }

    // A list may be empty.
    static bool is_list(const std::string &path) {
        for (const list_row &section : SECTIONS)
            if (path == section.key) return true;
        std::string_view element = last_element(path);
        return element == KEY_INSTANCE || element == KEY_SERVICE || element == KEY_INSTANCES;
    }

    // ---- Fields ---------------------------------------------------------------------------------

    void inspect_field(const field_row &row, const std::string &path, const std::string &stored) {
        if (stored.size() > row.limit) {
            return ask(VALUE_LONG, path,
                       "is too long: it has " + bytes_text(stored.size()) +
                           ", and its readers take up to " + bytes_text(row.limit),
                       "nothing: the value cannot be read",
                       "which value of up to " + bytes_text(row.limit) + " replaces it");
        }
        if (row.kind == value_kind::env) return inspect_env(row, path, stored);
        std::string text = text_in(stored), folded = element_of(text);
        bool has_words = row.kind == value_kind::flag || row.kind == value_kind::word;
        if (!has_words) return inspect_text(row, path, stored);
        std::string word = row.kind == value_kind::flag ? folded : text;
        if (row.kind == value_kind::flag && !is_word(row, folded)) {
            ask(FLAG_TWO_WAYS, path, "is neither TRUE nor FALSE",
                "1 in the record, 0 when asked for the flag alone", "whether it is true or false");
        } else if (!is_word(row, folded)) {
            ask(WORD_UNKNOWN, path, decoding_fault(row, stored), "an unknown word",
                "which of " + words_of(row) + " it is");
        } else if (stored.back() != '\0') {
            mend(VALUE_UNENDED, path, decoding_fault(row, stored), "the word, or none",
                 {"set", path, word});
        } else if (stored.size() != text.size() + 1) {
            mend(VALUE_ZERO, path, "holds a zero byte before its end", "the word, or none",
                 {"set", path, word});
        } else if (word != text) {
            mend(FLAG_CASE, path, decoding_fault(row, stored), "the word", {"set", path, word});
        }
    }

    void inspect_text(const field_row &row, const std::string &path, const std::string &stored) {
        std::string reason = decoding_fault(row, stored), text = text_in(stored);
        if (reason.empty()) {
            bool node = row.key == std::string_view(KEY_NODE);
            if (node && element_of(text) != text) {
                mend(NODE_CASE, path, "is not in lower case",
                     "no instance when asked by the node's name", {"set", path, element_of(text)});
            }
        } else if (stored.empty() || stored.back() != '\0') {
            ask(VALUE_UNENDED, path, reason, "the text, or less of it",
                "whether the text is \"" + text + "\" or was cut short");
        } else if (stored.size() != text.size() + 1) {
            ask(VALUE_ZERO, path, "holds a zero byte before its end", "the text \"" + text + "\"",
                "whether that is all, or what follows the zero byte belongs to it");
        } else {
            ask(VALUE_FORM, path, reason, "an empty address",
                "whether the address is empty, or that of the key VIP.IP");
        }
    }

    void inspect_env(const field_row &row, const std::string &path, const std::string &stored) {
        std::string reason = decoding_fault(row, stored);
        if (reason.empty()) return;
        bool single = stored.size() > 1 && stored.find('\0') + 1 == stored.size();
        bool ended = !stored.empty() && stored.back() == '\0';
        bool gap = stored.find(std::string_view("\0\0", 2)) != stored.npos || stored[0] == '\0';
        if (stored.empty()) return mend(LIST_FORM, path, reason, "no strings", {"rm", path});
        if (!ended || gap) {
            return ask(LIST_FORM, path, reason, "fewer or other strings",
                       "which strings the list has, and whether the last one was cut short");
        }
        command remedy = {"set", path};
        for (size_t at = 0; at < stored.size(); at = stored.find('\0', at) + 1)
            remedy.push_back(stored.substr(at, stored.find('\0', at) - at));
        mend(single ? LIST_SINGLE : LIST_FORM, path, reason,
             single ? "no strings at all" : "fewer or other strings", std::move(remedy));
    }

    static constexpr const char *TYPE_REASON =
        "is neither PREFERRED nor AVAILABLE, in upper case and with its zero byte";
    static std::string type_decision() {
        return std::string("whether it is ") + TYPE_PREFERRED + " or " + TYPE_AVAILABLE;
    }

    const key_map &keys_;
    std::vector<finding> *findings_;
    std::set<std::string, std::less<>> damaged_;
};

}  // namespace

std::vector<finding> findings_of(const key_map &keys, const std::vector<problem> &damage,
                                 bool repairable) {
    std::vector<finding> out;
    inspection all(keys, &out);
    for (const problem &found : damage)
        all.add_damage(found, repairable);
    all.inspect_keys();
    return out;
}

}  // namespace keyview::admin
