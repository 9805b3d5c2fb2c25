// The local weather service's protocol: read the request as the client wrote it, run the
// method, seal the envelope.
#include "weather_protocol.h"

#include <boost/json/object.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <charconv>
#include <cmath>
#include <span>
#include <string_view>
#include <utility>
#include <variant>

#include "forecast.h"
#include "kp/crypto/base64.h"
#include "kp/foundation/text.h"
#include "kp/service/encryption.h"
#include "kp/service/tarvix_service_content_info.h"
#include "kp/service/tarvix_web_service_parameters.h"
#include "weather_icons.h"

namespace kp::weather {
namespace {

using Parameters = std::vector<std::pair<std::string, std::string>>;

// A failure to report in the failure envelope, with the HTTP status it is sent with.
struct Refusal {
  int httpStatus;
  int code;
  std::string message;
};

// What a method produced: a payload with its freshness, or a refusal.
struct Content {
  boost::json::value data;
  std::int64_t formatVersion = 1;
  std::int64_t maxAge = 0;
  std::int64_t created = 0;
};

struct Method {
  std::string_view name;
  // Keys of the body and of the answer; empty means plain.
  std::string_view bodyKey;
  std::string_view responseKey;
};

std::span<const std::uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Percent escapes decoded; a broken escape stays as it was, as most servers keep it. A plus
// sign stays a plus sign: clients of this protocol escape it, and Base64 text is full of them.
std::string percentDecoded(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      const int hi = hexDigit(text[i + 1]);
      const int lo = hexDigit(text[i + 2]);
      if (hi >= 0 && lo >= 0) {
        out.push_back(static_cast<char>(hi * 16 + lo));
        i += 2;
        continue;
      }
    }
    out.push_back(text[i]);
  }
  return out;
}

// "a=1&b=2" into pairs, in order; a pair without "=" has an empty value.
void appendParameters(Parameters& out, std::string_view text, bool decode) {
  while (!text.empty()) {
    const std::size_t amp = text.find('&');
    const std::string_view pair = text.substr(0, amp);
    text = amp == std::string_view::npos ? std::string_view() : text.substr(amp + 1);
    if (pair.empty()) continue;
    const std::size_t eq = pair.find('=');
    std::string_view name = pair.substr(0, eq);
    std::string_view value = eq == std::string_view::npos ? std::string_view() : pair.substr(eq + 1);
    if (decode) {
      out.emplace_back(percentDecoded(name), percentDecoded(value));
    } else {
      out.emplace_back(name, value);
    }
  }
}

const std::string* find(const Parameters& parameters, std::string_view name) {
  for (const auto& [key, value] : parameters) {
    if (key == name) return &value;
  }
  return nullptr;
}

// Base64 (unknown characters skipped) of ciphertext under `key`: the plaintext, or nothing.
std::optional<std::string> openSealed(std::string_view base64, std::string_view key) {
  const auto cipher = base64Decode(base64, Base64DecodingOptions::ignoreUnknownCharacters);
  if (!cipher || cipher->empty()) return std::nullopt;
  const auto plain = aes256Decrypt(cipher->bytes(), key);
  if (!plain) return std::nullopt;
  return std::string(plain->view());
}

// Text from the request fit to be quoted in an answer: JSON text must be UTF-8, and an
// echo has no reason to be long.
std::string quotable(std::string_view text) {
  constexpr std::size_t kLimit = 64;
  std::string out;
  if (isValidUtf8(text)) {
    out = text.substr(0, kLimit);
    while (!isValidUtf8(out)) out.pop_back();  // a character cut at the limit
  } else {
    for (char c : text.substr(0, kLimit)) out.push_back(static_cast<unsigned char>(c) < 0x80 ? c : '?');
  }
  if (text.size() > kLimit) out += "...";
  return out;
}

// Decrypted text from a wrong key passes the padding check now and then; real parameter text
// is UTF-8 without control characters.
bool looksLikeText(std::string_view text) {
  for (char c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return false;
  }
  return isValidUtf8(text);
}

std::string numberText(double value) {
  if (std::trunc(value) == value && std::fabs(value) < 1e15) return std::to_string(static_cast<std::int64_t>(value));
  return shortestDecimalText(value);
}

// Scalar members of a JSON object body as parameters.
std::optional<Refusal> appendJsonMembers(Parameters& out, std::string_view text) {
  boost::system::error_code error;
  const boost::json::value body = boost::json::parse(text, error);
  if (error || !body.is_object()) return Refusal{400, 400, "The request body is not a JSON object."};
  for (const auto& member : body.get_object()) {
    const auto& value = member.value();
    std::string name(member.key());
    if (value.is_string()) {
      out.emplace_back(std::move(name), std::string(value.get_string()));
    } else if (value.is_number() && std::isfinite(value.to_number<double>())) {
      // A number beyond a double's range (1e400 reads as infinity) is skipped, as null is.
      out.emplace_back(std::move(name), numberText(value.to_number<double>()));
    } else if (value.is_bool()) {
      out.emplace_back(std::move(name), value.get_bool() ? "true" : "false");
    }
  }
  return std::nullopt;
}

std::optional<Refusal> readBody(Parameters& out, std::string_view body, std::string_view key, bool plain) {
  if (body.empty()) return std::nullopt;
  const Refusal unreadable{400, 400, "The request body could not be decrypted."};
  if (plain || key.empty()) {
    if (body.front() == '{') return appendJsonMembers(out, body);
    appendParameters(out, body, true);
    return std::nullopt;
  }
  if (body.starts_with("data=")) {
    // A form: the parameter string was URL-encoded before it was encrypted.
    const auto text = openSealed(percentDecoded(body.substr(5)), key);
    if (!text || !looksLikeText(*text)) return unreadable;
    appendParameters(out, *text, true);
    return std::nullopt;
  }
  const auto text = openSealed(body, key);
  if (!text) return unreadable;
  if (text->empty()) return std::nullopt;
  return appendJsonMembers(out, *text);
}

std::optional<double> parseCoordinate(const std::string* text) {
  if (text == nullptr) return std::nullopt;
  std::string_view digits = *text;
  if (digits.starts_with('+')) digits.remove_prefix(1);
  double value = 0;
  const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (ec != std::errc() || end != digits.data() + digits.size() || digits.empty() || !std::isfinite(value)) {
    return std::nullopt;
  }
  return value;
}

std::int64_t wholeSeconds(Date date) { return static_cast<std::int64_t>(std::floor(date.timeIntervalSince1970())); }

// ---- Methods --------------------------------------------------------------------------------

Content basicInfo(const ServiceCall& call, Date now) {
  boost::json::object device;
  if (call.userAgent) {
    // Echoed whole when it is text; a header of other bytes is shown, not trusted.
    device["userAgent"] = isValidUtf8(*call.userAgent) ? *call.userAgent : quotable(*call.userAgent);
  }
  Content content;
  content.data = boost::json::object{{"network", {{"ip", call.remoteAddress}}}, {"device", std::move(device)}};
  content.maxAge = 60;
  content.created = wholeSeconds(now);
  return content;
}

std::variant<Content, Refusal> forecast(const Parameters& parameters, Date now) {
  const std::string* latitudeText = find(parameters, "latitude");
  const std::string* longitudeText = find(parameters, "longitude");
  if (latitudeText == nullptr || longitudeText == nullptr) {
    return Refusal{400, 400, "Missing coordinates: the forecast needs latitude and longitude."};
  }
  const auto latitude = parseCoordinate(latitudeText);
  const auto longitude = parseCoordinate(longitudeText);
  if (!latitude || !longitude) return Refusal{400, 400, "The coordinates are not decimal numbers."};
  if (std::fabs(*latitude) > 90 || std::fabs(*longitude) > 180) {
    return Refusal{200, 422,
                   "There is no forecast for latitude " + *latitudeText + ", longitude " + *longitudeText +
                       ": latitude must lie within -90...90 and longitude within -180...180."};
  }
  const std::int64_t seconds = wholeSeconds(now);
  Content content;
  content.created = seconds - (((seconds % 3600) + 3600) % 3600);
  content.maxAge = 3600;
  content.data = makeForecast(*latitude, *longitude, content.created);
  return content;
}

// ---- Answers --------------------------------------------------------------------------------

// JSON text with numbers in their shortest plain form ("52.37", not "5.237E1"), which is what
// people reading a plain answer expect.
void writeJson(std::string& out, const boost::json::value& value) {
  switch (value.kind()) {
    case boost::json::kind::object: {
      out += '{';
      bool first = true;
      for (const auto& member : value.get_object()) {
        if (!std::exchange(first, false)) out += ',';
        out += boost::json::serialize(boost::json::string_view(member.key()));
        out += ':';
        writeJson(out, member.value());
      }
      out += '}';
      return;
    }
    case boost::json::kind::array: {
      out += '[';
      bool first = true;
      for (const auto& element : value.get_array()) {
        if (!std::exchange(first, false)) out += ',';
        writeJson(out, element);
      }
      out += ']';
      return;
    }
    case boost::json::kind::double_: {
      // JSON has no infinity or NaN: such a value is written as JavaScript writes it.
      if (!std::isfinite(value.get_double())) {
        out += "null";
        return;
      }
      char digits[32];
      const auto [end, ec] = std::to_chars(digits, digits + sizeof digits, value.get_double());
      out.append(digits, end);
      return;
    }
    default:
      out += boost::json::serialize(value);
  }
}

// The body as sent: the envelope sealed with `key`, or plain JSON without one.
void setBody(ServiceAnswer& answer, const boost::json::value& envelope, std::string_view key) {
  std::string json;
  writeJson(json, envelope);
  if (key.empty()) {
    answer.contentType = "application/json";
    answer.body = json;
    return;
  }
  const auto sealed = aes256Encrypt(bytesOf(json), key);
  // A key the cipher refuses is a fault of the service's own configuration.
  if (!sealed) {
    answer.status = 500;
    answer.contentType = "application/json";
    answer.body = R"({"success":false,"message":"The service key is unusable.","meta":{"statusCode":500,"code":500,)"
                  R"("message":"The service key is unusable."}})";
    return;
  }
  // Ciphertext does not compress; keep transports from trying.
  answer.contentType = "application/octet-stream";
  answer.body = base64Encode(sealed->bytes());
}

ServiceAnswer refusal(const Refusal& failure, std::string_view key) {
  ServiceAnswer answer;
  answer.status = failure.httpStatus;
  boost::json::object meta{{"statusCode", failure.code}, {"code", failure.code}, {"message", failure.message}};
  setBody(answer, boost::json::object{{"success", false}, {"message", failure.message}, {"meta", std::move(meta)}},
          key);
  return answer;
}

// Does an If-None-Match list name `etag`? Weak tags match too, as for any GET.
bool matchesEntityTag(std::string_view list, std::string_view etag) {
  const auto bare = [](std::string_view tag) {
    tag = trimmed(tag);
    if (tag.starts_with("W/")) tag.remove_prefix(2);
    if (tag.size() >= 2 && tag.front() == '"' && tag.back() == '"') tag = tag.substr(1, tag.size() - 2);
    return tag;
  };
  const std::string_view wanted = bare(etag);
  while (!list.empty()) {
    const std::size_t comma = list.find(',');
    const std::string_view tag = bare(list.substr(0, comma));
    if (tag == "*" || tag == wanted) return true;
    list = comma == std::string_view::npos ? std::string_view() : list.substr(comma + 1);
  }
  return false;
}

ServiceAnswer success(const Content& content, std::string_view key, const ServiceCall& call) {
  boost::json::object contentInfo{{"formatVersion", content.formatVersion},
                                  {"expiryInterval", content.maxAge},
                                  {"createdTimestamp", content.created}};
  boost::json::object meta{{"statusCode", 200}, {"code", 200}, {"contentInfo", std::move(contentInfo)}};
  ServiceAnswer answer;
  setBody(answer, boost::json::object{{"success", true}, {"meta", std::move(meta)}, {"data", content.data}}, key);
  if (answer.status != 200) return answer;

  const std::string etag = "\"" + hashSha1(bytesOf(answer.body)) + "\"";
  answer.headers = {{std::string(kTarvixContentFormatHeader), std::to_string(content.formatVersion)},
                    {std::string(kTarvixContentMaxAgeHeader), std::to_string(content.maxAge)},
                    {std::string(kTarvixContentCreatedHeader), std::to_string(content.created)},
                    {"ETag", etag},
                    // Clients keep answers themselves and revalidate with the tag.
                    {"Cache-Control", "no-cache"}};
  if (call.ifNoneMatch && matchesEntityTag(*call.ifNoneMatch, etag)) {
    answer.status = 304;
    answer.body.clear();
    answer.contentType.clear();
  }
  return answer;
}

}  // namespace

std::optional<std::string> ServiceAnswer::header(const std::string& name) const {
  for (const auto& [key, value] : headers) {
    if (key == name) return value;
  }
  return std::nullopt;
}

WeatherProtocol::WeatherProtocol(WeatherServiceOptions options) : options_(std::move(options)) {}

namespace {

// The method a target names, its name, and its query read in plain.
struct Addressed {
  std::string name;
  std::optional<Method> method;
  Parameters plainQuery;
  bool plain = false;
};

Addressed address(std::string_view target, const WeatherServiceOptions& options) {
  const std::size_t question = target.find('?');
  std::string_view path = target.substr(0, question);
  const std::string_view query = question == std::string_view::npos ? std::string_view() : target.substr(question + 1);
  while (path.ends_with('/')) path.remove_suffix(1);
  Addressed out;
  out.name = percentDecoded(path.substr(path.rfind('/') + 1));
  const Method methods[] = {
      {"basicInfo", kClientInfoBodyEncryptionKey, kClientInfoResponseDecryptionKey},
      {"forecast", options.forecastBodyKey, options.forecastResponseKey},
  };
  for (const auto& candidate : methods) {
    if (candidate.name == out.name) out.method = candidate;
  }
  appendParameters(out.plainQuery, query, true);
  const std::string* skip = find(out.plainQuery, "skipcrypt");
  out.plain = skip != nullptr && *skip == "1";
  return out;
}

}  // namespace

std::string WeatherProtocol::responseKey(const ServiceCall& call) const {
  const auto addressed = address(call.target, options_);
  if (!addressed.method || addressed.plain) return {};
  return std::string(addressed.method->responseKey);
}

ServiceAnswer WeatherProtocol::answer(const ServiceCall& call) const {
  const std::string_view target = call.target;
  if (auto icon = iconAnswer(target.substr(0, target.find('?')), call.ifNoneMatch)) return std::move(*icon);
  auto addressed = address(call.target, options_);
  const std::string& methodName = addressed.name;
  const std::string_view noKey;
  if (methodName.empty()) return refusal({404, 404, "Missing method: call /basicInfo or /forecast."}, noKey);
  if (!addressed.method) return refusal({404, 404, "Unknown method '" + quotable(methodName) + "'."}, noKey);
  const Method* method = &*addressed.method;
  Parameters& plainQuery = addressed.plainQuery;
  const bool plain = addressed.plain;
  const std::string_view responseKey = plain ? noKey : method->responseKey;
  if (call.httpMethod != "GET" && call.httpMethod != "POST") {
    return refusal({405, 405, "Method " + quotable(call.httpMethod) + " is not served; use GET or POST."}, responseKey);
  }

  Parameters parameters;
  if (plain) {
    parameters = std::move(plainQuery);
  } else {
    const std::string* data = find(plainQuery, "data");
    if (data == nullptr) return refusal({400, 400, "The query must travel encrypted in \"data\"."}, responseKey);
    const auto text = openSealed(*data, options_.queryKey);
    if (!text || !looksLikeText(*text)) return refusal({400, 400, "The query could not be decrypted."}, responseKey);
    // The client encrypts the query after removing its percent escapes.
    appendParameters(parameters, *text, false);
  }
  if (auto failure = readBody(parameters, call.body, method->bodyKey, plain)) return refusal(*failure, responseKey);

  const Date now = options_.clock();
  if (method->name == "basicInfo") return success(basicInfo(call, now), responseKey, call);
  auto outcome = forecast(parameters, now);
  if (auto* failure = std::get_if<Refusal>(&outcome)) return refusal(*failure, responseKey);
  return success(std::get<Content>(outcome), responseKey, call);
}

}  // namespace kp::weather
