// The page of a report: one HTML file that needs nothing else. page/ has its text, style and script,
// which the build puts together; the data are a block of JSON in it.
#pragma once

#include <string>

#include "ctl/session.h"

namespace keyview::ctl {

// What the page shows, as JSON without a byte that could end its block or that escaped() would change.
struct page_data {
    std::string json;
    exit_code code = EXIT_DONE;  // the highest one of a database, as of "status"
};
page_data read_page_data(const session &library, const char *what);

// The page. connect: where its script may connect to, in the words of a content policy.
std::string page_of(const std::string &json, const char *connect);

}  // namespace keyview::ctl
