// The local weather service's protocol, without a transport: one HTTP request in, one
// answer out. WeatherService (weather_service.h) puts it on a socket; tests, benchmarks and
// the fuzzer call it directly.
//
// Requests. The method is the last segment of the path ("/forecast", "/v2/forecast"); GET
// and POST are served. The query travels as one parameter "data": the percent-decoded query
// text, AES-256 encrypted with the query key and Base64-encoded. With "skipcrypt=1" the query
// parameters travel in plain instead, and the whole exchange (body and answer) is plain too.
// A body is either a form "data=<encrypted parameter string>" or Base64 of an encrypted JSON
// object (plain form text or a plain JSON object under skipcrypt); its parameters and scalar
// members count as parameters after those of the query.
//
// Answers. Every answer is the JSON envelope
//   {"success": true, "meta": {"statusCode": 200, "code": 200, "contentInfo":
//     {"formatVersion": 1, "expiryInterval": 3600, "createdTimestamp": 1718100000}}, "data": ...}
// encrypted with the method's response key and sent as Base64 (plain JSON under skipcrypt or
// with an empty key), with the content headers "Tarvix-Content-Format",
// "Tarvix-Content-Max-Age" and "Tarvix-Content-Created" and a strong "ETag" (the SHA-1 of
// the body sent). A request whose "If-None-Match" names that tag gets 304 with the same
// headers and no body.
//
// Failures use the envelope that both kinds of client read as one:
//   {"success": false, "message": M, "meta": {"statusCode": C, "code": C, "message": M}}
// A request the service cannot read is refused with HTTP status C: 400 for a query or body
// that does not decrypt with the key (or is missing under encryption) and for missing or
// unreadable coordinates, 404 for a missing or unknown method, 405 for other HTTP methods.
// A request that is understood but has no content (coordinates outside the globe) is
// answered with HTTP 200 and the failure envelope with code 422, so that clients show the
// service's message. Refusals of a known method are encrypted like its answers; those
// without one are plain JSON, which a client's decryption takes as it is.
//
// Methods.
//   "basicInfo": what the service sees of the caller; the client-info body and
//     response keys; format 1, valid 60 s, created at the request second.
//       {"network": {"ip": "127.0.0.1"}, "device": {"userAgent": "..."}}
//     ("userAgent" is left out when the request has none).
//   "forecast": parameters "latitude" and "longitude" (decimal degrees); the body and
//     response keys are options (by default the client-info pair); format 1, valid 3600 s,
//     created at the start of the current hour, so that the answer and its ETag stay the same
//     for the hour. Deterministic for the coordinates (rounded to 0.01 degrees) and hour.
//     Units: degrees Celsius, metres per second, hectopascals, millimetres, percent; times are
//     seconds since 1970 (UTC); wind direction in degrees the wind comes from.
//       {"location": {"latitude": 52.37, "longitude": 4.9},
//        "current": {"time", "temperature", "apparentTemperature", "humidity", "windSpeed",
//                    "windGust", "windDirection", "pressure", "precipitation", "cloudCover",
//                    "condition"},
//        "hourly": [48 x {"time", "temperature", "windSpeed", "windDirection", "pressure",
//                         "precipitation", "precipitationProbability", "cloudCover",
//                         "condition"}],
//        "daily": [7 x {"date" (midnight UTC), "temperatureMin", "temperatureMax",
//                       "windSpeedMax", "windDirection", "pressure", "precipitation",
//                       "precipitationProbability", "condition"}]}
//     "condition" is one of "clear", "partlyCloudy", "cloudy", "rain", "snow"; the daily
//     condition is the day's most severe; "humidity", "cloudCover" and
//     "precipitationProbability" are whole percents, "windDirection" whole degrees.
//
// Thread safety: answer() is const and may run on any number of threads at once, provided
// the options' clock may.
//
// Example:
//   kp::weather::WeatherProtocol protocol({});
//   kp::weather::ServiceAnswer answer =
//       protocol.answer({.httpMethod = "GET", .target = "/forecast?latitude=52.4&longitude=4.9&skipcrypt=1"});
//   // answer.status == 200, answer.body is the plain envelope
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "faults.h"
#include "kp/platform/date.h"
#include "kp/service/tarvix_web_service_encryption_details.h"

namespace kp::weather {

struct WeatherServiceOptions {
  // Where WeatherService listens; port 0 picks a free one.
  std::string host = "127.0.0.1";
  int port = 0;
  // Both set: HTTPS with this PEM certificate and key.
  std::string certificatePath;
  std::string privateKeyPath;
  // The time WeatherService gives a request's head and body, from its first byte.
  std::chrono::milliseconds requestTimeLimit{10'000};
  // Decrypts the "data" query of every method.
  std::string queryKey = std::string(kDefaultQueryStringEncryptionKey);
  // The forecast's body and response keys; empty means plain.
  std::string forecastBodyKey = std::string(kClientInfoBodyEncryptionKey);
  std::string forecastResponseKey = std::string(kClientInfoResponseDecryptionKey);
  // The service's clock; content times and forecasts follow it.
  std::function<Date()> clock = [] { return Date::now(); };
  // Faults that WeatherService injects into its answers (faults.h); none when empty.
  FaultSpec faults;
};

// One HTTP request as the service sees it.
struct ServiceCall {
  std::string httpMethod = "GET";
  // Path and query exactly as on the request line ("/forecast?data=...").
  std::string target;
  std::string body;
  std::optional<std::string> ifNoneMatch;
  std::optional<std::string> userAgent;
  std::string remoteAddress;
};

struct ServiceAnswer {
  int status = 200;
  std::vector<std::pair<std::string, std::string>> headers;  // besides Content-Type
  std::string contentType;
  std::string body;

  // The first header of that name (exact spelling).
  [[nodiscard]] std::optional<std::string> header(const std::string& name) const;
};

class WeatherProtocol {
 public:
  explicit WeatherProtocol(WeatherServiceOptions options);

  [[nodiscard]] ServiceAnswer answer(const ServiceCall& call) const;
  // The key that answers to `call` are sealed with; empty when they travel plain (under
  // skipcrypt, or for a method that does not exist).
  [[nodiscard]] std::string responseKey(const ServiceCall& call) const;
  [[nodiscard]] const WeatherServiceOptions& options() const noexcept { return options_; }

 private:
  WeatherServiceOptions options_;
};

}  // namespace kp::weather
