// Waiting for the end of a change set.
#include "cluster/half_applied.h"

#include <thread>

#include "cluster/journal.pb.h"

namespace keyview::host {

static constexpr std::chrono::milliseconds PAUSE{10};

std::string half_applied_text(const std::string &marker) {
    journal::Marker state;
    if (!state.ParseFromString(marker)) return "the marker of a change set is damaged";
    return "a change set stopped half-way, after " + std::to_string(state.next()) + " of " +
           std::to_string(state.pieces()) + " pieces, when carried out by " + state.by() +
           ": finish it with 'keyviewctl recover --resume' or undo it with "
           "'keyviewctl recover --undo'";
}

void half_applied_wait::wait(const std::string &marker) {
    steady::time_point now = steady::now();
    if (marker != seen_) {
        seen_ = marker;
        end_ = now + cluster_->calls().settings().answer_wait;
    }
    if (now >= end_) throw host_error(failure::content, half_applied_text(marker));
    std::this_thread::sleep_for(PAUSE);
}

}  // namespace keyview::host
