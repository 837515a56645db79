// A database's record, or a list of names, in a JSON file of its own, read and parsed anew each
// time.
#pragma once

#include <memory>
#include <string>

#include "bench/name_list.h"
#include "keyview/if/prsr.h"

namespace keyview::bench {

void write_json(const std::string &file, const prsr_cfg &cfg);
void write_json_list(const std::string &file, char *const *names, uint32_t count);

// With nlohmann::json; for free_record.
prsr_cfg *fetch_nlohmann(const std::string &file);
name_list list_nlohmann(const std::string &file);  // for free_list

// With simdjson's on-demand parser, which keeps its buffers from one fetch to the next.
class simdjson_peer {
  public:
    simdjson_peer();
    simdjson_peer(const simdjson_peer &) = delete;
    simdjson_peer &operator=(const simdjson_peer &) = delete;
    ~simdjson_peer();

    prsr_cfg *fetch(const std::string &file);

  private:
    struct buffers;
    std::unique_ptr<buffers> kept_;
};

}  // namespace keyview::bench
