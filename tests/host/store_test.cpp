// What every store promises, whatever it stands on.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "host/registry/snapshot.h"
#include "model/path.h"
#include "process.h"
#include "registry.h"
#include "store_test.h"

namespace keyview::test {

class Store : public testing::TestWithParam<backend_row> {
  protected:
    std::string value(const std::string &path) {
        std::string found;
        return keys->now()->read(path, &found) ? found : "(none)";
    }

    struct : held_lock {
        bool still_held() const override { return false; }
    } lost;
    std::unique_ptr<fresh_registry> fresh = GetParam().make();
    store *keys = fresh->opened.keys.get();
};

INSTANTIATE_TEST_SUITE_P(Backends, Store, testing::ValuesIn(backends_under_test()),
                         [](const auto &row) { return row.param.name; });

TEST_P(Store, AnInvalidChangeLeavesAllAsItWas) {
    keys->apply({put("a.b", "old")});
    std::string large(MAX_VALUE_SIZE + 1, 'v');
    std::vector<std::string> bad = {"", ".", "a.", ".a", "a..b", "a.\x01", "a.\x1f.b", "a\x7f"};
    bad.insert(bad.end(), {std::string("a\0b", 3), std::string(MAX_PATH_LENGTH + 1, 'x')});
    for (const std::string &path : bad) {
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
    keys->apply({put("a.b", "old")});
    EXPECT_FALSE(keys->set("a.c", "new", nullptr));
    std::string text;
    EXPECT_EQ(failure_of([&] { keys->set("a.b", "new", &lost); }, &text), failure::lock);
    EXPECT_NE(text.find("the cluster lock was lost"), text.npos);
    EXPECT_EQ(value("a.b"), "old");

    auto held = fresh->opened.locks->acquire("LKRT.a", lock_mode::exclusive, 1000);
    std::string before = "old", replaced;
    for (const std::string &odd : {std::string("\0v\xff\n", 4), std::string(), std::string(),
                                   std::string(MAX_VALUE_SIZE, 'v')}) {
        EXPECT_TRUE(keys->set("a.b", odd, held.get(), &replaced));
        EXPECT_EQ(value("a.b"), odd);
        EXPECT_EQ(replaced, before);
        before = odd;
    }
}

TEST_P(Store, AppliesOnlyOnItsTerms) {
    auto revision = [&] { return keys->now()->current().tree; };
    auto failed = [&](const char *text, const apply_terms &terms) {
        return failure_of([&] { keys->apply({put("a.b", text)}, terms); });
    };
    keys->apply({put("a.b", "old")});
    uint64_t before = revision();
    EXPECT_NE(before, 0U);
    EXPECT_EQ(keys->apply({put("a.b", "old")}).replaced, 0U);
    {
        auto held = fresh->opened.locks->acquire("LKRT.a", lock_mode::exclusive, 1000);
        EXPECT_EQ(failed("new", {{held.get(), &lost}, 0}), failure::lock);
        EXPECT_EQ(revision(), before) << "moved by what changed nothing";
        keys->apply({put("a.b", "new")}, {{held.get()}, before});
    }
    EXPECT_NE(revision(), before);
    EXPECT_EQ(failed("newer", {{}, before}), failure::changed);
    EXPECT_EQ(value("a.b"), "new");
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
            snapshot all("t", reach::all_below);
            EXPECT_TRUE(keys->now()->copy("t", reach::all_below, &all));
            EXPECT_EQ(all.value(1), all.value(2));
            usleep(100);
        }
    });
}

// What a moment holds of an earlier read must not answer for what that did not cover.
TEST_P(Store, AMomentGivesEachKeyWhateverItReadBefore) {
    keys->apply({put("a", "1"), put("a.b", "2"), put("a.b.c", "3"), put("a.g", "6"),
                 put("a.g.h.i", "7"), put("a.g.k.l", "8"), put("d", "4"), put("d.e", "5")});
    struct question {
        std::string path;
        reach which;
    };
    std::vector<question> all;
    for (const char *path : {"a", "a.b", "a.b.c", "a.g", "d", "d.e", "f"}) {
        for (reach which : {reach::key_alone, reach::children, reach::all_below})
            all.push_back({path, which});
    }
    const auto answer = [](moment *at, const question &asked) {
        std::string found = "(none)";
        if (asked.which == reach::key_alone) {
            (void)at->read(asked.path, &found);
            return found;
        }
        snapshot copy(asked.path, asked.which);
        if (!at->copy(asked.path, asked.which, &copy)) return found;
        found.clear();
        for (uint32_t key = 0; key < copy.size(); ++key)
            found += std::string(copy.path(key)) + "=" + std::string(copy.value(key)) + " ";
        return found;
    };
    std::set<std::string> answers;
    for (const question &asked : all) {
        const std::string expected = answer(keys->now().get(), asked);
        answers.insert(expected);
        for (const question &first : all) {
            auto at = keys->now();
            (void)answer(at.get(), first);
            EXPECT_EQ(answer(at.get(), asked), expected) << asked.path << " after " << first.path;
        }
    }
    const std::string below_g = "a.g.h= a.g.k= a.g.h.i=7 a.g.k.l=8 ";
    EXPECT_EQ(answers.count("a=1 a.b=2 a.g=6 a.b.c=3 " + below_g), 1U);
    EXPECT_EQ(answers.count("a=1 a.b=2 a.g=6 "), 1U);
    EXPECT_EQ(answers.count("a.g=6 " + below_g), 1U);
    EXPECT_EQ(answers.size(), 15U);
}

TEST_P(Store, AMomentStaysAsItWasBesideChanges) {
    const std::vector<std::string> PARTS = {"a", "d"};
    auto change_all = [&](int to) {
        for (const std::string &part : PARTS)
            keys->apply({put(part + ".b", std::to_string(to))});
    };
    change_all(0);
    auto old = keys->now();
    for (int n = 1; n < 3; ++n) {
        for (const std::string &part : PARTS) {
            std::string value;
            snapshot all(part, reach::all_below);
            EXPECT_TRUE(old->read(part + ".b", &value) && old->copy(part, reach::all_below, &all));
            EXPECT_EQ(value + std::string(all.value(1)), "00") << part;
            change_all(n);
        }
    }
}

}  // namespace keyview::test
