// Escapes text from outside for a line of output.
#pragma once

#include <string>
#include <string_view>

namespace keyview::host {

// Appends the text with everything escaped that could forge or hide a line or a part of one:
// control characters, line and paragraph separators, bidirectional controls and bytes that are
// not UTF-8 become \xNN; a backslash is doubled, so that the original can be restored.
void append_escaped(std::string *out, std::string_view text);

}  // namespace keyview::host
