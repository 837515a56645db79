// See view_state.h.
#include "ctl/board/view_state.h"

#include <algorithm>
#include <iterator>
#include <sstream>

#include "model/folding.h"

namespace keyview::ctl {

// ---- What is listed -----------------------------------------------------------------------------

// All words of the filter must occur.
static bool passes(const board_entry &entry, const std::vector<std::string> &words) {
    return std::all_of(words.begin(), words.end(), [&](const std::string &word) {
        return entry.searched.find(word) != std::string::npos;
    });
}

std::vector<const board_entry *> listed_databases(const board_data &data, const view_state &view) {
    std::istringstream split(element_of(view.filter));
    using words = std::istream_iterator<std::string>;
    const std::vector<std::string> wanted(words(split), words{});
    std::vector<const board_entry *> listed;
    for (const auto &[element, entry] : data.entries)
        if (passes(entry, wanted)) listed.push_back(&entry);
    if (view.by_change) {
        std::stable_sort(listed.begin(), listed.end(),
                         [](const board_entry *one, const board_entry *other) {
                             return one->changed > other->changed;
                         });
    }
    return listed;
}

// The one that was selected, or else the next one by its name.
static size_t selected_index(const std::vector<const board_entry *> &listed,
                             const view_state &view) {
    auto find = [&](bool exactly) {
        return std::find_if(listed.begin(), listed.end(), [&](const board_entry *entry) {
            const int order = entry->facts.element.compare(view.selected);
            return exactly ? order == 0 : order >= 0;
        });
    };
    auto found = find(true);
    if (found == listed.end()) found = view.selected.empty() ? listed.begin() : find(false);
    if (found == listed.end() && !listed.empty()) --found;
    return static_cast<size_t>(found - listed.begin());
}

const board_entry *selected_database(const board_data &data, const view_state &view) {
    if (view.opened) {
        auto found = data.entries.find(view.selected);
        return found == data.entries.end() ? nullptr : &found->second;
    }
    const std::vector<const board_entry *> listed = listed_databases(data, view);
    return listed.empty() ? nullptr : listed[selected_index(listed, view)];
}

const change_line &change_of(const board_data &data, uint64_t number) {
    const uint64_t first = data.change_count - data.changes.size() + 1;
    return data.changes[static_cast<size_t>(number - first)];
}

std::vector<uint64_t> listed_changes(const board_data &data, const view_state &view) {
    const board_entry *selected = view.of_selected ? selected_database(data, view) : nullptr;
    const uint64_t first = data.change_count - data.changes.size() + 1;
    std::vector<uint64_t> listed;
    for (uint64_t number = data.change_count; number >= first; --number) {
        const bool fits =
            !view.of_selected ||
            (selected != nullptr && change_of(data, number).element == selected->facts.element);
        if (fits) listed.push_back(number);
    }
    return listed;
}

size_t chosen_index(const std::vector<uint64_t> &listed, const view_state &view) {
    if (view.chosen_change == 0 || listed.empty()) return 0;
    auto found = std::find_if(listed.begin(), listed.end(),
                              [&](uint64_t number) { return number <= view.chosen_change; });
    return static_cast<size_t>(std::min(found, listed.end() - 1) - listed.begin());
}

// ---- Keys ---------------------------------------------------------------------------------------

// How far a key moves; 0 for one that does not.
static long movement_of(const key_press &pressed, size_t page) {
    constexpr long FAR = 1L << 30;
    const long most = static_cast<long>(std::max<size_t>(page, 2)) - 1;
    switch (pressed.what) {
        case key::up:
            return -1;
        case key::down:
            return 1;
        case key::page_up:
            return -most;
        case key::page_down:
            return most;
        case key::home:
            return -FAR;
        case key::end:
            return FAR;
        default:
            break;
    }
    if (pressed.text == "k") return -1;
    if (pressed.text == "j") return 1;
    if (pressed.text == "g") return -FAR;
    return pressed.text == "G" ? FAR : 0;
}

static size_t moved(size_t from, long by, size_t count) {
    const long last = static_cast<long>(count) - 1;
    return static_cast<size_t>(
        std::clamp<long>(static_cast<long>(from) + by, 0, std::max(last, 0L)));
}

static void move(long by, const board_data &data, view_state *view) {
    if (view->focus == pane::database) {
        view->scroll = moved(view->scroll, by, 1U << 20);  // paint.h ends it at the last line
    } else if (view->focus == pane::list) {
        const auto listed = listed_databases(data, *view);
        if (listed.empty()) return;
        view->selected =
            listed[moved(selected_index(listed, *view), by, listed.size())]->facts.element;
        view->scroll = 0;
    } else {
        const auto listed = listed_changes(data, *view);
        if (listed.empty()) return;
        const size_t index = moved(chosen_index(listed, *view), by, listed.size());
        view->chosen_change = index == 0 ? 0 : listed[index];
    }
}

static void open_database(const std::string &element, view_state *view) {
    view->selected = element;
    view->opened = true;
    view->scroll = 0;
    view->focus = pane::database;
}

static void press_enter(const board_data &data, view_state *view) {
    if (view->focus == pane::list) {
        const board_entry *selected = selected_database(data, *view);
        if (selected != nullptr) open_database(selected->facts.element, view);
    } else if (view->focus == pane::changes) {
        const auto listed = listed_changes(data, *view);
        if (listed.empty()) return;
        const change_line &chosen = change_of(data, listed[chosen_index(listed, *view)]);
        if (data.entries.count(chosen.element) > 0) open_database(chosen.element, view);
    }
}

// One step back.
static void press_escape(view_state *view) {
    if (view->focus == pane::changes) {
        view->focus = view->opened ? pane::database : pane::list;
        view->of_selected = false;
        view->chosen_change = 0;
    } else if (view->focus == pane::database) {
        view->focus = pane::list;
        view->opened = false;
    } else {
        view->filter.clear();
    }
}

static void remove_last_character(std::string *text) {
    while (!text->empty()) {
        const bool continues = (static_cast<unsigned char>(text->back()) & 0xc0) == 0x80;
        text->pop_back();
        if (!continues) return;
    }
}

static void press_in_filter(const key_press &pressed, view_state *view) {
    if (pressed.what == key::character) view->filter += pressed.text;
    if (pressed.what == key::backspace) remove_last_character(&view->filter);
    if (pressed.what == key::escape) view->filter.clear();
    if (pressed.what == key::escape || pressed.what == key::enter) view->edits_filter = false;
}

// The changes of the selected database, then those of all.
static void press_changes(const board_data &data, view_state *view) {
    const board_entry *selected = selected_database(data, *view);
    if (selected != nullptr && !view->opened) view->selected = selected->facts.element;
    view->of_selected = view->focus != pane::changes || !view->of_selected;
    view->focus = pane::changes;
    view->chosen_change = 0;
}

static void press_tab(view_state *view) {
    const pane other = view->opened ? pane::database : pane::list;
    view->focus = view->focus == pane::changes ? other : pane::changes;
}

bool press_key(const key_press &pressed, const board_data &data, size_t page, view_state *view) {
    if (view->helps) {
        view->helps = false;
        return true;
    }
    if (view->edits_filter) {
        press_in_filter(pressed, view);
        return true;
    }
    const long by = movement_of(pressed, page);
    if (by != 0) move(by, data, view);
    if (pressed.what == key::enter) press_enter(data, view);
    if (pressed.what == key::escape) press_escape(view);
    if (pressed.what == key::tab) press_tab(view);
    if (pressed.text == "c") press_changes(data, view);
    if (pressed.text == "s") view->by_change = !view->by_change;
    if (pressed.text == "?") view->helps = true;
    if (pressed.text == "/") {
        view->focus = pane::list;
        view->opened = view->of_selected = false;
        view->filter.clear();
        view->edits_filter = true;
    }
    return pressed.text != "q";
}

}  // namespace keyview::ctl
