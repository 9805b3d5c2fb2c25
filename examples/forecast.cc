// A forecast through the service facade, kept in the cache: the first call goes to the
// service, the same call again is answered from the cache.
//   kp_forecast BASE_URL [LATITUDE LONGITUDE]
// BASE_URL is the weather service, such as the local one `kpcore serve` starts.
#include <chrono>
#include <iostream>
#include <string>

#include "kp/cache/cache_controller.h"
#include "kp/foundation/dispatch.h"
#include "kp/service/tarvix_web_service.h"

namespace {

// The forecast call for one place, with a cache key so that its result is cached.
std::shared_ptr<kp::TarvixServiceRequest> forecastRequest(const kp::TarvixWebService& service,
                                                          const std::string& latitude, const std::string& longitude) {
  auto request = service.createRequestFor("forecast");
  request->httpConfig()->addQuery(latitude, "latitude");
  request->httpConfig()->addQuery(longitude, "longitude");
  request->generateCacheKey();
  return request;
}

bool show(const char* label, const std::shared_ptr<kp::TarvixServiceRequestResult>& result) {
  if (!result || result->failed()) {
    std::cerr << label << ": " << (result ? result->error->localizedDescription() : "no answer") << "\n";
    return false;
  }
  const kp::JsonValue* payload = result->dataAsJson();
  const auto now = payload ? (*payload)["current"]["temperature"].doubleValue() : std::nullopt;
  std::cout << label << ": " << (result->fromCache() ? "from the cache" : "from the service") << ", "
            << (payload ? (*payload)["hourly"].size() : 0) << " hours";
  if (now) std::cout << ", " << *now << " °C now";
  std::cout << "\n";
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 && argc != 4) {
    std::cerr << "usage: kp_forecast BASE_URL [LATITUDE LONGITUDE]\n";
    return 2;
  }
  const std::string latitude = argc == 4 ? argv[2] : "52.37";
  const std::string longitude = argc == 4 ? argv[3] : "4.90";

  kp::TarvixWebService service(argv[1]);
  // The keys the local service seals its forecast with.
  service.encryptionDetails.bodyEncryptionKey = std::string(kp::kClientInfoBodyEncryptionKey);
  service.encryptionDetails.responseDecryptionKey = std::string(kp::kClientInfoResponseDecryptionKey);

  auto first = forecastRequest(service, latitude, longitude);
  const std::string key = *first->cacheConfig()->key;
  auto cache = kp::CacheController::sharedInstance();
  cache->removeCacheItem(key);
  if (!show("first call", first->executeSynchronously())) return 1;

  // The result is stored in the background once the call has completed; the host's main
  // queue carries part of that work, so drain it while waiting.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!cache->getCacheItem(key) && std::chrono::steady_clock::now() < deadline) {
    kp::MainQueue::shared()->runFor(std::chrono::milliseconds(20));
  }
  return show("second call", forecastRequest(service, latitude, longitude)->executeSynchronously()) ? 0 : 1;
}
