// What the server answers, made ready each time that the cluster is read: a request waits for nothing.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "ctl/output.h"
#include "ctl/overview.h"

namespace keyview::ctl {

struct answer {
    unsigned status = 200;
    const char *type = nullptr;
    std::shared_ptr<const std::string> body = nullptr;
    std::string etag = {};  // "" for what is never the same twice
};

answer answer_of(const char *type, std::string body, unsigned status = 200);

// The document of an error, with the status that its code means.
answer error_answer(const tool_error &error);
answer error_answer(unsigned status, exit_code code, const std::string &why);

constexpr const char *JSON = "application/json";

// By the path of the request.
using answer_map = std::map<std::string, answer>;
answer_map answers_of(const overview &cluster, const entry_overview &entries,
                      const std::string &registry_url);

// The answer to a path; an unknown one is an error, too.
answer find_answer(const answer_map &answers, const std::string &path);

}  // namespace keyview::ctl
