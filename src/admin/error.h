// How the administration fails: one exception, with the kind of failure, a text for a person and,
// where content is invalid, what is wrong in it.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "host/if/keyview_host.h"

namespace keyview::admin {

// One thing that is wrong.
struct problem {
    std::string place;   // in a document a JSON pointer, or line and column; in the tree a key path
    std::string reason;  // a sentence without its subject, such as "must be a string"
};

class error : public std::runtime_error {
  public:
    error(int32_t failure, const std::string &text, std::vector<problem> found = {},
          uint64_t more = 0)
        : std::runtime_error(text),
          kind(failure),
          problems(std::move(found)),
          more_problems(more) {}

    int32_t kind;                   // KEYVIEW_FAILURE_*
    std::vector<problem> problems;  // of KEYVIEW_FAILURE_CONTENT: the first ones, in their order
    uint64_t more_problems;         // how many more there are
};

// The problems found in a document or in the tree, in their order, up to a limit; beyond it they
// are only counted.
class problem_list {
  public:
    static constexpr size_t LIMIT = 20, NO_LIMIT = SIZE_MAX;

    explicit problem_list(size_t limit = LIMIT) : limit_(limit) {}

    void add(std::string place, std::string reason) {
        if (kept_.size() < limit_) {
            kept_.push_back({std::move(place), std::move(reason)});
        } else {
            ++more_;
        }
    }

    void add_all(const problem_list &others) {
        for (const problem &one : others.kept_)
            add(one.place, one.reason);
        more_ += others.more_;
    }

    bool empty() const { return kept_.empty(); }
    const std::vector<problem> &kept() const { return kept_; }
    uint64_t more() const { return more_; }

    // Throws the problems, if there are any, as the failure of this text.
    void throw_if_any(const std::string &text) const {
        if (!kept_.empty()) throw error(KEYVIEW_FAILURE_CONTENT, text, kept_, more_);
    }

  private:
    size_t limit_;
    std::vector<problem> kept_;
    uint64_t more_ = 0;
};

}  // namespace keyview::admin
