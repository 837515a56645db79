// Documents, registries and the processes of the tool.
#include "bench/tool_scale.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>

#include "bench/child.h"
#include "bench/failure.h"
#include "bench/measure.h"
#include "bench/scratch.h"
#include "bench/workload.h"

namespace keyview::bench {

const scale_command APPLY = {"apply", {"apply", DOCUMENT}, true};

// A watch prints what there is and then ends.
const std::vector<scale_command> OTHER_COMMANDS = {
    {"apply --dry-run", {"apply", "--dry-run", DOCUMENT}, true},
    {"apply --prune of nothing", {"apply", "--prune", DOCUMENT}, false},
    {"restore", {"restore", BACKUP}, true},
    {"copy", {"copy", "--to", NEW_REGISTRY}, false},
    {"export", {"export"}, false},
    {"backup", {"backup", NEW_FILE}, false},
    {"check", {"check"}, false},
    {"lint", {"lint"}, false},
    {"diff", {"diff", DOCUMENT}, false},
    {"status", {"status"}, false},
    {"tool's list", {"list"}, false},
    {"completion", {"__complete", "--", "show", "sales"}, false},
    {"start of watch", {"watch", "--for", "0.01"}, false},
};

static void write_document(const std::string &file, int databases) {
    std::ofstream text(file);
    text << R"({"format":"keyview-cluster","version":1,"databases":[)";
    const char *separator = "\n";
    for (const tree_key &key : list_keys(databases)) {
        if (std::count(key.path.begin(), key.path.end(), '.') != 2) continue;
        text << separator << R"({"name":")" << key.value.c_str() << R"(","enabled":true})";
        separator = ",\n";
    }
    text << "]}\n";
    require(text.flush().good(), "the document cannot be written");
}

tool_scale::tool_scale(std::string directory, url_maker new_url, int databases)
    : directory_(std::move(directory)),
      new_url_(std::move(new_url)),
      databases_(databases),
      document_(directory_ + "/" + std::to_string(databases) + ".json"),
      backup_(directory_ + "/" + std::to_string(databases) + ".backup") {
    write_document(document_, databases);
}

const std::string &tool_scale::filled() {
    if (!filled_.empty()) return filled_;
    filled_ = new_url_(databases_);
    (void)run_on(filled_, APPLY, 0);
    (void)run_on(filled_, {"backup", {"backup", backup_}, false}, 0);
    return filled_;
}

process_cost tool_scale::run_on(const std::string &registry, const scale_command &command,
                                int descriptors) {
    const std::string other = new_url_(-1);
    const std::string file = directory_ + "/new.backup";
    const std::string programs = program_directory();
    std::vector<std::string> words = {programs + "/process_cost",
                                      directory_,
                                      registry.empty() ? other : registry,
                                      std::to_string(descriptors),
                                      programs + "/keyviewctl",
                                      "-q"};
    for (const std::string &word : command.words) {
        words.push_back(word == DOCUMENT       ? document_
                        : word == BACKUP       ? backup_
                        : word == NEW_FILE     ? file
                        : word == NEW_REGISTRY ? other
                                               : word);
    }
    const auto took = figures_of(words);
    require(took.size() == 4, "process_cost prints no figures");
    std::error_code none;  // most commands make neither
    if (other.compare(0, 5, "lmdb:") == 0) std::filesystem::remove_all(other.substr(5), none);
    std::filesystem::remove(file, none);
    return {took[0], took[1], took[2], took[3]};
}

process_cost tool_scale::run(const scale_command &command, int descriptors) {
    const bool needs_backup = command.words.back() == BACKUP;
    if (needs_backup) (void)filled();
    return run_on(command.on_new_registry ? "" : filled(), command, descriptors);
}

url_maker embedded_urls(const std::string &directory) {
    return [directory](int number) {
        return "lmdb:" + directory + "/" + (number < 0 ? "new" : std::to_string(number));
    };
}

// ---- The picture --------------------------------------------------------------------------------

void print_points(const char *engine, const std::string &directory, const url_maker &new_url,
                  const std::vector<int> &sizes) {
    constexpr const char *DRAWN[] = {"export", "backup", "check", "tool's list"};
    std::vector<scale_command> commands = {APPLY};
    for (const scale_command &one : OTHER_COMMANDS) {
        if (std::find(std::begin(DRAWN), std::end(DRAWN), std::string(one.name)) != std::end(DRAWN))
            commands.push_back(one);
    }
    for (const int databases : sizes) {
        tool_scale scale(directory, new_url, databases);
        for (const scale_command &command : commands) {
            double fastest_ms = scale.run(command).wall_us / 1000;
            double sum_ms = fastest_ms;
            for (int runs = 1; runs < 3 ? sum_ms < 15000 : runs < 15 && sum_ms < 2000; ++runs) {
                const double passed_ms = scale.run(command).wall_us / 1000;
                fastest_ms = std::min(fastest_ms, passed_ms);
                sum_ms += passed_ms;
            }
            std::printf("%s %s %d %.3f\n", engine, command.words[0].c_str(), databases, fastest_ms);
            (void)std::fflush(stdout);
        }
    }
}

}  // namespace keyview::bench
