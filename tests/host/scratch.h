// A temporary directory that lives as long as the object.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace keyview::test {

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

}  // namespace keyview::test
