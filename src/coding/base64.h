// Standard Base64 (RFC 4648, with padding) for data inside JSON and the command-line tool.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "kp/platform/data.h"

namespace kp::coding_detail {

std::string base64Encode(std::span<const std::uint8_t> bytes);
// Nothing for text that is not Base64 (whitespace is skipped).
std::optional<Data> base64Decode(std::string_view text);

}  // namespace kp::coding_detail
