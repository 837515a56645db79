// Bytes as text of 64 letters, as RFC 4648 has it.
#pragma once

#include <string>
#include <string_view>

namespace keyview::admin {

std::string to_base64(std::string_view bytes);

// False if to_base64 would never give this text.
[[nodiscard]] bool from_base64(std::string_view text, std::string *bytes);

}  // namespace keyview::admin
