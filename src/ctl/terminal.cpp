// See terminal.h.
#include "ctl/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>

namespace keyview::ctl {

static constexpr size_t USUAL_WIDTH = 80;

static color_mode chosen_color = color_mode::automatic;

void choose_color(color_mode mode) {
    chosen_color = mode;
}

bool is_terminal(int fd) {
    return isatty(fd) == 1;
}

std::string environment(const char *variable) {
    const char *text = getenv(variable);
    return text == nullptr ? "" : text;
}

bool color_wanted(int fd) {
    if (chosen_color != color_mode::automatic) return chosen_color == color_mode::always;
    return is_terminal(fd) && environment("NO_COLOR").empty() && environment("TERM") != "dumb";
}

static bool lines_are_whole = false;

void choose_width(bool whole_lines) {
    lines_are_whole = whole_lines;
}

size_t width_of(int fd) {
    if (lines_are_whole || !is_terminal(fd)) return 0;
    struct winsize size = {};
    if (ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
    return USUAL_WIDTH;
}

static const char *sequence_of(tone colour) {
    constexpr const char *SEQUENCES[] = {"", "\x1b[32m", "\x1b[31m"};
    return SEQUENCES[static_cast<size_t>(colour)];
}

std::string painted(int fd, tone colour, const std::string &text) {
    if (colour == tone::plain || !color_wanted(fd)) return text;
    return sequence_of(colour) + text + "\x1b[0m";
}

}  // namespace keyview::ctl
