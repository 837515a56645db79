// What every store promises, whatever it stands on. A further backend is a further row in BACKENDS.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>
#include <random>

#include "host/registry/path.h"
#include "process.h"
#include "registry.h"

namespace keyview::test {

// An empty registry that lives as long as the object.
struct fresh_registry {
    virtual ~fresh_registry() = default;
    backend opened;
};

struct embedded_registry : fresh_registry {
    embedded_registry() { opened = open_backend("lmdb:" + scratch.path + "/r", open_mode::create); }
    ~embedded_registry() override { opened = {}; }
    scratch_directory scratch;
};

struct backend_row {
    const char *name;
    std::unique_ptr<fresh_registry> (*make)();
};

static const backend_row BACKENDS[] = {
    {"embedded",
     []() -> std::unique_ptr<fresh_registry> { return std::make_unique<embedded_registry>(); }},
};

class Store : public testing::TestWithParam<backend_row> {
  protected:
    std::string value(const std::string &path) {
        std::string found;
        return keys->read(path, &found) ? found : "(none)";
    }

    std::unique_ptr<fresh_registry> fresh = GetParam().make();
    store *keys = fresh->opened.keys.get();
};

INSTANTIATE_TEST_SUITE_P(Backends, Store, testing::ValuesIn(BACKENDS),
                         [](const auto &row) { return row.param.name; });

// ---- Against a model ----------------------------------------------------------------------------

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

// Compares a key, its list and all that is below it with the model.
static void expect_same(store *keys, const tree &model, const std::string &path) {
    SCOPED_TRACE(path.substr(0, 40) + "... of " + std::to_string(path.size()) + " bytes");
    tree children;
    tree all;
    for (const auto &row : model) {
        if (parent_of(row.first) == path) children.insert(row);
        if (within(row.first, path)) all.insert(row);
    }
    std::string value;
    ASSERT_EQ(keys->read(path, &value), !all.empty());
    EXPECT_EQ(value, all.empty() ? "" : all.begin()->second);

    tree seen;
    std::map<std::string, std::string> latest;  // by parent
    auto see = [&](std::string_view p, std::string_view v) {
        std::string parent = parent_of(std::string(p));
        EXPECT_LT(latest[parent], p) << "out of order";
        latest[parent] = p;
        EXPECT_TRUE(seen.emplace(p, v).second) << "twice";
        EXPECT_TRUE(p == path || parent == path || seen.count(parent)) << "before its parent";
    };
    uint32_t count = 0;
    auto take_count = [&](uint32_t n) { count = n; };
    EXPECT_EQ(keys->read_children(path, take_count, see), !all.empty());
    EXPECT_EQ(seen, children);
    EXPECT_EQ(count, children.size());

    seen.clear();
    latest.clear();
    EXPECT_EQ(keys->read_subtree(path, see), !all.empty());
    EXPECT_EQ(seen, all);
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

TEST_P(Store, AgreesWithAModelOverRandomChanges) {
    std::vector<std::string> paths = awkward_paths();
    std::mt19937 random(20240607);
    tree model;
    for (int round = 0; round < 60 && !HasFailure(); ++round) {
        std::vector<change> changes;
        for (int i = 0; i < 8; ++i) {
            const std::string &path = paths[random() % paths.size()];
            bool removed = random() % 4 == 0;
            changes.push_back(removed ? removal(path) : put(path, std::string(random() % 40, 'v')));
            carry_out(&model, changes.back());
        }
        keys->apply(changes);
        for (const change &one : changes)
            expect_same(keys, model, one.path == "a" ? "a" : parent_of(one.path));
        expect_same(keys, model, "a");
    }
    for (const std::string &path : paths)
        expect_same(keys, model, path);
}

TEST_P(Store, CountsWhatChangedAndWritesNothingTwice) {
    change_counts counts = keys->apply({put("d.e.f", "1"), put("d.g", "2")});
    EXPECT_EQ(counts.created, 4U) << "two keys and two parents";
    counts = keys->apply({put("d.e.f", "1"), put("d.g", "2"), put("d.e")});
    EXPECT_EQ(counts.created + counts.replaced + counts.removed, 0U);
    counts = keys->apply({put("d.g", "3"), removal("d.e"), removal("d.none")});
    EXPECT_EQ(counts.replaced, 1U);
    EXPECT_EQ(counts.removed, 2U);
}

TEST_P(Store, AnInvalidChangeLeavesAllAsItWas) {
    keys->apply({put("a.b", "old")});
    std::string large(MAX_VALUE_SIZE + 1, 'v');
    const std::string BAD[] = {"",
                               ".",
                               "a.",
                               ".a",
                               "a..b",
                               "a.\x01",
                               "a.\x1f.b",
                               "a\x7f",
                               std::string("a\0b", 3),
                               std::string(MAX_PATH_LENGTH + 1, 'x')};
    for (const std::string &path : BAD) {
        auto change_it = [&] { keys->apply({put("a.b", "new"), put(path, "v")}); };
        EXPECT_EQ(failure_of(change_it), failure::usage) << path;
        EXPECT_FALSE(keys->set(path, "v", nullptr)) << path;
        EXPECT_EQ(value(path), "(none)") << path;
    }
    EXPECT_EQ(failure_of([&] {
                  keys->apply({put("a.b", "x"), put("a.c", large)});
              }),
              failure::usage);
    EXPECT_EQ(failure_of([&] { keys->set("a.b", large, nullptr); }), failure::usage);
    EXPECT_EQ(value("a.b"), "old");
}

TEST_P(Store, SetsOnlyWhatExistsAndOnlyUnderALockThatIsHeld) {
    struct lost_lock : held_lock {
        bool still_held() const override { return false; }
    } lost;
    keys->apply({put("a.b", "old")});
    EXPECT_FALSE(keys->set("a.c", "new", nullptr));
    std::string text;
    EXPECT_EQ(failure_of([&] { keys->set("a.b", "new", &lost); }, &text), failure::lock);
    EXPECT_NE(text.find("the cluster lock was lost"), text.npos);
    EXPECT_EQ(value("a.b"), "old");

    auto held = fresh->opened.locks->acquire("LKRT.a", lock_mode::exclusive, 1000);
    for (const std::string &odd : {std::string("\0v\xff\n", 4), std::string()}) {
        EXPECT_TRUE(keys->set("a.b", odd, held.get()));
        EXPECT_EQ(value("a.b"), odd);
    }
}

TEST_P(Store, ASubtreeIsReadAsOfOneMomentBesideWriters) {
    keys->apply({put("t.a", "0"), put("t.b", "0")});
    std::atomic<int> at_work{2};
    in_threads(3, [&](int thread) {
        for (size_t i = 1; thread > 0 && i <= 60; ++i) {
            std::string value(i * 100, 'v');
            keys->apply({put("t.a", value), put("t.b", value)});
        }
        at_work -= thread > 0;
        while (thread == 0 && at_work > 0) {
            std::vector<std::string> values;
            keys->read_subtree("t", [&](auto, std::string_view v) { values.emplace_back(v); });
            EXPECT_EQ(values.at(1), values.at(2));
            usleep(100);
        }
    });
}

TEST_P(Store, ASinkMayUseTheStore) {
    keys->apply({put("t.a", "0"), put("t.b", "0")});
    keys->read_subtree("t", [&](std::string_view path, std::string_view) {
        EXPECT_TRUE(keys->set(path, "seen", nullptr));
    });
    EXPECT_EQ(value("t.b"), "seen");
}

}  // namespace keyview::test
