// Cuts the power at every call that changes a file of a registry, and opens what may then be on the
// disk: it holds the tree of the last change that was acknowledged, or of the one that was under way;
// the check reports nothing, and the next change succeeds.
//
// Usage: power_cut [STATES [SEED]]; so many states (4) more where several writes are pending.
//        power_cut --no-sync | --early-commit   as if the kit did not sync, or wrote the end of a
//        commit before its pages: this must be found.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <set>

#include "admin/care/backup.h"
#include "admin/care/inspection.h"
#include "admin/document/document.h"
#include "cluster.h"
#include "crash_states.h"
#include "host/registry/snapshot.h"
#include "process.h"
#include "registry.h"

namespace keyview::test {

using tree = std::map<std::string, std::string>;

static tree tree_of(store *keys) {
    tree out;
    snapshot all("DATABASE", reach::all_below);
    (void)keys->now()->copy("DATABASE", reach::all_below, &all);
    for (uint32_t key = 0; key < all.size(); ++key)
        out.emplace(all.path(key), all.value(key));
    return out;
}

// ---- What happens before the cut ----------------------------------------------------------------

// Changes of the registry of a directory, with the tree before the first and behind each.
class life {
  public:
    explicit life(const std::string &directory) : url_("lmdb:" + directory) {
        require(keyview_host_set_registry(url_.c_str()) == 0, "URL");
        record_files(directory);
    }

    template <typename work>
    void change(const work &body) {
        body();
        note_event();
        trees.push_back(tree_of(open_backend(url_, open_mode::existing).keys.get()));
    }

    std::vector<tree> trees = {tree()};

  private:
    std::string url_;
};

static std::string saved_version(const std::string &directory) {
    require(keyview_host_set_registry(("lmdb:" + directory).c_str()) == 0, "URL");
    apply(2, true);
    return admin::backup_registry(false).content;
}

static std::vector<tree> change_registry(const std::string &directory, const std::string &saved) {
    life all(directory);
    all.change([] { apply(0, true); });
    all.change([] {
        const std::string off("false", 6);
        require(client().set("DATABASE.DATABASES.db1.ENABLED", off) == 0, "the set failed");
    });
    all.change([] { apply(3, true); });
    all.change([] { apply_filler(1, 200000); });  // the file grows
    all.change([] {
        admin::change_options prune;
        prune.prune = true;
        (void)admin::apply_document(cluster_document(1, true), prune);
    });
    all.change([&] { (void)admin::restore_registry(saved, true, {}); });
    return all.trees;
}

static std::vector<tree> copy_to(const std::string &directory, const std::string &from) {
    life all(directory);
    all.change([&] {
        require(keyview_host_set_registry(("lmdb:" + from).c_str()) == 0, "URL");
        (void)admin::copy_registry("lmdb:" + directory, false, {}, nullptr);
    });
    return all.trees;
}

// ---- Behind the cut -----------------------------------------------------------------------------

enum verdict { SOUND, REFUSED, WRONG_TREE, FINDINGS, STUCK, ENDED, VERDICTS };
static constexpr const char *VERDICT_NAMES[VERDICTS] = {
    "sound",         "refused", "of a wrong tree", "with findings", "without a next change",
    "ended a reader"};

static void put_on_disk(const std::string &directory, const crash_state &left) {
    std::filesystem::remove_all(directory);
    if (!left.directory) return;
    std::filesystem::create_directory(directory);
    std::filesystem::permissions(directory, std::filesystem::perms::owner_all);
    for (const auto &[name, content] : left.files)
        std::ofstream(directory + "/" + name, std::ios::binary) << content;
}

// Runs in a process of its own. trees are those behind each change.
static verdict look_at(const std::string &directory, const crash_state &left,
                       const std::vector<tree> &trees) {
    const std::string url = "lmdb:" + directory;
    if (keyview_host_set_registry(url.c_str()) != 0) return REFUSED;
    try {
        bool new_one = left.notes == 0 && left.files.count("data.mdb") == 0;
        backend registry = open_backend(url, new_one ? open_mode::create : open_mode::existing);
        const tree found = tree_of(registry.keys.get());
        auto first = trees.begin() + static_cast<std::ptrdiff_t>(left.notes);
        auto end = std::min(first + 2, trees.end());
        if (std::find(first, end, found) == end) return WRONG_TREE;
        if (!admin::check_registry().findings.empty()) return FINDINGS;
        apply(9, true);
        return difference_from(9).empty() ? SOUND : STUCK;
    } catch (const host_error &error) {
        std::cerr << left.how << ": " << error.what() << "\n";
        return REFUSED;
    } catch (const std::exception &error) {
        std::cerr << left.how << ": " << error.what() << "\n";
        return STUCK;
    }
}

// Opens each state once; returns how many were not sound.
static size_t open_states(const std::string &what, const std::vector<file_event> &events,
                          const std::vector<tree> &trees, unsigned most, unsigned seed) {
    scratch_directory scratch;
    const std::string directory = scratch.path + "/registry";
    std::set<std::pair<size_t, size_t>> seen;
    std::map<std::string, size_t> kinds;
    size_t verdicts[VERDICTS] = {};
    crash_states(events, most, seed).each([&](const crash_state &left) {
        const std::hash<std::string> hash;
        size_t all = left.directory ? 1 : 0;
        for (const auto &[name, content] : left.files)
            all = (all * 31 + hash(name)) * 31 + hash(content);
        if (!seen.insert({all, left.notes}).second) return;
        put_on_disk(directory, left);
        child_process reader([&](const meeting &) { return look_at(directory, left, trees); });
        int status = reader.status();
        ++verdicts[status < 0 || status >= ENDED ? ENDED : status];
        ++kinds[left.how];
    });
    std::cout << what << ": " << seen.size() << " states of " << events.size() << " calls (";
    for (const auto &[how, count] : kinds)
        std::cout << (how == kinds.begin()->first ? "" : ", ") << count << " " << how;
    std::cout << ")";
    for (int n = 0; n < VERDICTS; ++n)
        std::cout << (n == 0 ? ": " : ", ") << verdicts[n] << " " << VERDICT_NAMES[n];
    std::cout << std::endl;
    return seen.size() - verdicts[SOUND];
}

// ---- Planted faults -----------------------------------------------------------------------------

static void drop_syncs(std::vector<file_event> *events) {
    auto is_sync = [](const file_event &one) { return one.what == file_event::kind::sync; };
    events->erase(std::remove_if(events->begin(), events->end(), is_sync), events->end());
}

// A commit ends with a durable write, behind its pages and their sync: it comes before them.
static void commit_early(std::vector<file_event> *events) {
    auto begin = events->begin();
    for (auto at = begin; at != events->end(); ++at) {
        bool durable = at->what == file_event::kind::write && at->durable;
        if (durable) std::rotate(begin, at, at + 1);
        if (durable || at->what == file_event::kind::note) begin = at + 1;
    }
}

static int run(const std::string &planted, unsigned most, unsigned seed) {
    scratch_directory scratch;
    const std::string saved = saved_version(scratch.path + "/saved");
    const std::string changed = scratch.path + "/changed", copied = scratch.path + "/copied";
    size_t wrong = 0;
    auto judge = [&](const char *what, const std::vector<tree> &trees) {
        std::vector<file_event> events = recorded_files();
        if (planted == "--no-sync") drop_syncs(&events);
        if (planted == "--early-commit") commit_early(&events);
        skip_syncs(true);
        wrong += open_states(what, events, trees, most, seed);
        skip_syncs(false);
    };
    judge("changed", change_registry(changed, saved));
    judge("copied", copy_to(copied, scratch.path + "/saved"));
    return wrong == 0 ? 0 : 1;
}

}  // namespace keyview::test

int main(int argc, char **argv) {
    const std::string planted = argc > 1 && argv[1][0] == '-' ? argv[1] : "";
    auto number = [&](int at, unsigned otherwise) {
        return argc > at ? static_cast<unsigned>(atoi(argv[at])) : otherwise;
    };
    try {
        return keyview::test::run(planted, planted.empty() ? number(1, 4) : 1, number(2, 1));
    } catch (const std::exception &error) {
        std::cerr << "power_cut: " << error.what() << "\n";
        return 1;
    }
}
