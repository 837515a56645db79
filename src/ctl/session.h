// A context of the library over the chosen registry, for as long as a command needs it.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "admin/registry.h"
#include "ctl/command.h"
#include "ctl/output.h"
#include "keyview/if/prsr.hpp"

namespace keyview::ctl {

// What an observer receives as the call that waits for a lock.
constexpr const char *LOCK_WAIT = "lock wait";

class session {
  public:
    explicit session(const tool &tool_in_use);
    session(const session &) = delete;
    session &operator=(const session &) = delete;

    // The operations of the library.
    prsr::context *operator->() const { return &context_; }

    // The tool_error of a code other than PRSR_SUCCESS; check throws it. what: "show database Sales".
    tool_error failure(int32_t rc, const std::string &what) const;
    void check(int32_t rc, const std::string &what) const {
        if (rc != PRSR_SUCCESS) throw failure(rc, what);
    }

    // Runs an operation that reads, and returns its result. Damage that it met is a failure, too: some
    // operations read a list that is damaged as an empty one, or a policy as none.
    template <typename work>
    auto read(const std::string &what, const work &run) const {
        const admin::damage_recorder damage;
        auto found = run();
        check(found.code(), what);
        check_damage(damage.first(), what);
        return found;
    }

    // Runs a call; its name and the time that it took go to the observer, if there is one.
    template <typename work>
    auto observed(const char *call, const work &run) const {
        if (!observer) return run();
        const auto begun = std::chrono::steady_clock::now();
        auto result = run();
        observer(call,
                 std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count());
        return result;
    }

    // The same with the time that a lock is waited for; without an observer the lock is not taken.
    void observe_lock(const std::string &name) const;

    std::function<void(const char *call, double seconds)> observer = {};
    const tool &shared;

  private:
    void check_damage(const std::string &text, const std::string &what) const;

    mutable prsr::context context_;  // one thread uses it
};

// A command that uses the library, as a row of a table has it.
template <exit_code (*run)(const session &library, const given_names &names)>
exit_code with_library(const tool &shared, const given_names &names) {
    return run(session(shared), names);
}

// The registered names of all databases.
view_list database_names(const session &library, const std::string &what);

// Several operations report a missing key as they report a failing registry. probe then calls one
// that distinguishes: PRSR_ERR_NO_DATABASE if the key is missing. Returns the more precise code.
template <typename call>
int32_t refined(int32_t rc, const call &probe) {
    bool missing = rc == PRSR_ERR_REGISTRY && probe() == PRSR_ERR_NO_DATABASE;
    return missing ? PRSR_ERR_NO_DATABASE : rc;
}

}  // namespace keyview::ctl
