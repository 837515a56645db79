// Runs keyviewctl as a real process and tells what it wrote and how it ended.
#ifndef KEYVIEW_TESTS_CTL_PROCESS_H
#define KEYVIEW_TESTS_CTL_PROCESS_H

#include <string>
#include <vector>

struct outcome {
    int code;  // the exit code; 124 if it did not end within a minute
    std::string out;
    std::string err;
};

struct surroundings {
    std::string input = {};        // for standard input
    std::string out_file = {};     // where stdout goes, if not to the outcome
    std::string environment = {};  // "NAME=value", beside what the test itself has
};

outcome run_tool(const std::vector<std::string> &arguments, const surroundings &around = {});

std::string read_whole(const std::string &file);

#endif
