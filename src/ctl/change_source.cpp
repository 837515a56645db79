// See change_source.h.
#include "ctl/change_source.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace keyview::ctl {

static constexpr uint32_t POLL_EVERY_MS = 50;

void change_source::next(const std::function<uint32_t()> &wait_ms, const change_sink &sink) {
    if (!polls_) follow_history(wait_ms(), sink);
    if (polls_) poll(wait_ms, sink);
}

// The registry reports at once if it keeps no history.
void change_source::follow_history(uint32_t wait_ms, const change_sink &sink) {
    std::optional<admin::change_batch> batch;
    try {
        batch = registry_.changes_since(path_, revision_, wait_ms);
    } catch (const admin::error &failed) {
        if (failed.kind != KEYVIEW_FAILURE_CHANGED) throw;
        return report_jump("gap", "is forgotten", registry_.revision(), sink);
    }
    polls_ = !batch;
    if (polls_) return;
    for (const admin::noted_change &one : batch->changes)
        sink.changed(revision_, one.revision, one.change);
    revision_ = batch->up_to;
}

void change_source::poll(const std::function<uint32_t()> &wait_ms, const change_sink &sink) {
    if (!seen_any_) begin_polling(sink);
    for (uint32_t left = wait_ms(); left > 0; left = wait_ms()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(std::min(left, POLL_EVERY_MS)));
        if (registry_.revision() == revision_) continue;
        admin::read_keys_result now = read_tree();
        const uint64_t before = revision_;
        if (now.revision > before + 1)
            report_jump("merged", "is reported as one change", now.revision, sink);
        for (const admin::key_change &change : admin::differences(seen_.keys, now.keys))
            sink.changed(before, now.revision, change);
        revision_ = now.revision;
        seen_ = std::move(now);
        return;
    }
}

void change_source::begin_polling(const change_sink &sink) {
    seen_ = read_tree();
    seen_any_ = true;
    if (seen_.revision != revision_) report_jump("gap", "is not reported", seen_.revision, sink);
}

// A key that does not exist yet has no keys below it either.
admin::read_keys_result change_source::read_tree() const {
    admin::read_keys_result found;
    found.revision = registry_.read({{path_, reach::all_below}}, &found.keys);
    return found;
}

// Continues from the later revision.
void change_source::report_jump(const char *kind, const char *what, uint64_t revision,
                                const change_sink &sink) {
    sink.jumped({kind, what, revision_, revision});
    revision_ = revision;
}

}  // namespace keyview::ctl
