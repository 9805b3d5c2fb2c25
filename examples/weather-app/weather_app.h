// The app's behaviour: what the window shows and when it asks the service.
//
//   start       the forecast kept for the last place is drawn at once; once that frame is
//               on screen the service is asked (with the entity tag of what is on screen,
//               so an unchanged forecast costs a "not modified"), the icons are loaded and
//               the location is followed, so none of them delays the first frame. With
//               nothing kept, the service is asked at once.
//   refresh     when the content info says the forecast has expired, when the application
//               becomes active with an expired or failed forecast, and when the device
//               comes back online; after a failure, again in 30 s, doubling to 15 min
//   offline     a banner while kp::ConnectivityMonitor says the device is offline, or the
//               last call could not reach the service; the kept forecast stays on screen
//   place       the device's location, else a place chosen by hand (see places.h)
//
// With timing reports on, each first frame drawn with a forecast prints a "drawn" line to
// standard output (timing.h), for start-up measurements.
//
// Thread safety: main thread only.
#pragma once

#include <gtk/gtk.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "forecast_source.h"
#include "icons.h"
#include "kp/connectivity/connectivity_monitor.h"
#include "kp/platform/notification_center.h"
#include "places.h"
#include "weather_window.h"

namespace weatherapp {

struct AppOptions {
  std::string baseUrl;
  std::optional<Place> place;  // given on the command line
  bool reportTiming = false;
};

class WeatherApp final : public kp::ConnectivityOnlineDelegate,
                         public kp::ConnectivityOfflineDelegate,
                         public std::enable_shared_from_this<WeatherApp> {
 public:
  [[nodiscard]] static std::shared_ptr<WeatherApp> make(GtkApplication* application, AppOptions options);
  ~WeatherApp() override;

  void connectivityWentOnline() override;
  void connectivityWentOffline() override;

 private:
  WeatherApp(GtkApplication* application, AppOptions options);
  void start();
  void placeChanged(const Place& place);
  void refresh();
  void fetched(FetchOutcome outcome);
  void scheduleRefresh(unsigned seconds);
  void updateBanner();
  void becameActive();
  [[nodiscard]] bool isDue() const;
  void reportNextFrame(const char* source);
  void firstFrameDrawn();
  static gboolean firstFrameWorkDue(gpointer self);
  static void afterPaint(GdkFrameClock* clock, gpointer self);

  AppOptions options_;
  ForecastSource source_;
  IconStore icons_;
  std::shared_ptr<PlaceTracker> places_;
  std::unique_ptr<WeatherWindow> window_;
  std::optional<ForecastSnapshot> shown_;
  bool offline_ = false;
  bool unreachable_ = false;
  bool lastFetchFailed_ = false;
  unsigned retrySeconds_ = 0;
  guint refreshTimer_ = 0;
  guint ageTimer_ = 0;
  bool painted_ = false;
  bool firstFrameDrawn_ = false;
  bool refreshAfterFirstFrame_ = false;
  guint firstFrameWork_ = 0;  // the work after the first frame, or its fallback timer
  std::vector<const char*> pendingReports_;
  GdkFrameClock* afterPaintClock_ = nullptr;  // a reference of ours
  gulong afterPaintHandler_ = 0;
  kp::NotificationCenter::ObservationToken activeObservation_;
};

}  // namespace weatherapp
