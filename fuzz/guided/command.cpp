// A settings file and a command line of any bytes, up to where the command would begin: both are
// understood or refused with a text that a terminal can show. The settings end at a line "--"; each
// line behind it is a word.
#define main main_of_the_tool
#include "ctl/main.cpp"
#undef main

#include "../../tests/host/scratch.h"
#include "model/text.h"
#include "target.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

using namespace keyview;

namespace {

struct home {
    home() {
        std::filesystem::create_directories(scratch.path + "/keyview");
        (void)setenv("XDG_CONFIG_HOME", scratch.path.c_str(), 1);
        for (const char *name : {"CONTEXT", "REGISTRY", "OUTPUT", "COLOR", "LOCK_WAIT"})
            (void)unsetenv((std::string("KEYVIEW_") + name).c_str());
    }
    test::scratch_directory scratch;
    std::string file = scratch.path + "/keyview/config";
};

// The command line, which takes long to describe.
struct command_line {
    command_line() {
        using namespace keyview::ctl;
        shared.app = &app;
        add_options(&app, &shared);
        add_groups(&app, &shared, {});
    }

    // Throws the tool_error of a setting; does nothing with a line that cannot be parsed.
    void parse(const std::vector<std::string> &words) {
        for (ctl::setting *one : shared.chosen.all())
            one->option = one->value = one->origin = "";
        shared.registry_given = false;
        shared.if_revision = 0;
        std::vector<const char *> all = {"keyviewctl"};
        for (const std::string &word : words)
            all.push_back(word.c_str());
        try {
            app.parse(static_cast<int>(all.size()), const_cast<char **>(all.data()));
        } catch (const CLI::ParseError &) {
            (void)ctl::format_of(app);
            (void)ctl::command_meant(app);
            return;
        }
        ctl::apply_settings(&shared);
        test::planted_fault(words.size() == 5 && shared.if_revision != 5);
    }

    ctl::tool shared;
    CLI::App app{"", "keyviewctl"};
};

}  // namespace

void keyview::test::one_input(std::string_view input) {
    static const home here;
    static command_line command;
    const size_t end = input.find("\n--\n");
    const std::string_view text = input.substr(0, end);
    std::ofstream(here.file, std::ios::binary) << text;
    std::vector<std::string> words;
    if (end != input.npos) {
        std::istringstream lines{std::string(input.substr(end + 4))};
        for (std::string line; std::getline(lines, line) && words.size() < 20;)
            words.push_back(line.c_str());  // a word ends at a zero byte
    }
    try {
        command.parse(words);
    } catch (const ctl::tool_error &error) {
        require(error.code == ctl::EXIT_USAGE, "another code");
        require(!error.what.empty() && (!error.why.empty() || !error.problems.empty()), "no cause");
    }
}

// ---- Changes of inputs --------------------------------------------------------------------------

extern "C" size_t LLVMFuzzerMutate(uint8_t *data, size_t size, size_t max_size);

// Called by the fuzzer in the place of its own changes: every other one leaves out, repeats or changes
// one line and keeps the rest.
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t max_size,
                                          unsigned seed) {
    std::minstd_rand random(seed);
    std::vector<std::string> all;
    std::istringstream text(std::string(reinterpret_cast<const char *>(data), size));
    for (std::string line; std::getline(text, line);)
        all.push_back(line);
    if (all.empty() || random() % 2 == 0) return LLVMFuzzerMutate(data, size, max_size);
    const auto one = all.begin() + static_cast<ptrdiff_t>(random() % all.size());
    switch (random() % 4) {
        case 0:
            all.erase(one);
            break;
        case 1:
            all.insert(one, all[random() % all.size()]);
            break;
        default:
            constexpr size_t LONGEST = 64;
            const size_t before = std::min(one->size(), LONGEST);
            one->resize(LONGEST);
            one->resize(
                LLVMFuzzerMutate(reinterpret_cast<uint8_t *>(one->data()), before, LONGEST));
    }
    std::string out;
    for (const std::string &line : all)
        out += line + '\n';
    out.resize(std::min(out.size(), max_size));
    std::copy(out.begin(), out.end(), data);
    return out.size();
}
