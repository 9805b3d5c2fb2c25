#include "support/service_payload.h"

#include "kp/service/encryption.h"

namespace kp::test {

std::string openEncodedValue(std::string_view encoded, std::string_view key) {
  std::string base64;
  for (std::size_t i = 0; i < encoded.size(); ++i) {
    if (encoded[i] == '%') {
      base64.push_back(static_cast<char>(std::stoi(std::string(encoded.substr(i + 1, 2)), nullptr, 16)));
      i += 2;
    } else {
      base64.push_back(encoded[i]);
    }
  }
  auto cipher = base64Decode(base64);
  if (!cipher) return "<unreadable>";
  auto plain = aes256Decrypt(cipher->bytes(), key);
  return plain ? plain->toString() : "<unreadable>";
}

}  // namespace kp::test
