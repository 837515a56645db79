// See tables.h.
#include "ctl/board/tables.h"

#include <algorithm>
#include <iterator>

#include "ctl/layout.h"

namespace keyview::ctl {

static constexpr std::chrono::seconds MARKED_FOR{60};

std::string age_text(moment then, moment now) {
    if (then == moment()) return "";
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - then).count();
    constexpr struct {
        int64_t below, unit, step;
        const char *word;
    } STEPS[] = {{10, 1, 1, " s"},
                 {60, 1, 10, " s"},
                 {3600, 60, 1, " m"},
                 {86400, 3600, 1, " h"},
                 {INT64_MAX, 86400, 1, " d"}};
    const auto &chosen = *std::find_if(std::begin(STEPS), std::end(STEPS),
                                       [&](const auto &row) { return seconds < row.below; });
    return std::to_string(seconds / chosen.unit / chosen.step * chosen.step) + chosen.word;
}

bool is_marked(moment then, moment now) {
    return then != moment() && now - then < MARKED_FOR;
}

moment mark_of(const board_entry &entry, const std::string &key) {
    auto found = entry.marks.find(key);
    return found == entry.marks.end() ? moment() : found->second;
}

// ---- Tables -------------------------------------------------------------------------------------

static constexpr column LIST_COLUMNS[] = {{"DATABASE", 0},  {"STATE", 10},   {"ROLE", 16},
                                          {"INSTANCES", 9}, {"SERVICES", 9}, {"NODES", 5},
                                          {"CHANGED", 7}};
static constexpr column INSTANCE_COLUMNS[] = {
    {"INSTANCE", 0}, {"NODE", 0}, {"STATE", 8}, {"AGO", 4}};
static constexpr column SERVICE_COLUMNS[] = {{"SERVICE", 0},   {"STATE", 8},     {"FAILOVER", 10},
                                             {"PREFERRED", 0}, {"AVAILABLE", 0}, {"AGO", 4}};
const table LIST = {LIST_COLUMNS, std::size(LIST_COLUMNS)},
            INSTANCES = {INSTANCE_COLUMNS, std::size(INSTANCE_COLUMNS)},
            SERVICES = {SERVICE_COLUMNS, std::size(SERVICE_COLUMNS)};
static constexpr size_t WIDEST = 40;

std::vector<size_t> widths_of(const table &shape, size_t columns) {
    size_t used = MARGIN + shape.count, shares = 0;
    for (size_t n = 0; n < shape.count; ++n) {
        used += shape.first[n].width;
        if (shape.first[n].width == 0) ++shares;
    }
    std::vector<size_t> widths;
    for (size_t n = 0; n < shape.count; ++n) {
        const size_t fixed = shape.first[n].width;
        const size_t share = (columns - std::min(columns, used)) / std::max<size_t>(shares, 1);
        widths.push_back(fixed != 0 ? fixed : std::min(share, WIDEST));
    }
    return widths;
}

screen_line header_of(const canvas &on, const table &shape, size_t columns) {
    const std::vector<size_t> widths = widths_of(shape, columns);
    line_maker line = on.line(columns);
    line.add(std::string(MARGIN, ' '));
    for (size_t n = 0; n < shape.count; ++n)
        line.add_cell(shape.first[n].title, widths[n], TITLE);
    return line.take();
}

unsigned styles_of_word(const std::string &text) {
    if (text == "enabled") return GOOD;
    return text == "disabled" || text == "removed" ? BAD : PLAIN;
}

void add_table_row(const canvas &on, const table &shape, size_t columns, const board_entry &entry,
                   const fact_row &row, frame *out) {
    const std::vector<size_t> widths = widths_of(shape, columns);
    std::vector<std::vector<std::string>> cells;
    size_t height = 1;
    for (size_t n = 0; n < row.cells.size(); ++n) {
        cells.push_back(wrapped_text(row.cells[n], std::max<size_t>(widths[n], 1)));
        height = std::max(height, cells.back().size());
    }
    const moment changed = mark_of(entry, row.key);
    for (size_t part = 0; part < height; ++part) {
        line_maker line = on.line(columns);
        const bool starred = part == 0 && is_marked(changed, on.now);
        line.add(starred ? " *" : "  ", starred ? MARKED : PLAIN);
        for (size_t n = 0; n < cells.size(); ++n) {
            const std::string text = part < cells[n].size() ? cells[n][part] : "";
            const bool marked = is_marked(mark_of(entry, mark_key(row, n)), on.now);
            line.add_cell(text, widths[n], styles_of_word(text) | (marked ? MARKED : PLAIN));
        }
        if (part == 0) line.add_cell(age_text(changed, on.now), widths.back());
        out->push_back(line.take());
    }
}

}  // namespace keyview::ctl
