// What the views of held locks request from the store: how often, and in which order they expect their keys.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host/registry/locked_view.h"
#include "registry.h"

namespace keyview::test {

struct requests {
    int moments = 0, keys = 0, copies = 0;
};

class counted_moment final : public moment {
  public:
    counted_moment(std::unique_ptr<moment> of, requests *made) : of_(std::move(of)), made_(made) {}

    revision current() override { return of_->current(); }
    bool read(std::string_view path, std::string *value) override {
        ++made_->keys;
        return of_->read(path, value);
    }
    bool copy(std::string_view path, reach which, snapshot *out) override {
        ++made_->copies;
        return of_->copy(path, which, out);
    }

  private:
    std::unique_ptr<moment> of_;
    requests *made_;
};

class counted_store final : public store {
  public:
    explicit counted_store(std::shared_ptr<store> of) : of_(std::move(of)) {}

    std::unique_ptr<moment> now(std::string_view part, reach depth) override {
        ++made.moments;
        return std::make_unique<counted_moment>(of_->now(part, depth), &made);
    }
    bool set(std::string_view path, std::string_view value, const held_lock *fence,
             std::string *replaced) override {
        return of_->set(path, value, fence, replaced);
    }
    change_counts apply(const change_source &changes, const apply_terms &terms) override {
        return of_->apply(changes, terms);
    }
    void history(uint64_t since, const history_sink &sink) override { of_->history(since, sink); }

    requests made;

  private:
    std::shared_ptr<store> of_;
};

class View : public RegistryTest {
  protected:
    View() {
        for (const char *database : {"sales", "crm", "hr"}) {
            std::vector<change> changes;
            for (const char *below : {".A", ".B", ".C", ".L.x", ".L.y"})
                changes.push_back(put(ROOT + database + below, "old"));
            for (int i = 100; i < 150; ++i)
                changes.push_back(put(ROOT + database + ".M.m" + std::to_string(i) + ".N", "old"));
            apply(changes);
        }
    }

    // Reads the keys below a database, "" being its own, or a list where "/" ends the name, as under one lock
    // after the other; returns "moments keys copies expected".
    std::string visit(const std::vector<std::string> &names, const char *database = "sales") {
        begin(database);
        for (const std::string &name : names)
            read(name);
        return counts();
    }

    void begin(const char *database) {
        view = std::make_unique<locked_view>(nullptr);
        top = ROOT + database;
        counted->made = {};
        expected = 0;
    }

    std::string counts() const {
        std::string text;
        for (int one : {counted->made.moments, counted->made.keys, counted->made.copies, expected})
            text += std::to_string(one) + " ";
        return text;
    }

    // Without a value if there is no such key.
    std::string read(const std::string &name) {
        const tree_reader reader{counted.get(), kept.get(), 1};
        const lock_cover cover{top, reach::all_below};
        found_key found;
        if (!name.empty() && name.back() == '/') {
            found = view->find_list(reader, cover, path_of(name.substr(0, name.size() - 1)));
        } else {
            const std::string path = path_of(name);
            if (view->known() != nullptr && view->is_of(1)) {
                if (const copied_key *next = view->pass_expected(); next != nullptr) {
                    expected += next->part->path(next->key) == path;
                    view->step_back();
                }
            }
            view->find(reader, cover, path.c_str(), &found);
        }
        if (found.part == nullptr) return "";
        copied = found.of->weak_from_this();
        return std::string(found.part->value(found.key));
    }

    std::string path_of(const std::string &name) const {
        return name.empty() ? top : top + "." + name;
    }

    static std::vector<std::string> first_of_many(int count) {
        std::vector<std::string> names;
        for (int i = 0; i < count; ++i)
            names.push_back("M.m" + std::to_string(100 + i) + ".N");
        return names;
    }

    static inline const std::string ROOT = "DATABASE.DATABASES.";
    std::shared_ptr<counted_store> counted = std::make_shared<counted_store>(registry.keys);
    std::unique_ptr<kept_copies> kept = std::make_unique<kept_copies>(counted);
    std::unique_ptr<locked_view> view;
    std::string top;
    int expected = 0;
    std::weak_ptr<copies> copied;  // of the key that was read last
};

// Moments, keys read alone, copies, and keys behind the first that were expected.
TEST_F(View, RequestsAsLittleAsItCan) {
    const std::vector<std::string> all = {"",    "A",  "B",   "C",      "L.x",
                                          "L.x", "L/", "L.y", "L.none", "none"};
    EXPECT_EQ(visit(all), "1 1 2 0 ") << "its children, a key alone, a list";
    EXPECT_EQ(visit(all), "1 0 0 6 ") << "nothing has changed";
    apply({put("DATABASE.DATABASES.crm.A", "new")});
    EXPECT_EQ(visit(all), "1 0 0 6 ") << "elsewhere";
    apply({put("DATABASE.DATABASES.sales.A", "new")});
    EXPECT_EQ(visit({"A"}), "1 0 1 0 ") << "the children once more";
    EXPECT_EQ(visit(all), "1 0 1 3 ") << "and the list when it is read";
    EXPECT_EQ(visit({"none", "also.none"}, "nobody"), "1 1 1 0 ");
}

// Also the first request under a lock, and one behind a change.
TEST_F(View, AListNeedsNoReadOfItsKey) {
    EXPECT_EQ(visit({"/", "/"}), "1 0 1 0 ");
    EXPECT_EQ(visit({"L/", "L/"}), "1 0 1 0 ");
    apply({put("DATABASE.DATABASES.sales.L", "new")});
    begin("sales");
    EXPECT_EQ(read("L/"), "new");
    EXPECT_EQ(counts(), "1 0 1 0 ");
}

// As for a set of a flag: one key is read, and the rest of its part is not.
TEST_F(View, AKeyThatIsReadAloneStaysAlone) {
    EXPECT_EQ(visit({"B"}), "1 0 1 0 ");
    for (int round = 0; round < 3; ++round) {
        apply({put("DATABASE.DATABASES.sales.B", std::to_string(round))});
        EXPECT_EQ(visit({"B"}), "1 1 0 0 ");
    }
    EXPECT_EQ(visit({"B", "A"}), "1 0 1 0 ");
}

// A moment that ends early, as for a wait, leaves what is not read yet, of copies of another revision, too.
TEST_F(View, ShowsItsMomentWhenThatHasEnded) {
    const std::vector<std::string> all = {"A", "L.x", "L/", "M.m100.N", "M.m149.N"};
    (void)visit(all);
    auto write = [&](const std::string &value) {
        std::vector<change> changes;
        for (const char *name : {"A", "L", "L.x", "M.m100.N", "M.m149.N"})
            changes.push_back(put(ROOT + "sales." + name, value));
        apply(changes);
    };
    for (const char *value : {"then", "later"}) {
        write(value);
        begin("sales");
        EXPECT_EQ(read("A"), value);
        view->detach({top, reach::all_below});
        write("now");
        for (const std::string &name : all)
            EXPECT_EQ(read(name), value) << name;
    }
    for (const char *requests : {"1 3 3 0 ", "1 0 0 0 "}) {
        begin("sales");
        (void)read("A");
        view->detach({top, reach::all_below});
        EXPECT_EQ(counts(), requests) << "everything is there at the second time";
    }
}

// A reader of many single keys gets all that is there with the next one.
TEST_F(View, ManySingleKeysBringEverything) {
    EXPECT_EQ(visit(first_of_many(32)), "1 32 1 0 ");
    EXPECT_EQ(visit(first_of_many(50), "crm"), "1 33 2 0 ");
    EXPECT_EQ(read("A") + read("L.y"), "oldold");
    EXPECT_EQ(counted->made.copies, 2);
}

// The order of the reader before is expected, or that of a record of the same shape.
TEST_F(View, ExpectsTheOrderOfTheReaderBefore) {
    const std::vector<std::string> some = {"", "C", "A", "B"}, other = {"", "B", "C", "A"};
    EXPECT_EQ(visit(some), "1 0 1 0 ");
    EXPECT_EQ(visit(some), "1 0 0 3 ");
    EXPECT_EQ(visit(some, "crm"), "1 0 1 3 ") << "behind its first copy";
    EXPECT_EQ(visit({"", "A"}), "1 0 0 0 ") << "a short visit";
    EXPECT_EQ(visit(some), "1 0 0 3 ") << "changes nothing";
    EXPECT_EQ(visit(other), "1 0 0 0 ") << "as long as that before";
    EXPECT_EQ(visit(some), "1 0 0 3 ") << "does not, either";
    EXPECT_EQ(visit({"", "B", "C", "A", "none", "C"}), "1 0 0 0 ") << "a longer one";
    EXPECT_EQ(visit(other), "1 0 0 3 ") << "takes its place";
    apply({removal("DATABASE.DATABASES.sales.B"), put("DATABASE.DATABASES.sales.A", "new")});
    EXPECT_EQ(visit({"", "C", "A"}), "1 0 1 0 ") << "another shape: nothing is known of its order";
    EXPECT_EQ(visit({"", "C", "A"}), "1 0 0 2 ");

    const std::vector<std::string> lists = {"", "L/", "L.x", "L.y", "A"};
    for (int round = 0; round < 2; ++round)
        (void)visit(lists);
    EXPECT_EQ(visit(lists, "hr"), "1 0 2 3 ") << "behind each copy";
    EXPECT_EQ(visit({"", "C", "A"}, "hr"), "1 0 0 0 ") << "another reader";
    EXPECT_EQ(visit({"", "A"}, "hr"), "1 0 0 0 ") << "a short visit";
    EXPECT_EQ(visit({"", "C", "A"}, "hr"), "1 0 0 2 ") << "which changes no order that was read";
}

TEST_F(View, ForgetsWhatIsReadOnce) {
    std::vector<change> changes;
    std::vector<std::string> names;
    for (int i = 0; i < 9; ++i)
        changes.push_back(put(ROOT + names.emplace_back("once" + std::to_string(i)) + ".A", "old"));
    apply(changes);
    std::vector<std::weak_ptr<copies>> all;
    for (const std::string &name : names) {
        (void)visit({"A"}, name.c_str());
        all.push_back(copied);
    }
    auto gone = [](const auto &one) { return one.expired(); };
    EXPECT_EQ(std::count_if(all.begin(), all.end(), gone), 7) << "all but the latest two";
}

// A handle keeps copies of many bytes, but not without a bound.
TEST_F(View, KeepsABoundedNumberOfBytes) {
    constexpr size_t BOUND = size_t{16} << 20;
    std::vector<change> changes;
    for (int i = 0; i < 48; ++i) {
        const std::string name = "big" + std::to_string(i / 4) + ".V" + std::to_string(i % 4);
        changes.push_back(put(ROOT + name, std::string(MAX_VALUE_SIZE, 'v')));
    }
    apply(changes);
    for (int round = 0; round < 2; ++round) {
        for (int i = 0; i < 12; ++i)
            (void)visit({"", "V1"}, ("big" + std::to_string(i)).c_str());
    }
    view.reset();
    kept.reset();
    size_t bytes = 0, latest = 0;
    for (const auto &one : counted->take_copies())
        bytes += latest = one->of->bytes();
    EXPECT_GT(latest, size_t{4} << 20);
    EXPECT_LE(bytes - latest, BOUND) << "the latest is measured when it is not the latest any more";
    EXPECT_GT(bytes, BOUND / 2);
}

}  // namespace keyview::test
