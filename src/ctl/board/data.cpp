// See data.h.
#include "ctl/board/data.h"

#include <algorithm>
#include <utility>

#include "model/folding.h"

namespace keyview::ctl {

static constexpr size_t CHANGES_KEPT = 1000;
static constexpr std::chrono::seconds REMOVED_SHOWN{60};

std::string mark_key(const fact_row &row, size_t cell) {
    return row.key + '\n' + std::to_string(cell);
}

// Marks the cells of a row that differ from those before, and the row itself.
static bool mark_row(const fact_row *before, const fact_row &now, moment at, board_entry *entry) {
    bool differs = before == nullptr;
    for (size_t cell = 0; cell < now.cells.size(); ++cell) {
        const bool same = before != nullptr && cell < before->cells.size() &&
                          before->cells[cell] == now.cells[cell];
        if (same) continue;
        differs = true;
        entry->marks[mark_key(now, cell)] = at;
    }
    if (differs) entry->marks[now.key] = at;
    return differs;
}

static bool mark_rows(const std::vector<fact_row> &before, const std::vector<fact_row> &now,
                      moment at, board_entry *entry) {
    bool differs = before.size() > now.size();
    for (const fact_row &row : now) {
        auto same = std::find_if(before.begin(), before.end(),
                                 [&](const fact_row &old) { return old.key == row.key; });
        if (mark_row(same == before.end() ? nullptr : &*same, row, at, entry)) differs = true;
    }
    return differs;
}

static std::string searched_text(const database_facts &facts) {
    std::string text;
    auto add = [&](const fact_row &row) {
        for (const std::string &cell : row.cells)
            text += cell + ' ';
    };
    add(facts.row);
    text += facts.trouble + ' ';
    for (const auto *rows : {&facts.instances, &facts.services})
        std::for_each(rows->begin(), rows->end(), add);
    return element_of(text);
}

// Without a record, what was read before is shown on.
static void keep_known(const database_facts &before, database_facts *now) {
    if (now->known || !before.known) return;
    now->row = before.row;
    now->known = true;
    now->policy = before.policy;
    now->instances = before.instances;
    now->services = before.services;
}

void put_database(board_data *data, database_facts facts, moment changed, moment now) {
    auto [at, is_new] = data->entries.try_emplace(facts.element);
    board_entry &entry = at->second;
    const bool fresh = is_new || entry.removed;
    if (facts.trouble.empty() || is_new) entry.read = now;
    if (!fresh) keep_known(entry.facts, &facts);
    const database_facts &before = entry.facts;
    // What was busy when it was to be read for the first time did not change by being read.
    if (data->read_once && (fresh || before.known)) {
        bool differs = mark_row(fresh ? nullptr : &before.row, facts.row, changed, &entry);
        if (mark_rows(before.instances, facts.instances, changed, &entry)) differs = true;
        if (mark_rows(before.services, facts.services, changed, &entry)) differs = true;
        if (differs) entry.changed = changed;
    }
    entry.removed = false;
    entry.searched = searched_text(facts);
    entry.facts = std::move(facts);
}

void remove_database(board_data *data, const std::string &element, moment now) {
    auto found = data->entries.find(element);
    if (found == data->entries.end() || found->second.removed) return;
    found->second.removed = true;
    found->second.changed = now;
}

void end_reading(board_data *data, const std::set<std::string> &found, moment now) {
    for (auto &[element, entry] : data->entries)
        if (found.count(element) == 0) remove_database(data, element, now);
    data->read_once = true;
}

void add_change(board_data *data, change_line line, moment now) {
    auto entry = data->entries.find(line.element);
    if (entry != data->entries.end()) entry->second.changed = now;
    data->last_change = now;
    data->changes.push_back(std::move(line));
    ++data->change_count;
    if (data->changes.size() > CHANGES_KEPT) data->changes.pop_front();
}

void forget_removed(board_data *data, moment now) {
    for (auto at = data->entries.begin(); at != data->entries.end();) {
        const bool gone = at->second.removed && now - at->second.changed > REMOVED_SHOWN;
        at = gone ? data->entries.erase(at) : std::next(at);
    }
}

}  // namespace keyview::ctl
