// What a caller controls in a request to the local weather service: the HTTP method, the
// target, the body and the validators. The first byte chooses whether the query and the body
// are sealed with the service's keys, so that the fuzzer also reaches the parameters behind
// the cipher. Every input gives an answer with a known status; the service never stops.
#include <boost/json/parse.hpp>
#include <cstdlib>
#include <string>
#include <string_view>

#include "kp/crypto/base64.h"
#include "kp/service/encryption.h"
#include "weather_protocol.h"

namespace {

// Splits at the first NUL byte, or takes everything.
std::string_view next(std::string_view& rest) {
  const auto end = rest.find('\0');
  const std::string_view part = rest.substr(0, end);
  rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
  return part;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const kp::weather::WeatherProtocol protocol({});
  if (size == 0) return 0;
  const std::uint8_t mode = data[0];
  std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);

  kp::weather::ServiceCall call;
  call.httpMethod = (mode & 1) ? "POST" : "GET";
  const std::string_view method = (mode & 2) ? "/forecast" : "/basicInfo";
  const std::string_view query = next(rest);
  if (mode & 4) {
    // The query as the client seals it.
    const auto sealed = kp::aes256EncryptString(query, protocol.options().queryKey);
    call.target = std::string(method) + "?data=" + kp::urlEncodeQueryParameter(*sealed);
  } else {
    call.target = std::string(method) + "?" + std::string(query);
  }
  const std::string_view body = next(rest);
  if (mode & 8) {
    const std::string key =
        (mode & 2) ? protocol.options().forecastBodyKey : std::string(kp::kClientInfoBodyEncryptionKey);
    const auto sealed = kp::aes256EncryptString(body, key);
    call.body = (mode & 16) ? "data=" + kp::urlEncodeQueryParameter(*sealed) : *sealed;
  } else {
    call.body = std::string(body);
  }
  call.ifNoneMatch = std::string(next(rest));
  call.userAgent = std::string(rest);

  const auto answer = protocol.answer(call);
  switch (answer.status) {
    case 200:
    case 304:
    case 400:
    case 404:
    case 405:
      break;
    default:
      std::abort();
  }
  if (answer.status == 304) {
    if (!answer.body.empty()) std::abort();
    return 0;
  }
  // Every other answer is an envelope that opens: plain JSON, or JSON sealed with the
  // method's response key.
  std::string json = answer.body;
  if (answer.contentType != "application/json") {
    const auto cipher = kp::base64Decode(answer.body);
    const auto plain =
        cipher ? kp::aes256Decrypt(cipher->bytes(), protocol.options().forecastResponseKey) : std::nullopt;
    if (!plain) std::abort();
    json = std::string(plain->view());
  }
  boost::system::error_code error;
  const auto envelope = boost::json::parse(json, error);
  if (error || !envelope.is_object() || !envelope.as_object().contains("success")) std::abort();
  return 0;
}
