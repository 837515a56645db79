// What a file system may leave of a directory when the power fails: at any point of what was recorded,
// all that was synced is there; what was written behind the last sync of a file is there or not,
// in whole or in part, in any order. Sectors of 512 bytes are written in whole or not at all. Of what was
// done to names behind the last sync of the directory the first part is there.
#pragma once

#include <map>
#include <random>
#include <string>
#include <vector>

#include "file_events.h"

namespace keyview::test {

struct crash_state {
    bool directory = false;                    // whether it is there
    std::map<std::string, std::string> files;  // what they hold, by name
    size_t notes = 0;                          // of the program, up to the crash
    const char *how = "";                      // which kind of crash
};

class crash_states {
  public:
    // Up to so many states where more than one is possible between two events.
    crash_states(const std::vector<file_event> &events, unsigned most, unsigned seed)
        : events_(events), most_(most), random_(seed) {}

    // Calls a function with each state.
    template <typename work>
    void each(const work &body) {
        body(state({}, 0, "before anything"));
        for (const file_event &event : events_) {
            if (event.durable) pending_.push_back(&event);  // while the call runs
            choose(body);
            if (event.durable) pending_.pop_back();
            happen(event);
            choose(body);
        }
    }

  private:
    // How much of a pending write is there.
    struct share {
        size_t from = 0, to = 0;
    };

    void happen(const file_event &event);
    void name_event(const file_event &event);
    static void write(std::string *content, const file_event &event, share part);
    crash_state state(const std::vector<share> &shares, size_t names, const char *how) const;
    share torn(const file_event &event);

    template <typename work>
    void choose(const work &body) {
        std::vector<share> none(pending_.size()), all;
        for (const file_event *event : pending_)
            all.push_back({0, event->data.size()});
        const size_t names = pending_names_.size();
        body(state(all, names, "all is there"));
        if (names > 0) body(state(all, 0, "no name is there"));
        if (pending_.empty()) return;
        body(state(none, names, "nothing pending is there"));
        for (unsigned n = 0; n < most_; ++n) {
            bool in_parts = n % 2 == 1;
            std::vector<share> some;
            for (const file_event *event : pending_) {
                bool there = random_() % 2 == 0;
                some.push_back(in_parts ? torn(*event) : share{0, there ? event->data.size() : 0});
            }
            body(state(some, random_() % (names + 1), in_parts ? "torn" : "some are there"));
        }
    }

    const std::vector<file_event> &events_;
    unsigned most_;
    std::mt19937 random_;

    bool directory_ = false;
    size_t notes_ = 0;
    std::map<size_t, std::string> durable_;    // contents by the number of the file
    std::vector<const file_event *> pending_;  // writes and resizes
    std::map<std::string, size_t> names_;      // that are durable
    std::vector<const file_event *> pending_names_;
};

}  // namespace keyview::test
