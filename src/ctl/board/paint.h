// Makes the screen of the board.
#pragma once

#include <cstddef>
#include <string>

#include "ctl/board/data.h"
#include "ctl/board/frame.h"
#include "ctl/board/view_state.h"

namespace keyview::ctl {

struct screen_size {
    size_t columns, lines;
};

// The smallest screen that shows the board; a smaller one shows a text that asks for more.
inline constexpr screen_size SMALLEST = {80, 24};

// registry: its URL. Ends the scroll of the view where the pane of the database ends.
frame paint(const board_data &data, const std::string &registry, screen_size size, moment now,
            view_state *view);

// The lines of the pane in use, for keys that move by a page.
size_t page_lines(screen_size size, const view_state &view);

}  // namespace keyview::ctl
