// The terminal while the board is on it, through curses: frames go out as the difference to the one
// before, keys come in.
#pragma once

#include <optional>

#include "ctl/board/frame.h"
#include "ctl/board/paint.h"
#include "ctl/board/view_state.h"

namespace keyview::ctl {

// Whether the terminal of this name is able to show a whole screen.
bool can_show_screens(const char *terminal);

// What brings a terminal back to lines of text. Needs can_show_screens() before.
std::string restoring_sequence();

class screen {
  public:
    explicit screen(bool coloured);
    screen(const screen &) = delete;
    screen &operator=(const screen &) = delete;
    ~screen();

    void draw(const frame &shown);
    std::optional<key_press> next_key();  // without waiting
    screen_size size() const;
    void resize();  // takes the size over from the terminal
    void leave();   // for the time of a stop; the next draw returns to the screen
    void redraw();  // the next draw is of every cell

  private:
    void *terminal_;
};

}  // namespace keyview::ctl
