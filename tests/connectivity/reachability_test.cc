// Reachability, Connectivity and ConnectivityMonitor over a source the test drives.
#include "kp/connectivity/reachability.h"

#include <gtest/gtest.h>

#include "connectivity/connectivity_support.h"
#include "kp/connectivity/connectivity.h"
#include "kp/connectivity/connectivity_monitor.h"

namespace {

using kp::Reachability;
using kp::test::DrivenSource;
using Connection = kp::Reachability::Connection;

TEST(Reachability, FlagWordsMapToConnectionKinds) {
  const struct {
    kp::ReachabilityFlags flags;
    Connection allowed;
    Connection withoutCellular;
  } cases[] = {
      {0x2, Connection::wifi, Connection::wifi},          // reachable
      {0x6, Connection::none, Connection::none},          // a connection must be made first
      {0x2E, Connection::wifi, Connection::wifi},         // made on traffic or on demand
      {0x3E, Connection::none, Connection::none},         // ... but the user must step in
      {0x0A, Connection::wifi, Connection::wifi},         // on traffic, nothing required
      {0x16, Connection::none, Connection::none},         // required and intervention, no on-demand
      {0x40002, Connection::cellular, Connection::none},  // cellular
      {0x40006, Connection::cellular, Connection::none},  // cellular wins over "required"
      {0x7003D, Connection::none, Connection::none},      // everything but reachable
      {0x0, Connection::none, Connection::none},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Reachability::connectionFor(c.flags, true), c.allowed) << std::hex << c.flags;
    EXPECT_EQ(Reachability::connectionFor(c.flags, false), c.withoutCellular) << std::hex << c.flags;
  }

  // Without a notifier the first question reads the flags once; later ones use the word.
  auto source = std::make_shared<DrivenSource>(0x40002);
  auto reachability = Reachability::make(source);
  EXPECT_FALSE(reachability->flags());
  EXPECT_EQ(reachability->connection(), Connection::cellular);
  reachability->setAllowsCellularConnection(false);
  EXPECT_EQ(reachability->connection(), Connection::none);
  EXPECT_EQ(source->reads(), 1);
  EXPECT_EQ(Reachability::make(nullptr), nullptr);
}

TEST(Reachability, StartNotifierFailuresDetachFromTheSourceAndThrow) {
  auto expectFailure = [](const std::shared_ptr<DrivenSource>& source, Reachability::ErrorCode code) {
    auto reachability = Reachability::make(source);
    try {
      reachability->startNotifier();
      ADD_FAILURE() << "no error";
    } catch (const Reachability::Error& error) {
      EXPECT_EQ(error.code(), code);
      EXPECT_STRNE(error.what(), "");
    }
    EXPECT_FALSE(reachability->notifierRunning());
    EXPECT_FALSE(source->watched());
  };
  auto refusesCallback = std::make_shared<DrivenSource>();
  refusesCallback->refuseCallback = true;
  expectFailure(refusesCallback, Reachability::ErrorCode::callbackNotSet);
  auto refusesQueue = std::make_shared<DrivenSource>();
  refusesQueue->refuseQueue = true;
  expectFailure(refusesQueue, Reachability::ErrorCode::dispatchQueueNotSet);
  expectFailure(std::make_shared<DrivenSource>(std::nullopt), Reachability::ErrorCode::flagsNotRead);

  auto source = std::make_shared<DrivenSource>(0x2);
  auto reachability = Reachability::make(source, kp::DispatchQoS::utility);
  reachability->startNotifier();
  reachability->startNotifier();  // already running: nothing more is read
  EXPECT_TRUE(reachability->notifierRunning());
  EXPECT_TRUE(source->watched());
  EXPECT_EQ(source->reads(), 1);
  EXPECT_EQ(reachability->flags(), 0x2u);
  EXPECT_EQ(reachability->queueQoS(), kp::DispatchQoS::utility);
}

TEST(Reachability, ChangesRunTheCallbackThenNotifyOnTheMainQueue) {
  auto source = std::make_shared<DrivenSource>(0);
  auto reachability = Reachability::make(source);
  std::vector<std::string> events;
  bool offMain = false;
  auto note = [&](const std::string& what) {
    offMain = offMain || !kp::isMainThread();
    events.push_back(what);
  };
  reachability->setWhenReachable([&](Reachability& r) { note(r.flags() ? "reachable" : "?"); });
  reachability->setWhenUnreachable([&](Reachability& r) { note(r.flags() ? "unreachable" : "?"); });
  kp::NotificationCenter center;
  reachability->setNotificationCenter(center);
  auto token = center.addObserver(Reachability::kReachabilityChangedNotification, reachability.get(), nullptr,
                                  [&](const kp::Notification&) { note("notified"); });

  reachability->startNotifier();  // the first read is a change
  source->change(0x2);
  source->change(0x2);  // the same word again: no change
  ASSERT_TRUE(kp::test::eventuallyOnMain([&] { return events.size() >= 4; }));
  reachability->setAllowsCellularConnection(false);
  source->change(0x40002);  // cellular, but not allowed: unreachable
  ASSERT_TRUE(kp::test::eventuallyOnMain([&] { return events.size() >= 6; }));
  kp::MainQueue::shared()->runFor(std::chrono::milliseconds(20));
  EXPECT_EQ(events,
            (std::vector<std::string>{"unreachable", "notified", "reachable", "notified", "unreachable", "notified"}));
  EXPECT_FALSE(offMain);
}

TEST(Reachability, DestructionDetachesAndDropsQueuedDelivery) {
  auto source = std::make_shared<DrivenSource>(0);
  auto reachability = Reachability::make(source);
  int calls = 0;
  reachability->setWhenReachable([&](Reachability&) { ++calls; });
  reachability->setWhenUnreachable([&](Reachability&) { ++calls; });
  auto token = kp::NotificationCenter::defaultCenter().addObserver(Reachability::kReachabilityChangedNotification,
                                                                   reachability.get(), nullptr,
                                                                   [&](const kp::Notification&) { ++calls; });
  reachability->startNotifier();
  source->change(0x2);
  reachability->reachabilitySerialQueue()->sync([] {});  // the change is now queued on the main queue
  reachability.reset();
  EXPECT_FALSE(source->watched());
  source->change(0x0);
  kp::MainQueue::shared()->runFor(std::chrono::milliseconds(30));
  EXPECT_EQ(calls, 0);
}

TEST(Connectivity, AnswersFromItsReachabilityAndSurvivesAFailedStart) {
  const kp::Connectivity without(nullptr);
  EXPECT_EQ(without.type(), kp::ConnectionType::none);
  EXPECT_EQ(without.state(), kp::ConnectivityState::offline);
  EXPECT_FALSE(without.isOnline());
  EXPECT_TRUE(without.isOffline());

  // A source that cannot be read yet: the notifier does not start, later answers read anew.
  auto source = std::make_shared<DrivenSource>(std::nullopt);
  const kp::Connectivity connectivity(Reachability::make(source));
  EXPECT_FALSE(connectivity.reachability()->notifierRunning());
  EXPECT_TRUE(connectivity.isOffline());
  source->change(0x40002);
  EXPECT_EQ(connectivity.type(), kp::ConnectionType::cellular);
  EXPECT_EQ(connectivity.state(), kp::ConnectivityState::online);
  EXPECT_TRUE(connectivity.isOnline());
}

class OfflineOnly final : public kp::ConnectivityOfflineDelegate {
 public:
  void connectivityWentOffline() override { ++calls; }
  int calls = 0;
};

TEST(ConnectivityMonitor, CallsWhatEachDelegateImplementsOncePerChange) {
  auto source = std::make_shared<DrivenSource>(0);
  auto connectivity = std::make_shared<kp::Connectivity>(Reachability::make(source));
  kp::ConnectivityMonitor monitor(connectivity);
  EXPECT_EQ(monitor.previousType(), kp::ConnectionType::none);
  auto recorder = std::make_shared<kp::test::RecordingDelegate>();
  auto offlineOnly = std::make_shared<OfflineOnly>();
  auto released = std::make_shared<kp::test::RecordingDelegate>();
  monitor.addDelegate(recorder);
  monitor.addDelegate(released);
  monitor.addDelegate(offlineOnly);
  monitor.addDelegate(recorder);  // once only
  const std::weak_ptr<kp::test::RecordingDelegate> gone = released;
  released.reset();

  std::vector<std::string> expected;
  auto step = [&](kp::ReachabilityFlags flags, std::vector<std::string> calls) {
    source->change(flags);
    expected.insert(expected.end(), calls.begin(), calls.end());
    EXPECT_TRUE(kp::test::eventuallyOnMain([&] { return recorder->count() >= expected.size(); })) << flags;
  };
  step(0x2, {"wifi<-none", "online"});
  step(0x40002, {"cellular<-wifi"});
  step(0x0, {"none<-cellular", "offline"});
  // A notification without a change of kind calls nobody.
  kp::NotificationCenter::defaultCenter().post(Reachability::kReachabilityChangedNotification, nullptr);
  step(0x6, {});
  step(0x2, {"wifi<-none", "online"});
  kp::MainQueue::shared()->runFor(std::chrono::milliseconds(20));
  EXPECT_EQ(recorder->calls(), expected);
  EXPECT_EQ(offlineOnly->calls, 1);
  EXPECT_FALSE(recorder->offMainThread());
  EXPECT_TRUE(gone.expired());
  EXPECT_EQ(monitor.previousType(), kp::ConnectionType::wifi);

  monitor.removeDelegate(recorder);
  step(0x0, {});
  kp::MainQueue::shared()->runFor(std::chrono::milliseconds(20));
  EXPECT_EQ(recorder->calls().size(), expected.size());
  EXPECT_EQ(offlineOnly->calls, 2);
}

}  // namespace
