// kpcore demo: the library's main job against a weather service, step by step: client info,
// a forecast decoded into typed values and printed as a table, its content info, the same
// call answered from the cache, and a conditional call answered 304. scripts/demo runs it
// against a local `kpcore serve`.
#include <cmath>
#include <cstdio>
#include <iostream>
#include <mutex>

#include "command.h"
#include "forecast_model.h"
#include "kp/cache/cache_controller.h"
#include "kp/platform/date_formatter.h"
#include "kp/service/client_info_web_service.h"
#include "kp/service/tarvix_web_service.h"
#include "service_session.h"

namespace {

using namespace std::chrono_literals;
using kp::weather::Forecast;

void heading(const std::string& title) { std::cout << "\n== " << title << "\n"; }

// printf-style formatting into a string, for the table rows.
template <class... A>
std::string format(const char* pattern, A... values) {
  char line[256];
  std::snprintf(line, sizeof line, pattern, values...);
  return line;
}

// Words for the service's condition names ("partlyCloudy" -> "partly cloudy").
std::string words(kp::weather::WeatherCondition condition) {
  std::string out;
  for (char c : kp::weather::conditionName(condition)) {
    if (std::isupper(static_cast<unsigned char>(c))) {
      out += ' ';
      out += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    } else {
      out += c;
    }
  }
  return out;
}

void showClientInfo(const std::string& base, const std::shared_ptr<kp::UrlSession>& session) {
  heading("Client info: what the service sees of this machine (ClientInfoWebService, basicInfo)");
  kp::ClientInfoWebService clientInfo(base);
  clientInfo.urlSession = session;
  std::mutex mutex;
  bool arrived = false;
  std::optional<kp::ClientBasicInfo> info;
  kp::ErrorPtr error;
  const auto ticket = clientInfo.getBasicInfo([&](std::optional<kp::ClientBasicInfo> i, kp::ErrorPtr e) {
    std::lock_guard lock(mutex);
    arrived = true;
    info = std::move(i);
    error = std::move(e);
  });
  const bool done = kpcore::drainMainQueueUntil(
      [&] {
        std::lock_guard lock(mutex);
        return arrived;
      },
      15s);
  std::lock_guard lock(mutex);
  if (!done) throw kpcore::CommandError("no client info within 15 s");
  if (error) throw kpcore::CommandError("client info failed: " + error->localizedDescription());
  // A server that is not the service answers, but not with client info.
  if (!info || !info->ip) throw kpcore::CommandError("no client info from " + base + ": is it the weather service?");
  std::cout << "address:    " << kpcore::printable(*info->ip) << "\n";
  std::cout << "user agent: " << kpcore::printable(info->userAgent.value_or("-")) << "\n";
}

void printForecast(const Forecast& forecast) {
  const kp::DateFormatter time("EEE HH:mm");
  const kp::DateFormatter day("EEE d MMM");
  const auto& now = forecast.current;
  std::cout << format("Now (%s): %.1f °C, feels like %.1f °C, %s\n", time.string(now.time).c_str(), now.temperature,
                      now.apparentTemperature, words(now.condition).c_str());
  std::cout << format("  wind %.1f m/s from %d°, gusts %.1f m/s; %.1f hPa; humidity %d %%; clouds %d %%\n",
                      now.windSpeed, now.windDirection, now.windGust, now.pressure, now.humidity, now.cloudCover);

  std::cout << "\nNext 24 hours (every third hour, local time)\n";
  std::cout << "  time        °C   wind m/s  from  hPa      rain mm  chance  sky\n";
  for (std::size_t i = 0; i < forecast.hourly.size() && i < 24; i += 3) {
    const auto& h = forecast.hourly[i];
    std::cout << format("  %-9s %5.1f   %6.1f   %4d°  %6.1f   %6.1f   %4d %%  %s\n", time.string(h.time).c_str(),
                        h.temperature, h.windSpeed, h.windDirection, h.pressure, h.precipitation,
                        h.precipitationProbability, words(h.condition).c_str());
  }
  std::cout << "\nNext " << forecast.daily.size() << " days\n";
  std::cout << "  day          min °C  max °C  wind m/s  rain mm  chance  sky\n";
  for (const auto& d : forecast.daily) {
    std::cout << format("  %-11s %6.1f  %6.1f   %6.1f   %6.1f   %4d %%  %s\n", day.string(d.date).c_str(),
                        d.temperatureMin, d.temperatureMax, d.windSpeedMax, d.precipitation, d.precipitationProbability,
                        words(d.condition).c_str());
  }
}

void showTypedForecast(const std::string& base, const std::shared_ptr<kp::UrlSession>& session,
                       const std::string& latitude, const std::string& longitude) {
  heading("Forecast for " + latitude + ", " + longitude + " (DecodableTarvixWebService, typed values)");
  kp::DecodableTarvixWebService service(base);
  service.urlSession = session;
  service.encryptionDetails.bodyEncryptionKey = std::string(kp::kClientInfoBodyEncryptionKey);
  service.encryptionDetails.responseDecryptionKey = std::string(kp::kClientInfoResponseDecryptionKey);
  auto request = service.createRequest<Forecast>("forecast");
  request->httpConfig()->addQuery(latitude, "latitude");
  request->httpConfig()->addQuery(longitude, "longitude");
  const auto result = request->executeSynchronously();
  if (!result) throw kpcore::CommandError("the forecast call ended without an answer");
  const auto outcome = result->asResult();
  if (!outcome.value()) throw kpcore::CommandError("forecast failed: " + outcome.error()->localizedDescription());
  printForecast(*outcome.value());

  heading("Content info of that answer");
  std::cout << kpcore::describeContentInfo(result->contentInfo);
}

// The untyped call with a cache key, so that its result is kept in the cache.
std::shared_ptr<kp::TarvixServiceRequest> cachedForecastRequest(const kp::TarvixWebService& service,
                                                                const std::string& latitude,
                                                                const std::string& longitude) {
  auto request = service.createRequestFor("forecast");
  request->httpConfig()->addQuery(latitude, "latitude");
  request->httpConfig()->addQuery(longitude, "longitude");
  request->generateCacheKey();
  return request;
}

void summarise(const char* label, const kp::TarvixServiceRequestResult& result) {
  std::cout << label << (result.fromCache() ? "from the cache" : "from the network");
  if (result.response) std::cout << ", HTTP " << result.response->statusCode.value_or(0);
  if (result.cacheExpirationDate) std::cout << ", cache entry valid until " << result.cacheExpirationDate->iso8601();
  if (const auto payload = result.dataAsJson()) std::cout << ", " << (*payload)["hourly"].size() << " hours";
  std::cout << "\n";
}

void showCacheAndRevalidation(const std::string& base, const std::shared_ptr<kp::UrlSession>& session,
                              const std::string& latitude, const std::string& longitude) {
  heading("The same call again, answered from the cache (TarvixWebService, cache key set)");
  kp::TarvixWebService service(base);
  service.urlSession = session;
  service.encryptionDetails.bodyEncryptionKey = std::string(kp::kClientInfoBodyEncryptionKey);
  service.encryptionDetails.responseDecryptionKey = std::string(kp::kClientInfoResponseDecryptionKey);

  auto first = cachedForecastRequest(service, latitude, longitude);
  const std::string key = *first->cacheConfig()->key;
  kp::CacheController::sharedInstance()->removeCacheItem(key);
  const auto network = first->executeSynchronously();
  if (!network || network->failed()) {
    throw kpcore::CommandError("forecast failed: " +
                               (network ? network->error->localizedDescription() : std::string("no answer")));
  }
  summarise("first call:  ", *network);
  // The result is stored in the background once the call has completed.
  const bool stored = kpcore::drainMainQueueUntil(
      [&key] { return kp::CacheController::sharedInstance()->getCacheItem(key) != nullptr; }, 5s);
  if (!stored) throw kpcore::CommandError("the result did not reach the cache within 5 s");

  const auto cached = cachedForecastRequest(service, latitude, longitude)->executeSynchronously();
  if (!cached || cached->failed()) throw kpcore::CommandError("the cached call failed");
  summarise("second call: ", *cached);
  std::cout << "content info kept with the cached result:\n" << kpcore::describeContentInfo(*cached->contentInfo);

  heading("A conditional call (If-None-Match with the first answer's ETag)");
  const auto etag = network->response ? network->response->etag() : std::nullopt;
  if (!etag) throw kpcore::CommandError("the first answer carried no ETag");
  auto conditional = service.createRequestFor("forecast");
  conditional->httpConfig()->queryParameters = first->httpConfig()->queryParameters;
  conditional->httpConfig()->etag = etag;
  const auto revalidated = conditional->executeSynchronously();
  if (!revalidated || revalidated->failed()) throw kpcore::CommandError("the conditional call failed");
  std::cout << "If-None-Match: " << *etag << "\n";
  std::cout << "HTTP " << revalidated->response->statusCode.value_or(0)
            << ", not modified: " << (revalidated->contentIsNotModified ? "yes" : "no")
            << ", payload: " << (revalidated->data.has_value() ? "sent again" : "none (keep the cached one)") << "\n";
  std::cout << "refreshed content info:\n" << kpcore::describeContentInfo(*revalidated->contentInfo);
}

int runDemo(kpcore::Args& args) {
  const auto base = args.option("base");
  const std::string latitude = args.option("latitude").value_or("52.37");
  const std::string longitude = args.option("longitude").value_or("4.90");
  (void)kpcore::decimalOption("latitude", latitude, -90, 90);
  (void)kpcore::decimalOption("longitude", longitude, -180, 180);
  const bool insecure = args.flag("insecure");
  args.expectEnd();
  if (!base) throw kpcore::CommandError("missing --base URL (scripts/demo starts a local service)", 2);
  const auto baseUrl = kp::Url::parse(*base);
  if (!baseUrl || !baseUrl->isAbsolute() || baseUrl->host().empty()) {
    throw kpcore::CommandError("not an absolute URL: " + *base, 2);
  }

  kpcore::ServiceSession session(insecure);
  std::cout << "Weather service at " << *base << "; queries, bodies and answers travel AES-256 sealed.\n";
  showClientInfo(*base, session.session());
  showTypedForecast(*base, session.session(), latitude, longitude);
  showCacheAndRevalidation(*base, session.session(), latitude, longitude);
  return 0;
}

const kpcore::Registration registration{
    "demo", "Show the library's main job against a weather service (scripts/demo runs it)",
    "kpcore demo --base URL [--latitude 52.37] [--longitude 4.90] [--insecure]\n"
    "  Client info, a typed forecast as a table, its content info, the same call from the cache,\n"
    "  and a conditional call answered 304.",
    runDemo};

}  // namespace
