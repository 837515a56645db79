// The manual pages, made from the tables behind the commands.
#pragma once

#include <string>

namespace CLI {
class App;
}

namespace keyview::ctl {

// The roff of "keyviewctl", "keyview-document" or "keyview-keys"; "" for any other page.
std::string manual_page(const CLI::App &app, const std::string &page);

}  // namespace keyview::ctl
