// The history of the tree: who changed what and when. Each store keeps it as keys that begin with
// HISTORY_HEAD, one for each change, which are written in the transaction of the change. Programs of an
// earlier release treat them as keys of somebody else's. What one entry holds is bounded, as is their
// number.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/registry/store.h"

namespace keyview::host {

// One change as the history has it.
struct history_entry {
    uint64_t revision = 0;  // that the tree had with it; not in the stored bytes
    uint64_t place = 0;     // a number of the store's own
    int64_t time_us = 0;    // since 1970
    std::string user, program, host;
    uint64_t process = 0;
    std::vector<tree_change> changes;
    uint64_t left_out = 0;  // further keys that changed, without their values
};

// A number in the key of an entry, so that keys are in the order of their numbers.
inline constexpr size_t HISTORY_DIGITS = 16;
std::string history_digits(uint64_t number);

// How many bytes the history may take; 0 if this process records none. Throws failure::usage if
// KEYVIEW_HISTORY holds no such number.
uint64_t history_limit();

// What a change set does to each key, from the changes of single keys in their order, up to so many
// bytes: beyond them keys are only counted.
class change_recorder {
  public:
    explicit change_recorder(uint64_t most_bytes) : most_(most_bytes) {}

    void note(std::string_view path, std::optional<std::string_view> before,
              std::optional<std::string_view> after);

    // Counts a key that changed from bytes that cannot be read.
    void note_unknown(std::string_view path);

    // The bytes of the entry, made by this process now; "" if nothing changed.
    std::string entry(uint64_t place) const;

  private:
    struct key_values {
        std::optional<std::string> before, after;
    };

    uint64_t most_, used_ = 0, left_out_ = 0;
    bool removes_ = false;  // the change removed a key
    std::map<std::string, key_values, std::less<>> keys_;
};

// False if these are no bytes of an entry.
[[nodiscard]] bool read_entry(std::string_view bytes, history_entry *out);
[[nodiscard]] bool entry_place(std::string_view bytes, uint64_t *place);

// The bytes of an entry and the revision that the tree had with it.
struct numbered_entry {
    uint64_t revision = 0;
    std::string_view bytes;
};

// Several entries as one value; the oldest is first.
std::string sealed_entries(const std::vector<numbered_entry> &entries);

// The entries of such a value, which own no bytes; false if it is none. There is one at least.
[[nodiscard]] bool read_sealed(std::string_view bytes, std::vector<numbered_entry> *out);

}  // namespace keyview::host
