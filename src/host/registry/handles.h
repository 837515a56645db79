// Handles that can be checked: a token contains a slot and the use count of the slot. So a closed
// handle, a handle of another table and any other value are recognized without dereferencing them.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "host/support/fork.h"

namespace keyview::host {

inline void *handle_of(uint64_t token) noexcept {
    return reinterpret_cast<void *>(token);  // NOLINT(performance-no-int-to-ptr): never followed
}

// The live handles of one kind in the process. T has a member token. The kind keeps the handles of
// two tables distinct. A table is all zero at first, so the library's file has no copy of it.
template <typename T, uint8_t KIND>
class handle_table {
  public:
    // Null if there are too many.
    void *add(std::unique_ptr<T> object) {
        std::lock_guard guard(fork_mutex());
        for (uint32_t tried = 0; tried < SLOTS; ++tried) {
            uint32_t slot = ++latest_ % SLOTS;
            if (slots_[slot].load(std::memory_order_relaxed) != nullptr) continue;
            object->token = uint64_t{KIND} << 56 | ++uses_ << SLOT_BITS | slot;
            void *handle = handle_of(object->token);
            slots_[slot].store(object.release(), std::memory_order_release);
            return handle;
        }
        return nullptr;
    }

    // Null unless it is a live handle.
    T *find(const void *handle) const {
        auto token = reinterpret_cast<uint64_t>(handle);
        T *object = slots_[token % SLOTS].load(std::memory_order_acquire);
        return object != nullptr && object->token == token ? object : nullptr;
    }

    std::unique_ptr<T> remove(const void *handle) {
        std::lock_guard guard(fork_mutex());
        T *object = find(handle);
        if (object != nullptr) slots_[object->token % SLOTS].store(nullptr);
        return std::unique_ptr<T>(object);
    }

  private:
    static constexpr uint32_t SLOT_BITS = 14;
    static constexpr uint32_t SLOTS = 1U << SLOT_BITS;

    std::array<std::atomic<T *>, SLOTS> slots_ = {};
    uint64_t uses_ = 0;
    uint32_t latest_ = 0;
};

}  // namespace keyview::host
