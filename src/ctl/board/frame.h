// What a screen shows: lines of texts with their style. Made without a terminal.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace keyview::ctl {

// Bits; the words themselves carry the same information.
enum style : unsigned {
    PLAIN = 0,
    STRONG = 1,
    TITLE = 2,   // of a pane
    CHOSEN = 4,  // the line that keys act on
    GOOD = 8,
    BAD = 16,
    MARKED = 32,  // changed a short time ago
};

struct span {
    std::string text;
    unsigned styles = PLAIN;
};

using screen_line = std::vector<span>;
using frame = std::vector<screen_line>;

// Makes one line of so many columns. What does not fit is cut.
class line_maker {
  public:
    line_maker(size_t columns, bool ascii, unsigned styles = PLAIN)
        : left_(columns), ascii_(ascii), styles_(styles) {}

    void add(const std::string &text, unsigned styles = PLAIN);
    // In a column of this width, and a blank behind it.
    void add_cell(const std::string &text, size_t width, unsigned styles = PLAIN);
    void fill_to(size_t columns_left, const char *with = " ");
    size_t left() const { return left_; }
    screen_line take();

  private:
    void add_fitting(const std::string &text, size_t width, unsigned styles);

    size_t left_;
    bool ascii_;
    unsigned styles_;
    screen_line line_;
};

}  // namespace keyview::ctl
