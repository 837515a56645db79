// See people_writer.h.
#include "ctl/people_writer.h"

#include <unistd.h>

#include <algorithm>
#include <vector>

#include "ctl/layout.h"
#include "ctl/terminal.h"
#include "ctl/text.h"

namespace keyview::ctl {

// Ambiguous texts are quoted.
static std::string shown_text(const std::string &text) {
    bool quote = text.empty() || text == "-" || text.front() == ' ' || text.back() == ' ' ||
                 text.front() == '"';
    return quote ? "\"" + escaped(text) + "\"" : escaped(text);
}

static std::string scalar_of(const view &shown) {
    if (const auto *text = std::get_if<std::string>(&shown.value)) return shown_text(*text);
    if (const auto *number = std::get_if<coded>(&shown.value)) return escaped(number->word);
    return "-";
}

static tone tone_of(const view &shown) {
    const auto *number = std::get_if<coded>(&shown.value);
    return number == nullptr ? tone::plain : number->colour;
}

static std::string painted_scalar(const view &shown) {
    return painted(STDOUT_FILENO, tone_of(shown), scalar_of(shown));
}

// ---- Tables -------------------------------------------------------------------------------------

static std::string people_cell(const view &shown) {
    const view_list *list = list_in(shown);
    if (list == nullptr) return scalar_of(shown);
    std::string out;
    for (const view &item : *list)
        out += (out.empty() ? "" : " ") + scalar_of(item);
    return list->empty() ? "-" : out;
}

static std::string grid_of(const view_list &records) {
    std::vector<std::vector<cell>> rows(1);
    for (const auto &[name, field] : std::get<view_fields>(records.front().value))
        rows[0].push_back({name});
    for (const view &record : records) {
        std::vector<cell> row;
        for (const auto &[name, field] : std::get<view_fields>(record.value))
            row.push_back({people_cell(field), tone_of(field)});
        row.resize(rows[0].size());
        rows.push_back(std::move(row));
    }
    return table_of(rows, width_of(STDOUT_FILENO));
}

// ---- Trees --------------------------------------------------------------------------------------

static void add_fields(const view_fields &fields, size_t indent, bool first_is_begun,
                       std::string *out);

// One item a line, the first one behind its label.
static void add_list(const view_list &list, size_t label_width, std::string *out) {
    for (size_t n = 0; n < list.size(); ++n) {
        if (n > 0) *out += std::string(label_width, ' ');
        *out += painted_scalar(list[n]) + "\n";
    }
    if (list.empty()) *out += "-\n";
}

static void add_records(const view_list &list, size_t indent, std::string *out) {
    *out += "\n";
    for (const view &item : list) {
        *out += std::string(indent, ' ') + "- ";
        if (is_record(item)) {
            add_fields(std::get<view_fields>(item.value), indent + 2, true, out);
        } else {
            *out += painted_scalar(item) + "\n";
        }
    }
}

// first_is_begun: the first line's indentation is there already.
static void add_fields(const view_fields &fields, size_t indent, bool first_is_begun,
                       std::string *out) {
    size_t width = 0;
    for (const auto &[name, field] : fields)
        width = std::max(width, name.size());
    for (const auto &[name, field] : fields) {
        if (!first_is_begun) *out += std::string(indent, ' ');
        first_is_begun = false;
        const view_list *list = list_in(field);
        bool records = list != nullptr && std::any_of(list->begin(), list->end(), is_record);
        *out += name + std::string(records ? 0 : width - name.size() + 2, ' ');
        if (records) {
            add_records(*list, indent + 2, out);
        } else if (list != nullptr) {
            add_list(*list, indent + width + 2, out);
        } else {
            *out += painted_scalar(field) + "\n";
        }
    }
}

std::string text_for_people(const view &shown) {
    std::string out;
    if (const auto *fields = std::get_if<view_fields>(&shown.value)) {
        add_fields(*fields, 0, false, &out);
    } else if (const view_list *list = list_in(shown)) {
        if (!list->empty() && is_record(list->front())) return grid_of(*list);
        const size_t columns = width_of(STDOUT_FILENO);
        for (const view &item : *list) {
            const std::string line = shortened(scalar_of(item), columns);
            out += painted(STDOUT_FILENO, tone_of(item), line) + "\n";
        }
    } else {
        out = painted_scalar(shown) + "\n";
    }
    return out;
}

}  // namespace keyview::ctl
