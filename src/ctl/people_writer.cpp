// See people_writer.h.
#include "ctl/people_writer.h"

#include <libsmartcols/libsmartcols.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <memory>
#include <new>
#include <vector>

#include "ctl/terminal.h"
#include "ctl/text.h"

namespace keyview::ctl {

static constexpr const char *SEPARATOR = "  ";  // between the columns of a table

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

static std::string cell_of(const view &shown) {
    const view_list *list = list_in(shown);
    if (list == nullptr) return scalar_of(shown);
    std::string out;
    for (const view &item : *list)
        out += (out.empty() ? "" : " ") + scalar_of(item);
    return list->empty() ? "-" : out;
}

// In columns of a terminal.
static size_t width_of_text(const std::string &text) {
    std::mbstate_t state = {};
    size_t width = 0;
    for (size_t at = 0; at < text.size();) {
        wchar_t symbol = 0;
        size_t bytes = std::mbrtowc(&symbol, text.data() + at, text.size() - at, &state);
        if (bytes == 0 || bytes > text.size()) return text.size();
        width += static_cast<size_t>(std::max(wcwidth(symbol), 0));
        at += bytes;
    }
    return width;
}

// Replaces blanks by line feeds so that lines have at most so many columns, where possible.
static std::string folded_at_blanks(std::string text, size_t columns) {
    size_t line = 0, last_blank = text.npos;
    for (size_t at = text.find(' '); line < text.size();) {
        size_t end = std::min(at, text.size());
        bool fits = width_of_text(text.substr(line, end - line)) <= columns;
        if (!fits && last_blank != text.npos) {
            text[last_blank] = '\n';
            line = last_blank + 1;
            last_blank = text.npos;
            continue;
        }
        if (end == text.size()) break;
        last_blank = at;
        at = text.find(' ', at + 1);
    }
    return text;
}

// How many columns a list may take beside the other cells of its row; lists that need less leave the
// rest to the others.
static size_t room_of_lists(const view_list &records, size_t width) {
    const auto &first = std::get<view_fields>(records.front().value);
    std::vector<size_t> lists;
    size_t left = width;
    for (size_t n = 0; n < first.size(); ++n) {
        size_t needed = first[n].first.size();
        for (const view &record : records) {
            const auto &fields = std::get<view_fields>(record.value);
            if (n < fields.size())
                needed = std::max(needed, width_of_text(cell_of(fields[n].second)));
        }
        size_t taken = n > 0 ? strlen(SEPARATOR) : 0;
        if (list_in(first[n].second) != nullptr) {
            lists.push_back(needed);
        } else {
            taken += needed;
        }
        left -= std::min(left, taken);
    }
    std::sort(lists.begin(), lists.end());
    size_t room = left;
    for (size_t n = 0; n < lists.size(); ++n) {
        room = left / (lists.size() - n);
        if (lists[n] > room) break;
        left -= lists[n];
    }
    return std::max<size_t>(room, 1);
}

using table_guard = std::unique_ptr<libscols_table, decltype(&scols_unref_table)>;

static void add_line(libscols_table *table, const view_fields &fields, size_t list_room) {
    libscols_line *line = scols_table_new_line(table, nullptr);
    if (line == nullptr) throw std::bad_alloc();
    for (size_t n = 0; n < fields.size() && n < scols_table_get_ncols(table); ++n) {
        std::string cell = cell_of(fields[n].second);
        if (list_room > 0 && list_in(fields[n].second) != nullptr)
            cell = folded_at_blanks(cell, list_room);
        if (scols_line_set_data(line, n, cell.c_str()) != 0) throw std::bad_alloc();
        tone colour = tone_of(fields[n].second);
        if (colour == tone::plain) continue;
        (void)scols_cell_set_color(scols_line_get_cell(line, n),
                                   sequence_of(colour));  // plain then
    }
}

// Cells that do not fit are wrapped, never cut; without a terminal, nothing is wrapped either.
static void prepare(libscols_table *table, size_t width) {
    scols_table_set_termforce(table, width > 0 ? SCOLS_TERMFORCE_ALWAYS : SCOLS_TERMFORCE_NEVER);
    if (width > 0) scols_table_set_termwidth(table, width);
    scols_table_enable_noencoding(table, 1);  // escaped() has done it
    scols_table_enable_colors(table, color_wanted(STDOUT_FILENO) ? 1 : 0);
    scols_table_set_column_separator(table, SEPARATOR);
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
    (void)setlocale(LC_CTYPE, "C.UTF-8");  // for the width of characters
    size_t width = width_of(STDOUT_FILENO);
    prepare(table.get(), width);
    const auto &columns = std::get<view_fields>(records.front().value);
    for (size_t n = 0; n < columns.size(); ++n) {
        bool is_list = list_in(columns[n].second) != nullptr;
        int flags = is_list || is_wide(records, n) ? SCOLS_FL_WRAP : 0;
        libscols_column *column =
            scols_table_new_column(table.get(), columns[n].first.c_str(), 0, flags);
        if (column == nullptr) throw std::bad_alloc();
        if (is_list)
            scols_column_set_wrapfunc(column, scols_wrapnl_chunksize, scols_wrapnl_nextchunk,
                                      nullptr);
    }
    size_t list_room = width == 0 ? 0 : room_of_lists(records, width);
    for (const view &record : records)
        add_line(table.get(), std::get<view_fields>(record.value), list_room);
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
        for (const view &item : *list)
            out += painted_scalar(item) + "\n";
    } else {
        out = painted_scalar(shown) + "\n";
    }
    return out;
}

}  // namespace keyview::ctl
