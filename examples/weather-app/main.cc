// A small weather app on the library: the forecast for the user's location (or a place
// chosen by hand) from a weather service, in the user's locale and units, from the cache
// at once and offline. `weather-app --help` lists the options; scripts/app starts it
// against a local `kpcore serve`.
//
// The library's part of the start-up: the application's identity, the Application service
// and the library's own services, then the main queue on GLib's main loop.
#include <glib-unix.h>
#include <gtk/gtk.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "glib_bridge.h"
#include "kp/cache/cache_controller.h"
#include "kp/container/services.h"
#include "kp/device/device_information.h"
#include "kp/foundation/dispatch.h"
#include "kp/platform/application_info.h"
#include "kp/platform/notification_center.h"
#include "kp/platform/url.h"
#include "kp/service/core_logic_service_provider.h"
#include "text.h"
#include "timing.h"
#include "weather_app.h"

namespace {

constexpr const char* kApplicationId = "org.kpframework.WeatherApp";
constexpr const char* kDefaultBaseUrl = "http://127.0.0.1:8470";

constexpr const char* kUsage =
    "usage: weather-app [--base URL] [--latitude DEG --longitude DEG [--place NAME]]\n"
    "                   [--units locale|metric|us|uk] [--report-timing] [--report-notifications]\n"
    "  --base URL        the weather service (default $WEATHER_APP_BASE_URL, else http://127.0.0.1:8470)\n"
    "  --latitude, --longitude, --place\n"
    "                    show this place instead of the device's location or the chosen one\n"
    "  --units           the unit system (default: the locale's preferences)\n"
    "  --report-timing   print the times of the start's phases and of the first frames with a forecast\n"
    "  --report-notifications\n"
    "                    print \"notification <name>\" for each application notification posted\n";

struct Failure {
  std::string message;
};

std::optional<double> degrees(std::string_view text, double limit) {
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || !(value >= -limit && value <= limit)) {
    return std::nullopt;
  }
  return value;
}

struct Options {
  weatherapp::AppOptions app;
  kp::UnitSystem units = kp::UnitSystem::locale;
  bool reportNotifications = false;
};

Options parse(int argc, char** argv) {
  Options options;
  const char* fromEnvironment = std::getenv("WEATHER_APP_BASE_URL");
  options.app.baseUrl = fromEnvironment && *fromEnvironment ? fromEnvironment : kDefaultBaseUrl;
  std::optional<double> latitude;
  std::optional<double> longitude;
  std::string placeName;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    auto value = [&]() -> std::string_view {
      if (i + 1 >= argc) throw Failure{std::string(arg) + " needs a value"};
      return argv[++i];
    };
    if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      std::exit(0);
    } else if (arg == "--base") {
      options.app.baseUrl = value();
    } else if (arg == "--latitude") {
      latitude = degrees(value(), 90);
      if (!latitude) throw Failure{"--latitude must be a number from -90 to 90"};
    } else if (arg == "--longitude") {
      longitude = degrees(value(), 180);
      if (!longitude) throw Failure{"--longitude must be a number from -180 to 180"};
    } else if (arg == "--place") {
      placeName = value();
    } else if (arg == "--units") {
      const auto units = kp::unitSystemNamed(value());
      if (!units) throw Failure{"--units must be locale, metric, us or uk"};
      options.units = *units;
    } else if (arg == "--report-timing") {
      options.app.reportTiming = true;
    } else if (arg == "--report-notifications") {
      options.reportNotifications = true;
    } else {
      throw Failure{"unknown option " + std::string(arg)};
    }
  }
  const auto base = kp::Url::parse(options.app.baseUrl);
  if (!base || !base->isAbsolute() || base->host().empty() || (base->scheme() != "http" && base->scheme() != "https")) {
    throw Failure{"not an http(s) URL: " + options.app.baseUrl};
  }
  if (latitude.has_value() != longitude.has_value()) throw Failure{"--latitude and --longitude go together"};
  if (latitude) {
    std::array<char, 64> name{};
    std::snprintf(name.data(), name.size(), "%.2f, %.2f", *latitude, *longitude);
    options.app.place =
        weatherapp::Place{placeName.empty() ? std::string(name.data()) : placeName, *latitude, *longitude};
  }
  return options;
}

// The app's catalogues: beside the program when run from its build folder, else installed.
std::vector<std::filesystem::path> catalogueFolders() {
  std::error_code error;
  const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
  std::vector<std::filesystem::path> folders;
  if (!error) {
    folders.push_back(program.parent_path() / "locale");
    folders.push_back(program.parent_path().parent_path() / "share" / "locale");
  }
  return folders;
}

// Prints each application notification as the library's observers receive it (for tests).
std::vector<kp::NotificationCenter::ObservationToken> reportNotifications() {
  std::vector<kp::NotificationCenter::ObservationToken> tokens;
  for (const std::string_view name :
       {kp::ApplicationNotifications::kDidBecomeActive, kp::ApplicationNotifications::kWillResignActive,
        kp::ApplicationNotifications::kDidReceiveMemoryWarning}) {
    tokens.push_back(kp::NotificationCenter::defaultCenter().addObserver(
        name, nullptr, nullptr, [](const kp::Notification& notification) {
          std::printf("notification %s\n", notification.name.c_str());
          std::fflush(stdout);
        }));
  }
  return tokens;
}

struct Running {
  std::shared_ptr<weatherapp::ApplicationLifecycle> lifecycle;
  Options options;
  std::shared_ptr<weatherapp::WeatherApp> app;
};

void activate(GtkApplication* application, gpointer data) {
  auto* running = static_cast<Running*>(data);
  if (running->app) {
    gtk_window_present(gtk_application_get_active_window(application));
    return;
  }
  weatherapp::report("phase", "gtk");
  running->app = weatherapp::WeatherApp::make(application, running->options.app);
  running->lifecycle->watch(gtk_application_get_active_window(application));
  weatherapp::report("phase", "activated");
}

}  // namespace

int main(int argc, char** argv) {
  Running running;
  try {
    running.options = parse(argc, argv);
  } catch (const Failure& failure) {
    std::fprintf(stderr, "weather-app: %s\n%s", failure.message.c_str(), kUsage);
    return 2;
  }
  if (running.options.app.reportTiming) weatherapp::enableTimingReports();
  weatherapp::report("phase", "main");

  auto info = kp::ApplicationInfo::current();
  info.identifier = kApplicationId;
  info.name = "Weather";
  info.version = "1.0";
  kp::ApplicationInfo::setCurrent(info);
  weatherapp::setUpText(catalogueFolders(), running.options.units);
  weatherapp::report("phase", "text");

  // The Application first: the cache reads the application's state when it is made.
  running.lifecycle = std::make_shared<weatherapp::ApplicationLifecycle>();
  kp::Services::default_()->registerInstance<tarvix::Application>(running.lifecycle);
  kp::CoreLogicServiceProvider provider;
  kp::Services::default_()->register_(provider);
  // The device's facts (which the weather service's parameters carry) may wait for the
  // system's host-name service: they are read on the pool while GTK starts, not on the
  // main thread before the first frame.
  kp::runInBackground([] { (void)kp::DeviceInformation::shared().facts(); });
  weatherapp::report("phase", "library");
  std::vector<kp::NotificationCenter::ObservationToken> reported;
  if (running.options.reportNotifications) reported = reportNotifications();

  const weatherapp::MainQueueSource mainQueue;
  // Not unique: a second window is a second process, and no session bus is needed.
  GtkApplication* application = gtk_application_new(kApplicationId, G_APPLICATION_NON_UNIQUE);
  g_signal_connect(application, "activate", G_CALLBACK(activate), &running);
  auto quit = [](gpointer app) -> gboolean {
    g_application_quit(G_APPLICATION(app));
    return G_SOURCE_REMOVE;
  };
  g_unix_signal_add(SIGTERM, quit, application);
  g_unix_signal_add(SIGINT, quit, application);

  char* programOnly[] = {argv[0], nullptr};
  const int status = g_application_run(G_APPLICATION(application), 1, programOnly);
  running.app.reset();
  g_object_unref(application);
  // Saves of the last forecast still under way reach the disk before the process ends.
  kp::CacheController::sharedInstance()->waitForBackgroundWork();
  return status;
}
