// The keys of the service protocol: the three compiled into the client, and
// kp::TarvixWebServiceEncryptionDetails, the keys one web service uses for the query, the
// request body and the response body.
//
// A facade copies the keys into each request it makes, or, with skipEncryptionAndDecryption,
// none of them and the query parameter "skipcrypt=1" instead, so that everything travels in
// plain. An absent or empty key means that part travels in plain.
//
// Thread safety: a plain value.
//
// Example:
//   kp::TarvixWebServiceEncryptionDetails keys;     // the default query key, nothing else
//   keys.responseDecryptionKey = std::string(kp::kClientInfoResponseDecryptionKey);
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "kp/platform/export.h"

namespace kp {

// Encrypts the query of every web service unless a facade sets another key.
inline constexpr std::string_view kDefaultQueryStringEncryptionKey = "Qw7rT2mZx9LpB4nVc8KdS1hYf6GjU3aE";
// The body and response keys of the client-info service ("basicInfo").
inline constexpr std::string_view kClientInfoBodyEncryptionKey = "Hn4Xk9PzR2wLq7TbM5vC8dJs1YgF6uAe";
// The key the client-info service seals its answers with.
inline constexpr std::string_view kClientInfoResponseDecryptionKey = "Zt3Lm8QxW5rN2kPv9BcH7jDs4YfG1uEa";

// The keys a service's calls travel under.
struct KP_EXPORT TarvixWebServiceEncryptionDetails {
  // Copied into requests as requestQueryEncryptionKey.
  std::optional<std::string> queryStringEncryptionKey = std::string(kDefaultQueryStringEncryptionKey);
  // Copied as requestBodyEncryptionKey.
  std::optional<std::string> bodyEncryptionKey;
  // Copied as responseBodyDecryptionKey.
  std::optional<std::string> responseDecryptionKey;
  // No key is copied, and "skipcrypt=1" asks the server to answer in plain.
  bool skipEncryptionAndDecryption = false;

  // The same keys.
  friend bool operator==(const TarvixWebServiceEncryptionDetails&, const TarvixWebServiceEncryptionDetails&) = default;
};

}  // namespace kp
