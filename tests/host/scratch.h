// What a test changes outside itself, while an object lives.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace keyview::test {

// A temporary directory.
struct scratch_directory {
    explicit scratch_directory(const std::string &parent = std::filesystem::temp_directory_path())
        : path(parent + "/keyview-XXXXXX") {
        if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("no temporary directory");
    }
    scratch_directory(const scratch_directory &) = delete;
    scratch_directory &operator=(const scratch_directory &) = delete;
    ~scratch_directory() { std::filesystem::remove_all(path); }

    std::string path;
};

// A variable of the environment.
struct setting {
    setting(const char *its_name, const std::string &value) : name(its_name) {
        (void)setenv(name, value.c_str(), 1);
    }
    setting(const setting &) = delete;
    setting &operator=(const setting &) = delete;
    ~setting() { (void)unsetenv(name); }
    const char *name;
};

}  // namespace keyview::test
