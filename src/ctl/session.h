// A context of the library over the chosen registry, for as long as a command needs it.
#ifndef KEYVIEW_CTL_SESSION_H
#define KEYVIEW_CTL_SESSION_H

#include <cstdint>
#include <string>

#include "ctl/command.h"
#include "keyview/if/prsr.h"

namespace keyview::ctl {

class session {
  public:
    explicit session(const tool &shared);
    session(const session &) = delete;
    session &operator=(const session &) = delete;
    ~session();

    // Throws the tool_error of a code other than PRSR_SUCCESS. what: "show database Sales".
    void check(int32_t rc, const std::string &what) const;

    void *status = nullptr;
    prsr_ctx *ctx = nullptr;

  private:
    std::string registry_;
    uint64_t status_block_[28] = {};  // 224 bytes, what the lock service expects
};

}  // namespace keyview::ctl

#endif
