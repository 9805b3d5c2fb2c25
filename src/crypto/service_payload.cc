// The service protocol's sealed URL, form body, raw body and response body.
#include "crypto/service_payload.h"

#include "kp/crypto/base64.h"
#include "kp/crypto/cipher.h"
#include "kp/crypto/percent_encoding.h"

namespace kp::internal {

std::optional<Url> sealedUrl(const Url& url, std::string_view key) {
  if (url.scheme().empty() || url.host().empty()) return url;
  std::string text = url.scheme();
  text += "://";
  if (const auto port = url.port()) {
    // The host name gives way to the literal word "host" when a port is given; servers rely
    // on this form.
    text += "host:";
    text += std::to_string(*port);
  } else {
    text += url.host();
  }
  text += url.path();
  if (const auto& query = url.query(); query && !query->empty()) {
    if (auto decoded = removingPercentEncoding(*query)) {
      if (auto cipher = aes256EncryptString(*decoded, key)) {
        text += "?data=";
        appendUrlEncodedQueryParameter(text, *cipher);
      }
    }
  }
  return Url::parse(text);
}

std::string sealedParameterString(std::string_view parameterString, std::string_view key) {
  if (key.empty() || parameterString.empty()) return std::string(parameterString);
  auto cipher = aes256EncryptString(parameterString, key);
  if (!cipher) return std::string(parameterString);
  std::string out = "data=";
  out.reserve(5 + cipher->size() + cipher->size() / 8);
  appendUrlEncodedQueryParameter(out, *cipher);
  return out;
}

std::optional<Data> sealedData(std::span<const std::uint8_t> data, std::string_view key) {
  auto cipher = aes256Encrypt(data, key);
  if (!cipher) return std::nullopt;
  return base64EncodedData(cipher->bytes(), Base64EncodingOptions::lineLength64Characters);
}

std::optional<Data> openedData(std::span<const std::uint8_t> data, std::string_view key) {
  auto decoded = base64Decode({reinterpret_cast<const char*>(data.data()), data.size()},
                              Base64DecodingOptions::ignoreUnknownCharacters);
  if (!decoded) return std::nullopt;
  return aes256Decrypt(decoded->bytes(), key);
}

}  // namespace kp::internal
