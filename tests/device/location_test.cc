// The location controller against a GeoClue2 service of the test's own on a private bus,
// which moves, refuses, misbehaves, exits and restarts on the test's command.
#include "kp/device/location.h"

#include <gtest/gtest.h>

#include <cmath>
#include <csignal>
#include <limits>

#include "device/private_bus.h"
#include "kp/platform/dispatch.h"
#include "support/child_process.h"
#include "support/wait.h"

namespace kp {
namespace {

using namespace std::chrono_literals;

constexpr const char* kService = "org.freedesktop.GeoClue2";
constexpr const char* kManager = "/org/freedesktop/GeoClue2/Manager";

class Recorder final : public LocationControllerDelegate {
 public:
  void locationControllerDidUpdateLocation(LocationController&, const Location& location) override {
    onMain = onMain && isMainThread();
    locations.push_back(location);
  }
  void locationControllerDidFail(LocationController&, const ErrorPtr& error) override { errors.push_back(error); }
  void locationControllerDidChangeAuthorization(LocationController&, LocationAuthorizationStatus status) override {
    statuses.push_back(status);
  }
  std::vector<Location> locations;
  std::vector<ErrorPtr> errors;
  std::vector<LocationAuthorizationStatus> statuses;
  bool onMain = true;
};

template <class Done>
bool drainUntil(Done done) {
  return test::eventuallyOnMain(done, 5000ms);
}

struct Session {
  std::shared_ptr<LocationController> controller = LocationController::make(1500ms);
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
  Session() {
    controller->setApplicationId("org.example.Weather");
    controller->addDelegate(recorder);
  }
  // Starts and waits until the service accepted the application.
  void startAccepted() {
    controller->startUpdatingLocation();
    ASSERT_TRUE(drainUntil([&] { return !recorder->statuses.empty() || !recorder->errors.empty(); }));
    ASSERT_TRUE(recorder->errors.empty()) << recorder->errors[0]->localizedFailureReason().value_or("");
  }
  // Waits for the one error that ends the updates, and returns its code.
  std::int64_t failure() {
    EXPECT_TRUE(drainUntil([&] { return !recorder->errors.empty(); })) << "no error came";
    MainQueue::shared()->runFor(50ms);  // nothing more follows
    EXPECT_EQ(recorder->errors.size(), 1u);
    EXPECT_FALSE(controller->isUpdating());
    if (recorder->errors.empty()) return -1;
    EXPECT_EQ(recorder->errors[0]->domain(), kLocationErrorDomain);
    return recorder->errors[0]->code();
  }
};

std::int64_t code(LocationErrorCode c) { return static_cast<std::int64_t>(c); }

TEST(Location, FollowsTheServiceFromStartToStopOnTheMainQueue) {
  test::PrivateSystemBus bus;
  auto service = bus.startMock("geoclue2_mock.py", kService);
  ASSERT_EQ(bus.callMock(kService, kManager, "MoveTo", "ddd", 52.37, 4.89, 25.0), "");
  Session session;
  session.controller->setDesiredAccuracy(LocationAccuracy::street);
  auto gone = std::make_shared<Recorder>();
  session.controller->addDelegate(gone);
  EXPECT_EQ(session.controller->authorizationStatus(), LocationAuthorizationStatus::notDetermined);
  session.startAccepted();
  gone.reset();  // held weakly: nothing keeps it, nothing calls it

  // The service had a location already; it comes at once, then each move.
  ASSERT_TRUE(drainUntil([&] { return session.recorder->locations.size() == 1; }));
  ASSERT_EQ(bus.callMock(kService, kManager, "MoveTo", "ddd", 48.8566, 2.3522, 10.0), "");
  ASSERT_TRUE(drainUntil([&] { return session.recorder->locations.size() == 2; }));
  const auto& paris = session.recorder->locations[1];
  EXPECT_DOUBLE_EQ(paris.latitude, 48.8566);
  EXPECT_DOUBLE_EQ(paris.longitude, 2.3522);
  EXPECT_DOUBLE_EQ(paris.horizontalAccuracy, 10.0);
  EXPECT_FALSE(paris.altitude);  // the service's "unknown"
  EXPECT_FALSE(paris.speed);
  EXPECT_LT(std::abs(paris.timestamp.timeIntervalSinceNow()), 60.0);
  EXPECT_TRUE(session.recorder->onMain);
  EXPECT_EQ(session.recorder->statuses,
            std::vector<LocationAuthorizationStatus>{LocationAuthorizationStatus::authorizedWhenInUse});
  EXPECT_DOUBLE_EQ(session.controller->location()->latitude, 48.8566);

  // The service knows the application and the accuracy asked for.
  char* desktopId = nullptr;
  ASSERT_GE(sd_bus_get_property_string(bus.bus(), kService, "/org/freedesktop/GeoClue2/Client/1",
                                       "org.freedesktop.GeoClue2.Client", "DesktopId", nullptr, &desktopId),
            0);
  EXPECT_STREQ(desktopId, "org.example.Weather");
  std::free(desktopId);
  std::uint32_t level = 0;
  ASSERT_GE(
      sd_bus_get_property_trivial(bus.bus(), kService, "/org/freedesktop/GeoClue2/Client/1",
                                  "org.freedesktop.GeoClue2.Client", "RequestedAccuracyLevel", nullptr, 'u', &level),
      0);
  EXPECT_EQ(level, 6u);

  // Stopped, the client stops in the service and nothing more is told.
  session.controller->stopUpdatingLocation();
  int active = 1;
  (void)test::eventually(
      [&] {
        (void)sd_bus_get_property_trivial(bus.bus(), kService, "/org/freedesktop/GeoClue2/Client/1",
                                          "org.freedesktop.GeoClue2.Client", "Active", nullptr, 'b', &active);
        return active == 0;
      },
      5s);
  EXPECT_EQ(active, 0);
  ASSERT_EQ(bus.callMock(kService, kManager, "MoveTo", "ddd", 40.0, 3.0, 10.0), "");
  MainQueue::shared()->runFor(200ms);
  EXPECT_EQ(session.recorder->locations.size(), 2u);
  EXPECT_TRUE(session.recorder->errors.empty());
}

TEST(Location, EndsWithOneClearErrorWhenTheServiceIsMissingOrRefuses) {
  test::PrivateSystemBus bus;
  {
    Session session;  // nobody owns the name
    session.controller->startUpdatingLocation();
    EXPECT_EQ(session.failure(), code(LocationErrorCode::serviceUnavailable));
  }
  {
    auto noIdentity = LocationController::make();
    noIdentity->setApplicationId("");
    auto recorder = std::make_shared<Recorder>();
    noIdentity->addDelegate(recorder);
    noIdentity->startUpdatingLocation();
    ASSERT_TRUE(drainUntil([&] { return !recorder->errors.empty(); }));
    EXPECT_EQ(recorder->errors[0]->code(), code(LocationErrorCode::noApplicationIdentity));
  }
  auto service = bus.startMock("geoclue2_mock.py", kService);
  for (const char* method : {"GetClient", "Start"}) {
    ASSERT_EQ(bus.callMock(kService, kManager, "Refuse", "ss", method, "org.freedesktop.DBus.Error.AccessDenied"), "");
    Session session;
    session.controller->startUpdatingLocation();
    EXPECT_EQ(session.failure(), code(LocationErrorCode::denied)) << method;
    EXPECT_EQ(session.controller->authorizationStatus(), LocationAuthorizationStatus::denied);
    EXPECT_EQ(session.recorder->statuses, std::vector{LocationAuthorizationStatus::denied});
    ASSERT_EQ(bus.callMock(kService, kManager, "Refuse", "ss", method, ""), "");
  }
  {
    Session session;  // the user withdraws the permission while updates run
    session.startAccepted();
    ASSERT_EQ(bus.callMock(kService, kManager, "Withdraw", ""), "");
    EXPECT_EQ(session.failure(), code(LocationErrorCode::denied));
  }
  {
    ASSERT_EQ(bus.callMock(kService, kManager, "Refuse", "ss", "GetClient", "hang"), "");
    Session session;
    const auto start = std::chrono::steady_clock::now();
    session.controller->startUpdatingLocation();
    EXPECT_EQ(session.failure(), code(LocationErrorCode::timedOut));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2900ms);
  }
}

TEST(Location, RefusesMalformedAnswersAndEndsWhenTheServiceGoes) {
  test::PrivateSystemBus bus;
  auto service = bus.startMock("geoclue2_mock.py", kService);
  const double nan = std::numeric_limits<double>::quiet_NaN();
  struct Misbehaviour {
    const char* name;
    std::function<std::string()> act;
  };
  const Misbehaviour cases[] = {
      {"latitude as text", [&] { return bus.callMock(kService, kManager, "MoveToMalformed", "s", "textLatitude"); }},
      {"no longitude", [&] { return bus.callMock(kService, kManager, "MoveToMalformed", "s", "noLongitude"); }},
      {"NaN latitude", [&] { return bus.callMock(kService, kManager, "MoveTo", "ddd", nan, 4.0, 10.0); }},
      {"latitude 95", [&] { return bus.callMock(kService, kManager, "MoveTo", "ddd", 95.0, 4.0, 10.0); }},
      {"negative accuracy", [&] { return bus.callMock(kService, kManager, "MoveTo", "ddd", 52.0, 4.0, -1.0); }},
      {"update without paths", [&] { return bus.callMock(kService, kManager, "SendBadUpdate", ""); }},
  };
  ASSERT_EQ(bus.callMock(kService, kManager, "MoveTo", "ddd", 52.37, 4.89, 25.0), "");
  for (const auto& misbehaviour : cases) {
    Session session;
    session.startAccepted();
    ASSERT_TRUE(drainUntil([&] { return session.recorder->locations.size() == 1; })) << misbehaviour.name;
    ASSERT_EQ(misbehaviour.act(), "") << misbehaviour.name;
    EXPECT_EQ(session.failure(), code(LocationErrorCode::malformedReply)) << misbehaviour.name;
    EXPECT_EQ(session.recorder->locations.size(), 1u) << misbehaviour.name;
    EXPECT_DOUBLE_EQ(session.controller->location()->latitude, 52.37) << misbehaviour.name;
    // The next session starts from a good location again.
    ASSERT_EQ(bus.callMock(kService, kManager, "MoveTo", "ddd", 52.37, 4.89, 25.0), "");
  }

  // Restarted: the session ends (its client died with the old service), and a new start
  // reaches the new one.
  Session session;
  session.startAccepted();
  ASSERT_TRUE(drainUntil([&] { return !session.recorder->locations.empty(); }));
  service.reset();
  service = bus.startMock("geoclue2_mock.py", kService);
  EXPECT_EQ(session.failure(), code(LocationErrorCode::serviceVanished));
  ASSERT_EQ(bus.callMock(kService, kManager, "MoveTo", "ddd", 51.5, -0.12, 20.0), "");
  session.recorder->errors.clear();
  session.startAccepted();
  ASSERT_TRUE(drainUntil([&] { return session.recorder->locations.size() == 2; }));
  EXPECT_DOUBLE_EQ(session.recorder->locations[1].latitude, 51.5);

  // Gone for good.
  service.reset();
  EXPECT_EQ(session.failure(), code(LocationErrorCode::serviceVanished));
  EXPECT_DOUBLE_EQ(session.controller->location()->latitude, 51.5);  // the last one stays
}

TEST(Location, KpcorePrintsTheLocationAndWatchesUntilInterrupted) {
  test::PrivateSystemBus bus;
  auto service = bus.startMock("geoclue2_mock.py", kService);
  ASSERT_EQ(bus.callMock(kService, kManager, "MoveTo", "ddd", 52.37, 4.89, 25.0), "");
  const std::vector<std::string> environment{"DBUS_SYSTEM_BUS_ADDRESS=" + bus.address()};
  {
    test::ChildProcess once({KPCORE_PATH, "location", "--json", "--accuracy", "exact", "--timeout", "10"},
                            {.input = {}, .captureOutput = true, .captureErrors = true, .environment = environment});
    const auto output = once.readAll(15s);
    EXPECT_EQ(once.wait(), 0) << output;
    EXPECT_NE(output.find(R"({"latitude":52.370000,"longitude":4.890000,"horizontalAccuracy":25.0,"altitude":null)"),
              std::string::npos)
        << output;
  }
  test::ChildProcess watch({KPCORE_PATH, "location", "--watch"},
                           {.input = {}, .captureOutput = true, .captureErrors = true, .environment = environment});
  auto first = watch.readLine(10s);
  ASSERT_TRUE(first);
  EXPECT_NE(first->find(" 52.370000 4.890000 ±25 m"), std::string::npos) << *first;
  ASSERT_EQ(bus.callMock(kService, kManager, "MoveTo", "ddd", 48.8566, 2.3522, 10.0), "");
  auto second = watch.readLine(10s);
  ASSERT_TRUE(second);
  EXPECT_NE(second->find(" 48.856600 2.352200 "), std::string::npos) << *second;
  watch.signal(SIGINT);
  EXPECT_EQ(watch.wait(), 0);

  test::ChildProcess refused({KPCORE_PATH, "location", "--accuracy", "nearby"},
                             {.input = {}, .captureOutput = true, .captureErrors = true, .environment = environment});
  EXPECT_NE(refused.readAll(10s).find("--accuracy takes city, street or exact"), std::string::npos);
  EXPECT_EQ(refused.wait(), 2);
}

}  // namespace
}  // namespace kp
