// Bytes from the registry, made safe for a terminal and for JSON.
#pragma once

#include <string>
#include <string_view>

namespace keyview::ctl {

// The text as people see it: control characters, bytes that are no UTF-8, line separators and what
// turns the direction of writing come out as "\x1b" or "\u202e", a "\" is doubled. Never more than
// one line.
std::string escaped(std::string_view text);
void append_escaped(std::string_view text, std::string *out);

// An escaped text for a screen that counts columns: characters without a width come escaped, too, and,
// for one that has ASCII only, all others.
std::string screen_text(std::string_view escaped_text, bool ascii);

// A text of a record, "-" for one that is not stored.
std::string text_or_dash(std::string_view text);

// An equivalent JSON text without a byte that escaped() would change, but for line feeds.
std::string json_made_plain(std::string_view json);

// The URL of a registry as it means the same in any folder.
std::string absolute_url(const std::string &url);

// A URL without credentials that it may contain by mistake.
std::string shown_url(const std::string &url);

// Whether a text is a revision, which is a number.
bool is_revision(std::string_view text);

// A text as one word of a shell's command line, which may be shown anywhere: escaped() changes nothing
// of it, but for a line feed at its end.
std::string shell_word(std::string_view text);

}  // namespace keyview::ctl
