// See layout.h.
#include "ctl/layout.h"

#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <cwchar>

#include "ctl/terminal.h"

namespace keyview::ctl {

static constexpr size_t GAP = 2;  // between the columns of a table

namespace {
// A character: its bytes, and its columns on a terminal.
struct symbol {
    size_t bytes, columns;
};
}  // namespace

static symbol symbol_at(const std::string &text, size_t at) {
    static const char *const LOCALE =
        setlocale(LC_CTYPE, "C.UTF-8");  // for the width of characters
    (void)LOCALE;
    std::mbstate_t state = {};
    wchar_t code = 0;
    size_t bytes = std::mbrtowc(&code, text.data() + at, text.size() - at, &state);
    if (bytes == 0 || bytes > text.size()) return {1, 1};
    return {bytes, static_cast<size_t>(std::max(wcwidth(code), 0))};
}

size_t width_of_text(const std::string &text) {
    size_t width = 0;
    for (size_t at = 0; at < text.size();) {
        symbol next = symbol_at(text, at);
        width += next.columns;
        at += next.bytes;
    }
    return width;
}

std::string shortened(const std::string &text, size_t columns, bool at_end) {
    if (columns == 0 || text.size() <= columns) return text;  // no byte takes more than a column
    const size_t width = width_of_text(text);
    if (width <= columns) return text;
    const size_t head = at_end ? columns - 1 : columns / 2,
                 tail = columns - 1 - head;  // beside the ellipsis
    std::string out;
    bool cut = false;
    for (size_t at = 0, before = 0; at < text.size();) {
        symbol next = symbol_at(text, at);
        if (before + next.columns <= head || before >= width - tail) {
            out += text.substr(at, next.bytes);
        } else if (!cut) {
            out += "…";
            cut = true;
        }
        before += next.columns;
        at += next.bytes;
    }
    return out;
}

// ---- Tables -------------------------------------------------------------------------------------

// Calls back with each word of a text.
template <typename work>
static void each_word(const std::string &text, const work &run) {
    for (size_t at = 0; at <= text.size();) {
        size_t end = std::min(text.find(' ', at), text.size());
        run(text.substr(at, end - at));
        at = end + 1;
    }
}

std::vector<std::string> wrapped_text(const std::string &text, size_t columns) {
    if (width_of_text(text) <= columns) return {text};
    std::vector<std::string> lines;
    each_word(text, [&](const std::string &whole) {
        std::string word = shortened(whole, columns);
        bool fits =
            !lines.empty() && width_of_text(lines.back()) + 1 + width_of_text(word) <= columns;
        if (fits) {
            lines.back() += " " + word;
        } else {
            lines.push_back(word);
        }
    });
    return lines;
}

// The largest widths up to those wanted, none above a common limit but for what is granted already,
// that together take no more than there is.
static std::vector<size_t> fitted(const std::vector<size_t> &granted,
                                  const std::vector<size_t> &wanted, size_t there_is) {
    std::vector<size_t> fit = granted;
    for (size_t limit = 1; limit <= there_is; ++limit) {
        std::vector<size_t> next = granted;
        size_t sum = 0;
        for (size_t n = 0; n < next.size(); ++n)
            sum += next[n] = std::max(granted[n], std::min(wanted[n], limit));
        if (sum > there_is) break;
        fit = next;
    }
    return fit;
}

static std::vector<size_t> column_widths(const std::vector<std::vector<cell>> &rows,
                                         size_t columns) {
    std::vector<size_t> whole(rows.front().size()), words(whole);
    for (const std::vector<cell> &row : rows) {
        for (size_t n = 0; n < row.size(); ++n) {
            whole[n] = std::max(whole[n], width_of_text(row[n].text));
            each_word(row[n].text, [&](const std::string &word) {
                words[n] = std::max(words[n], width_of_text(word));
            });
        }
    }
    if (columns == 0) return whole;
    const size_t gaps = GAP * (whole.size() - 1), room = columns - std::min(columns, gaps);
    const std::vector<size_t> least(whole.size(), 1);
    return fitted(fitted(least, words, room), whole, room);
}

static void add_row(const std::vector<cell> &row, const std::vector<size_t> &widths,
                    std::string *out) {
    std::vector<std::vector<std::string>> cells;
    size_t height = 0;
    for (size_t n = 0; n < row.size(); ++n) {
        cells.push_back(wrapped_text(row[n].text, widths[n]));
        height = std::max(height, cells.back().size());
    }
    for (size_t line = 0; line < height; ++line) {
        size_t blanks = 0;  // before the next text of the line
        for (size_t n = 0; n < row.size(); ++n) {
            const std::string text = line < cells[n].size() ? cells[n][line] : "";
            if (!text.empty()) {
                *out += std::string(blanks, ' ') + painted(STDOUT_FILENO, row[n].colour, text);
                blanks = 0;
            }
            blanks += widths[n] - width_of_text(text) + GAP;
        }
        *out += "\n";
    }
}

std::string table_of(const std::vector<std::vector<cell>> &rows, size_t columns) {
    const std::vector<size_t> widths = column_widths(rows, columns);
    std::string out;
    for (const std::vector<cell> &row : rows)
        add_row(row, widths, &out);
    return out;
}

}  // namespace keyview::ctl
