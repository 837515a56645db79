// Text from outside made fit for a line that people and programs read.
#ifndef KEYVIEW_HOST_SUPPORT_ESCAPE_H
#define KEYVIEW_HOST_SUPPORT_ESCAPE_H

#include <string>
#include <string_view>

namespace keyview::host {

// Appends the text with everything escaped that could forge or hide a line or a part of one:
// control characters, line and paragraph separators, bidirectional controls and whatever is not
// UTF-8 become \xNN byte by byte; a backslash is doubled, so that the original can be told.
void append_escaped(std::string *out, std::string_view text);

}  // namespace keyview::host

#endif
