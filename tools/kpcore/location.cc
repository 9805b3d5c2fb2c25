// kpcore location: the device's position from the system's location service; --watch prints
// each update until interrupted.
#include "kp/device/location.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <optional>
#include <thread>

#include "command.h"
#include "kp/platform/dispatch.h"

namespace {

using namespace std::chrono_literals;

std::atomic<bool> gInterrupted{false};
int gWake = -1;  // the write end of the interruption pipe

// Only a write is safe in a signal handler: a thread of ours reads it and ends the run.
extern "C" void interrupt(int) {
  gInterrupted = true;
  const char byte = 0;
  (void)!::write(gWake, &byte, 1);
}

// Ends the main queue's run when interrupted (SIGINT, SIGTERM), or when the tool is done.
class Interruption {
 public:
  Interruption() {
    if (::pipe2(ends_, O_CLOEXEC) != 0) throw kpcore::CommandError("cannot make a pipe");
    gWake = ends_[1];
    waiter_ = std::thread([read = ends_[0]] {
      char byte = 0;
      while (::read(read, &byte, 1) < 0 && errno == EINTR) {
      }
      kp::MainQueue::shared()->stop();
    });
    std::signal(SIGINT, interrupt);
    std::signal(SIGTERM, interrupt);
  }
  ~Interruption() {
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    const char byte = 0;
    (void)!::write(ends_[1], &byte, 1);
    waiter_.join();
    ::close(ends_[0]);
    ::close(ends_[1]);
  }

 private:
  int ends_[2] = {-1, -1};
  std::thread waiter_;
};

std::string number(double value, int decimals) {
  char text[48];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

std::string optionalNumber(const std::optional<double>& value, int decimals, bool json) {
  if (!value) return json ? "null" : "unknown";
  return number(*value, decimals);
}

void print(const kp::Location& location, bool json) {
  const std::string time = location.timestamp.iso8601(true);
  if (json) {
    std::cout << "{\"latitude\":" << number(location.latitude, 6) << ",\"longitude\":" << number(location.longitude, 6)
              << ",\"horizontalAccuracy\":" << number(location.horizontalAccuracy, 1)
              << ",\"altitude\":" << optionalNumber(location.altitude, 1, true)
              << ",\"speed\":" << optionalNumber(location.speed, 2, true)
              << ",\"heading\":" << optionalNumber(location.heading, 1, true)
              << ",\"timestamp\":" << kpcore::jsonQuote(time)
              << ",\"description\":" << kpcore::jsonQuote(location.description) << "}";
  } else {
    std::cout << time << " " << number(location.latitude, 6) << " " << number(location.longitude, 6) << " ±"
              << number(location.horizontalAccuracy, 0) << " m altitude " << optionalNumber(location.altitude, 1, false)
              << " speed " << optionalNumber(location.speed, 2, false) << " heading "
              << optionalNumber(location.heading, 1, false);
    if (!location.description.empty()) std::cout << " " << kpcore::printable(location.description);
  }
  std::cout << std::endl;
}

class Printer final : public kp::LocationControllerDelegate {
 public:
  Printer(bool json, bool watch) : json_(json), watch_(watch) {}
  void locationControllerDidUpdateLocation(kp::LocationController&, const kp::Location& location) override {
    print(location, json_);
    if (!watch_) kp::MainQueue::shared()->stop();
  }
  void locationControllerDidFail(kp::LocationController&, const kp::ErrorPtr& error) override {
    std::string text = error->localizedDescription();
    if (auto reason = error->localizedFailureReason()) text += " (" + *reason + ")";
    failure = std::move(text);
    kp::MainQueue::shared()->stop();
  }
  std::optional<std::string> failure;

 private:
  bool json_;
  bool watch_;
};

kp::LocationAccuracy accuracyOption(const std::optional<std::string>& text) {
  if (!text || *text == "city") return kp::LocationAccuracy::city;
  if (*text == "street") return kp::LocationAccuracy::street;
  if (*text == "exact") return kp::LocationAccuracy::exact;
  throw kpcore::CommandError("--accuracy takes city, street or exact: " + kpcore::printable(*text), 2);
}

int runLocation(kpcore::Args& args) {
  const bool json = args.flag("json");
  const bool watch = args.flag("watch");
  const auto accuracy = accuracyOption(args.option("accuracy"));
  const auto timeoutText = args.option("timeout");
  args.expectEnd();
  const auto timeout =
      std::chrono::seconds(timeoutText ? kpcore::integerOption("--timeout", *timeoutText, 1, 3600) : 30);

  auto controller = kp::LocationController::make();
  // The service knows applications by desktop ID; the tool has its own unless launched from
  // an application's entry.
  if (!controller->applicationId()) controller->setApplicationId("kpcore");
  controller->setDesiredAccuracy(accuracy);
  auto printer = std::make_shared<Printer>(json, watch);
  controller->addDelegate(printer);
  Interruption interruption;
  controller->startUpdatingLocation();
  if (watch) {
    kp::MainQueue::shared()->run();
  } else {
    // Without --watch the first fix ends the run, or the time allowed for it does.
    kp::MainQueue::shared()->runFor(timeout);
  }
  controller->stopUpdatingLocation();
  if (printer->failure) throw kpcore::CommandError(kpcore::printable(*printer->failure));
  if (!watch && !gInterrupted && !controller->location()) {
    throw kpcore::CommandError("no location within " + std::to_string(timeout.count()) + " s");
  }
  return 0;
}

const kpcore::Registration registration{
    "location", "Show the device's location from the system's location service",
    "kpcore location [--watch] [--accuracy city|street|exact] [--timeout SECONDS] [--json]\n"
    "  prints the first location (waiting up to --timeout, 30 s by default); --watch prints\n"
    "  each update until interrupted",
    runLocation};

}  // namespace
