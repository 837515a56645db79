// See meanings.h.
#include "admin/document/meanings.h"

#include <algorithm>

#include "admin/document/encoding.h"
#include "model/folding.h"

namespace keyview::admin {

// ---- From a path to its row ---------------------------------------------------------------------

static bool take(std::string_view *path, std::string_view head) {
    if (!path_within(*path, head)) return false;
    path->remove_prefix(path->size() > head.size() ? head.size() + 1 : head.size());
    return true;
}

static void take_name(std::string_view *path) {
    size_t end = path->find('.');
    path->remove_prefix(end == path->npos ? path->size() : end + 1);
}

static key_location in_list(const list_row &list, std::string_view rest,
                            const std::string &pattern);

// rest is what is below the record's own key.
static key_location in_record(const record_table &record, std::string_view rest, bool typed,
                              const std::string &pattern) {
    if (rest.empty()) return {&record, nullptr, false, pattern};
    if (typed && rest == KEY_TYPE) return {&record, nullptr, true, path_below(pattern, KEY_TYPE)};
    for (const field_row &row : record.fields)
        if (rest == row.key) return {&record, &row, false, path_below(pattern, row.key)};
    for (const list_row &list : record.lists)
        if (take(&rest, list.key)) return in_list(list, rest, path_below(pattern, list.key));
    // A key that only its subkeys need.
    for (const field_row &row : record.fields)
        if (path_within(row.key, rest)) return {nullptr, nullptr, false, path_below(pattern, rest)};
    return {};
}

static key_location in_list(const list_row &list, std::string_view rest,
                            const std::string &pattern) {
    if (rest.empty()) return {nullptr, nullptr, false, pattern};
    std::string record = pattern;
    if (list.record->scoped) {
        take_name(&rest);
        record = path_below(record, "<scope>");
        if (rest.empty()) return {nullptr, nullptr, false, record};
    }
    take_name(&rest);
    return in_record(*list.record, rest, list.type != nullptr, path_below(record, list.name));
}

key_location locate_key(std::string_view path) {
    for (const list_row &section : SECTIONS) {
        std::string_view rest = path;
        if (take(&rest, section.key)) return in_list(section, rest, section.key);
    }
    return {};
}

std::string record_of(std::string_view path) {
    const std::string pattern = locate_key(path).pattern;
    size_t end = pattern.rfind('>');
    if (end == pattern.npos) return "";
    auto before = std::count(pattern.begin(), pattern.begin() + static_cast<ptrdiff_t>(end), '.');
    return std::string(first_elements(path, static_cast<size_t>(before) + 1));
}

std::string folded_path(std::string_view path) {
    std::string out;
    const std::string found = locate_key(path).pattern;
    for (std::string_view pattern = found; !path.empty(); take_name(&path), take_name(&pattern)) {
        std::string_view element = first_elements(path, 1);
        bool is_name = !pattern.empty() && pattern[0] == '<';
        if (!out.empty()) out += '.';
        out += is_name ? element_of(element) : std::string(element);
    }
    return out;
}

// ---- From a row to its meaning ------------------------------------------------------------------

static constexpr const char *NO_VALUE = "no value; its subkeys count";

static std::string words_text(const rows<const char *const> &words) {
    std::string out;
    for (const char *const &word : words)
        out += (out.empty() ? "" : &word + 1 == words.end() ? " or " : ", ") + std::string(word);
    return out;
}

static std::string encoding_of(const field_row &row) {
    if (row.encoding != nullptr) return row.encoding;
    std::string text = "text with its zero byte, " + bytes_text(row.limit);
    switch (row.kind) {
        case value_kind::flag:
            return "true or false with its zero byte, read in any case";
        case value_kind::env:
            return "list: each string with its zero byte, one zero byte more";
        case value_kind::word:
            return words_text(row.words) + " with its zero byte, read in any case";
        case value_kind::address:
            return text + "; an empty one has no bytes";
        case value_kind::text:
            break;
    }
    return text;
}

static const char *absence_of(const field_row &row) {
    if (row.absence != nullptr) return row.absence;
    if (row.kind == value_kind::env) return "there are no strings";
    return row.kind == value_kind::flag
               ? "the record has 0; \"enabled\" does not find it, and it cannot be enabled or disabled"
               : "the field of the record is null";
}

namespace {

class meaning_walk {
  public:
    explicit meaning_walk(std::vector<key_meaning> *out) : out_(out) {}

    void add_list(const list_row &list, const std::string &path) {
        add(path, list.meaning, list.read_by, NO_VALUE, list.absence);
        std::string record = path;
        if (list.record->scoped) {
            record = path_below(record, "<scope>");
            add(record, "the entries of a scope, such as a node", list.read_by, NO_VALUE,
                "the scope has no entries");
        }
        add_record(list, path_below(record, list.name));
    }

  private:
    void add(const std::string &path, const char *meaning, const char *read_by,
             const std::string &encoding, const char *absence, const char *written_by = BY_TREE) {
        out_->push_back({path, meaning, written_by, read_by, encoding, absence});
    }

    void add_record(const list_row &list, const std::string &path) {
        const record_table &record = *list.record;
        add(path, record.meaning, record.read_by,
            "the name in its registered case, with its zero byte", "there is no such record");
        if (list.type != nullptr) {
            add(path_below(path, KEY_TYPE),
                "whether the instance runs the service by preference or takes over",
                "show, status, roster, supported",
                TYPE_PREFERRED + std::string(" or ") + TYPE_AVAILABLE +
                    " with its zero byte, in upper case",
                "the record leaves the instance out; \"roster\" fails");
        }
        for (const field_row &row : record.fields)
            add_field(record, row, path);
        for (const list_row &below : record.lists)
            if (*below.meaning != '\0') add_list(below, path_below(path, below.key));
    }

    // Before it comes the key that holds it and others, unless that is a field itself.
    void add_field(const record_table &record, const field_row &row, const std::string &path) {
        std::string parent(parent_path(row.key));
        bool known = parent.empty() || out_->back().path == path_below(path, parent);
        for (const field_row &other : record.fields)
            known = known || parent == other.key;
        if (!known) {
            add(path_below(path, parent), "what belongs to the cluster alias", "no command",
                NO_VALUE, "the alias has no address");
        }
        add(path_below(path, row.key), row.meaning, row.read_by, encoding_of(row), absence_of(row),
            row.written_by);
    }

    std::vector<key_meaning> *out_;
};

}  // namespace

std::vector<key_meaning> key_meanings() {
    std::vector<key_meaning> out;
    for (const list_row &section : SECTIONS)
        meaning_walk(&out).add_list(section, section.key);
    return out;
}

std::optional<key_meaning> meaning_of(std::string_view path) {
    std::string pattern = locate_key(path).pattern;
    for (const key_meaning &row : key_meanings())
        if (path == row.path || pattern == row.path) return row;
    return std::nullopt;
}

std::vector<std::string> known_elements(std::string_view parent) {
    const std::string pattern = parent == ROOT ? ROOT : locate_key(parent).pattern;
    std::vector<std::string> out;
    for (const key_meaning &row : key_meanings()) {
        std::string_view element = last_element(row.path);
        if (!pattern.empty() && parent_path(row.path) == pattern && element[0] != '<')
            out.emplace_back(element);
    }
    return out;
}

// ---- Fields of documents ------------------------------------------------------------------------

static const char *type_word(value_kind kind) {
    constexpr const char *WORDS[] = {"text", "text", "word", "flag", "list of texts"};
    return WORDS[static_cast<size_t>(kind)];
}

static void add_fields(const list_row &list, const std::string &before,
                       std::vector<document_field> *out) {
    const std::string record = before + list.field + "[]";
    if (list.record->scoped) out->push_back({record, "scope", "name", "an element of the path", 0});
    out->push_back({record, "name", "name", "the record's own key", 0});
    for (const field_row &row : list.record->fields) {
        out->push_back({record,
                        row.field,
                        type_word(row.kind),
                        row.key,
                        row.limit,
                        {row.words.begin(), row.words.end()}});
    }
    for (const list_row &below : list.record->lists)
        out->push_back({record, below.field, "records", below.key, 0});
    for (const list_row &below : list.record->lists)
        add_fields(below, record + ".", out);
}

std::vector<document_field> document_fields() {
    std::vector<document_field> out;
    for (const list_row &section : SECTIONS)
        add_fields(section, "", &out);
    return out;
}

}  // namespace keyview::admin
