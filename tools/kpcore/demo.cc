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
#include "forecast_text.h"
#include "kp/cache/cache_controller.h"
#include "kp/service/client_info_web_service.h"
#include "kp/service/tarvix_web_service.h"
#include "service_session.h"

namespace {

using namespace std::chrono_literals;
using kp::weather::Forecast;

void heading(const std::string& title) { std::cout << "\n== " << title << "\n"; }

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
  std::cout << "address:    " << (info ? info->ip.value_or("-") : "-") << "\n";
  std::cout << "user agent: " << (info ? info->userAgent.value_or("-") : "-") << "\n";
}

void showTypedForecast(const std::string& base, const std::shared_ptr<kp::UrlSession>& session,
                       const std::string& latitude, const std::string& longitude, const kpcore::ForecastText& text) {
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
  const auto& info = result->contentInfo;
  text.print(std::cout, *outcome.value(), info.remoteCreatedAt.value_or(info.localCreatedAt));

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
  const bool insecure = args.flag("insecure");
  const std::string locale = args.option("locale").value_or("");
  const kp::UnitSystem units = kpcore::unitSystemOption(args.option("units"));
  args.expectEnd();
  if (!base) throw kpcore::CommandError("missing --base URL (scripts/demo starts a local service)", 2);
  const auto baseUrl = kp::Url::parse(*base);
  if (!baseUrl || !baseUrl->isAbsolute() || baseUrl->host().empty()) {
    throw kpcore::CommandError("not an absolute URL: " + *base, 2);
  }

  const kpcore::ForecastText text(locale, units);
  kpcore::ServiceSession session(insecure);
  std::cout << "Weather service at " << *base << "; queries, bodies and answers travel AES-256 sealed.\n";
  showClientInfo(*base, session.session());
  showTypedForecast(*base, session.session(), latitude, longitude, text);
  showCacheAndRevalidation(*base, session.session(), latitude, longitude);
  return 0;
}

const kpcore::Registration registration{
    "demo", "Show the library's main job against a weather service (scripts/demo runs it)",
    "kpcore demo --base URL [--latitude 52.37] [--longitude 4.90] [--insecure]\n"
    "            [--locale L] [--units locale|metric|us|uk]\n"
    "  Client info, a typed forecast as a table in the locale and units (the environment's locale\n"
    "  and its preferred units by default), its content info, the same call from the cache, and a\n"
    "  conditional call answered 304.",
    runDemo};

}  // namespace
