// The weather service and the cached copy of its last answer per place.
#include "forecast_source.h"

#include <array>
#include <cstdio>

#include "kp/cache/cache_controller.h"
#include "kp/cache/cache_item.h"
#include "kp/coding/json.h"
#include "kp/request/request_handler.h"
#include "kp/service/tarvix_web_service_encryption_details.h"

namespace weatherapp {
namespace {

constexpr double kKeptForSeconds = 7 * 86400.0;  // a week-old forecast is still worth showing offline
constexpr std::int64_t kMaximumAnswerBytes = 1 << 20;

// What the cache holds for one place.
struct KeptForecast {
  Forecast forecast;
  kp::TarvixServiceContentInfo contentInfo;
  std::optional<std::string> etag;
};
BOOST_DESCRIBE_STRUCT(KeptForecast, (), (forecast, contentInfo, etag))

// Coordinates as the service reads them; two decimals is the service's own grid, so nearby
// fixes of one place share a cache entry.
std::string coordinate(double degrees) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.2f", degrees);
  return text.data();
}

std::string cacheKey(const Place& place) {
  return "weather-app/forecast/" + coordinate(place.latitude) + "," + coordinate(place.longitude);
}

// Failures of the transport that mean "cannot reach the service" rather than "the service
// said no": timed out, host not found, cannot connect, connection lost, not connected.
bool isUnreachable(const kp::ErrorPtr& error) {
  if (!error || error->domain() != kp::Error::kURLErrorDomain) return false;
  switch (error->code()) {
    case -1001:
    case -1003:
    case -1004:
    case -1005:
    case -1009:
      return true;
    default:
      return false;
  }
}

}  // namespace

ForecastSource::ForecastSource(std::string baseUrl) : baseUrl_(std::move(baseUrl)) {}

kp::DecodableTarvixWebService& ForecastSource::service() {
  if (!service_) {
    service_.emplace(baseUrl_);
    // The local weather service seals forecasts with the client-info keys.
    service_->encryptionDetails.bodyEncryptionKey = std::string(kp::kClientInfoBodyEncryptionKey);
    service_->encryptionDetails.responseDecryptionKey = std::string(kp::kClientInfoResponseDecryptionKey);
  }
  return *service_;
}

std::optional<ForecastSnapshot> ForecastSource::cached(const Place& place) const {
  const auto entry = kp::CacheController::sharedInstance()->getCacheItem(cacheKey(place));
  if (!entry || !entry->item) return std::nullopt;
  const kp::Data* bytes = entry->item->get<kp::Data>();
  if (!bytes) return std::nullopt;
  try {
    kp::JsonDecoder decoder;
    decoder.dateStrategy = kp::DateStrategy::secondsSince1970;
    auto kept = decoder.decode<KeptForecast>(*bytes);
    return ForecastSnapshot{std::move(kept.forecast), std::move(kept.contentInfo), std::move(kept.etag), true};
  } catch (const kp::CodingError&) {
    return std::nullopt;  // written by another version of the app, or damaged: fetch anew
  }
}

void ForecastSource::keep(const Place& place, const ForecastSnapshot& snapshot) const {
  kp::JsonEncoder encoder;
  encoder.dateStrategy = kp::DateStrategy::secondsSince1970;
  kp::Data bytes;
  try {
    bytes = encoder.encode(KeptForecast{snapshot.forecast, snapshot.contentInfo, snapshot.etag});
  } catch (const kp::CodingError&) {
    return;
  }
  kp::CacheItemConfiguration policy(kKeptForSeconds);
  policy.retainInBackStore = true;
  kp::CacheController::sharedInstance()->set(
      std::make_shared<kp::CacheItem>(kp::ArchiveValue(std::move(bytes)), policy), cacheKey(place));
}

bool ForecastSource::fetch(const Place& place, const std::optional<ForecastSnapshot>& shown, Completion completion) {
  if (fetching_) return false;
  auto request = service().createRequest<Forecast>("forecast");
  if (!request) {
    completion({.error = kp::Error::make("WeatherApp", 1, "The weather service's address is not a URL.")});
    return true;
  }
  request->httpConfig()->addQuery(coordinate(place.latitude), "latitude");
  request->httpConfig()->addQuery(coordinate(place.longitude), "longitude");
  if (shown && shown->etag) request->httpConfig()->etag = shown->etag;
  if (auto handler = std::dynamic_pointer_cast<kp::HttpRequestHandler>(request->handler())) {
    handler->maximumReceivedDataLength = kMaximumAnswerBytes;
  }
  fetching_ = true;
  // The executor holds the request weakly: it stays here until the next fetch replaces it.
  inFlight_ = request;
  (void)request->execute([this, place, shown, completion = std::move(completion)](
                             const kp::DecodableTarvixServiceResult<Forecast>& result) {
    fetching_ = false;
    FetchOutcome outcome;
    const bool notModified =
        result.httpResponse && result.httpResponse->statusCodeValue() == 304 && shown && !result.error;
    if (notModified) {
      ForecastSnapshot snapshot = *shown;
      snapshot.contentInfo = result.contentInfo;
      snapshot.fromCache = false;
      keep(place, snapshot);
      outcome.snapshot = std::move(snapshot);
      outcome.unchanged = true;
    } else if (!result.error && result.data) {
      ForecastSnapshot snapshot{*result.data, result.contentInfo,
                                result.httpResponse ? result.httpResponse->etag() : std::nullopt, false};
      keep(place, snapshot);
      outcome.snapshot = std::move(snapshot);
    } else {
      outcome.error = result.asResult().error();
      outcome.unreachable = isUnreachable(outcome.error);
    }
    completion(std::move(outcome));
  });
  return true;
}

}  // namespace weatherapp
