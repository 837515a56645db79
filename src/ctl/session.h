// A context of the library over the chosen registry, for as long as a command needs it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "ctl/command.h"
#include "ctl/output.h"
#include "keyview/if/prsr.h"

namespace keyview::ctl {

class session {
  public:
    explicit session(const tool &tool_in_use);
    session(const session &) = delete;
    session &operator=(const session &) = delete;
    ~session();

    // The tool_error of a code other than PRSR_SUCCESS; check throws it. what: "show database Sales".
    tool_error failure(int32_t rc, const std::string &what) const;
    void check(int32_t rc, const std::string &what) const {
        if (rc != PRSR_SUCCESS) throw failure(rc, what);
    }

    // The same for the record of a key, whose damage is a failure, too.
    void check_record(int32_t rc, const std::string &what, const std::string &key) const;

    // Calls an operation with the context before its arguments; a std::string as its C string.
    template <typename operation, typename... types>
    int32_t call(operation run, const types &...arguments) const {
        return run(status_, ctx_, passed(arguments)...);
    }

    // Reads a name through an operation that fills a buffer, which grows until the name fits.
    template <typename operation, typename... types>
    int32_t read_name(std::string *name, operation run, const types &...arguments) const {
        return fill(name,
                    [&](uint32_t size, char *buf) { return call(run, arguments..., size, buf); });
    }

    prsr_ctx *ctx() const { return ctx_; }

    const tool &shared;

  private:
    static const char *passed(const std::string &text) { return text.c_str(); }
    template <typename type>
    static type passed(type argument) {
        return argument;
    }
    static int32_t fill(std::string *name,
                        const std::function<int32_t(uint32_t size, char *buf)> &read);

    uint64_t status_block_[28] = {};  // 224 bytes, what the lock service expects
    void *status_ = status_block_;
    prsr_ctx *ctx_ = nullptr;
};

// A record that an operation of the library allocates, released at the end of the scope.
template <typename type, auto FETCH, auto RELEASE>
struct fetched {
    template <typename... types>
    explicit fetched(const session &owner, const types &...names)
        : library(owner), rc(owner.call(FETCH, names..., &record)) {}
    fetched(const fetched &) = delete;
    fetched &operator=(const fetched &) = delete;
    ~fetched() { (void)library.call(RELEASE, record); }  // a null record is ignored

    const session &library;
    type *record = nullptr;
    int32_t rc;
};
using fetched_database = fetched<prsr_cfg, prsr_fetch_db_config, prsr_release_db_config>;
using fetched_stg = fetched<prsr_stg_cfg, prsr_fetch_stg_config, prsr_release_stg_config>;
using fetched_nodeapps =
    fetched<prsr_nodeapps_cfg, prsr_fetch_nodeapps_config, prsr_release_nodeapps_config>;

// A command that uses the library, as a row of a table has it.
template <exit_code (*run)(const session &library, const given_names &names)>
exit_code with_library(const tool &shared, const given_names &names) {
    return run(session(shared), names);
}

// The registered names of all databases.
view_list database_names(const session &library, const std::string &what);

// Several operations report a missing key as they report a failing registry. probe then calls one
// that distinguishes: PRSR_ERR_NO_DATABASE if the key is missing. Returns the more precise code.
template <typename call>
int32_t refined(int32_t rc, const call &probe) {
    bool missing = rc == PRSR_ERR_REGISTRY && probe() == PRSR_ERR_NO_DATABASE;
    return missing ? PRSR_ERR_NO_DATABASE : rc;
}

}  // namespace keyview::ctl
