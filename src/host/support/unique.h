// Bases of what exists once: an object that is neither copied nor moved.
#pragma once

namespace keyview::host {

struct unique {
    unique() = default;
    unique(const unique &) = delete;
    unique &operator=(const unique &) = delete;
};

// A class that others implement.
struct abstract_base : unique {
    virtual ~abstract_base() = default;
};

}  // namespace keyview::host
