// Connectivity against what it is built from, measured in the same run: isOnline() against a
// bare atomic load of a flag word, and the time from a route change in the kernel to the
// delegate call on a drained main queue against the time to a raw netlink socket's reader.
// The route changes happen in a network namespace of the benchmark's own.
#include <benchmark/benchmark.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <vector>

#include "connectivity/rtnl_support.h"
#include "kp/connectivity/connectivity.h"
#include "kp/connectivity/connectivity_monitor.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kChanges = 100;

void BM_Baseline_AtomicFlagWord(benchmark::State& state) {
  std::atomic<std::uint64_t> word{(std::uint64_t{1} << 32) | 0x2};
  for (auto _ : state) {
    const std::uint64_t w = word.load(std::memory_order_acquire);
    benchmark::DoNotOptimize((w >> 32) != 0 && (w & 0x2) != 0);
  }
}
BENCHMARK(BM_Baseline_AtomicFlagWord);

void BM_ConnectivityIsOnline(benchmark::State& state) {
  const auto& connectivity = kp::Connectivity::default_();
  (void)connectivity->isOnline();  // flags known from here on
  for (auto _ : state) benchmark::DoNotOptimize(connectivity->isOnline());
}
BENCHMARK(BM_ConnectivityIsOnline);

void BM_ConnectivityIsCurrentlyOnline(benchmark::State& state) {
  (void)kp::Connectivity::isCurrentlyOnline();
  for (auto _ : state) benchmark::DoNotOptimize(kp::Connectivity::isCurrentlyOnline());
}
BENCHMARK(BM_ConnectivityIsCurrentlyOnline);

// A namespace with one link up, made once per process.
kp::test::RtnlClient* namespaceWithLink(benchmark::State& state) {
  static const std::string refused = kp::test::enterNewNetworkNamespace();
  static kp::test::RtnlClient* client = nullptr;
  if (!refused.empty()) {
    state.SkipWithError(refused.c_str());
    return nullptr;
  }
  if (client == nullptr) {
    client = new kp::test::RtnlClient();
    client->addVethPair("b0", "b1");
    client->setUp("b1", true);
    client->setUp("b0", true);
  }
  return client;
}

// Only changes that arrived count; "missed" says how many did not within the limit.
void report(benchmark::State& state, std::vector<double> micros) {
  state.counters["missed"] = kChanges - static_cast<double>(micros.size());
  if (micros.empty()) {
    state.SkipWithError("no change arrived");
    return;
  }
  std::sort(micros.begin(), micros.end());
  state.counters["median_us"] = micros[micros.size() / 2];
  state.counters["worst_us"] = micros.back();
}

// Adds the default route on even changes and deletes it on odd ones.
void change(kp::test::RtnlClient& rtnl, int i) {
  if (i % 2 == 0) {
    rtnl.addDefaultRoute("b0", 100);
  } else {
    rtnl.deleteDefaultRoute("b0", 100);
  }
}

void BM_Baseline_RouteChangeToRawNetlinkReader(benchmark::State& state) {
  auto* rtnl = namespaceWithLink(state);
  if (rtnl == nullptr) return;
  const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  local.nl_groups = RTMGRP_IPV4_ROUTE;
  ::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local);
  std::vector<char> buffer(65536);
  for (auto _ : state) {
    std::vector<double> micros;
    for (int i = 0; i < kChanges; ++i) {
      const auto start = Clock::now();
      change(*rtnl, i);
      pollfd ready{fd, POLLIN, 0};
      if (::poll(&ready, 1, 5000) != 1) continue;
      (void)::recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
      micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    report(state, micros);
  }
  ::close(fd);
}
BENCHMARK(BM_Baseline_RouteChangeToRawNetlinkReader)->Iterations(1)->Unit(benchmark::kMillisecond);

class Stopwatch final : public kp::ConnectivityChangeDelegate {
 public:
  void connectivity(kp::ConnectionType, kp::ConnectionType) override {
    at = Clock::now();
    called = true;
    kp::MainQueue::shared()->stop();
  }
  Clock::time_point at;
  bool called = false;
};

void BM_RouteChangeToDelegate(benchmark::State& state) {
  auto* rtnl = namespaceWithLink(state);
  if (rtnl == nullptr) return;
  auto connectivity = std::make_shared<kp::Connectivity>(kp::Reachability::make());
  kp::ConnectivityMonitor monitor(connectivity);
  auto stopwatch = std::make_shared<Stopwatch>();
  monitor.addDelegate(stopwatch);
  kp::MainQueue::shared()->runFor(std::chrono::milliseconds(50));  // the first read's delivery
  for (auto _ : state) {
    std::vector<double> micros;
    for (int i = 0; i < kChanges; ++i) {
      stopwatch->called = false;
      const auto start = Clock::now();
      change(*rtnl, i);
      const auto limit = Clock::now() + std::chrono::seconds(5);
      while (!stopwatch->called && Clock::now() < limit) kp::MainQueue::shared()->runFor(std::chrono::milliseconds(5));
      if (!stopwatch->called) continue;
      micros.push_back(std::chrono::duration<double, std::micro>(stopwatch->at - start).count());
    }
    report(state, micros);
  }
}
BENCHMARK(BM_RouteChangeToDelegate)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
