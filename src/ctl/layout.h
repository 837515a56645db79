// Text in the columns of a terminal: how wide it is, and how it fits.
#pragma once

#include <string>
#include <vector>

#include "ctl/view.h"

namespace keyview::ctl {

// The columns that a text takes.
size_t width_of_text(const std::string &text);

// A text that is too wide, with an ellipsis in its middle or at its end. A width of 0 is none.
std::string shortened(const std::string &text, size_t columns, bool at_end = false);

// A text in lines of at most so many columns, broken at blanks; a longer word is shortened.
std::vector<std::string> wrapped_text(const std::string &text, size_t columns);

struct cell {
    std::string text;
    tone colour = tone::plain;
};

// Rows of cells as a table of at most so many columns, of any width if that is 0. Lines break at
// blanks only; a word that is wider than its column is shortened.
std::string table_of(const std::vector<std::vector<cell>> &rows, size_t columns);

}  // namespace keyview::ctl
