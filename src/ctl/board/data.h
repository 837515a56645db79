// What the board knows: the databases, the changes, and when each part of them changed. Facts come in
// as they are read; nothing here needs a registry or a terminal.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace keyview::ctl {

using moment = std::chrono::steady_clock::time_point;  // the epoch means never

// A row of a table. All texts are fit for the screen.
struct fact_row {
    std::string key;                 // the same as long as the row is about the same object
    std::vector<std::string> cells;  // in the order of the table's columns
    bool enabled = true;
};

enum list_cell : size_t { NAME_CELL, STATE_CELL, ROLE_CELL };

struct database_facts {
    std::string element;  // of its key
    fact_row row;         // in the list; without a record its name alone
    bool known = false;   // there is a record
    std::string trouble;  // a word for what keeps it from being read, such as "locked"; "" for none
    std::string why;
    std::string policy;
    std::vector<fact_row> instances, services;
};

struct change_line {
    std::string time;  // of the day
    std::string text;
    std::string element;  // of the database; "" for a change of another part
};

struct board_entry {
    database_facts facts;
    moment read = {};  // when the facts were
    moment changed = {};
    std::map<std::string, moment> marks;  // of rows and cells by their keys
    bool removed = false;
    std::string searched;  // all that the filter searches, in lower case
};

struct board_data {
    bool ascii = false;
    std::map<std::string, board_entry> entries;  // by their elements
    std::deque<change_line> changes;             // the latest ones
    uint64_t change_count = 0;                   // with those that are no longer kept
    uint64_t revision = 0;
    bool read_once = false;  // every database was read
    moment last_change = {}, last_good = {};
    std::string trouble;  // why nothing can be read at present; "" if it can
};

// A cell of a row has a mark of its own.
std::string mark_key(const fact_row &row, size_t cell);

// changed: when they did, if they differ from those before.
void put_database(board_data *data, database_facts facts, moment changed, moment now);
void remove_database(board_data *data, const std::string &element, moment now);
// Ends a reading of all databases: those that it did not find are removed.
void end_reading(board_data *data, const std::set<std::string> &found, moment now);
void add_change(board_data *data, change_line line, moment now);
// Removed databases stay visible for a minute.
void forget_removed(board_data *data, moment now);

}  // namespace keyview::ctl
