// What a server controls in a response: header fields (cookies, dates, the derived headers of
// the parsed response), and bodies read as JSON or Base64 or decrypted as service payloads.
// Any input gives a value or a refusal; nothing else.
#include <cstdlib>
#include <string_view>

#include "kp/coding/json.h"
#include "kp/crypto/base64.h"
#include "kp/foundation/json.h"
#include "kp/platform/http_date.h"
#include "kp/request/http_cookie.h"
#include "kp/request/http_response.h"
#include "kp/service/encryption.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  static const kp::Url url = *kp::Url::parse("https://api.example.com/v3/forecast/hourly?lat=1");

  // The input, split at newlines, as header values; the first line chooses the names' case.
  kp::HttpResponse response;
  response.statusCode = 200;
  const std::string_view names[] = {"Set-Cookie", "Last-Modified", "Expires", "Date", "ETag", "Content-Type"};
  std::size_t start = 0;
  for (std::size_t i = 0; start <= text.size() && i < 12; ++i) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    std::string name(names[i % std::size(names)]);
    if (i >= std::size(names)) name += "-extra";
    response.headers[name] = std::string(text.substr(start, end - start));
    start = end + 1;
  }
  for (const auto& cookie : kp::HttpCookie::cookies(response.headers, url)) {
    if (cookie.name().empty() || cookie.domain().empty() || cookie.path().empty()) std::abort();
  }
  (void)response.lastModifiedDate();
  (void)response.expiresDate();
  (void)response.sentDate();
  (void)kp::parseHttpDate(text);

  const kp::Data body(data, size);
  (void)kp::objectFromJSONData(body);
  if (auto strict = kp::base64Decode(text)) {
    // Strictly valid text is as long as its bytes' encoding, and that encoding reads back.
    const std::string again = kp::base64Encode(strict->bytes());
    if (again.size() != text.size() || kp::base64Decode(again) != strict) std::abort();
  }
  (void)kp::base64Decode(text, kp::Base64DecodingOptions::ignoreUnknownCharacters);

  // The body as a service payload: plain JSON, an error page, or damaged ciphertext.
  using Helper = kp::TarvixServiceEncryptionHelper;
  static const std::string kKey = "Zt3Lm8QxW5rN2kPv9BcH7jDs4YfG1uEa";
  (void)Helper::decryptRawData(body.bytes(), kKey);
  (void)Helper::decryptData(body.bytes(), kKey);
  // Real ciphertext of the input, whole, then cut short and with one byte changed at a place
  // the input chooses (in the Base64 text, so padding, alphabet and block boundaries all get
  // hit). The whole one must read back; the damaged ones may give anything but a stop.
  auto sealed = Helper::encryptData(body.bytes(), kKey);
  if (!sealed) std::abort();
  if (Helper::decryptRawData(sealed->bytes(), kKey) != body) std::abort();
  const std::size_t at = size == 0 ? 0 : (std::size_t{data[0]} * 257 + size) % sealed->size();
  kp::Data damaged = *sealed;
  damaged[at] = static_cast<std::uint8_t>(damaged[at] ^ (size == 0 ? 1 : data[size - 1] | 1));
  (void)Helper::decryptRawData(damaged.bytes(), kKey);
  (void)Helper::decryptData(damaged.bytes(), kKey);
  damaged = *sealed;
  damaged.resize(at);
  (void)Helper::decryptRawData(damaged.bytes(), kKey);
  (void)Helper::decryptData(damaged.bytes(), kKey);
  (void)Helper::decryptData(sealed->bytes(), "a rotated key");
  return 0;
}
