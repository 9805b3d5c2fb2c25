// The cache load and the checks of what is on the disk (checks.h).
#include "checks.h"

#include <sqlite3.h>

#include "kp/coding/property_list.h"
#include "kp/platform/dispatch.h"
#include "kp/platform/notification_center.h"

namespace kp::soak {

CacheLoad::CacheLoad(std::uint64_t seed, Breaches& breaches, Ledger& ledger)
    : seed_(seed), breaches_(breaches), ledger_(ledger) {}

CacheLoad::~CacheLoad() { stop(); }

void CacheLoad::start() {
  thread_ = std::thread([this] { run(); });
}

void CacheLoad::stop() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
}

Date CacheLoad::lastTrimEnd() const { return Date::fromTimeIntervalSince1970(lastTrimEnd_.load()); }

void CacheLoad::set(Random& random, const std::string& key, const std::optional<std::string>& group) {
  const bool toFile = random.chance(0.6);
  // Lifetimes: none, a few seconds (so that the clean-ups find expired entries), an hour.
  static constexpr double kAges[] = {0, 3, 8, 20, 3600};
  CacheItemConfiguration policy(kAges[random.below(5)]);
  policy.retainInBackStore = random.chance(0.9);
  policy.retainInMemory = random.chance(0.8);
  policy.expireOnMemoryWarning = random.chance(0.5);
  policy.autoExpiration = random.chance(0.8);
  // Rolling expiry moves a row's timestamp on a read; a trimmed file's row must keep its age.
  policy.rollingExpiration = (group || !toFile) && random.chance(0.2);
  policy.groupName = group;
  auto payload = makePayload(key, ++seq_, 1 + random.below(32 * 1024));
  auto item = std::make_shared<CacheItem>(ArchiveValue(std::move(payload)), std::move(policy),
                                          toFile ? CacheItemType::rawDataToFile : CacheItemType::serialized);
  CacheController::sharedInstance()->set(std::move(item), key);
  ledger_.add("cache sets");
}

void CacheLoad::run() {
  Random random(seed_ ^ 0xcac4e);
  const auto& cache = CacheController::sharedInstance();
  auto post = [](std::string_view name) {
    MainQueue::shared()->async([name] { NotificationCenter::defaultCenter().post(name); });
  };
  while (!stop_.load()) {
    const auto g = random.below(5);  // 4: no group
    const std::optional<std::string> group =
        g < 4 ? std::optional<std::string>("parent-" + std::to_string(g)) : std::nullopt;
    const std::string key = "parent/" + (group ? std::to_string(g) + "/" : "") + std::to_string(random.below(64));
    const auto op = random.below(100);
    if (op < 35) {
      set(random, key, group);
    } else if (op < 72) {
      ledger_.add("cache reads");
      if (auto item = cache->getCacheItem(key)) {
        ledger_.add("cache hits");
        const Data* bytes = item->item ? item->item->get<Data>() : nullptr;
        const auto problem = bytes ? checkPayload(key, *bytes) : std::optional<std::string>("no payload");
        if (problem) breaches_.add("cache read gave other bytes", key + ": " + *problem);
      }
    } else if (op < 78) {
      cache->removeCacheItem(key);
      ledger_.add("cache removals");
    } else if (op < 81) {
      cache->wipeCompleteCache(random.chance(0.2) ? std::string("requests") : group.value_or("parent-0"));
      ledger_.add("cache group wipes");
    } else if (op < 84) {
      cache->setMaximumCacheSizeInBytes((1 + random.below(4)) << 20);
      cache->curbUsedDiskSpace();
      cache->waitForBackgroundWork();
      lastTrimEnd_ = Date::now().timeIntervalSince1970();
      ledger_.add("cache size trims");
    } else if (op < 88) {
      post(ApplicationNotifications::kDidReceiveMemoryWarning);
      ledger_.add("memory warnings");
    } else if (op < 94) {
      post(ApplicationNotifications::kDidBecomeActive);
      post(ApplicationNotifications::kWillResignActive);
      ledger_.add("active/resign cycles");
    } else if (op < 96) {
      cache->wipeCompleteExpiredCache();
      ledger_.add("expired clean-ups");
    } else {
      (void)cache->getCacheItem(key, false);
      ledger_.add("cache reads");
    }
    std::this_thread::sleep_for(std::chrono::microseconds(random.below(4000)));
  }
}

std::vector<std::string> integrityProblems(const fs::path& database) {
  sqlite3* handle = nullptr;
  if (sqlite3_open_v2(database.c_str(), &handle, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
    std::string message = handle ? sqlite3_errmsg(handle) : "out of memory";
    sqlite3_close(handle);
    return {"cannot open " + database.string() + ": " + message};
  }
  // Writers of the soak hold their locks briefly; a kill may leave a log to recover first.
  sqlite3_busy_timeout(handle, 30'000);
  std::vector<std::string> rows;
  char* error = nullptr;
  const int status = sqlite3_exec(
      handle, "PRAGMA integrity_check",
      [](void* out, int, char** values, char**) {
        static_cast<std::vector<std::string>*>(out)->push_back(values[0] ? values[0] : "NULL");
        return 0;
      },
      &rows, &error);
  if (status != SQLITE_OK) rows = {std::string("integrity_check failed: ") + (error ? error : "?")};
  sqlite3_free(error);
  sqlite3_close(handle);
  if (rows.size() == 1 && rows.front() == "ok") return {};
  return rows;
}

void checkRowsAndFiles(CacheController& cache, const std::function<bool(const CacheRowSummary&)>& which,
                       Date lastTrimEnd, const std::string& when, Breaches& breaches, Ledger& ledger) {
  const double now = Date::now().timeIntervalSince1970();
  for (const auto& entry : cache.listEntries()) {
    const auto& row = entry.row;
    if (!which(row)) continue;
    const bool fileBacked = row.type == CacheItemType::rawDataToFile || row.type == CacheItemType::image;
    if (!fileBacked || entry.fileSize) continue;
    const double stamp = row.timestamp.timeIntervalSince1970();
    if (row.maximumAge > 0 && stamp + row.maximumAge <= now + 1) {
      ledger.add("rows without file: expired");
    } else if (!row.group && stamp <= lastTrimEnd.timeIntervalSince1970()) {
      ledger.add("rows without file: trimmed");
    } else {
      breaches.add("cache row without its file", when + ": " + row.key + (row.group ? " in " + *row.group : "") +
                                                     ", written " + std::to_string(now - stamp) + " s ago");
    }
  }
}

void checkSuiteFile(const fs::path& file, const std::string& when, Breaches& breaches) {
  if (const auto bytes = readFile(file)) {
    try {
      const Value root = readPropertyList(Data::fromString(*bytes).bytes());
      if (!root.ifDictionary()) breaches.add("suite file unreadable", when + ": not a dictionary");
    } catch (const std::exception& error) {
      breaches.add("suite file unreadable", when + ": " + error.what());
    }
  }
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(file.parent_path(), ignored)) {
    if (entry.path().filename().string().find(".damaged-") != std::string::npos) {
      breaches.add("suite file set aside as damaged", when + ": " + entry.path().filename().string());
    }
  }
}

void checkAcknowledged(const fs::path& file, const Acks& acks, Breaches& breaches, Ledger& ledger) {
  Value::Dictionary stored;
  try {
    const auto bytes = readFile(file);
    const Value root = bytes ? readPropertyList(Data::fromString(*bytes).bytes()) : Value(Value::Dictionary{});
    if (const auto* dictionary = root.ifDictionary()) stored = *dictionary;
  } catch (const std::exception& error) {
    breaches.add("suite file unreadable", std::string("at the end: ") + error.what());
    return;
  }
  for (const auto& [key, acknowledged] : acks) {
    ledger.add("defaults keys acknowledged");
    const Value* found = nullptr;
    for (const auto& [name, value] : stored) {
      if (name == key) found = &value;
    }
    const std::int64_t* value = found ? found->ifInteger() : nullptr;
    if (!value || *value < acknowledged) {
      breaches.add("acknowledged defaults write lost", key + ": acknowledged " + std::to_string(acknowledged) +
                                                           ", on disk " +
                                                           (value ? std::to_string(*value) : std::string("nothing")));
    }
  }
}

}  // namespace kp::soak
