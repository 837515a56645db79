// Random changes to a store, compared with a model of the tree that is written as plainly as can
// be; the check of the registry must find nothing wrong with what they leave. The paths lie near
// each other and around every limit of the key encoding.
//
// Usage: store_model [FIRST_SEED [RUNS]]; the tests run it with a fixed seed.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>

#include "admin/care/inspection.h"
#include "host/registry/snapshot.h"
#include "model/path.h"
#include "registry.h"

namespace keyview::test {

// All keys of the model, with the rules of the tree written as plainly as can be.
using tree = std::map<std::string, std::string>;

static std::string parent_of(const std::string &path) {
    size_t end = path.rfind('.');
    return end == path.npos ? "" : path.substr(0, end);
}

static bool within(const std::string &path, const std::string &top) {
    return (path + ".").compare(0, top.size() + 1, top + ".") == 0;
}

static void carry_out(tree *model, const change &one) {
    for (auto at = model->begin(); one.what == change::kind::remove && at != model->end();)
        at = within(at->first, one.path) ? model->erase(at) : std::next(at);
    if (one.what == change::kind::remove) return;
    for (std::string up = parent_of(one.path); !up.empty(); up = parent_of(up))
        model->emplace(up, "");
    (*model)[one.path] = one.value;
}

// Copies that are filled again after each change.
using kept_copies = std::map<std::pair<std::string, reach>, std::unique_ptr<snapshot>>;

// Compares a key, its list and all that is below it with the model.
static void expect_same(store *keys, kept_copies *kept, const tree &model,
                        const std::string &path) {
    SCOPED_TRACE(path.substr(0, 40) + "... of " + std::to_string(path.size()) + " bytes");
    tree children;
    tree all;
    for (const auto &row : model) {
        if (parent_of(row.first) == path) children.insert(row);
        if (within(row.first, path)) all.insert(row);
    }
    std::string value;
    ASSERT_EQ(keys->now()->read(path, &value), !all.empty());
    EXPECT_EQ(value, all.empty() ? "" : all.begin()->second);

    children.emplace(path, value);
    for (reach which : {reach::children, reach::all_below}) {
        std::unique_ptr<snapshot> &known = (*kept)[{path, which}];
        if (known == nullptr) known = std::make_unique<snapshot>(path, which);
        snapshot &copy = *known;
        EXPECT_EQ(keys->now()->copy(path, which, &copy), !all.empty());
        if (all.empty()) copy.clear();
        tree seen;
        for (uint32_t key = 0; key < copy.size(); ++key) {
            std::string here(copy.path(key));
            EXPECT_TRUE(seen.emplace(here, copy.value(key)).second) << "twice";
            EXPECT_EQ(copy.find(here), key);
            if (!copy.covers_children(key)) continue;
            snapshot::range list = snapshot::children(copy.at(key));
            for (uint32_t i = 0; i < list.count; ++i) {
                EXPECT_EQ(parent_of(std::string(copy.path(list.first + i))), here);
                EXPECT_TRUE(i == 0 || copy.name(list.first + i - 1) < copy.name(list.first + i));
            }
        }
        EXPECT_EQ(seen, all.empty() ? tree() : which == reach::children ? children : all);
    }
}

// Elements that are near each other in every order, and lengths around every limit.
static std::vector<std::string> awkward_paths() {
    std::vector<std::string> paths = {"a",    "a.b", "a.bc",  "a.b.c",
                                      "a.b!", "a.B", "a.b*c", "a.\xff"};
    for (const char *tail : {"", ".a", ".b", ".bc", ".b.c", ".z"}) {
        for (size_t size = 485; size <= 514; ++size)
            paths.push_back("a." + std::string(size - 2, 'p') + tail);
    }
    std::string x(240, 'x');
    for (const char *tail : {"1", "2", "1.e", "2.e.f"})
        paths.push_back("a." + x + "." + x + "y." + x + tail);
    paths.push_back("a." + std::string(MAX_PATH_LENGTH - 2, 'k'));
    return paths;
}

// A few are too long for a page and stand in pages of their own.
static std::string some_value(std::mt19937 *random) {
    size_t longest = (*random)() % 16 == 0 ? 20000 : 40;
    return std::string((*random)() % longest, static_cast<char>('a' + (*random)() % 26));
}

// Without a removal many keys are put twice, or with their parents: in some order, or all of a new part
// of the tree in that of their paths.
static std::vector<change> some_changes(std::mt19937 *random, const std::vector<std::string> &paths,
                                        int round) {
    std::vector<change> changes;
    const bool removes = round % 4 < 2, sorted = round % 4 == 3;
    for (int i = 0; i < 8; ++i) {
        std::string path = paths[(*random)() % paths.size()];
        if (sorted) path.front() = static_cast<char>('b' + round / 4);
        const bool removed = removes && (*random)() % 4 == 0;
        changes.push_back(removed ? removal(path) : put(path, some_value(random)));
        if (!removes && (*random)() % 2 == 0) changes.push_back(put(path, some_value(random)));
        for (std::string up = parent_of(path); !removes && !up.empty(); up = parent_of(up))
            if ((*random)() % 4 != 0) changes.push_back(put(up, some_value(random)));
    }
    if (!removes) std::shuffle(changes.begin(), changes.end(), *random);
    auto before = [](const change &a, const change &b) { return a.path < b.path; };
    if (sorted) std::stable_sort(changes.begin(), changes.end(), before);
    return changes;
}

// One run: random changes, each compared with the model at once, and the whole tree at the end.
static void run(uint32_t seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    scratch_directory scratch;
    backend registry = open_backend("lmdb:" + scratch.path + "/r", open_mode::create);
    store *keys = registry.keys.get();
    EXPECT_EQ(keyview_host_set_registry(("lmdb:" + scratch.path + "/r").c_str()), 0);
    std::vector<std::string> paths = awkward_paths();
    std::mt19937 random(seed);
    tree model;
    kept_copies kept;
    for (int round = 0; round < 60 && !testing::Test::HasFailure(); ++round) {
        std::vector<change> changes = some_changes(&random, paths, round);
        for (const change &one : changes)
            carry_out(&model, one);
        keys->apply(changes);
        for (const change &one : changes)
            expect_same(keys, &kept, model, one.path.size() == 1 ? one.path : parent_of(one.path));
        expect_same(keys, &kept, model, "a");
        admin::inspection_report report = admin::check_registry();
        EXPECT_EQ(report.keys, model.size());
        for (const admin::finding &one : report.findings)
            FAIL() << one.path << one.reason;
    }
    for (const std::string &path : paths)
        expect_same(keys, &kept, model, path);
}

static uint32_t first_seed = 20240607;
static uint32_t runs = 1;

TEST(StoreModel, AgreesOverRandomChanges) {
    for (uint32_t i = 0; i < runs && !HasFailure(); ++i)
        run(first_seed + i);
}

}  // namespace keyview::test

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    if (argc > 1) keyview::test::first_seed = static_cast<uint32_t>(strtoul(argv[1], nullptr, 10));
    if (argc > 2) keyview::test::runs = static_cast<uint32_t>(strtoul(argv[2], nullptr, 10));
    return RUN_ALL_TESTS();
}
