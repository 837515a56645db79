// The page of a report: one HTML file that needs nothing else. page/ has its text, style and script,
// which the build puts together; the data are a block of JSON in it.
#pragma once

#include <string>

#include "ctl/overview.h"

namespace keyview::ctl {

// What the page shows, as JSON without a byte that could end its block or that escaped() would change.
std::string page_data_of(const overview &cluster, const std::string &registry_url);

// The page. A live one follows the server that it comes from, and may connect to it.
std::string page_of(const std::string &data, bool live);

}  // namespace keyview::ctl
