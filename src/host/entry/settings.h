// Which registry this process uses.
#ifndef KEYVIEW_HOST_ENTRY_SETTINGS_H
#define KEYVIEW_HOST_ENTRY_SETTINGS_H

#include <string>

namespace keyview::host {

// The registry's URL: the program's choice, else KEYVIEW_REGISTRY. Throws failure::usage if neither
// is set.
std::string registry_url();

// Sets the program's choice; an empty URL returns to the environment.
void choose_registry(const std::string &url);

}  // namespace keyview::host

#endif
