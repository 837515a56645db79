// Where a run keeps its files: a directory of its own under $TMPDIR or, without that, beside the
// program, removed at the end; and what machine it is.
#pragma once

#include <string>

namespace keyview::bench {

class scratch_directory {
  public:
    scratch_directory();
    scratch_directory(const scratch_directory &) = delete;
    scratch_directory &operator=(const scratch_directory &) = delete;
    ~scratch_directory();

    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

// The directory of this program, which holds the others of the build.
std::string program_directory();

// One line on processors, kernel and the file system of a directory.
std::string machine_line(const std::string &directory);

}  // namespace keyview::bench
