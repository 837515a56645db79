// A context of the library over the chosen registry, for as long as a command needs it.
#ifndef KEYVIEW_CTL_SESSION_H
#define KEYVIEW_CTL_SESSION_H

#include <cstdint>
#include <functional>
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

// The whole record of a database, given back at the end of the scope.
class fetched_record {
  public:
    fetched_record(const session &library, const std::string &dbname);
    fetched_record(const fetched_record &) = delete;
    fetched_record &operator=(const fetched_record &) = delete;
    ~fetched_record();

    int32_t rc;
    prsr_cfg *record = nullptr;

  private:
    const session &library_;
};

// Several operations answer a missing key as they answer a failing registry. ask is called then and
// asks one that tells: PRSR_ERR_NO_DATABASE if so. Gives the code that says more.
template <typename question>
int32_t tell_missing(int32_t rc, const question &ask) {
    bool missing = rc == PRSR_ERR_REGISTRY && ask() == PRSR_ERR_NO_DATABASE;
    return missing ? PRSR_ERR_NO_DATABASE : rc;
}

// Reads a name through an operation that fills a buffer, which grows until the name fits.
using name_reader = std::function<int32_t(uint32_t bufsize, char *buf)>;
int32_t read_name(const name_reader &read, std::string *name);

}  // namespace keyview::ctl

#endif
