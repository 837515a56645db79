// Commands of keyviewctl over registries of a given number of databases: a key of its own and a flag
// for each, as one document says them.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace keyview::bench {

struct process_cost {
    double wall_us;
    double cpu_us;  // of all processors
    double peak_bytes;
    double descriptors;  // only if they were limited
};

// In the words of a command: files and registries of the scale.
constexpr char DOCUMENT[] = "<document>";
constexpr char BACKUP[] = "<backup>";  // of the filled registry
constexpr char NEW_FILE[] = "<new file>";
constexpr char NEW_REGISTRY[] = "<new registry>";

struct scale_command {
    const char *name;
    std::vector<std::string> words;
    bool on_new_registry;  // or else on the filled one
};

extern const scale_command APPLY;
extern const std::vector<scale_command> OTHER_COMMANDS;

// Where registries are made: a URL for a number that was not used before. What is on this machine is
// below the directory that the scale was given.
using url_maker = std::function<std::string(int number)>;

class tool_scale {
  public:
    // Writes the document. The filled registry and its backup are made for the first command that
    // needs them.
    tool_scale(std::string directory, url_maker new_url, int databases);

    // Runs a command; what it makes is removed afterwards.
    process_cost run(const scale_command &command, int descriptors = 0);

    int databases() const { return databases_; }
    const std::string &document() const { return document_; }

  private:
    const std::string &filled();
    process_cost run_on(const std::string &registry, const scale_command &command, int descriptors);

    std::string directory_;
    url_maker new_url_;
    int databases_;
    std::string document_;
    std::string backup_;
    std::string filled_;
};

// Makes new registries on this machine, below a directory.
url_maker embedded_urls(const std::string &directory);

// Prints a line for each of the sizes and the commands of the picture: engine, command, databases, and
// the milliseconds that pass, the fewest of several runs.
void print_points(const char *engine, const std::string &directory, const url_maker &new_url,
                  const std::vector<int> &sizes);

}  // namespace keyview::bench
