// What every store promises, whatever it stands on. A further backend is a further row in BACKENDS.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <thread>

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
    {"embedded", [] { return std::unique_ptr<fresh_registry>(new embedded_registry); }},
};

class Store : public testing::TestWithParam<backend_row> {
  protected:
    Store() : fresh(GetParam().make()), keys(fresh->opened.keys.get()) {}

    std::string value(const std::string &path) {
        std::string found;
        return keys->read(path, &found) ? found : "(none)";
    }

    std::unique_ptr<fresh_registry> fresh;
    store *keys;
};

INSTANTIATE_TEST_SUITE_P(Backends, Store, testing::ValuesIn(BACKENDS),
                         [](const auto &row) { return row.param.name; });

// ---- Against a model ----------------------------------------------------------------------------

using tree = std::map<std::string, std::string>;
using row_list = std::vector<std::pair<std::string, std::string>>;

static std::string parent_of(const std::string &path) {
    size_t end = path.rfind('.');
    return end == path.npos ? "" : path.substr(0, end);
}

static row_list children_in(const tree &model, const std::string &path) {
    row_list found;
    for (const auto &row : model) {
        if (!row.first.empty() && parent_of(row.first) == path) found.push_back(row);
    }
    // By the name alone, as bytes; the map's order is that of whole paths.
    std::sort(found.begin(), found.end());
    return found;
}

static void carry_out(tree *model, const change &one) {
    if (one.what == change::kind::put) {
        for (std::string up = parent_of(one.path); !up.empty(); up = parent_of(up))
            model->emplace(up, "");
        (*model)[one.path] = one.value;
        return;
    }
    for (auto at = model->begin(); at != model->end();) {
        bool below = at->first == one.path || at->first.rfind(one.path + ".", 0) == 0;
        at = below ? model->erase(at) : std::next(at);
    }
}

// Compares a key, its list and all that is below it with the model.
static void expect_same(store *keys, const tree &model, const std::string &path) {
    SCOPED_TRACE(path.substr(0, 60) + " of " + std::to_string(path.size()) + " bytes");
    auto known = model.find(path);
    std::string value;
    ASSERT_EQ(keys->read(path, &value), known != model.end());

    row_list rows;
    uint32_t count = 0;
    auto take = [&](std::string_view p, std::string_view v) { rows.emplace_back(p, v); };
    ASSERT_EQ(keys->read_children(
                  path, [&](uint32_t n) { count = n; }, take),
              known != model.end());
    EXPECT_EQ(rows, children_in(model, path));
    EXPECT_EQ(count, rows.size());

    rows.clear();
    ASSERT_EQ(keys->read_subtree(path, take), known != model.end());
    if (known == model.end()) return;
    EXPECT_EQ(value, known->second);
    tree seen;
    std::map<std::string, row_list> lists;
    for (const auto &row : rows) {
        if (row.first != path) {
            EXPECT_TRUE(seen.count(parent_of(row.first))) << "comes before its parent";
            lists[parent_of(row.first)].push_back(row);
        }
        seen.insert(row);
    }
    for (const auto &[parent, list] : lists)
        EXPECT_EQ(list, children_in(model, parent));
    tree expected;
    for (const auto &row : model) {
        if (row.first == path || row.first.rfind(path + ".", 0) == 0) expected.insert(row);
    }
    EXPECT_EQ(seen, expected);
}

// Elements that are near each other in every order, and lengths around every limit.
static std::vector<std::string> awkward_paths() {
    std::string x(240, 'x');
    std::string y(250, 'y');
    std::vector<std::string> paths = {"a",    "a.b", "a.bc",  "a.b.c",
                                      "a.b!", "a.B", "a.b*c", "a.\xff"};
    for (size_t size : {492U, 493U, 494U, 495U, 509U, 510U, 511U, 512U, 513U, 2045U, 2047U})
        paths.push_back("a." + std::string(size - 2, 'k'));
    for (const char *tail : {".a", ".b", ".bc", ".b.c", ".z"}) {
        for (size_t size : {485U, 492U, 493U, 494U, 495U, 500U, 508U, 509U, 510U, 511U, 600U})
            paths.push_back("a." + std::string(size - 2, 'p') + tail);
    }
    for (const char *tail : {"1", "2", "1.e", "2.e.f"})
        paths.push_back("a." + x + "." + y + "." + x + tail);
    return paths;
}

TEST_P(Store, AgreesWithAModelOverRandomChanges) {
    std::vector<std::string> paths = awkward_paths();
    std::mt19937 random(20240607);
    tree model;
    for (int round = 0; round < 40; ++round) {
        std::vector<change> changes;
        for (int i = 0; i < 8; ++i) {
            const std::string &path = paths[random() % paths.size()];
            bool removed = random() % 4 == 0;
            changes.push_back(removed ? removal(path) : put(path, std::string(random() % 40, 'v')));
            carry_out(&model, changes.back());
        }
        keys->apply(changes);
        for (int i = 0; i < 6; ++i)
            expect_same(keys, model, paths[random() % paths.size()]);
        expect_same(keys, model, "a");
        if (testing::Test::HasFailure()) return;
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
    const std::string BAD[] = {"",         ".",
                               "a.",       ".a",
                               "a..b",     "a.\x01",
                               "a.\x1f.b", std::string("a\0b", 3),
                               "a\x7f",    std::string(2048, 'x')};
    for (const std::string &path : BAD) {
        EXPECT_EQ(failure_of([&] {
                      keys->apply({put("a.b", "new"), put(path, "v")});
                  }),
                  failure::usage)
            << path;
        EXPECT_FALSE(keys->set(path, "v", nullptr)) << path;
        EXPECT_EQ(value(path), "(none)") << path;
    }
    std::string large((size_t{1} << 20) + 1, 'v');
    EXPECT_EQ(failure_of([&] {
                  keys->apply({put("a.b", "new"), put("a.c", large)});
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
    std::string odd("\0v\xff\n", 4);
    EXPECT_TRUE(keys->set("a.b", odd, held.get()));
    EXPECT_EQ(value("a.b"), odd);
    EXPECT_TRUE(keys->set("a.b", "", held.get()));
    EXPECT_EQ(value("a.b"), "");
}

TEST_P(Store, ASubtreeIsReadAsOfOneMomentBesideWriters) {
    keys->apply({put("t.a", "0"), put("t.b", "0")});
    std::atomic<bool> stop{false};
    std::thread writers[2];
    for (std::thread &writer : writers) {
        writer = std::thread([&] {
            for (int i = 1; i <= 100; ++i) {
                std::string value(static_cast<size_t>(i * 100), 'v');
                keys->apply({put("t.a", value), put("t.b", value)});
            }
            stop = true;
        });
    }
    while (!stop) {
        row_list rows;
        keys->read_subtree(
            "t", [&](std::string_view p, std::string_view v) { rows.emplace_back(p, v); });
        ASSERT_EQ(rows.size(), 3U);
        EXPECT_EQ(rows[1].second, rows[2].second);
    }
    for (std::thread &writer : writers)
        writer.join();
}

TEST_P(Store, ASinkMayUseTheStore) {
    keys->apply({put("t.a", "0"), put("t.b", "0")});
    keys->read_subtree("t", [&](std::string_view path, std::string_view) {
        EXPECT_TRUE(keys->set(path, "seen", nullptr));
    });
    EXPECT_EQ(value("t.b"), "seen");
}

}  // namespace keyview::test
