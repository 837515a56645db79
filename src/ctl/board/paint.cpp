// See paint.h. A screen is a head, the panes, and a foot of one line. The pane of a database replaces
// the list on a small screen; on a larger one it is below the list, or beside it.
#include "ctl/board/paint.h"

#include <algorithm>
#include <iterator>

#include "ctl/board/tables.h"
#include "ctl/layout.h"
#include "ctl/text.h"

namespace keyview::ctl {

static constexpr std::chrono::seconds SILENCE{5};  // of a registry that does not answer
static constexpr size_t TALL = 36, WIDE = 160;

// A person may type what the screen does not show.
static std::string filter_text(const canvas &on) {
    return screen_text(escaped(on.view->filter), on.data.ascii);
}

// ---- Panes --------------------------------------------------------------------------------------

static screen_line title_of(const canvas &on, const std::string &text, bool focused,
                            size_t columns) {
    const char *rule = on.data.ascii ? "-" : "─";
    line_maker line = on.line(columns, focused ? TITLE | STRONG : PLAIN);
    line.add(std::string(rule) + rule + " " + text + " ");
    line.fill_to(0, rule);
    return line.take();
}

static void pad(const canvas &on, screen_size size, frame *out) {
    while (out->size() < size.lines)
        out->push_back(on.line(size.columns).take());
    out->resize(size.lines);
}

// Where a window of so many lines begins, so that it contains the line.
static size_t window_at(size_t line, size_t lines, size_t count) {
    if (count <= lines) return 0;
    return std::min(line - std::min(line, lines / 2), count - lines);
}

static std::string range_text(size_t first, size_t lines, size_t count) {
    if (count <= lines) return std::to_string(count);
    return std::to_string(first + 1) + "-" + std::to_string(first + lines) + " of " +
           std::to_string(count);
}

static screen_line database_line(const canvas &on, const board_entry &entry, bool selected,
                                 size_t columns) {
    const fact_row &row = entry.facts.row;
    const std::vector<size_t> widths = widths_of(LIST, columns);
    const bool focused = selected && on.view->focus == pane::list;
    line_maker line = on.line(columns, focused ? CHOSEN : PLAIN);
    line.add(selected ? ">" : " ");
    const bool starred = is_marked(entry.changed, on.now);
    line.add(starred ? "*" : " ", starred ? MARKED : PLAIN);
    const std::string word = entry.removed ? "removed" : entry.facts.trouble;
    for (size_t n = 0; n + 1 < LIST.count; ++n) {
        const bool replaced = n == STATE_CELL && !word.empty();
        const std::string stored = n < row.cells.size() ? row.cells[n] : "";
        const bool marked = is_marked(mark_of(entry, mark_key(row, n)), on.now);
        line.add_cell(replaced ? word : stored, widths[n],
                      replaced ? BAD : styles_of_word(stored) | (marked ? MARKED : PLAIN));
    }
    line.add(age_text(entry.changed, on.now));
    return line.take();
}

static frame list_pane(const canvas &on, screen_size size) {
    const auto listed = listed_databases(on.data, *on.view);
    const board_entry *selected = selected_database(on.data, *on.view);
    const size_t at = static_cast<size_t>(std::find(listed.begin(), listed.end(), selected) -
                                          listed.begin()),
                 rows = size.lines - 2, first = window_at(at, rows, listed.size());
    std::string title = "databases " + range_text(first, rows, listed.size());
    if (!on.view->filter.empty())
        title +=
            ", filter \"" + filter_text(on) + "\" of " + std::to_string(on.data.entries.size());
    if (on.view->by_change) title += ", latest change first";
    if (!on.data.read_once) title += ", still being read";
    frame out = {title_of(on, title, on.view->focus == pane::list, size.columns),
                 header_of(on, LIST, size.columns)};
    for (size_t n = first; n < std::min(listed.size(), first + rows); ++n)
        out.push_back(database_line(on, *listed[n], listed[n] == selected, size.columns));
    pad(on, size, &out);
    return out;
}

static void add_text(const canvas &on, const std::string &text, unsigned styles, size_t columns,
                     frame *out) {
    for (const std::string &part : wrapped_text(text, columns - MARGIN)) {
        line_maker line = on.line(columns);
        line.add(std::string(MARGIN, ' ') + part, styles);
        out->push_back(line.take());
    }
}

static void add_rows(const canvas &on, const table &shape, size_t columns, const board_entry &entry,
                     const std::vector<fact_row> &rows, frame *out) {
    if (rows.empty()) return;
    out->push_back(on.line(columns).take());
    out->push_back(header_of(on, shape, columns));
    for (const fact_row &row : rows)
        add_table_row(on, shape, columns, entry, row, out);
}

static frame database_text(const canvas &on, const board_entry &entry, size_t columns) {
    const database_facts &facts = entry.facts;
    frame out;
    if (entry.removed) {
        add_text(on, "removed " + age_text(entry.changed, on.now) + " ago; this was it:", BAD,
                 columns, &out);
    } else if (!facts.trouble.empty()) {
        add_text(on,
                 facts.trouble + ": " + facts.why +
                     (facts.known ? "; read " + age_text(entry.read, on.now) + " ago:" : ""),
                 BAD, columns, &out);
    }
    if (!facts.known) return out;
    const std::vector<std::string> &cells = facts.row.cells;
    add_text(on, cells[STATE_CELL] + ", role " + cells[ROLE_CELL] + ", policy " + facts.policy,
             PLAIN, columns, &out);
    add_rows(on, INSTANCES, columns, entry, facts.instances, &out);
    add_rows(on, SERVICES, columns, entry, facts.services, &out);
    return out;
}

static frame database_pane(const canvas &on, screen_size size) {
    const board_entry *entry = selected_database(on.data, *on.view);
    const size_t rows = size.lines - 1;
    frame text;
    std::string title = "no database is selected";
    if (entry != nullptr) {
        text = database_text(on, *entry, size.columns);
        title = "database " + entry->facts.row.cells[NAME_CELL];
    }
    size_t &scroll = on.view->scroll;
    scroll = std::min(scroll, text.size() - std::min(text.size(), rows));
    if (text.size() > rows) title += ", lines " + range_text(scroll, rows, text.size());
    frame out = {title_of(on, title, on.view->focus == pane::database, size.columns)};
    std::move(text.begin() + static_cast<long>(scroll), text.end(), std::back_inserter(out));
    pad(on, size, &out);
    return out;
}

static frame changes_pane(const canvas &on, screen_size size) {
    const auto listed = listed_changes(on.data, *on.view);
    const bool focused = on.view->focus == pane::changes;
    const size_t at = chosen_index(listed, *on.view), rows = size.lines - 1,
                 first = window_at(at, rows, listed.size());
    const board_entry *selected = selected_database(on.data, *on.view);
    std::string title = "changes " + range_text(first, rows, listed.size());
    if (on.view->of_selected && selected != nullptr)
        title += " of database " + selected->facts.row.cells[NAME_CELL];
    frame out = {title_of(on, title, focused, size.columns)};
    for (size_t n = first; n < std::min(listed.size(), first + rows); ++n) {
        const change_line &change = change_of(on.data, listed[n]);
        line_maker line = on.line(size.columns, focused && n == at ? CHOSEN : PLAIN);
        line.add(focused && n == at ? "> " : "  ");
        line.add_cell(change.time, 8);
        line.add(change.text);
        out.push_back(line.take());
    }
    pad(on, size, &out);
    return out;
}

// ---- Head, foot, help ---------------------------------------------------------------------------

static size_t troubled(const board_data &data) {
    return static_cast<size_t>(
        std::count_if(data.entries.begin(), data.entries.end(),
                      [](const auto &one) { return !one.second.facts.trouble.empty(); }));
}

static span health_of(const canvas &on) {
    const board_data &data = on.data;
    if (data.last_good == moment() && data.trouble.empty()) return {"is being read"};
    if (data.last_good == moment()) return {"cannot be read", BAD};
    if (!data.trouble.empty() || on.now - data.last_good > SILENCE)
        return {"stale for " + age_text(data.last_good, on.now), BAD};
    const size_t bad = troubled(data);
    return bad > 0 ? span{std::to_string(bad) + " cannot be read", BAD} : span{"good", GOOD};
}

static screen_line head_of(const canvas &on, const std::string &registry, size_t columns) {
    line_maker line = on.line(columns, STRONG);
    const span health = health_of(on);
    line.add_cell(health.text, 18, health.styles);
    line.add_cell("revision " + std::to_string(on.data.revision), 15);
    const moment changed = on.data.last_change;
    line.add_cell(changed == moment() ? "" : "changed " + age_text(changed, on.now) + " ago", 17);
    line.add(registry);
    return line.take();
}

static screen_line foot_of(const canvas &on, size_t columns) {
    line_maker line = on.line(columns);
    if (on.view->edits_filter) {
        line.add("/" + filter_text(on) + "_", STRONG);
    } else if (!on.data.trouble.empty()) {
        line.add(on.data.trouble, BAD);
    } else {
        line.add("j k move  Enter open  Esc back  c changes  / filter  s sort  ? help  q leave");
    }
    return line.take();
}

static frame help_pane(const canvas &on, screen_size size) {
    static constexpr struct {
        const char *keys, *what;
    } ROWS[] = {
        {"j k, arrows", "move by a line"},
        {"PgDn PgUp", "move by a page"},
        {"Home End, g G", "move to the first or last line"},
        {"Enter", "open the selected database, or the database of a change"},
        {"Esc", "one step back; in the list: end the filter"},
        {"c", "the changes of the selected database; again: all changes"},
        {"Tab", "the changes, and back"},
        {"/", "filter: databases that contain all of the words"},
        {"s", "sort by the latest change, or by name"},
        {"Ctrl-L", "draw the screen again"},
        {"?", "this help; any key ends it"},
        {"q, Ctrl-C", "leave"},
        {"", ""},
        {"*", "changed in the last minute"},
        {"locked, unreadable", "what was read before is shown; its pane has the cause"},
        {"stale", "the registry cannot be read; it is tried twice a second"},
    };
    frame out = {title_of(on, "help", true, size.columns)};
    for (const auto &row : ROWS) {
        line_maker line = on.line(size.columns);
        line.add("  ");
        line.add_cell(row.keys, 20, STRONG);
        line.add(row.what);
        out.push_back(line.take());
    }
    pad(on, size, &out);
    return out;
}

// ---- The screen ---------------------------------------------------------------------------------

namespace {
// How the lines between head and foot are divided. Without lines a pane is not shown.
struct division {
    screen_size list, database, changes;
    bool beside;  // the database beside the list
};
}  // namespace

static division division_of(screen_size size, const view_state &view) {
    const size_t body = size.lines - 2, columns = size.columns;
    const bool beside = columns >= WIDE, below = !beside && size.lines >= TALL;
    const size_t changes = std::max<size_t>(6, body / (below ? 4 : 3)), upper = body - changes;
    if (beside)
        return {{columns * 45 / 100, upper},
                {columns - columns * 45 / 100 - 1, upper},
                {columns, changes},
                true};
    if (below)
        return {{columns, upper / 2}, {columns, upper - upper / 2}, {columns, changes}, false};
    const screen_size whole = {columns, upper}, none = {columns, 0};
    return {view.opened ? none : whole, view.opened ? whole : none, {columns, changes}, false};
}

static void append(frame &&part, frame *out) {
    std::move(part.begin(), part.end(), std::back_inserter(*out));
}

static void append_beside(const canvas &on, frame &&right, frame *out) {
    for (size_t n = 0; n < out->size(); ++n) {
        (*out)[n].push_back({on.data.ascii ? "|" : "│"});
        std::move(right[n].begin(), right[n].end(), std::back_inserter((*out)[n]));
    }
}

static frame body_of(const canvas &on, screen_size size) {
    if (on.view->helps) return help_pane(on, {size.columns, size.lines - 2});
    const division parts = division_of(size, *on.view);
    frame out;
    if (parts.list.lines > 0) out = list_pane(on, parts.list);
    if (parts.database.lines > 0) {
        frame database = database_pane(on, parts.database);
        parts.beside ? append_beside(on, std::move(database), &out)
                     : append(std::move(database), &out);
    }
    append(changes_pane(on, parts.changes), &out);
    return out;
}

static std::string text_of(screen_size size) {
    return std::to_string(size.columns) + "x" + std::to_string(size.lines);
}

frame paint(const board_data &data, const std::string &registry, screen_size size, moment now,
            view_state *view) {
    const canvas on = {data, view, now};
    if (size.columns < SMALLEST.columns || size.lines < SMALLEST.lines) {
        frame out;
        line_maker line = on.line(size.columns);
        line.add("needs " + text_of(SMALLEST) + ", is " + text_of(size) + "; q leaves");
        out.push_back(line.take());
        pad(on, size, &out);
        return out;
    }
    frame out = {head_of(on, registry, size.columns)};
    append(body_of(on, size), &out);
    out.push_back(foot_of(on, size.columns));
    return out;
}

size_t page_lines(screen_size size, const view_state &view) {
    if (size.columns < SMALLEST.columns || size.lines < SMALLEST.lines) return 1;
    const division parts = division_of(size, view);
    if (view.focus == pane::list) return parts.list.lines - 2;
    return (view.focus == pane::database ? parts.database : parts.changes).lines - 1;
}

}  // namespace keyview::ctl
