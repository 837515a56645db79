// See board.h.
#include "ctl/board/board.h"

#include <fcntl.h>
#include <langinfo.h>
#include <poll.h>
#include <sys/signalfd.h>

#include <clocale>
#include <optional>
#include <thread>

#include "admin/registry.h"
#include "ctl/board/desk.h"
#include "ctl/board/keeper.h"
#include "ctl/board/paint.h"
#include "ctl/board/reader.h"
#include "ctl/board/screen.h"
#include "ctl/layout.h"
#include "ctl/output.h"
#include "ctl/session.h"
#include "ctl/terminal.h"
#include "ctl/text.h"
#include "host/if/keyview_host.h"
#include "model/folding.h"
#include "model/roots.h"

namespace keyview::ctl {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Redrawn at most so often for changes, and at least so often for times.
static constexpr milliseconds SHORTEST_FRAME{100}, TICK{1000};
static constexpr std::chrono::seconds LAST_READING{1};

static void refuse_board(const std::string &why, const std::string &todo) {
    throw tool_error{EXIT_USAGE, "the board cannot be shown", "", why, todo};
}

static void require_terminal(const tool &shared, const std::string &database) {
    const std::string watch = "use \"keyviewctl watch" +
                              (database.empty() ? "" : " " + database_key(database)) +
                              "\", which prints a line a change";
    if (shared.format != output_format::table)
        refuse_board("it is a screen for people, and another format was chosen",
                     watch + ", with -o jsonl");
    if (!is_terminal(STDIN_FILENO) || !is_terminal(STDOUT_FILENO))
        refuse_board("standard input and output are no terminal", watch);
    const std::string terminal = environment("TERM");
    if (!can_show_screens(terminal.c_str()))
        refuse_board("a terminal of type \"" + terminal + "\" shows no whole screen",
                     "set TERM to its type, or " + watch);
}

// The terminal's encoding as the locale has it. Afterwards the program itself works with UTF-8; what
// is drawn is ASCII where the terminal has nothing else.
static bool choose_characters() {
    (void)setlocale(LC_CTYPE, "");
    const bool ascii = nl_langinfo(CODESET) != std::string("UTF-8");
    (void)setlocale(LC_CTYPE, "C.UTF-8");
    (void)width_of_text(" ");  // sets it as well, and must not later, beside other threads
    return ascii;
}

// What is wrong from the beginning ends the command, as it ends others.
static void require_readable(const tool &shared, const std::string &database) {
    const std::string what = "the board cannot be shown";
    const session library(shared);
    attempt(what, shared.registry, [] { return admin::registry::open().revision(); });
    if (database.empty()) return;
    (void)keyview_host_set_lock_wait(LOCK_WAIT_MS);  // it is not above the limit
    const auto found = library->fetch_db_config(database);
    if (found.code() == PRSR_ERR_NO_DATABASE) library.check(found.code(), what);
}

namespace {

// Draws, and reacts to keys, signals and news until the end.
class board_loop {
  public:
    board_loop(std::string registry, bool coloured, board_desk *desk, terminal_keeper *keeper)
        : registry_(std::move(registry)), desk_(desk), keeper_(keeper) {
        const sigset_t handled = board_signals();
        signals_ = signalfd(-1, &handled, SFD_NONBLOCK | SFD_CLOEXEC);
        keeper_->note_screen(true);
        screen_.emplace(coloured);
    }
    board_loop(const board_loop &) = delete;
    board_loop &operator=(const board_loop &) = delete;
    ~board_loop() {
        screen_.reset();
        keeper_->note_screen(false);
        close(signals_);
    }

    // Opens the pane of a database.
    void open(const std::string &element) {
        view_.selected = element;
        view_.opened = true;
        view_.focus = pane::database;
    }

    // Returns the signal that ended it, or 0.
    int run() {
        while (!left_) {
            draw();
            wait();
        }
        return ended_by_;
    }

  private:
    void draw() {
        frame shown;
        {
            std::lock_guard guard(desk_->mutex);
            shown = paint(desk_->data, registry_, screen_->size(), steady_clock::now(), &view_);
        }
        screen_->draw(shown);
        drawn_ = steady_clock::now();
    }

    void wait() {
        pollfd sources[] = {
            {STDIN_FILENO, POLLIN, 0}, {signals_, POLLIN, 0}, {desk_->news, POLLIN, 0}};
        (void)poll(sources, std::size(sources), static_cast<int>(TICK.count()));
        const bool news_only = sources[0].revents == 0 && sources[1].revents == 0;
        if (news_only && sources[2].revents != 0) gather_news(sources);
        eventfd_t count = 0;
        (void)eventfd_read(desk_->news, &count);
        if (sources[1].revents != 0) take_signals();
        if (sources[0].revents != 0) take_keys();
        if ((sources[0].revents & (POLLHUP | POLLERR)) != 0) end(SIGHUP);
    }

    // News that come in quick succession make one frame. Keys do not wait.
    void gather_news(pollfd (&sources)[3]) const {
        const auto since = std::chrono::duration_cast<milliseconds>(steady_clock::now() - drawn_);
        if (since < SHORTEST_FRAME)
            (void)poll(sources, 2, static_cast<int>((SHORTEST_FRAME - since).count()));
    }

    void end(int number) {
        left_ = true;
        ended_by_ = number;
    }

    void take_keys() {
        while (const std::optional<key_press> pressed = screen_->next_key()) {
            std::lock_guard guard(desk_->mutex);
            if (pressed->what == key::redraw) screen_->redraw();
            if (!press_key(*pressed, desk_->data, page_lines(screen_->size(), view_), &view_))
                end(0);
        }
    }

    void take_signals() {
        signalfd_siginfo got = {};
        while (read(signals_, &got, sizeof got) == sizeof got) {
            const auto number = static_cast<int>(got.ssi_signo);
            if (number == SIGWINCH) {
                screen_->resize();
            } else if (number == SIGTSTP) {
                stop();
            } else if (number == SIGCONT) {
                return_to_screen();
            } else {
                end(number);
            }
        }
    }

    void stop() {
        screen_->leave();
        keeper_->note_screen(false);
        (void)raise(SIGSTOP);
        return_to_screen();
    }

    // The terminal may have been used, and have another size.
    void return_to_screen() {
        screen_->leave();
        keeper_->note_screen(true);
        screen_->resize();
        screen_->redraw();
    }

    std::string registry_;
    board_desk *desk_;
    terminal_keeper *keeper_;
    std::optional<screen> screen_;
    view_state view_;
    moment drawn_ = {};
    int signals_ = -1;
    int ended_by_ = 0;
    bool left_ = false;
};

}  // namespace

// A reader that waits for changes holds nothing, and ends with the process. One that reads may hold a
// lock, and gets the time to release it.
static void end_reading_of(board_desk *desk) {
    desk->ending = true;
    const auto end = steady_clock::now() + LAST_READING;
    while (desk->reading && steady_clock::now() < end)
        std::this_thread::sleep_for(milliseconds(5));
}

// A trace that goes to the terminal would be written over the screen.
static void keep_off_screen() {
    if (!is_terminal(STDERR_FILENO)) return;
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (nowhere >= 0) (void)dup2(nowhere, STDERR_FILENO);  // without it the trace is seen
}

[[noreturn]] static void show_board(const tool &shared, const std::string &database, bool ascii,
                                    terminal_keeper *keeper) {
    const sigset_t handled = board_signals();
    (void)sigprocmask(SIG_BLOCK, &handled, nullptr);  // in the reader's thread, too
    choose_remarks(remarks::none, false);
    keep_off_screen();
    board_desk desk;
    desk.data.ascii = ascii;
    std::optional<board_loop> loop;
    loop.emplace(screen_text(escaped(shown_url(shared.registry)), ascii),
                 color_wanted(STDOUT_FILENO), &desk, keeper);
    if (!database.empty()) loop->open(element_of(database));
    const std::thread reader([&] { read_for_board(shared, database, &desk); });
    const int ended_by = loop->run();
    loop.reset();  // the terminal is free before the reader is
    end_reading_of(&desk);
    if (ended_by != 0) end_by_signal(ended_by);
    _exit(EXIT_DONE);
}

exit_code run_board(const tool &shared, const std::string &database) {
    require_terminal(shared, database);
    shared.reporter->stop();  // a child has no threads of its parent
    terminal_keeper keeper;
    if (!keeper.in_child()) return static_cast<exit_code>(keeper.wait_for_child());
    const bool ascii = choose_characters();
    shared.reporter->start();
    require_readable(shared, database);
    shared.reporter->stop();
    show_board(shared, database, ascii, &keeper);
}

}  // namespace keyview::ctl
