// Helpers of the cache controller tests: a clock the tests move, an application in a given
// state, entries whose bytes tell their own length, the sqlite3 shell, and a fixture whose
// controllers keep their files in a folder of its own.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "kp/cache/cache_controller.h"
#include "support/process.h"
#include "support/temp_dir.h"
#include "tarvix/application.h"

namespace kp::test {

class TestClock final : public tarvix::DateService {
 public:
  std::chrono::system_clock::time_point now() const override { return time_.load(); }
  void advance(double seconds) {
    time_.store(time_.load() + std::chrono::duration_cast<std::chrono::system_clock::duration>(
                                   std::chrono::duration<double>(seconds)));
  }

 private:
  std::atomic<std::chrono::system_clock::time_point> time_{std::chrono::system_clock::now()};
};

class TestApplication final : public tarvix::Application {
 public:
  explicit TestApplication(tarvix::ApplicationState state) : state_(state) {}
  std::shared_ptr<void> applicationWindow() const override { return nullptr; }
  tarvix::ApplicationState applicationState() const override { return state_; }
  tarvix::InterfaceOrientation statusBarOrientation() const override { return {}; }
  bool isIdleTimerDisabled() const override { return false; }
  void setIdleTimerDisabled(bool) override {}
  bool canOpenURL(std::string_view) const override { return false; }
  void open(std::string_view) override {}
  void open(std::string_view, const OpenOptions&, std::function<void(bool)>) override {}

 private:
  tarvix::ApplicationState state_;
};

inline kp::CacheItemConfiguration policy(double age, bool backStore = true, std::optional<std::string> group = {}) {
  kp::CacheItemConfiguration c(age);
  c.retainInBackStore = backStore;
  c.groupName = std::move(group);
  return c;
}

inline std::shared_ptr<kp::CacheItem> entry(std::optional<kp::ArchiveValue> payload, kp::CacheItemConfiguration config,
                                            kp::CacheItemType type = kp::CacheItemType::serialized) {
  return std::make_shared<kp::CacheItem>(std::move(payload), std::move(config), type);
}

inline std::shared_ptr<kp::CacheItem> bytesEntry(const kp::Data& bytes, kp::CacheItemConfiguration config) {
  return entry(kp::ArchiveValue(bytes), std::move(config), kp::CacheItemType::rawDataToFile);
}

// Bytes that tell their own length: `size` times the byte size % 251.
inline kp::Data pattern(std::size_t size) {
  return kp::Data(std::vector<std::uint8_t>(size, static_cast<std::uint8_t>(size % 251)));
}
inline bool isPattern(const kp::Data& bytes) { return !bytes.empty() && bytes == pattern(bytes.size()); }

inline std::string sqlite(const std::filesystem::path& db, const std::string& sql) {
  using kp::test::shellQuote;
  return kp::test::runCommand("sqlite3 " + shellQuote(db.string()) + " " + shellQuote(sql) + " 2>&1").output;
}

class CacheControllerTest : public ::testing::Test {
 protected:
  kp::CacheController::Options options(std::optional<std::filesystem::path> directory = {}) const {
    kp::CacheController::Options options;
    options.directory = directory.value_or(dir_.path());
    options.clock = clock_;
    options.services = services_;
    return options;
  }
  std::unique_ptr<kp::CacheController> open(std::optional<std::filesystem::path> directory = {},
                                            std::size_t budget = kp::CacheController::kDefaultBackgroundBudgetBytes) {
    auto settings = options(std::move(directory));
    settings.backgroundBudgetBytes = budget;
    auto cache = std::make_unique<kp::CacheController>(settings);
    kp::MainQueue::shared()->runPending();  // the start-up step of a controller made elsewhere
    return cache;
  }
  void registerApplication(tarvix::ApplicationState state) {
    services_->registerInstance<tarvix::Application>(std::make_shared<TestApplication>(state));
  }
  std::filesystem::path database() const { return dir_.path() / "centralcache.db"; }

  kp::test::TempDir dir_;
  std::shared_ptr<TestClock> clock_ = std::make_shared<TestClock>();
  std::shared_ptr<kp::Services> services_ =
      std::make_shared<kp::Services>(std::make_shared<kp::DefaultServiceContainer>());
};

}  // namespace kp::test
