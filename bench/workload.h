// What is measured on: the keys of a database of a given size, and lists of databases. The same
// keys fill the registry and, laid out their own way, the stores that it is compared with.
#pragma once

#include <string>
#include <vector>

namespace keyview::bench {

struct tree_key {
    std::string path;
    std::string value;  // as stored: a text with its zero byte
};

struct record_size {
    const char *database;  // its registered name
    int instances;
    int services;  // each on all instances
};

constexpr record_size SMALL = {"Small", 2, 3};
constexpr record_size TYPICAL = {"Typical", 8, 20};  // 626 keys
constexpr record_size LARGE = {"Large", 64, 200};    // 39,671 keys

// The keys of a database, a parent before its children.
std::vector<tree_key> record_keys(const record_size &size);

// A key of its own and a flag for each of many databases.
std::vector<tree_key> list_keys(int databases);

// The same text with the letters of ASCII in lower case.
std::string folded(const std::string &text);

}  // namespace keyview::bench
