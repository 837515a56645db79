// Walks a document along the table of its fields and collects changes, lock names and problems.
#include "admin/document/reader.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <unordered_map>

#include "admin/document/byte_strings.h"
#include "admin/document/encoding.h"
#include "admin/document/json_text.h"
#include "admin/nearest.h"
#include "model/folding.h"

namespace keyview::admin {

using nlohmann::json;

namespace {

// A JSON pointer that is composed only where it is shown: a step within the object or list of another
// one, which must outlive it.
class pointer {
  public:
    pointer() = default;

    friend pointer operator/(const pointer &above, std::string_view field) {
        return {&above, field, 0};
    }
    friend pointer operator/(const pointer &above, size_t number) { return {&above, {}, number}; }

    bool has_two_steps() const {
        return above_ != nullptr && above_->above_ != nullptr && above_->above_->above_ == nullptr;
    }

    std::string to_string() const {
        std::string out;
        append_to(&out);
        return out;
    }

  private:
    pointer(const pointer *above, std::string_view field, size_t number)
        : above_(above), field_(field), number_(number) {}

    void append_to(std::string *out) const {
        if (above_ == nullptr) return;
        above_->append_to(out);
        *out += '/';
        if (field_.data() == nullptr) *out += std::to_string(number_);
        for (char c : field_)
            c == '~' ? *out += "~0" : c == '/' ? *out += "~1" : *out += c;
    }

    const pointer *above_ = nullptr;
    std::string_view field_;
    size_t number_ = 0;
};

// What the walk does about a key that two records of the document stand for.
enum class claims { unchecked, checked };

class document_walk {
  public:
    document_walk(document_plan *plan, claims check) : plan_(plan), check_(check) {}

    // A record of a section.
    void read_item(const std::string &field, size_t number, const json &record) {
        for (size_t n = 0; n < SECTIONS.count; ++n) {
            const list_row &section = SECTIONS.first[n];
            if (section.field != field) continue;
            problems_ = &of_sections_[n];
            const pointer top, list = top / section.field;
            read_record(section, record, section.key, list / number);
        }
    }

    // What the document contains beside those records. Problems come in the order of the sections.
    void end(const json &document, problem_list *problems) {
        problems_ = problems;
        if (!read_head(document)) return;
        for (const auto &[field, value] : document.items()) {
            if (field != "format" && field != "version" && !is_list(SECTIONS, field))
                unknown(pointer(), field, {nullptr, nullptr, {}, SECTIONS});
        }
        for (size_t n = 0; n < SECTIONS.count; ++n) {
            read_list(SECTIONS.first[n], document, "", pointer());
            problems->add_all(of_sections_[n]);
        }
        plan_->changes.sort();
        resolve_instances();
    }

  private:
    void refuse(const pointer &place, std::string reason) {
        problems_->add(place.to_string(), std::move(reason));
    }
    void unknown(const pointer &place, const std::string &field, const record_table &table) {
        std::vector<std::string> known;
        for (const field_row &row : table.fields)
            known.emplace_back(row.field);
        for (const list_row &row : table.lists)
            known.emplace_back(row.field);
        std::string meant = nearest(field, known);
        if (!meant.empty()) meant = ": did you mean " + meant + "?";
        refuse(place / field, "is no field of a document here" + meant);
    }

    std::string_view put(std::string_view path, std::string_view value) {
        return plan_->changes.add(path, value);
    }

    // Another format or version would only give follow-up problems.
    bool read_head(const json &document) {
        if (!document.is_object()) {
            refuse(pointer(), "must be an object");
            return false;
        }
        auto format = document.find("format");
        if (format == document.end() || *format != FORMAT) {
            refuse(pointer() / "format", std::string("must be \"") + FORMAT + "\"");
            return false;
        }
        auto version = document.find("version");
        if (version == document.end() || *version != VERSION || !version->is_number_integer()) {
            refuse(pointer() / "version", "must be " + std::to_string(VERSION));
            return false;
        }
        return true;
    }

    static bool is_list(const rows<list_row> &lists, std::string_view field) {
        return std::any_of(lists.begin(), lists.end(),
                           [&](const list_row &row) { return row.field == field; });
    }

    // Those of a table that a record has, by their numbers.
    using given_fields = std::vector<bool>;

    static bool is_field(const record_table &table, std::string_view field, given_fields *given) {
        if (field == "name" || (table.scoped && field == "scope")) return true;
        for (size_t n = 0; n < table.fields.count; ++n) {
            const field_row &row = table.fields.first[n];
            if (field != row.field && !is_byte_field(row, field)) continue;
            (*given)[n] = true;
            return true;
        }
        return is_list(table.lists, field);
    }

    // parent is the path of the record that holds the list, empty at the top.
    void read_list(const list_row &row, const json &holder, const std::string &parent,
                   const pointer &holder_place) {
        auto list = holder.find(row.field);
        if (list == holder.end()) return;
        const pointer place = holder_place / row.field;
        if (!list->is_array()) return refuse(place, "must be an array");
        std::string path = path_below(parent, row.key);
        (void)put(path, "");
        for (size_t n = 0; n < list->size(); ++n)
            read_record(row, (*list)[n], path, place / n);
    }

    void read_record(const list_row &list, const json &record, const std::string &parent,
                     const pointer &place) {
        const record_table &table = *list.record;
        if (!record.is_object()) return refuse(place, "must be an object");
        given_fields given(table.fields.count);
        for (const auto &[field, value] : record.items()) {
            if (!is_field(table, field, &given)) unknown(place, field, table);
        }
        std::string path = parent;
        if (table.scoped && !append_name(table, record, "scope", place, &path)) return;
        if (!append_name(table, record, "name", place, &path)) return;
        std::optional<fault> wrong = check_path(table, path);
        if (wrong) return refuse(place / "name", wrong->reason);
        const auto &name = record.at("name").get_ref<const std::string &>();
        const std::string_view key = put(path, own_value(name));
        if (!claim(list, key, place)) return;
        if (place.has_two_steps()) section_record_ = key;
        write_record(list, record, given, path, place);
    }

    bool append_name(const record_table &table, const json &record, const char *field,
                     const pointer &record_place, std::string *path) {
        const pointer place = record_place / field;
        auto name = record.find(field);
        if (name == record.end()) return refuse(place, "is missing"), false;
        if (!name->is_string()) return refuse(place, "must be a string"), false;
        const auto &text = name->get_ref<const std::string &>();
        std::optional<fault> wrong = check_name(text, table.dotted_name, table.name_limit);
        if (wrong) return refuse(place, wrong->reason), false;
        append_element(element_of(text, table.dotted_name), path);
        return true;
    }

    // Each key belongs to one record of the document.
    bool claim(const list_row &list, std::string_view path, const pointer &place) {
        if (check_ == claims::unchecked) return true;
        auto [first, fresh] = first_places_.try_emplace(path);
        if (fresh) {
            const std::string text = place.to_string();
            first->second = {places_.store(text), text.size()};
            return true;
        }
        std::string twice = "stands for the same key as " + std::string(first->second);
        if (list.type != nullptr) twice += ": an instance is preferred or available, and once";
        refuse(place / "name", twice);
        return false;
    }

    void write_record(const list_row &list, const json &record, const given_fields &given,
                      const std::string &path, const pointer &place) {
        const record_table &table = *list.record;
        const auto &name = record.at("name").get_ref<const std::string &>();
        const auto name_place = [&] { return (place / "name").to_string(); };
        if (table.dotted_name) plan_->services.push_back({name_place(), path, path, name});
        if (list.type != nullptr) {
            (void)put(path_below(path, KEY_TYPE), own_value(list.type));
            std::string instance =
                path_below(path_below(section_record_, KEY_INSTANCE), element_of(name));
            plan_->instances.push_back({name_place(), instance, path, name});
        }
        for (size_t n = 0; n < table.fields.count; ++n)
            if (given[n]) read_field(table.fields.first[n], record, path, place);
        for (const list_row &row : table.lists)
            read_list(row, record, path, place);
    }

    void read_field(const field_row &row, const json &record, const std::string &path,
                    const pointer &record_place) {
        std::string name = row.field;
        std::string stored;
        std::optional<fault> wrong;
        if (has_byte_field(row, record)) {
            json value;
            name = byte_field(row);
            wrong = take_strings(row, record, &value);
            if (!wrong) wrong = encode_value(row, value, &stored);
        } else if (record.contains(row.field)) {
            wrong = encode_value(row, record.at(row.field), &stored);
        } else {
            return;
        }
        if (!wrong) {
            (void)put(path_below(path, row.key), stored);
            return;
        }
        const pointer place = record_place / name;
        if (wrong->item < 0) return refuse(place, wrong->reason);
        refuse(place / static_cast<size_t>(wrong->item), wrong->reason);
    }

    // What the document itself holds need not be asked of the registry.
    void resolve_instances() {
        const auto answered = [&](const question &asked) {
            return plan_->changes.find(asked.path) != key_list::NONE;
        };
        std::vector<question> &open = plan_->instances;
        open.erase(std::remove_if(open.begin(), open.end(), answered), open.end());
    }

    document_plan *plan_;
    claims check_;
    std::vector<problem_list> of_sections_ = std::vector<problem_list>(SECTIONS.count);
    problem_list *problems_ = nullptr;
    std::string section_record_;
    byte_store places_;
    std::unordered_map<std::string_view, std::string_view> first_places_;  // of records, by path
};

}  // namespace

static document_plan walk_document(std::string_view text, claims check, problem_list *problems) {
    document_plan plan;
    document_walk walk(&plan, check);
    const json rest = parse_json(text, problems, [&](auto &field, size_t number, auto &item) {
        if (problems->empty()) walk.read_item(field, number, item);
    });
    if (problems->empty()) walk.end(rest, problems);
    return plan;
}

// Of sorted changes: whether two records stand for one key. The key of a list may come twice, that of
// preferred and available, and has no value.
static bool has_rival_records(const key_list &changes) {
    for (size_t n = 1; n < changes.size(); ++n)
        if (changes.path(n) == changes.path(n - 1) && !changes[n].value->empty()) return true;
    return false;
}

// The first place of each key is kept only for a document that has problems: in memory and time it
// would be a good part of what a large one costs.
document_plan read_document(std::string_view text, problem_list *problems) {
    const problem_list none = *problems;
    document_plan plan = walk_document(text, claims::unchecked, problems);
    if (problems->empty() && !has_rival_records(plan.changes)) return plan;
    *problems = none;
    return walk_document(text, claims::checked, problems);
}

}  // namespace keyview::admin
