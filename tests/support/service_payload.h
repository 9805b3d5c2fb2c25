// Test helper: opens an encoded "data" value of the service protocol (percent-decoded,
// Base64-decoded, decrypted) so that tests can check what a request carries.
#pragma once

#include <string>
#include <string_view>

namespace kp::test {

// The plaintext, or "<unreadable>" when any step fails.
[[nodiscard]] std::string openEncodedValue(std::string_view encoded, std::string_view key);

}  // namespace kp::test
