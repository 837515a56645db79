// What of the board is shown: the pane in use, the selection, the filter. Keys change it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ctl/board/data.h"

namespace keyview::ctl {

enum class key {
    character,
    up,
    down,
    page_up,
    page_down,
    home,
    end,
    enter,
    escape,
    tab,
    backspace,
    redraw,
    other,
};

struct key_press {
    key what = key::other;
    std::string text = {};  // of a character, in UTF-8
};

enum class pane { list, database, changes };

struct view_state {
    pane focus = pane::list;
    bool opened = false;       // the pane of the selected database
    bool of_selected = false;  // only the changes of the selected database are listed
    bool helps = false;
    bool edits_filter = false;
    bool by_change = false;  // the list begins with the latest change
    std::string filter;
    std::string selected;        // the element of a database; "" for the first one
    size_t scroll = 0;           // lines of the database's pane that are above the screen
    uint64_t chosen_change = 0;  // its number from 1, by change_count; 0: the latest
};

// The databases that the filter leaves, and the one of them that is selected; null if there is none.
std::vector<const board_entry *> listed_databases(const board_data &data, const view_state &view);
const board_entry *selected_database(const board_data &data, const view_state &view);

// The numbers of the listed changes, the latest first, and the index of the chosen one.
std::vector<uint64_t> listed_changes(const board_data &data, const view_state &view);
size_t chosen_index(const std::vector<uint64_t> &listed, const view_state &view);
const change_line &change_of(const board_data &data, uint64_t number);

// False if the board is to be left. page: the lines of the pane in use.
bool press_key(const key_press &pressed, const board_data &data, size_t page, view_state *view);

}  // namespace keyview::ctl
