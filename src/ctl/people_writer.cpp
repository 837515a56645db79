// See people_writer.h.
#include "ctl/people_writer.h"

#include <libsmartcols/libsmartcols.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <memory>
#include <new>

#include "ctl/terminal.h"
#include "ctl/text.h"

namespace keyview::ctl {

// Texts that could be taken for something else stand in quotes.
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

static bool is_record(const view &shown) {
    return std::holds_alternative<view_fields>(shown.value);
}

// ---- Tables -------------------------------------------------------------------------------------

// A list in a cell has a line for each item.
static std::string cell_of(const view &shown) {
    const auto *list = std::get_if<view_list>(&shown.value);
    if (list == nullptr) return scalar_of(shown);
    std::string out;
    for (const view &item : *list)
        out += (out.empty() ? "" : " ") + scalar_of(item);
    return list->empty() ? "-" : out;
}

using table_guard = std::unique_ptr<libscols_table, decltype(&scols_unref_table)>;

static void add_line(libscols_table *table, const view_fields &fields) {
    libscols_line *line = scols_table_new_line(table, nullptr);
    if (line == nullptr) throw std::bad_alloc();
    for (size_t n = 0; n < fields.size() && n < scols_table_get_ncols(table); ++n) {
        if (scols_line_set_data(line, n, cell_of(fields[n].second).c_str()) != 0)
            throw std::bad_alloc();
        tone colour = tone_of(fields[n].second);
        if (colour == tone::plain) continue;
        (void)scols_cell_set_color(scols_line_get_cell(line, n),
                                   sequence_of(colour));  // plain then
    }
}

// Cells that do not fit are wrapped, never cut; where nobody looks, nothing is wrapped either.
static void prepare(libscols_table *table) {
    size_t width = width_of(STDOUT_FILENO);
    (void)setlocale(LC_CTYPE, "C.UTF-8");  // for the width of characters
    scols_table_set_termforce(table, width > 0 ? SCOLS_TERMFORCE_ALWAYS : SCOLS_TERMFORCE_NEVER);
    if (width > 0) scols_table_set_termwidth(table, width);
    scols_table_enable_noencoding(table, 1);  // escaped() has done it
    scols_table_enable_colors(table, color_wanted(STDOUT_FILENO) ? 1 : 0);
    scols_table_set_column_separator(table, "  ");
}

// Whether a column is worth wrapping before others are.
static bool is_wide(const view_list &records, size_t column) {
    constexpr size_t NARROW = 16;
    return std::any_of(records.begin(), records.end(), [&](const view &record) {
        const auto &fields = std::get<view_fields>(record.value);
        return column < fields.size() && cell_of(fields[column].second).size() > NARROW;
    });
}

static std::string grid_of(const view_list &records) {
    table_guard table(scols_new_table(), &scols_unref_table);
    if (!table) throw std::bad_alloc();
    prepare(table.get());
    const auto &columns = std::get<view_fields>(records.front().value);
    for (size_t n = 0; n < columns.size(); ++n) {
        int flags = is_wide(records, n) ? SCOLS_FL_WRAP : 0;
        if (scols_table_new_column(table.get(), columns[n].first.c_str(), 0, flags) == nullptr)
            throw std::bad_alloc();
    }
    for (const view &record : records)
        add_line(table.get(), std::get<view_fields>(record.value));
    char *text = nullptr;
    if (scols_print_table_to_string(table.get(), &text) != 0) throw std::bad_alloc();
    std::unique_ptr<char, decltype(&free)> guard(text, &free);
    return std::string(text) + "\n";
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
        const auto *list = std::get_if<view_list>(&field.value);
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
    } else if (const auto *list = std::get_if<view_list>(&shown.value)) {
        if (!list->empty() && is_record(list->front())) return grid_of(*list);
        for (const view &item : *list)
            out += painted_scalar(item) + "\n";
    } else {
        out = painted_scalar(shown) + "\n";
    }
    return out;
}

}  // namespace keyview::ctl
