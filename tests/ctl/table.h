// The tables of test cases beside the tests: a row a line, cells between " | ", "#" before a
// comment.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

inline std::vector<std::string> split(const std::string &text, const std::string &by) {
    std::vector<std::string> parts;
    for (size_t at = 0, end = 0; end != text.npos; at = end + by.size()) {
        end = text.find(by, at);
        parts.push_back(text.substr(at, end == text.npos ? end : end - at));
    }
    return parts;
}

// All rows of a table; the test fails unless there are some, each of so many cells.
inline std::vector<std::vector<std::string>> rows_of(const std::string &name, size_t cells) {
    std::vector<std::vector<std::string>> rows;
    std::ifstream table(TEST_FILES "/" + name);
    for (std::string line; std::getline(table, line);) {
        if (line[0] != '#') rows.push_back(split(line, " | "));
        EXPECT_TRUE(line[0] == '#' || rows.back().size() == cells) << name << ": " << line;
    }
    EXPECT_FALSE(rows.empty()) << name;
    return rows;
}
