// The changes of a key and of what is below it, as they happen: from the history of a registry that
// keeps one. Otherwise the tree is polled, and writes between two polls are one change.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "admin/change/keys.h"
#include "admin/registry.h"

namespace keyview::ctl {

// A range of revisions without, or before, its single changes.
struct revision_jump {
    const char *kind;  // "gap", or "merged": the changes that follow are those of all of it
    const char *what;  // "is forgotten"
    uint64_t since, revision;
};

struct change_sink {
    std::function<void(const revision_jump &jump)> jumped;
    std::function<void(uint64_t since, uint64_t revision, const admin::key_change &change)> changed;
};

class change_source {
  public:
    // from: the revision that was seen last.
    change_source(admin::registry registry, std::string path, uint64_t from)
        : registry_(std::move(registry)), path_(std::move(path)), revision_(from) {}

    // Waits for the next changes, up to a time that wait_ms returns as what is left of it, and
    // reports them. Throws admin::error; the next call goes on where this one ended.
    void next(const std::function<uint32_t()> &wait_ms, const change_sink &sink);

    uint64_t revision() const { return revision_; }  // reported last

  private:
    void follow_history(uint32_t wait_ms, const change_sink &sink);
    void poll(const std::function<uint32_t()> &wait_ms, const change_sink &sink);
    void begin_polling(const change_sink &sink);
    void report_jump(const char *kind, const char *what, uint64_t revision,
                     const change_sink &sink);
    admin::read_keys_result read_tree() const;

    admin::registry registry_;
    std::string path_;
    uint64_t revision_;
    bool polls_ = false, seen_any_ = false;
    admin::read_keys_result seen_;  // where the registry is polled
};

}  // namespace keyview::ctl
