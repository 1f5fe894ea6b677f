// Hexadecimal text for byte strings: the $bytes tag and corvanectl's encode/decode.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "channel/value.h"

namespace corvane::json {

// Lower-case, two digits a byte, no separators.
void AppendHex(std::span<const uint8_t> bytes, std::string& out);
std::string HexEncode(std::span<const uint8_t> bytes);

// Accepts either case. With `skip_whitespace`, ASCII whitespace anywhere is ignored (for text
// wrapped by tools such as `xxd -p`). An odd number of digits or any other character is an
// error, described in `*error`.
std::optional<channel::Bytes> HexDecode(std::string_view text, bool skip_whitespace,
                                        std::string* error);

}  // namespace corvane::json
