#include "process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <thread>

std::string read_whole(const std::string &file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

[[noreturn]] static void become_tool(const std::vector<std::string> &arguments,
                                     const surroundings &around, const std::string &folder) {
    const std::string files[] = {folder + "/in",
                                 around.out_file.empty() ? folder + "/out" : around.out_file,
                                 folder + "/err"};
    for (int fd = 0; fd < 3; ++fd) {
        int file = open(files[fd].c_str(), fd == 0 ? O_RDONLY : O_WRONLY | O_CREAT, 0600);
        if (file < 0 || dup2(file, fd) < 0) _exit(98);
        close(file);
    }
    for (const auto &[name, value] : around.environment)
        setenv(name.c_str(), value.c_str(), 1);
    std::vector<char *> words = {const_cast<char *>("keyviewctl")};
    for (const std::string &word : arguments)
        words.push_back(const_cast<char *>(word.c_str()));
    words.push_back(nullptr);
    execv(KEYVIEWCTL, words.data());
    _exit(99);
}

static int wait_for(pid_t child) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    int status = 0;
    while (waitpid(child, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            ADD_FAILURE() << "keyviewctl does not end";
            kill(child, SIGKILL);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

outcome run_tool(const std::vector<std::string> &arguments, const surroundings &around) {
    std::string folder = testing::TempDir() + "keyviewctl.XXXXXX";
    EXPECT_NE(mkdtemp(folder.data()), nullptr);
    std::ofstream(folder + "/in", std::ios::binary) << around.input;
    pid_t child = fork();
    if (child == 0) become_tool(arguments, around, folder);
    outcome ended = {wait_for(child), read_whole(folder + "/out"), read_whole(folder + "/err")};
    for (const char *name : {"/in", "/out", "/err"})
        (void)remove((folder + name).c_str());
    (void)rmdir(folder.c_str());
    return ended;
}
