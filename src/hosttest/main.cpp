// keyview-hosttest: checks the contract between the library and a host. Each rule runs in a process of
// its own, which loads the host afresh: one that crashes or hangs breaks that rule alone.
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include "hosttest/host.h"
#include "hosttest/rules.h"

namespace keyview::hosttest {

static constexpr unsigned LONGEST_RULE_S = 30;

static constexpr char USAGE[] =
    "usage: keyview-hosttest [-v] HOST.so [RULE...]\n"
    "       keyview-hosttest --rules\n"
    "Checks a host of libkeyview12 and names each rule that it breaks; -v prints those that it keeps "
    "as well.\nThe registry of the host must list a database; its ENABLED flag is changed and "
    "restored.\nExit code 0: all rules are kept; 1: a rule is broken; 2: the host cannot be tested.\n";

struct outcome {
    int verdict = KEPT;
    std::string why;
};

static void load_only() {}

// A host that opens no registry has none to be tested with.
static void open_only() {
    void *reg = nullptr;
    char text[1024] = {};
    uint64_t size = sizeof text;
    const int32_t kv = host.kvtc_init_ext(&reg, 3, text, &size, 0);
    text[sizeof text - 1] = '\0';
    if (kv != KVTC_SUCCESS) untestable("kvtc_init_ext returns " + std::to_string(kv) + ": " + text);
}

static std::vector<rule> all_rules() {
    std::vector<rule> all = {
        {"operations", "the host can be loaded and defines every outside operation", load_only}};
    auto add = [&](const std::vector<rule> &part) {
        all.insert(all.end(), part.begin(), part.end());
    };
    for (auto part : {memory_rules, text_rules})
        add(part());
    add({{"opens", "kvtc_init_ext opens the registry of the host", open_only}});
    for (auto part : {registry_rules, lock_rules, library_rules})
        add(part());
    return all;
}

[[noreturn]] static void run_here(const rule &one, const char *file, int report) {
    if (report != REPORT_FD && dup2(report, REPORT_FD) < 0) _exit(UNTESTABLE);
    (void)alarm(LONGEST_RULE_S);
    load_host(file);
    one.check();
    _exit(KEPT);
}

static std::string all_from(int fd) {
    std::string text;
    char part[512];
    for (ssize_t got = 0; (got = read(fd, part, sizeof part)) > 0;)
        text.append(part, static_cast<size_t>(got));
    return text;
}

static outcome outcome_of(int status, const std::string &why) {
    if (WIFEXITED(status)) return {WEXITSTATUS(status), why};
    if (WTERMSIG(status) == SIGALRM)
        return {BROKEN, "no result within " + std::to_string(LONGEST_RULE_S) + " s"};
    return {BROKEN, std::string("the host ends the process: ") + strsignal(WTERMSIG(status))};
}

static outcome run(const rule &one, const char *file) {
    int ends[2];
    if (pipe(ends) != 0) return {UNTESTABLE, "no pipe can be made"};
    pid_t child = fork();
    if (child < 0) return {UNTESTABLE, "no process can be made"};
    if (child == 0) run_here(one, file, ends[1]);
    (void)close(ends[1]);
    const std::string why = all_from(ends[0]);
    (void)close(ends[0]);
    int status = 0;
    (void)waitpid(child, &status, 0);
    return outcome_of(status, why);
}

static void print(const rule &one, const outcome &result, bool verbose) {
    static constexpr const char *WORDS[] = {"kept", "BROKEN", "UNTESTABLE"};
    if (result.verdict == KEPT && !verbose) return;
    printf("%-10s  %-16s  %s\n", WORDS[result.verdict], one.name, one.sentence);
    if (!result.why.empty()) printf("            %-16s  %s\n", "", result.why.c_str());
    (void)fflush(stdout);
}

static bool chosen(const rule &one, char **names) {
    if (*names == nullptr) return true;
    while (*names != nullptr && strcmp(*names, one.name) != 0)
        ++names;
    return *names != nullptr;
}

// The rules on a host; without its operations, or its registry, those behind cannot be checked.
static int test(const char *file, char **names, bool verbose) {
    int counts[3] = {};
    for (const rule &one : all_rules()) {
        const bool first = one.check == load_only;
        if (!first && !chosen(one, names)) continue;
        outcome result = run(one, file);
        if (result.verdict < KEPT || result.verdict > UNTESTABLE) {
            result = {BROKEN, "the host exits with " + std::to_string(result.verdict)};
        }
        ++counts[result.verdict];
        print(one, result, verbose);
        if ((first || one.check == open_only) && result.verdict != KEPT) break;
    }
    printf("%s: %d rules kept, %d broken, %d untestable\n", file, counts[KEPT], counts[BROKEN],
           counts[UNTESTABLE]);
    return counts[BROKEN] > 0 ? BROKEN : counts[UNTESTABLE] > 0 ? UNTESTABLE : KEPT;
}

static int fail(const std::string &text) {
    (void)fprintf(stderr, "keyview-hosttest: %s\n%s", text.c_str(), USAGE);
    return UNTESTABLE;
}

static int list_rules() {
    for (const rule &one : all_rules())
        printf("%s\t%s\n", one.name, one.sentence);
    return KEPT;
}

static bool is_rule(const char *name) {
    for (const rule &one : all_rules())
        if (strcmp(one.name, name) == 0) return true;
    return false;
}

static int run_program(char **words) {
    if (*words != nullptr && strcmp(*words, "--rules") == 0) return list_rules();
    if (*words != nullptr && strcmp(*words, "--help") == 0) return fputs(USAGE, stdout) < 0;
    bool verbose = *words != nullptr && strcmp(*words, "-v") == 0;
    if (verbose) ++words;
    if (*words == nullptr || **words == '-') return fail("name the host, a shared library");
    for (char **name = words + 1; *name != nullptr; ++name)
        if (!is_rule(*name)) return fail("'" + std::string(*name) + "' is no rule; see --rules");
    return test(*words, words + 1, verbose);
}

}  // namespace keyview::hosttest

int main(int /*argc*/, char **argv) {
    return keyview::hosttest::run_program(argv + 1);
}
