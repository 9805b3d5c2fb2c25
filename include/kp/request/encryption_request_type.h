// kp::EncryptionRequestType: a request that carries the keys of the service protocol. The
// handlers of service requests build the wire request with the query and body keys and open
// the answer with the response key; an absent or empty key means that part travels in plain.
//
// Thread safety: not locked; set the keys before execution.
//
// Example:
//   class SealedRequest : public kp::HttpRequest, public kp::EncryptionRequestType { ... };
//   request->requestQueryEncryptionKey = std::string(kp::kDefaultQueryStringEncryptionKey);
#pragma once

#include <optional>
#include <string>

#include "kp/platform/export.h"

namespace kp {

class KP_EXPORT EncryptionRequestType {
 public:
  virtual ~EncryptionRequestType() = default;

  // Encrypts the query with this key.
  std::optional<std::string> requestQueryEncryptionKey;
  // Encrypts the body with this key.
  std::optional<std::string> requestBodyEncryptionKey;
  // Decrypts the answer with this key.
  std::optional<std::string> responseBodyDecryptionKey;
};

}  // namespace kp
