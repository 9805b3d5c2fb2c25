// The service layer's face of the payload cipher: the helper's operations call down to the
// crypto layer, and decryptData() reads the opened body as JSON, or the body itself when it
// does not open.
#include "kp/service/encryption.h"

#include "crypto/service_payload.h"

namespace kp {
namespace {

// A top-level JSON object or array (no bare scalars), or nothing.
std::optional<JsonValue> parseJsonContainer(std::string_view text) {
  auto value = JsonValue::parse(text);
  if (!value || (value->type() != JsonValue::Type::object && value->type() != JsonValue::Type::array)) {
    return std::nullopt;
  }
  return value;
}

}  // namespace

std::optional<Url> TarvixServiceEncryptionHelper::encrypt(const Url& url, std::string_view key) {
  return internal::sealedUrl(url, key);
}

std::string TarvixServiceEncryptionHelper::encryptParameterString(std::string_view parameterString,
                                                                  std::string_view key) {
  return internal::sealedParameterString(parameterString, key);
}

std::optional<Data> TarvixServiceEncryptionHelper::encryptData(std::span<const std::uint8_t> data,
                                                               std::string_view key) {
  return internal::sealedData(data, key);
}

std::optional<Data> TarvixServiceEncryptionHelper::decryptRawData(std::span<const std::uint8_t> data,
                                                                  std::string_view key) {
  return internal::openedData(data, key);
}

std::optional<JsonValue> TarvixServiceEncryptionHelper::decryptData(std::span<const std::uint8_t> data,
                                                                    std::string_view key) {
  if (auto plain = internal::openedData(data, key)) return parseJsonContainer(plain->view());
  // Not Base64 or not decryptable: accept an answer sent as plain JSON.
  return parseJsonContainer({reinterpret_cast<const char*>(data.data()), data.size()});
}

}  // namespace kp
