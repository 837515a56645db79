// The problems found in a document or in the tree, in their order, up to a limit; beyond it they
// are only counted.
#ifndef KEYVIEW_ADMIN_PROBLEMS_H
#define KEYVIEW_ADMIN_PROBLEMS_H

#include <string>
#include <utility>
#include <vector>

#include "admin/admin.h"

namespace keyview::admin {

class problem_list {
  public:
    static constexpr size_t LIMIT = 20;

    void add(std::string place, std::string reason) {
        if (kept_.size() < LIMIT) {
            kept_.push_back({std::move(place), std::move(reason)});
        } else {
            ++more_;
        }
    }

    bool empty() const { return kept_.empty(); }

    // Moves the problems into a result; they are its failure.
    void report(std::string text, result *out) {
        out->code = status::content;
        out->text = std::move(text);
        out->problems = std::move(kept_);
        out->more_problems = more_;
    }

  private:
    std::vector<problem> kept_;
    uint64_t more_ = 0;
};

}  // namespace keyview::admin

#endif
