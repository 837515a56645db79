// One thread's work with the registry in force: every operation of the library and those of the kit,
// in any order.
#pragma once

#include <random>
#include <string>

namespace keyview::test {

// Fills the registry in force with what the steps work on.
void fill_registry();

// Replaces all that its history holds by the same small changes.
void fill_history();

// Makes the file of an embedded registry as large as the work can need.
void grow_file();

class soak_worker {
  public:
    // scratch is a directory for files of its own; other is the URL of a registry to copy to.
    soak_worker(unsigned seed, std::string scratch, std::string other);

    // A context, some steps and its end. Throws what went wrong.
    void work(int steps);

  private:
    friend struct soak_steps;

    int any_of(int n) { return static_cast<int>(random_() % static_cast<unsigned>(n)); }

    std::mt19937 random_;
    std::string scratch_, other_;
};

}  // namespace keyview::test
