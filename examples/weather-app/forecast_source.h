// Where the window's forecast comes from: the weather service, through
// kp::DecodableTarvixWebService, and the copy the library's cache keeps of the last answer
// for each place, which the window shows at once on the next start and whenever the
// service cannot be reached.
//
// A fetch sends the entity tag of the forecast on screen, so that an unchanged forecast is
// answered "not modified" without a body; the cached copy then only gets its new content
// info. Answers are bounded (a forecast is a few kilobytes; a body of more than 1 MiB
// fails), and a cached copy that no longer decodes reads as none.
//
// Thread safety: main thread only. Completions run on the main queue.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "forecast.h"
#include "kp/platform/error.h"
#include "kp/service/tarvix_web_service.h"

namespace weatherapp {

struct FetchOutcome {
  std::optional<ForecastSnapshot> snapshot;  // set on success
  bool unchanged = false;                    // the service said "not modified": the same forecast
  kp::ErrorPtr error;                        // set on failure
  // The failure says that the service cannot be reached (no route, refused, timed out).
  bool unreachable = false;
};

class ForecastSource {
 public:
  using Completion = std::function<void(FetchOutcome)>;

  // REQUIRES: `baseUrl` is an absolute http(s) URL.
  explicit ForecastSource(std::string baseUrl);

  // The copy kept for `place`, read on the calling thread; nothing when there is none.
  [[nodiscard]] std::optional<ForecastSnapshot> cached(const Place& place) const;
  // Asks the service for `place`; `shown` is the forecast on screen, if any. A fetch that is
  // still under way makes this one a no-op (it returns false).
  bool fetch(const Place& place, const std::optional<ForecastSnapshot>& shown, Completion completion);
  [[nodiscard]] bool isFetching() const noexcept { return fetching_; }

 private:
  void keep(const Place& place, const ForecastSnapshot& snapshot) const;

  kp::DecodableTarvixWebService& service();

  std::string baseUrl_;
  // Made for the first fetch: making it reads the device's facts, which may wait for the
  // system's host-name service, and a start from the cache draws before it fetches.
  std::optional<kp::DecodableTarvixWebService> service_;
  std::shared_ptr<kp::DecodableTarvixServiceRequest<Forecast>> inFlight_;
  bool fetching_ = false;
};

}  // namespace weatherapp
