// The tables of the board: their columns, rows with marks, and ages.
#pragma once

#include <string>
#include <vector>

#include "ctl/board/data.h"
#include "ctl/board/frame.h"
#include "ctl/board/view_state.h"

namespace keyview::ctl {

// What all parts of one screen need.
struct canvas {
    const board_data &data;
    view_state *view;
    moment now;

    line_maker line(size_t columns, unsigned styles = PLAIN) const {
        return {columns, data.ascii, styles};
    }
};

struct column {
    const char *title;
    size_t width;  // 0: an equal share of what the others leave
};

struct table {
    const column *first;
    size_t count;
};

extern const table LIST, INSTANCES, SERVICES;
inline constexpr size_t MARGIN = 2;  // for the marks before a row

std::vector<size_t> widths_of(const table &shape, size_t columns);
screen_line header_of(const canvas &on, const table &shape, size_t columns);

// Adds a row, its cells in as many lines as they need. The last column is the age of the row.
void add_table_row(const canvas &on, const table &shape, size_t columns, const board_entry &entry,
                   const fact_row &row, frame *out);

unsigned styles_of_word(const std::string &text);

// How long ago that was, in steps that grow, so that a screen of old marks rests; "" for never.
std::string age_text(moment then, moment now);

// Whether it is a short time ago.
bool is_marked(moment then, moment now);
moment mark_of(const board_entry &entry, const std::string &key);

}  // namespace keyview::ctl
