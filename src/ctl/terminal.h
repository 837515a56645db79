// What is known about the terminal behind a stream: whether there is one, how wide it is, and
// whether colour is wanted on it.
#pragma once

#include <cstddef>
#include <string>

#include "ctl/view.h"

namespace keyview::ctl {

enum class color_mode { automatic, always, never };

// The choice of --color. Automatic: on a terminal, unless NO_COLOR is set or TERM is "dumb".
void choose_color(color_mode mode);
bool color_wanted(int fd);

// The text of an environment variable; "" if it is not set.
std::string environment(const char *variable);

bool is_terminal(int fd);

// In columns; 0 for a stream that is no terminal, and for all once lines are whole.
size_t width_of(int fd);
void choose_width(bool whole_lines);

// A text in its colour, if that is wanted on the stream.
std::string painted(int fd, tone colour, const std::string &text);

}  // namespace keyview::ctl
