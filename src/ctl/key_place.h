// Whether a key may be created where its path puts it.
#pragma once

#include <string>
#include <vector>

namespace keyview::ctl {

// The keys that must be there so that a key can be set: the key itself if it is a record's own, unless
// new records are wanted; else the record that it belongs to. Throws the tool_error of a path that no
// reader would find, unless the registry has that key.
std::vector<std::string> keys_needed(const std::string &path, bool creates);

}  // namespace keyview::ctl
