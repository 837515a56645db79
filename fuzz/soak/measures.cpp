// Reads /proc, the allocator, the registries and the members.
#include "measures.h"

#include <malloc.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "../../tests/host/scratch.h"
#include "../cluster.h"
#include "admin/care/inspection.h"

namespace keyview::test {

namespace files = std::filesystem;

static int64_t entries_in(const std::string &directory) {
    int64_t count = 0;
    for (const auto &one : files::directory_iterator(directory))
        count += one.path().empty() ? 0 : 1;
    return count;
}

// In all arenas; the tail of each heap is not in use.
static int64_t bytes_in_use(const places & /*where*/) {
    struct mallinfo2 now = mallinfo2();
    return static_cast<int64_t>(now.uordblks + now.hblkhd);
}

// Of its own memory: pages of files leave and come back as the system likes.
static int64_t resident_bytes(const places & /*where*/) {
    constexpr int64_t KIB = 1024;
    (void)malloc_trim(0);
    std::ifstream status("/proc/self/status");
    int64_t resident = -1;
    for (std::string word; status >> word;)
        if (word == "RssAnon:") status >> resident;
    require(resident >= 0, "the system does not tell the resident memory");
    return resident * KIB;
}

static int64_t mapped_files(const places & /*where*/) {
    std::ifstream maps("/proc/self/maps");
    int64_t count = 0;
    for (std::string line; std::getline(maps, line);)
        count += line.find(" /") != line.npos ? 1 : 0;
    return count;
}

// ---- Registries ---------------------------------------------------------------------------------

static int64_t pages_of_the_file(const places &where) {
    require(keyview_host_set_registry(where.embedded.c_str()) == 0, "URL");
    admin::inspection_report found = admin::check_registry();
    require(found.pages > 0, "the file is not inspected");
    return static_cast<int64_t>(found.pages);
}

static int64_t bytes_of_files(const places &where) {
    int64_t bytes = 0;
    for (const auto &one : files::directory_iterator(where.directory))
        bytes += static_cast<int64_t>(one.file_size());
    return bytes;
}

static int64_t history_of(const std::string &url) {
    int64_t changes = 0;
    admin::registry::open(url).history(0, [&changes](admin::past_change &&) { return ++changes; });
    return changes;
}

// ---- Members ------------------------------------------------------------------------------------

static std::string output_of(const std::string &command) {
    const scratch_directory scratch;
    const std::string file = scratch.path + "/output";
    require(std::system(("{ " + command + "; } >" + file).c_str()) == 0, "fails: " + command);
    std::stringstream text;
    text << std::ifstream(file).rdbuf();
    return text.str();
}

static std::string etcdctl(const places &where, const std::string &words) {
    return output_of("ETCDCTL_API=3 etcdctl --endpoints=" + where.members[0] + " " + words);
}

static int64_t number_behind(const std::string &text, const std::string &name) {
    size_t at = text.find(name);
    require(at != text.npos, "no '" + name + "' in: " + text);
    return static_cast<int64_t>(std::stod(text.substr(at + name.size())));
}

static int64_t leases(const places &where) {
    return number_behind(etcdctl(where, "lease list"), "found ");
}

static int64_t watches(const places &where) {
    int64_t all = 0;
    for (const std::string &member : where.members) {
        std::string text = output_of("curl -sf http://" + member + "/metrics");
        all += number_behind(text, "\netcd_debugging_mvcc_watcher_total ");
    }
    return all;
}

// Of all registries in the cluster.
static int64_t entries_of_locks(const places &where) {
    return std::stoll(etcdctl(where, "get --prefix --keys-only / | grep -ac /lk/ || true"));
}

// ---- The table ----------------------------------------------------------------------------------

// A history is kept by its bytes: how many changes fit varies with the digits of their numbers. What
// the allocator cannot return of a heap depends on which threads met, and so do the pages that readers
// kept from being used again; the file grows by steps of 2 MiB.
const measure MEASURES[] = {
    {"descriptors", 0, [](const places &) { return entries_in("/proc/self/fd"); }},
    {"threads", 0, [](const places &) { return entries_in("/proc/self/task"); }},
    {"bytes in use", 65536, bytes_in_use},
    {"resident bytes", 4 << 20, resident_bytes},
    {"mapped files", 0, mapped_files},
    {"files", 0, [](const places &where) { return entries_in(where.directory); }},
    {"bytes of files", 2 << 20, bytes_of_files},
    {"pages of the file", 256, pages_of_the_file},
    {"changes kept", 8, [](const places &where) { return history_of(where.embedded); }},
    {"changes kept in the cluster", 8,
     [](const places &where) { return history_of(where.cluster); }},
    {"entries of locks", 0, entries_of_locks},
    {"leases", 0, leases},
    {"watches", 0, watches},
};
static_assert(std::size(MEASURES) == MEASURE_COUNT);

std::vector<int64_t> measured(const places &where) {
    std::vector<int64_t> all(std::size(MEASURES));
    for (size_t i = 0; i < all.size(); ++i)
        all[i] = MEASURES[i].read(where);
    return all;
}

}  // namespace keyview::test
