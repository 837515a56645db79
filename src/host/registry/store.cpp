// The checks of all stores, with common texts.
#include "host/registry/store.h"

#include <utility>

#include "host/registry/snapshot.h"
#include "host/support/error.h"
#include "host/support/fork.h"
#include "model/roots.h"

namespace keyview::host {

void check_value(std::string_view path, std::string_view value) {
    if (is_history(path)) {
        throw host_error(failure::usage, "no program sets " + std::string(path) +
                                             ": the history of the registry is kept there");
    }
    if (value.size() <= MAX_VALUE_SIZE) return;
    throw host_error(failure::usage, "the value of " + std::string(path) + " has " +
                                         std::to_string(value.size()) +
                                         " bytes: 1048576 is the most a key can hold");
}

void check_changes(const change_source &changes) {
    for (size_t n = 0; n < changes.size; ++n) {
        const change_view one = changes.at(n);
        const char *fault = path_fault(one.path);
        if (fault != nullptr && one.what == change::kind::put) {
            throw host_error(failure::usage,
                             "no key can be '" + std::string(one.path) + "': " + fault);
        }
        if (one.what == change::kind::put) check_value(one.path, one.value);
    }
}

change_counts store::apply(const std::vector<change> &changes, const apply_terms &terms) {
    auto at = [&](size_t n) -> change_view {
        return {changes[n].what, changes[n].path, changes[n].value};
    };
    return apply({changes.size(), at}, terms);
}

host_error lock_lost(std::string_view path) {
    std::string lost = "the cluster lock was lost";
    if (path.empty()) return {failure::lock, lost + "; nothing was written"};
    return {failure::lock, "cannot set " + std::string(path) + ": " + lost};
}

host_error tree_changed(uint64_t revision, uint64_t wanted) {
    return {failure::changed, "the registry changed meanwhile: its revision is " +
                                  std::to_string(revision) + ", not " + std::to_string(wanted) +
                                  "; nothing was written"};
}

bool moment::scan(std::string_view path, reach which, const row_sink &keys,
                  const damaged_key_sink &) {
    snapshot all(path, which);
    std::string value;
    bool alone = which == reach::key_alone;
    if (alone ? !read(path, &value) : !copy(path, which, &all)) return false;
    if (alone) keys(path, value);
    for (uint32_t key = 0; key < all.size(); ++key)
        keys(all.path(key), all.value(key));
    return true;
}

std::optional<change_batch> store::changes_since(std::string_view path, uint64_t since,
                                                 std::chrono::milliseconds wait) {
    (void)path;
    (void)since;
    (void)wait;
    return std::nullopt;
}

bool store::finish_apply(finish how) {
    (void)how;
    return false;
}

std::vector<std::shared_ptr<known_copies>> store::take_copies() {
    std::lock_guard guard(fork_mutex());
    return std::exchange(of_closed_, {});
}

void store::keep_copies(std::vector<std::shared_ptr<known_copies>> of_closed) {
    std::lock_guard guard(fork_mutex());
    of_closed_.swap(of_closed);
}

}  // namespace keyview::host
