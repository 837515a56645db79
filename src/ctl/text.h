// Bytes from the registry, made safe for a terminal and for JSON.
#ifndef KEYVIEW_CTL_TEXT_H
#define KEYVIEW_CTL_TEXT_H

#include <string>
#include <string_view>

namespace keyview::ctl {

bool valid_utf8(std::string_view text);

// The text as people see it: control characters, bytes that are no UTF-8, line separators and what
// turns the direction of writing come out as "\x1b" or "\u202e", a "\" is doubled. Never more than
// one line.
std::string escaped(std::string_view text);

std::string base64(std::string_view bytes);

}  // namespace keyview::ctl

#endif
