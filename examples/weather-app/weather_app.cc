// What the window shows and when the app asks the service.
#include "weather_app.h"

#include <algorithm>
#include <utility>

#include "kp/connectivity/connectivity.h"
#include "text.h"
#include "timing.h"

namespace weatherapp {
namespace {

constexpr unsigned kFirstRetrySeconds = 30;
constexpr unsigned kLastRetrySeconds = 900;
constexpr double kDefaultLifetimeSeconds = 3600;
// A window that is never drawn (not mapped) still gets its forecast refreshed.
constexpr guint kFirstFrameFallbackMilliseconds = 1000;

// When the content runs out: by the service's clock (forecasts are made for the hour, so they
// expire on the hour), else by how long ago it arrived here.
std::optional<kp::Date> expiresAt(const ForecastSnapshot& snapshot) {
  if (auto remote = snapshot.contentInfo.remoteExpiresAt()) return remote;
  return snapshot.contentInfo.localExpiresAt();
}

}  // namespace

std::shared_ptr<WeatherApp> WeatherApp::make(GtkApplication* application, AppOptions options) {
  std::shared_ptr<WeatherApp> app(new WeatherApp(application, std::move(options)));
  kp::ConnectivityMonitor::default_()->addDelegate(app);  // held weakly
  app->start();
  return app;
}

WeatherApp::WeatherApp(GtkApplication* application, AppOptions options)
    : options_(std::move(options)), source_(options_.baseUrl), icons_(options_.baseUrl) {
  window_ = std::make_unique<WeatherWindow>(application, icons_, [this](const std::optional<Place>& place) {
    if (place) {
      places_->choose(*place);
    } else {
      places_->followLocation();
    }
    window_->showPlace(places_->current(), places_->followsLocation(), places_->isFixed());
  });
}

WeatherApp::~WeatherApp() {
  if (firstFrameWork_) g_source_remove(firstFrameWork_);
  if (refreshTimer_) g_source_remove(refreshTimer_);
  if (ageTimer_) g_source_remove(ageTimer_);
  if (afterPaintClock_) {
    g_signal_handler_disconnect(afterPaintClock_, afterPaintHandler_);
    g_object_unref(afterPaintClock_);
  }
}

void WeatherApp::start() {
  std::weak_ptr<WeatherApp> weak = weak_from_this();
  places_ = PlaceTracker::make(options_.place, {.placeChanged =
                                                    [weak](const Place& place) {
                                                      if (auto self = weak.lock()) self->placeChanged(place);
                                                    },
                                                .locationUnavailable =
                                                    [weak](const std::string& reason) {
                                                      if (auto self = weak.lock()) self->window_->showNote(reason);
                                                    }});
  window_->showPlace(places_->current(), places_->followsLocation(), places_->isFixed());
  report("phase", "window");

  // What this device kept from the last run goes on screen before anything is asked.
  shown_ = source_.cached(places_->current());
  report("phase", "cache");
  if (shown_) {
    window_->showForecast(*shown_);
    reportNextFrame("cache");
  }
  gtk_window_present(window_->window());
  report("phase", "presented");
  if (GdkFrameClock* clock = gtk_widget_get_frame_clock(GTK_WIDGET(window_->window()))) {
    afterPaintClock_ = GDK_FRAME_CLOCK(g_object_ref(clock));
    afterPaintHandler_ = g_signal_connect(clock, "after-paint", G_CALLBACK(afterPaint), this);
  }
  firstFrameWork_ = g_timeout_add(kFirstFrameFallbackMilliseconds, firstFrameWorkDue, this);

  offline_ = kp::Connectivity::default_()->isOffline();
  updateBanner();
  activeObservation_ = kp::NotificationCenter::defaultCenter().addObserver(
      kp::ApplicationNotifications::kDidBecomeActive, nullptr, nullptr, [weak](const kp::Notification&) {
        if (auto self = weak.lock()) self->becameActive();
      });
  ageTimer_ = g_timeout_add_seconds(
      60,
      [](gpointer self) -> gboolean {
        auto* app = static_cast<WeatherApp*>(self);
        if (app->shown_) app->window_->showAge(*app->shown_);
        return G_SOURCE_CONTINUE;
      },
      this);
  refresh();
}

void WeatherApp::firstFrameDrawn() {
  if (firstFrameDrawn_) return;
  firstFrameDrawn_ = true;
  if (firstFrameWork_) g_source_remove(firstFrameWork_);
  firstFrameWork_ = 0;
  icons_.startLoading();
  if (places_->followsLocation()) places_->followLocation();
  if (std::exchange(refreshAfterFirstFrame_, false)) refresh();
}

gboolean WeatherApp::firstFrameWorkDue(gpointer self) {
  auto* app = static_cast<WeatherApp*>(self);
  app->firstFrameWork_ = 0;
  app->firstFrameDrawn();
  return G_SOURCE_REMOVE;
}

void WeatherApp::placeChanged(const Place& place) {
  window_->showPlace(place, places_->followsLocation(), places_->isFixed());
  window_->showNote(std::nullopt);
  shown_ = source_.cached(place);
  if (shown_) window_->showForecast(*shown_);
  refresh();
}

void WeatherApp::refresh() {
  if (shown_ && !firstFrameDrawn_) {
    refreshAfterFirstFrame_ = true;  // the kept forecast goes on screen first
    return;
  }
  std::weak_ptr<WeatherApp> weak = weak_from_this();
  const Place place = places_->current();
  (void)source_.fetch(place, shown_, [weak, place](FetchOutcome outcome) {
    auto self = weak.lock();
    if (!self) return;
    const Place& now = self->places_->current();
    if (now.latitude != place.latitude || now.longitude != place.longitude) {
      self->refresh();  // the place changed while the answer was on its way
      return;
    }
    self->fetched(std::move(outcome));
  });
}

void WeatherApp::fetched(FetchOutcome outcome) {
  if (outcome.snapshot) {
    const bool redraw = !outcome.unchanged || !shown_;
    shown_ = std::move(outcome.snapshot);
    if (redraw) {
      window_->showForecast(*shown_);
    } else {
      window_->showAge(*shown_);
    }
    reportNextFrame("network");
    unreachable_ = false;
    lastFetchFailed_ = false;
    retrySeconds_ = 0;
    const auto expires = expiresAt(*shown_);
    const double due = expires ? expires->timeIntervalSince(kp::Date::now()) : kDefaultLifetimeSeconds;
    scheduleRefresh(static_cast<unsigned>(std::clamp(due, 30.0, 86400.0)));
  } else {
    lastFetchFailed_ = true;
    unreachable_ = outcome.unreachable;
    if (!shown_) {
      window_->showStatus(
          tr("No forecast yet: {0}", outcome.error ? outcome.error->localizedDescription() : std::string()));
    }
    retrySeconds_ = std::clamp(retrySeconds_ * 2, kFirstRetrySeconds, kLastRetrySeconds);
    scheduleRefresh(retrySeconds_);
  }
  updateBanner();
}

void WeatherApp::scheduleRefresh(unsigned seconds) {
  if (refreshTimer_) g_source_remove(refreshTimer_);
  refreshTimer_ = g_timeout_add_seconds(
      seconds,
      [](gpointer self) -> gboolean {
        auto* app = static_cast<WeatherApp*>(self);
        app->refreshTimer_ = 0;
        app->refresh();
        return G_SOURCE_REMOVE;
      },
      this);
}

void WeatherApp::updateBanner() {
  if (offline_) {
    window_->showBanner(shown_ ? tr("Offline: showing the saved forecast") : tr("Offline"));
  } else if (unreachable_) {
    window_->showBanner(tr("Offline: the weather service cannot be reached"));
  } else {
    window_->showBanner(std::nullopt);
  }
}

bool WeatherApp::isDue() const {
  if (lastFetchFailed_ || !shown_) return true;
  const auto expires = expiresAt(*shown_);
  return expires && *expires < kp::Date::now();
}

void WeatherApp::becameActive() {
  if (isDue()) refresh();
}

void WeatherApp::connectivityWentOnline() {
  offline_ = false;
  updateBanner();
  if (isDue()) refresh();
}

void WeatherApp::connectivityWentOffline() {
  offline_ = true;
  updateBanner();
}

void WeatherApp::reportNextFrame(const char* source) {
  if (!options_.reportTiming) return;
  pendingReports_.push_back(source);
  gtk_widget_queue_draw(GTK_WIDGET(window_->window()));
}

void WeatherApp::afterPaint(GdkFrameClock*, gpointer self) {
  auto* app = static_cast<WeatherApp*>(self);
  if (!app->firstFrameDrawn_ && !std::exchange(app->painted_, true)) {
    // Not from within the paint (the work may rebuild widgets), and no longer on the timer.
    if (app->firstFrameWork_) g_source_remove(app->firstFrameWork_);
    app->firstFrameWork_ = g_idle_add(firstFrameWorkDue, app);
  }
  if (app->pendingReports_.empty()) return;
  for (const char* source : app->pendingReports_) report("drawn", source);
  app->pendingReports_.clear();
}

}  // namespace weatherapp
