// Synchronized, WeakHashTable and the notification centre.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "kp/platform/notification_center.h"
#include "kp/platform/synchronized.h"
#include "kp/platform/weak_hash_table.h"

namespace {

TEST(Synchronized, ConcurrentWritersLoseNoUpdate) {
  kp::Synchronized<std::map<std::string, int>> map({}, "test.synchronized");
  kp::Synchronized<std::uint64_t> counter(0, kp::SerialQueue::make("test.counter"), kp::WorkItemFlags::barrier);
  std::vector<std::thread> writers;
  for (int t = 0; t < 4; ++t) {
    writers.emplace_back([&, t] {
      for (int i = 0; i < 1000; ++i) {
        counter.modify([](std::uint64_t& v) { ++v; });
        map.modify([&](auto& m) { m["k" + std::to_string(t)] += 1; });
        (void)map.read([](const auto& m) { return m.size(); });
      }
    });
  }
  for (auto& w : writers) w.join();
  EXPECT_EQ(counter.get(), 4000u);
  const auto snapshot = map.get();
  ASSERT_EQ(snapshot.size(), 4u);
  for (const auto& [key, value] : snapshot) EXPECT_EQ(value, 1000) << key;
  // Reading from inside a write on the same wrapper runs inline instead of deadlocking.
  counter.modify([&](std::uint64_t& v) { v = counter.get() + 1; });
  EXPECT_EQ(counter.get(), 4001u);
}

struct Delegate {
  int id;
};

TEST(WeakHashTable, KeepsInsertionOrderRefusesDuplicatesAndDropsReleased) {
  kp::WeakHashTable<Delegate> table;
  auto a = std::make_shared<Delegate>(Delegate{1});
  auto b = std::make_shared<Delegate>(Delegate{2});
  auto c = std::make_shared<Delegate>(Delegate{3});
  table.add(b);
  table.add(a);
  table.add(b);  // duplicate: refused
  table.add(c);
  std::vector<int> ids;
  table.forEach([&](const auto& d) { ids.push_back(d->id); });
  EXPECT_EQ(ids, (std::vector<int>{2, 1, 3}));

  a.reset();  // released: no longer seen
  ids.clear();
  for (const auto& d : table.allObjects()) ids.push_back(d->id);
  EXPECT_EQ(ids, (std::vector<int>{2, 3}));

  table.remove(b);
  EXPECT_FALSE(table.contains(b.get()));
  EXPECT_EQ(table.count(), 1u);
  table.add(b);  // re-added after removal: goes to the end
  ids.clear();
  for (const auto& d : table.allObjects()) ids.push_back(d->id);
  EXPECT_EQ(ids, (std::vector<int>{3, 2}));
}

TEST(WeakHashTable, ConcurrentAddRemoveAndIteration) {
  kp::WeakHashTable<Delegate> table;
  std::vector<std::shared_ptr<Delegate>> keep;
  for (int i = 0; i < 16; ++i) keep.push_back(std::make_shared<Delegate>(Delegate{i}));
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 500; ++i) {
        auto& d = keep[static_cast<size_t>((i + t) % 16)];
        table.add(d);
        if (i % 3 == 0) table.remove(d);
        auto temp = std::make_shared<Delegate>(Delegate{-1});
        table.add(temp);  // dies at once; dropped on a later add
        table.forEach([](const auto& e) { (void)e->id; });
      }
    });
  }
  for (auto& th : threads) th.join();
  for (const auto& d : table.allObjects()) EXPECT_GE(d->id, 0);
}

TEST(NotificationCenter, DeliversByNameAndSenderOnThePostingThreadOrTheGivenQueue) {
  kp::NotificationCenter center;
  int senderA = 0, senderB = 0;
  std::vector<std::string> got;
  std::thread::id deliveredOn;
  auto any = center.addObserver("changed", nullptr, nullptr, [&](const kp::Notification& n) {
    got.push_back(n.name + (n.sender == &senderA ? ":A" : ":B"));
    deliveredOn = std::this_thread::get_id();
  });
  auto onlyA =
      center.addObserver("changed", &senderA, nullptr, [&](const kp::Notification&) { got.push_back("onlyA"); });
  auto queue = kp::SerialQueue::make("test.notifications");
  std::atomic<int> queued{0};
  std::atomic<bool> onQueue{false};
  auto viaQueue = center.addObserver("changed", nullptr, queue, [&](const kp::Notification& n) {
    onQueue = queue->isCurrent();
    EXPECT_EQ(std::any_cast<int>(n.userInfo.at("count")), 5);
    queued.fetch_add(1);
  });
  center.post("other");
  center.post(kp::Notification{"changed", &senderA, {{"count", 5}}});
  center.post(kp::Notification{"changed", &senderB, {{"count", 5}}});
  EXPECT_EQ(got, (std::vector<std::string>{"changed:A", "onlyA", "changed:B"}));
  EXPECT_EQ(deliveredOn, std::this_thread::get_id());
  queue->sync([] {});
  EXPECT_EQ(queued.load(), 2);
  EXPECT_TRUE(onQueue.load());

  center.removeObserver(any);
  onlyA.reset();
  viaQueue.reset();
  got.clear();
  center.post("changed", &senderA);
  EXPECT_TRUE(got.empty());
}

TEST(NotificationCenter, ObserversMayRemoveThemselvesDuringDeliveryFromAnyThread) {
  kp::NotificationCenter center;
  std::atomic<int> calls{0};
  kp::NotificationCenter::ObservationToken self;
  self = center.addObserver("once", nullptr, nullptr, [&](const kp::Notification&) {
    calls.fetch_add(1);
    center.removeObserver(self);
  });
  center.post("once");
  center.post("once");
  EXPECT_EQ(calls.load(), 1);

  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        auto token = center.addObserver("busy", nullptr, nullptr, [](const kp::Notification&) {});
        center.post("busy");
      }
    });
  }
  for (auto& th : threads) th.join();
}

}  // namespace
