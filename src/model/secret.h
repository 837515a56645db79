// Texts that are overwritten when they are no longer needed: neither a core nor a later block of
// memory contains them.
#pragma once

#include <string.h>

#include <string>

namespace model {

inline void clear_secret(std::string *text) {
    text->resize(text->capacity());  // what it held before it was cut short, too
    explicit_bzero(text->data(), text->size());
    text->clear();
}

// Clears a text at the end of the scope.
class cleared_at_end {
  public:
    explicit cleared_at_end(std::string *text) : text_(text) {}
    cleared_at_end(const cleared_at_end &) = delete;
    cleared_at_end &operator=(const cleared_at_end &) = delete;
    ~cleared_at_end() { clear_secret(text_); }

  private:
    std::string *text_;
};

}  // namespace model
