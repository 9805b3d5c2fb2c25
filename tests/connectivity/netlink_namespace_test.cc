// The kernel's own view: the netlink source in a network namespace the test makes for itself,
// with veth links brought up and down and default routes added and removed.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <future>
#include <thread>

#include "connectivity/connectivity_support.h"
#include "connectivity/rtnl_support.h"
#include "kp/connectivity/connectivity.h"
#include "kp/connectivity/connectivity_monitor.h"
#include "support/process.h"

namespace {

using kp::test::RecordingDelegate;
using namespace std::chrono_literals;

class NetlinkReachability : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string refused = kp::test::enterNewNetworkNamespace();
    if (!refused.empty()) GTEST_SKIP() << refused << "; the flag rules are tested with a driven source only";
    rtnl = std::make_unique<kp::test::RtnlClient>();
    try {
      rtnl->addVethPair("v0", "v1");
    } catch (const std::exception& e) {
      GTEST_SKIP() << "no veth links here (" << e.what() << ")";
    }
  }

  // v0 up with carrier and an address, and its peer up.
  void bringUp() {
    rtnl->setUp("v1", true);
    rtnl->setUp("v0", true);
    rtnl->addAddress("v0", "10.7.0.1", 24);
  }

  // A reachability object in this namespace, its connectivity and a monitor with a recorder.
  void watch() {
    reachability = kp::Reachability::make();
    ASSERT_TRUE(reachability);
    connectivity = std::make_shared<kp::Connectivity>(reachability);
    ASSERT_TRUE(reachability->notifierRunning());
    monitor = std::make_shared<kp::ConnectivityMonitor>(connectivity);
    monitor->addDelegate(recorder);
  }

  // Waits for `calls` more delegate calls, then checks that all so far are as expected.
  void expectCalls(const std::vector<std::string>& calls) {
    expected.insert(expected.end(), calls.begin(), calls.end());
    EXPECT_TRUE(kp::test::eventuallyOnMain([&] { return recorder->count() >= expected.size(); }));
    EXPECT_EQ(recorder->calls(), expected);
  }

  std::unique_ptr<kp::test::RtnlClient> rtnl;
  std::shared_ptr<kp::Reachability> reachability;
  std::shared_ptr<kp::Connectivity> connectivity;
  std::shared_ptr<kp::ConnectivityMonitor> monitor;
  std::shared_ptr<RecordingDelegate> recorder = std::make_shared<RecordingDelegate>();
  std::vector<std::string> expected;
};

TEST_F(NetlinkReachability, FollowsLinksAndDefaultRoutesInOrder) {
  watch();
  EXPECT_EQ(reachability->flags(), 0u);
  bringUp();
  rtnl->addDefaultRoute("v0", 100, false, "10.7.0.2");
  expectCalls({"wifi<-none", "online"});
  EXPECT_EQ(reachability->flags(), kp::ReachabilityFlag::reachable);

  rtnl->setUp("v1", false);  // v0 loses its carrier; its route stays
  expectCalls({"none<-wifi", "offline"});
  rtnl->setUp("v1", true);
  expectCalls({"wifi<-none", "online"});

  rtnl->setDormant("v0", true);
  expectCalls({"none<-wifi", "offline"});
  EXPECT_EQ(reachability->flags(), kp::ReachabilityFlag::connectionRequired);
  rtnl->setDormant("v0", false);
  expectCalls({"wifi<-none", "online"});

  // Taking the link down drops its IPv4 routes without a route notification.
  rtnl->setUp("v0", false);
  expectCalls({"none<-wifi", "offline"});
  rtnl->setUp("v0", true);
  kp::MainQueue::shared()->runFor(100ms);
  EXPECT_EQ(reachability->flags(), 0u);

  rtnl->addDefaultRoute("v0", 50, true);  // IPv6 counts as well
  expectCalls({"wifi<-none", "online"});
  rtnl->deleteLink("v0");
  expectCalls({"none<-wifi", "offline"});
  kp::MainQueue::shared()->runFor(100ms);
  EXPECT_EQ(recorder->calls(), expected);
  EXPECT_FALSE(recorder->offMainThread());
}

TEST_F(NetlinkReachability, OverflowIsRecoveredWithTheLastChange) {
  // No IPv6 addresses, whose late notifications would read the routes anew by chance.
  for (const char* link : {"v0", "v1"}) {
    std::ofstream(std::string("/proc/sys/net/ipv6/conf/") + link + "/disable_ipv6") << "1";
  }
  bringUp();
  rtnl->addDefaultRoute("v0", 100);
  watch();
  EXPECT_TRUE(connectivity->isOnline());
  const std::uint64_t droppedBefore = kp::test::droppedNotifications();

  // While the queue is held, notifications pile up on the socket until the kernel drops some,
  // among them the one change that matters.
  std::promise<void> release;
  reachability->reachabilitySerialQueue()->async([held = release.get_future().share()] { held.wait(); });
  rtnl->floodHostRoutes("v0", 3000);
  rtnl->deleteDefaultRoute("v0", 100);
  EXPECT_GT(kp::test::droppedNotifications(), droppedBefore) << "the flood did not overflow the socket";
  release.set_value();
  expectCalls({"none<-wifi", "offline"});
  kp::MainQueue::shared()->runFor(100ms);
  EXPECT_EQ(recorder->calls(), expected);
  EXPECT_TRUE(connectivity->isOffline());

  rtnl->addDefaultRoute("v0", 100);  // and it goes on watching
  expectCalls({"wifi<-none", "online"});
}

TEST_F(NetlinkReachability, StormOfChangesEndsRightWithOneCallPerChange) {
  bringUp();
  watch();
  // Links come and go while the routes flap, so dumps meet links that vanish under them.
  std::atomic<bool> stop{false};
  std::thread churn([&] {
    kp::test::RtnlClient other;
    for (int i = 0; !stop.load(); ++i) {
      const std::string name = "x" + std::to_string(i % 4);
      other.addVethPair(name, "y" + std::to_string(i % 4));
      (void)reachability->reachabilityRef()->flags();
      other.deleteLink(name);
    }
  });
  for (int i = 0; i < 300; ++i) {
    rtnl->addDefaultRoute("v0", 100);
    rtnl->deleteDefaultRoute("v0", 100);
    if (i % 50 == 0) kp::MainQueue::shared()->runFor(1ms);
  }
  rtnl->addDefaultRoute("v0", 100);
  stop.store(true);
  churn.join();
  EXPECT_TRUE(kp::test::eventuallyOnMain([&] { return monitor->previousType() == kp::ConnectionType::wifi; }));
  kp::MainQueue::shared()->runFor(200ms);

  // Every change call follows on from the one before; an online or offline call comes right
  // after the change it belongs to (none when the kind had already moved on when read again).
  const auto calls = recorder->calls();
  std::string kind = "none";
  std::string from;
  for (std::size_t i = 0; i < calls.size(); ++i) {
    if (calls[i] == "online" || calls[i] == "offline") {
      EXPECT_EQ(calls[i], kind == "none" ? "offline" : "online") << i;
      EXPECT_TRUE(i > 0 && calls[i - 1].find("<-") != std::string::npos) << i;
      EXPECT_EQ(from == "none", kind != "none") << i;
      continue;
    }
    const auto arrow = calls[i].find("<-");
    ASSERT_NE(arrow, std::string::npos) << i;
    from = calls[i].substr(arrow + 2);
    EXPECT_EQ(from, kind) << i;
    EXPECT_NE(calls[i].substr(0, arrow), kind) << i;
    kind = calls[i].substr(0, arrow);
  }
  EXPECT_EQ(kind, "wifi");
  EXPECT_EQ(connectivity->type(), kp::ConnectionType::wifi);
}

// Reads one line from `pipe`, waiting at most 10 s.
std::string readLine(FILE* pipe) {
  pollfd ready{fileno(pipe), POLLIN, 0};
  char line[256] = {};
  if (::poll(&ready, 1, 10000) <= 0 || std::fgets(line, sizeof line, pipe) == nullptr) return "";
  return line;
}

TEST_F(NetlinkReachability, KpcorePrintsTheStateAndWatchesChanges) {
  const std::string kpcore = std::string(KPCORE_PATH) + " reachability";
  auto once = kp::test::runCommand(kpcore);
  EXPECT_EQ(once.status, 0);
  EXPECT_EQ(once.output, "none 0x00000000\n");

  // The shell prints its process id, then becomes kpcore.
  FILE* watch = ::popen(("echo $$; exec " + kpcore + " --watch").c_str(), "r");
  ASSERT_NE(watch, nullptr);
  setvbuf(watch, nullptr, _IONBF, 0);
  const int pid = std::atoi(readLine(watch).c_str());
  ASSERT_GT(pid, 0);
  EXPECT_TRUE(readLine(watch).ends_with("Z none 0x00000000\n"));
  bringUp();
  rtnl->addDefaultRoute("v0", 100);
  EXPECT_TRUE(readLine(watch).ends_with("Z wifi 0x00000002 reachable\n"));
  rtnl->deleteDefaultRoute("v0", 100);
  EXPECT_TRUE(readLine(watch).ends_with("Z none 0x00000000\n"));
  ::kill(pid, SIGINT);
  const int status = ::pclose(watch);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

  rtnl->addDefaultRoute("v0", 100);
  auto json = kp::test::runCommand(kpcore + " --json");
  EXPECT_EQ(json.status, 0);
  EXPECT_EQ(json.output, "{\"connection\":\"wifi\",\"flags\":2,\"flagNames\":\"reachable\"}\n");
}

}  // namespace
