// Reading Base64 text inside JSON and from the command-line tool. Writing uses the shared
// kp::base64Encode; reading is more lenient than kp::base64Decode on purpose, because JSON
// producers often leave out the padding and break long lines.
#pragma once

#include <optional>
#include <string_view>

#include "kp/platform/data.h"

namespace kp::coding_detail {

// Nothing for text that is not Base64; whitespace is skipped and padding may be missing.
std::optional<Data> base64Decode(std::string_view text);

}  // namespace kp::coding_detail
