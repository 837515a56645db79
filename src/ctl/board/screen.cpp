// See screen.h.
#include "ctl/board/screen.h"

#include <sys/ioctl.h>
#include <unistd.h>

// Its macros have the names of ordinary functions.
#define NCURSES_NOMACROS
#include <curses.h>

#include <climits>
#include <cwchar>
#include <new>

// Of term.h, which defines macros by hundreds, "columns" and "lines" among them.
extern "C" int setupterm(const char *terminal, int fd, int *error);

namespace keyview::ctl {

namespace {
struct code_row {
    wint_t code;
    key means;
};
}  // namespace

static constexpr code_row FUNCTION_KEYS[] = {
    {KEY_UP, key::up},           {KEY_DOWN, key::down},           {KEY_PPAGE, key::page_up},
    {KEY_NPAGE, key::page_down}, {KEY_HOME, key::home},           {KEY_END, key::end},
    {KEY_ENTER, key::enter},     {KEY_BACKSPACE, key::backspace},
};
constexpr int HOME_KEY = KEY_HOME;
#undef KEY_HOME  // model/roots.h has one, too
static constexpr code_row CONTROL_KEYS[] = {
    {'\r', key::enter},     {'\n', key::enter},     {0x1b, key::escape}, {'\t', key::tab},
    {0x7f, key::backspace}, {'\b', key::backspace}, {0x0c, key::redraw},
};

template <size_t count>
static key key_of(wint_t code, const code_row (&rows)[count], key otherwise) {
    for (const code_row &row : rows)
        if (row.code == code) return row.means;
    return otherwise;
}

// What terminals send for these keys that do not change over to the codes of their entry.
static void accept_other_codes() {
    constexpr struct {
        const char *sent;
        int code;
    } ROWS[] = {{"\x1b[A", KEY_UP},   {"\x1b[B", KEY_DOWN},  {"\x1bOA", KEY_UP},
                {"\x1bOB", KEY_DOWN}, {"\x1b[F", KEY_END},   {"\x1b[H", HOME_KEY},
                {"\x1b[4~", KEY_END}, {"\x1b[1~", HOME_KEY}, {"\x1bOF", KEY_END},
                {"\x1bOH", HOME_KEY}};
    for (const auto &row : ROWS)
        if (key_defined(row.sent) == 0) define_key(row.sent, row.code);
}

bool can_show_screens(const char *terminal) {
    int error = 0;
    if (setupterm(terminal, STDOUT_FILENO, &error) != OK) return false;
    const char *moves = tigetstr("cup");
    return moves != nullptr && moves != reinterpret_cast<const char *>(-1);  // NOLINT
}

// Without the marks of pauses, "$<5>", that terminals of paper needed.
static std::string without_pauses(std::string text) {
    for (size_t at = text.find("$<"); at != text.npos; at = text.find("$<", at))
        text.erase(at, text.find('>', at) - at + 1);
    return text;
}

std::string restoring_sequence() {
    std::string out;
    auto add = [&](const char *text) {
        const bool known = text != nullptr && text != reinterpret_cast<const char *>(-1);  // NOLINT
        if (known) out += without_pauses(text);
    };
    struct winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0) {
        // Scrolling is of all lines again, and a terminal with one screen goes on below it.
        if (tigetstr("csr") != nullptr) add(tparm(tigetstr("csr"), 0, size.ws_row - 1));
        add(tparm(tigetstr("cup"), size.ws_row - 1, 0));
    }
    for (const char *name : {"rmkx", "sgr0", "cnorm", "rmcup"})
        add(tigetstr(name));
    return out;
}

// ---- The screen ---------------------------------------------------------------------------------

static void choose_colors() {
    start_color();
    use_default_colors();
    constexpr short COLORS_OF[] = {COLOR_GREEN, COLOR_RED, COLOR_YELLOW, COLOR_CYAN};
    for (short pair = 1; pair <= 4; ++pair)
        init_pair(pair, COLORS_OF[pair - 1], -1);
}

screen::screen(bool coloured) {
    use_env(FALSE);  // LINES and COLUMNS do not follow the terminal's size
    use_tioctl(TRUE);
    SCREEN *opened = newterm(nullptr, stdout, stdin);
    terminal_ = opened;
    if (opened == nullptr) throw std::bad_alloc();  // the terminal is known
    if (coloured && has_colors()) choose_colors();
    cbreak();
    noecho();
    nonl();  // the cursor moves down without a carriage return
    keypad(stdscr, TRUE);
    accept_other_codes();
    nodelay(stdscr, TRUE);
    idlok(stdscr, TRUE);  // the list of changes moves down by an inserted line
    set_escdelay(50);
    curs_set(0);
}

screen::~screen() {
    endwin();
    delscreen(static_cast<SCREEN *>(terminal_));
}

static attr_t attributes_of(unsigned styles) {
    constexpr struct {
        unsigned styles;
        attr_t plain;  // also where there is no colour
        short pair;
    } ROWS[] = {{STRONG, A_BOLD, 0}, {TITLE, A_BOLD, 4}, {CHOSEN, A_REVERSE, 0},
                {GOOD, A_NORMAL, 1}, {BAD, A_BOLD, 2},   {MARKED, A_BOLD, 3}};
    attr_t attributes = A_NORMAL;
    short pair = 0;
    for (const auto &row : ROWS) {
        if ((styles & row.styles) == 0) continue;
        attributes |= row.plain;
        if (row.pair != 0) pair = row.pair;
    }
    if ((styles & CHOSEN) != 0) pair = 0;  // colours are hard to read in reverse
    return attributes | static_cast<attr_t>(COLOR_PAIR(pair));
}

void screen::draw(const frame &shown) {
    for (size_t y = 0; y < shown.size(); ++y) {
        if (wmove(stdscr, static_cast<int>(y), 0) == ERR) break;
        for (const span &one : shown[y]) {
            wattrset(stdscr, static_cast<int>(attributes_of(one.styles)));
            waddnstr(stdscr, one.text.c_str(), -1);
        }
    }
    wattrset(stdscr, A_NORMAL);
    wrefresh(stdscr);
}

static std::string utf8_of(wint_t code) {
    char text[MB_LEN_MAX];
    std::mbstate_t state = {};
    const size_t bytes = std::wcrtomb(text, static_cast<wchar_t>(code), &state);
    return bytes > sizeof text ? "" : std::string(text, bytes);
}

std::optional<key_press> screen::next_key() {
    wint_t code = 0;
    const int kind = wget_wch(stdscr, &code);
    if (kind == ERR) return std::nullopt;
    if (kind == KEY_CODE_YES) return key_press{key_of(code, FUNCTION_KEYS, key::other)};
    const key what = key_of(code, CONTROL_KEYS, code < 0x20 ? key::other : key::character);
    return what == key::character ? key_press{what, utf8_of(code)} : key_press{what};
}

screen_size screen::size() const {
    return {static_cast<size_t>(getmaxx(stdscr)), static_cast<size_t>(getmaxy(stdscr))};
}

void screen::resize() {
    struct winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0 || size.ws_col == 0)
        return;
    resizeterm(size.ws_row, size.ws_col);
    wclear(stdscr);
}

void screen::leave() {
    endwin();
}

void screen::redraw() {
    clearok(curscr, TRUE);
}

}  // namespace keyview::ctl
