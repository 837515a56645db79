#include "process.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

std::string read_whole(const std::string &file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

// A word of the shell with these very bytes in it.
static std::string shell_word(const std::string &word) {
    std::string out = "'";
    for (char byte : word)
        out += byte == '\'' ? std::string("'\\''") : std::string(1, byte);
    return out + "' ";
}

outcome run_tool(const std::vector<std::string> &arguments, const surroundings &around) {
    std::string folder = testing::TempDir() + "keyviewctl.XXXXXX";
    EXPECT_NE(mkdtemp(folder.data()), nullptr);
    std::ofstream(folder + "/in", std::ios::binary) << around.input;
    std::string out_file = around.out_file.empty() ? folder + "/out" : around.out_file;
    std::string command = around.environment + " timeout -k 5 60 " + shell_word(KEYVIEWCTL);
    for (const std::string &word : arguments)
        command += shell_word(word);
    command +=
        "<" + shell_word(folder + "/in") + ">" + shell_word(out_file) + "2>" + folder + "/err";
    int status = std::system(command.c_str());
    outcome ended = {WEXITSTATUS(status), read_whole(folder + "/out"), read_whole(folder + "/err")};
    std::filesystem::remove_all(folder);
    return ended;
}
