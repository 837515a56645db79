// See reader.h.
#include "ctl/board/reader.h"

#include <algorithm>
#include <ctime>
#include <optional>
#include <set>
#include <thread>
#include <utility>

#include "ctl/change_source.h"
#include "ctl/change_view.h"
#include "ctl/overview.h"
#include "ctl/record_view.h"
#include "ctl/text.h"
#include "host/if/keyview_host.h"
#include "model/folding.h"
#include "model/path.h"
#include "model/roots.h"

namespace keyview::ctl {

static constexpr char WHAT[] = "the board cannot be read";
static constexpr std::chrono::milliseconds WAIT{2000}, RETRY{500};
static constexpr size_t FEW = 16;  // databases, up to which each is read by itself

namespace {

class fact_maker {
  public:
    explicit fact_maker(bool ascii) : ascii_(ascii) {}

    database_facts facts_of(const listed_record &one) const {
        database_facts facts;
        facts.element = one.element;
        facts.known = static_cast<bool>(one.record);
        facts.why = text(one.why);
        if (one.code != EXIT_DONE) facts.trouble = one.code == EXIT_LOCK ? "locked" : "unreadable";
        facts.row = {"", {text(one.name), "", "", "", "", ""}};
        if (!facts.known) return facts;
        const prsr::database &record = one.record;
        const prsr::instance_list instances = record.instances();
        const prsr::service_list services = record.services();
        std::set<std::string> nodes;
        for (const prsr::instance &instance : instances) {
            facts.instances.push_back(row_of(instance));
            if (!instance.node().empty()) nodes.insert(element_of(instance.node()));
        }
        for (const prsr::service &service : services)
            facts.services.push_back(row_of(service));
        facts.policy = text(record.policy());
        facts.row.cells = {text(one.name),          word_of(record.enabled()),
                           text(record.role()),     enabled_share(instances),
                           enabled_share(services), std::to_string(nodes.size())};
        return facts;
    }

    std::string text(std::string_view raw) const {
        return screen_text(escaped(text_or_dash(raw)), ascii_);
    }

    // Of an escaped line; a value may have megabytes.
    std::string line(std::string escaped_text) const {
        constexpr size_t LONGEST = 1000;
        if (escaped_text.size() > LONGEST) {
            size_t end = LONGEST;
            while ((static_cast<unsigned char>(escaped_text[end]) & 0xc0) == 0x80)
                --end;
            escaped_text.resize(end);
        }
        return screen_text(escaped_text, ascii_);
    }

  private:
    static std::string word_of(bool enabled) { return enabled ? "enabled" : "disabled"; }

    fact_row row_of(const prsr::instance &one) const {
        return {"instance " + text(one.name()),
                {text(one.name()), text(one.node()), word_of(one.enabled())}};
    }

    fact_row row_of(const prsr::service &one) const {
        return {"service " + text(one.name()),
                {text(one.name()), word_of(one.enabled()),
                 std::get<coded>(policy_view(one.rcn_policy()).value).word,
                 names_of(one.preferred()), names_of(one.available())}};
    }

    // "Sales1, Sales3 (disabled)".
    std::string names_of(const prsr::service_instance_list &listed) const {
        std::string out;
        for (const prsr::service_instance &one : listed)
            out += (out.empty() ? "" : ", ") + text(one.name) + (one.enabled ? "" : " (disabled)");
        return out.empty() ? "-" : out;
    }

    bool ascii_;
};

class board_reader {
  public:
    board_reader(const tool &shared, const std::string &database, board_desk *desk)
        : shared_(shared),
          root_(database.empty() ? ROOT : database_key(database)),
          desk_(desk),
          maker_(desk->data.ascii) {}

    void run() {
        while (!desk_->ending) {
            const std::string trouble = read_until_failure();
            if (desk_->ending) return;
            desk_->change([&](board_data *data, moment) { data->trouble = trouble; });
            std::this_thread::sleep_for(RETRY);
        }
    }

  private:
    // Why it ended; "" if the board did.
    std::string read_until_failure() {
        try {
            follow();
            return "";
        } catch (const tool_error &failed) {
            return maker_.text(failed.why.empty() ? failed.what : failed.why);
        } catch (const std::exception &failed) {
            return maker_.text(failed.what());
        }
    }

    void follow() {
        admin::registry opened = admin::registry::open();
        const uint64_t present = opened.revision();
        const bool again = revision_ != 0 && revision_ <= present;
        change_source source(std::move(opened), root_, again ? revision_ : present);
        const session library(shared_);
        everything_ = true;
        noted_at_ = std::chrono::steady_clock::now();
        while (!desk_->ending) {
            // Without a wait at first: a source that polls compares with what it sees now.
            wait_for_changes(&source, everything_ ? std::chrono::milliseconds(0) : pause_wanted());
            read_changed(library);
            desk_->change([&](board_data *data, moment now) {
                data->trouble.clear();
                data->last_good = now;
                data->revision = source.revision();
                forget_removed(data, now);
            });
        }
    }

    std::chrono::milliseconds pause_wanted() const { return busy_.empty() ? WAIT : RETRY; }

    void wait_for_changes(change_source *source, std::chrono::milliseconds most) {
        const moment end = std::chrono::steady_clock::now() + most;
        auto left = [&] {
            const std::chrono::duration<double, std::milli> time =
                end - std::chrono::steady_clock::now();
            return desk_->ending ? 0U : static_cast<uint32_t>(std::max(time.count(), 0.0));
        };
        noted_any_ = false;
        source->next(left, {[this](const revision_jump &jump) { note_jump(jump); },
                            [this](uint64_t, uint64_t revision, const admin::key_change &change) {
                                note_change(revision, change);
                            }});
        revision_ = source->revision();
    }

    static std::string time_of_day() {
        const time_t now = time(nullptr);
        struct tm parts = {};
        char text[16] = "";
        if (localtime_r(&now, &parts) != nullptr) (void)strftime(text, sizeof text, "%T", &parts);
        return text;
    }

    void add_line(const std::string &text, const std::string &element) {
        desk_->change([&](board_data *data, moment now) {
            if (!std::exchange(noted_any_, true)) noted_at_ = now;
            add_change(data, {time_of_day(), text, element}, noted_at_);
        });
    }

    void note_jump(const revision_jump &jump) {
        add_line(std::to_string(jump.revision) + " " + jump.kind +
                     ": what happened after revision " + std::to_string(jump.since) + " " +
                     jump.what,
                 "");
        everything_ = everything_ || jump.kind == std::string("gap");
    }

    void note_change(uint64_t revision, const admin::key_change &change) {
        std::string element;
        if (path_within(change.path, DB_ROOT) && change.path != DB_ROOT)
            element = last_element(first_elements(change.path, 3));
        if (!element.empty()) changed_.insert(element);
        std::string line = change_for_people(change);
        const std::string root = (element.empty() ? std::string(ROOT) : DB_ROOT) + ".";
        if (line.compare(2, root.size(), root) == 0) line.erase(2, root.size());
        add_line(std::to_string(revision) + " " + maker_.line(std::move(line)), element);
    }

    void read_changed(const session &library) {
        changed_.merge(busy_);
        busy_.clear();
        if (!everything_ && changed_.empty()) return;
        desk_->reading = true;
        (void)keyview_host_set_lock_wait(LOCK_WAIT_MS);  // it is not above the limit
        everything_ = everything_ || changed_.size() > FEW;
        if (everything_) {
            const std::set<std::string> found =
                read_databases(library, root_ == ROOT ? DB_ROOT : root_);
            desk_->change([&](board_data *data, moment now) { end_reading(data, found, now); });
        } else {
            for (const std::string &element : changed_)
                read_one(library, element);
        }
        everything_ = false;
        changed_.clear();
        desk_->reading = false;
    }

    void read_one(const session &library, const std::string &element) {
        if (!read_databases(library, std::string(DB_ROOT) + "." + element).empty()) return;
        desk_->change([&](board_data *data, moment now) { remove_database(data, element, now); });
    }

    // Returns those that exist.
    std::set<std::string> read_databases(const session &library, const std::string &key) {
        std::set<std::string> found;
        each_database(
            library, WHAT,
            [&](const listed_record &one) {
                found.insert(one.element);
                if (one.code == EXIT_LOCK) busy_.insert(one.element);
                desk_->change([&](board_data *data, moment now) {
                    put_database(data, maker_.facts_of(one), noted_at_, now);
                    data->last_good = now;
                });
            },
            key);
        return found;
    }

    const tool &shared_;
    std::string root_;
    board_desk *desk_;
    fact_maker maker_;
    uint64_t revision_ = 0;  // that was seen last
    std::set<std::string> changed_, busy_;
    bool everything_ = true;
    moment noted_at_ = {};  // what is reported at once has one moment
    bool noted_any_ = false;
};

}  // namespace

void read_for_board(const tool &shared, const std::string &database, board_desk *desk) noexcept {
    board_reader(shared, database, desk).run();
}

}  // namespace keyview::ctl
