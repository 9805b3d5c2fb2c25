// The cache controller: the read path across the three tiers, the background tasks, and the
// application-life handling.
#include "kp/cache/cache_controller.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <typeinfo>

#include "cache/background_work.h"
#include "cache/entry_rules.h"
#include "cache/file_storage.h"
#include "cache/memory_storage.h"
#include "cache/stored_entries.h"
#include "kp/coding/archivable_image.h"
#include "kp/container/core_services.h"
#include "kp/container/dependency.h"
#include "kp/foundation/dispatch.h"
#include "kp/platform/application_info.h"
#include "kp/platform/synchronized.h"
#include "platform/files.h"
#include "platform/no_destructor.h"
#include "tarvix/application.h"

namespace kp {
namespace {

namespace fs = std::filesystem;

// What a queued task holds besides what it shares with the memory store.
constexpr std::size_t kTaskOverhead = 256;

using internal::adoptStoredTimestamp;
using internal::databaseCanHold;
using internal::estimatedBytes;
using internal::isValid;

Duration intervalDuration(double seconds) {
  constexpr double kLongest = 366.0 * 24 * 3600;
  return std::chrono::duration_cast<Duration>(std::chrono::duration<double>(std::min(seconds, kLongest)));
}

// The folder of both stores: made when missing, as the application's caches folder is.
fs::path prepareDirectory(const fs::path& requested) {
  if (requested.empty()) return cachesDirectory();
  (void)platform::createPrivateDirectories(requested);
  return requested;
}

}  // namespace

struct CacheController::State : std::enable_shared_from_this<State> {
  explicit State(CacheController::Options& options, const fs::path& directory)
      : clock(options.clock ? std::move(options.clock) : std::make_shared<DefaultDateService>()),
        database(options.databaseFileName, directory),
        files(options.storageFileName, directory),
        maximumCacheSizeInBytes(kDefaultMaximumCacheSizeInBytes, SerialQueue::make("kp.cache.limit")),
        services(options.services ? std::move(options.services) : Services::default_()),
        application(services),
        background("kp.cache.background", options.backgroundBudgetBytes) {}

  std::shared_ptr<const tarvix::DateService> clock;
  CacheMemoryStorage memory;
  CacheControllerDatabase database;
  CacheControllerFileStorage files;
  Synchronized<std::uint64_t> maximumCacheSizeInBytes;
  std::atomic<double> cleanUpInterval{kDefaultCleanUpInterval};
  // Where the application is looked up; kept apart from the dependency so that the start-up
  // step can probe it without the dependency's lock.
  std::shared_ptr<Services> services;
  OptionalLazyDependency<tarvix::Application> application;
  internal::CacheBackgroundWork background;
  // Moves on when a wipe of everything is started: saves started before it need not run.
  std::atomic<std::uint64_t> wipeGeneration{0};
  // Wipes started and not yet done: rows read meanwhile may be on their way out, so they are
  // not taken into memory, where they would outlive the wipe.
  std::atomic<int> pendingWipes{0};
  // Odd while a save hashed to that slot writes or removes a file and writes its row: a read
  // that overlaps one cannot trust that the row and the file belong together.
  std::array<std::atomic<std::uint32_t>, 64> fileWrites{};

  mutable std::mutex timerMutex;
  std::unique_ptr<RepeatingTimer> cleanUpTimer;  // guarded by timerMutex
  bool closed = false;                           // guarded by timerMutex

  [[nodiscard]] Date now() const { return Date::fromTimePoint(clock->now()); }

  std::atomic<std::uint32_t>& fileWriteSlot(std::string_view key) {
    return fileWrites[std::hash<std::string_view>{}(key) % fileWrites.size()];
  }

  // Queues `task` (a callable taking the state) as a background task.
  template <class F>
  void post(std::size_t cost, F&& task) {
    background.post(cost, [self = shared_from_this(), task = std::forward<F>(task)]() mutable { task(*self); });
  }

  void postWipe(const std::optional<std::string>& group) {
    pendingWipes.fetch_add(1);
    post(kTaskOverhead + group.value_or("").size(), [group](State& s) {
      s.wipeBackStore(group);
      s.pendingWipes.fetch_sub(1);
    });
  }

  // What a read needs to know before it looks past memory: whether it may keep what it finds.
  struct ReadStart {
    bool mayKeep;
    std::uint64_t generation;
  };
  // `generation` is the memory's removal count taken with the lookup that missed. The wipes
  // are read after it: a wipe counts itself pending before it empties memory, so a read that
  // took the count before the emptying finds the count moved on when it stores, and one that
  // took it after finds the wipe pending.
  [[nodiscard]] ReadStart startRead(std::uint64_t generation) const { return {pendingWipes.load() == 0, generation}; }

  // ---- background tasks ----

  void save(const CacheItem& entry, const std::string& key) {
    auto encoded = CacheControllerDatabase::encodeEntry(entry);
    if (!encoded) return;
    if (entry.cacheType == CacheItemType::serialized) {
      writingFiles(key, [&] {
        const auto earlier = storedFile(key);
        if (database.saveRecord(*encoded, entry, key)) removeFile(key, earlier, std::nullopt);
      });
      return;
    }
    std::optional<Data> bytes;
    if (entry.cacheType == CacheItemType::rawDataToFile) {
      bytes = *entry.item->get<Data>();
    } else {
      bytes = entry.item->object<ArchivableImage>()->image().pngData();
      if (!bytes) return;  // an image without a PNG form is not written
    }
    // The file before the row: a reader that finds the row finds its file. The old row goes
    // once the new bytes are on the disk and before they replace the old file, so that no
    // moment, not even the end of the process, pairs the old row with the new file. A file that
    // cannot be written (a full disk) keeps the old file and the old row; a row that fails
    // loses the new file.
    const auto& group = entry.configuration.groupName;
    writingFiles(key, [&] {
      const bool replaced = files.save(*bytes, key, group, [&] {
        const auto earlier = storedFile(key);
        if (!database.removeCacheItem(key)) return false;
        removeFile(key, earlier, files.filePath(key, group));
        return true;
      });
      if (replaced && !database.saveRecord(*encoded, entry, key)) files.removeData(key, group);
    });
  }

  // Runs `write`, which changes the key's file or removes it, with its slot odd meanwhile.
  template <class F>
  void writingFiles(std::string_view key, F&& write) {
    auto& slot = fileWriteSlot(key);
    slot.fetch_add(1, std::memory_order_acq_rel);
    std::forward<F>(write)();
    slot.fetch_add(1, std::memory_order_release);
  }

  // The group of the file that the key's stored entry keeps (inside: none), when its row says
  // it keeps one.
  using StoredFile = std::optional<std::optional<std::string>>;
  StoredFile storedFile(std::string_view key) {
    const auto type = database.getCacheItemType(key);
    if (type != CacheItemType::rawDataToFile && type != CacheItemType::image) return std::nullopt;
    return database.getCacheItemGroup(key);
  }

  // Removes the file that the key's earlier row named, unless it is `kept`: an entry saved
  // elsewhere (in another group, or in its row alone) would otherwise leave it where no row
  // names it, out of reach of every clean-up and of the trim. Called once that row is gone
  // or replaced, never before: a process killed in between leaves a file without a row
  // (which the key's next save replaces), never a row without its file.
  void removeFile(std::string_view key, const StoredFile& earlier, const std::optional<fs::path>& kept) {
    if (!earlier) return;
    if (!kept || files.filePath(key, *earlier) != *kept) files.removeData(key, *earlier);
  }

  void removeStored(std::string_view key) {
    const auto earlier = storedFile(key);
    if (database.removeCacheItem(key)) removeFile(key, earlier, std::nullopt);
  }

  void wipeBackStore(const std::optional<std::string>& group) {
    database.removeAllItems(group);
    // An empty group names no folder: the file store would take it for all of them.
    if (!group || !group->empty()) files.removeAllItems(group);
  }

  void removeExpiredStored() {
    const Date at = now();
    for (auto type : {CacheItemType::image, CacheItemType::rawDataToFile}) {
      for (const auto& [key, group] : database.getExpiredCacheKeys(type, at)) files.removeData(key, group);
    }
    database.removeExpiredItems(at);
  }

  // ---- application life (timer changes on the main thread) ----

  void purgeExpired() {
    memory.removeExpired(now());
    post(kTaskOverhead, [](State& s) { s.removeExpiredStored(); });
  }

  void startTimer() {
    std::lock_guard lock(timerMutex);
    if (closed || cleanUpTimer) return;
    const double interval = cleanUpInterval.load();
    if (!(interval > 0)) return;
    cleanUpTimer = RepeatingTimer::schedule(MainQueue::shared(), intervalDuration(interval), [weak = weak_from_this()] {
      if (auto self = weak.lock()) self->purgeExpired();
    });
  }

  void stopTimer() {
    std::lock_guard lock(timerMutex);
    if (cleanUpTimer) cleanUpTimer->invalidate();
    cleanUpTimer.reset();
  }

  void close() {
    std::lock_guard lock(timerMutex);
    closed = true;
    if (cleanUpTimer) cleanUpTimer->invalidate();
    cleanUpTimer.reset();
  }

  void onMainThread(void (State::*step)()) {
    runOnMainThread([weak = weak_from_this(), step] {
      if (auto self = weak.lock()) ((*self).*step)();
    });
  }

  // The start-up step at once, on the main thread; false, with nothing done, when the
  // application cannot be asked now because the controller is being made by a factory of the
  // container that holds it (asking would re-enter that container).
  bool startUpNow() {
    try {
      (void)services->resolveIfRegistered<tarvix::Application>();
    } catch (const DefaultServiceContainer::ReentrantUseError&) {
      return false;
    } catch (...) {
      // Any other failure is the dependency's to report, when startUp() reads it.
    }
    startUp();
    return true;
  }

  void startUp() {
    auto app = application.wrappedValue();
    if (!app || app->applicationState() != tarvix::ApplicationState::active) return;
    purgeExpired();
    startTimer();
  }

  void becomeActive() {
    purgeExpired();
    onMainThread(&State::startTimer);
  }

  void stopTimerOnMainThread() { onMainThread(&State::stopTimer); }
  void dropMemoryWarningItems() {
    memory.removeLowMemoryWarningItems();
    post(kTaskOverhead, [](State& s) { s.database.releaseMemory(); });  // no wait for its lock here
  }

  // ---- reads ----

  // The payload of a file-backed entry from its file.
  std::optional<ArchiveValue> loadPayload(std::string_view key, const CacheItem& entry) const {
    auto bytes = files.loadData(key, entry.configuration.groupName);
    if (!bytes) return std::nullopt;
    if (entry.cacheType == CacheItemType::rawDataToFile) return ArchiveValue(std::move(*bytes));
    const double scale = ApplicationInfo::current().screenScale;
    auto image = Image::decode(*bytes, std::isfinite(scale) && scale > 0 ? std::optional<double>(scale) : std::nullopt);
    if (!image) return std::nullopt;
    return ArchiveValue(std::make_shared<ArchivableImage>(std::move(*image)));
  }

  [[gnu::noinline]] std::shared_ptr<CacheItem> readCacheItem(std::string_view key, bool loadData,
                                                             std::uint64_t generation);

  // The rules every read applies once it has found an entry: rolling expiry, expiry, and
  // keeping an entry read from the database in memory.
  std::shared_ptr<Cacheable> finishRead(std::shared_ptr<Cacheable> entry, std::string_view key, bool fromMemory,
                                        bool keepInMemory, ReadStart start = {false, 0}) {
    const auto& config = entry->cacheConfiguration();
    const bool ages = config.autoExpiration && config.maximumAge > 0;
    if (fromMemory && !ages && !config.rollingExpiration) return entry;  // nothing to apply
    // Most entries need no clock: it is read only for an age limit or rolling expiry.
    std::optional<Date> at;
    const auto current = [&] { return at ? *at : *(at = now()); };
    // A read restarts a rolling entry's lifetime before its age is tested, however long it
    // went unread: such an entry lives while it is read, and only the clean-up removes one
    // that was left alone too long.
    if (config.rollingExpiration) {
      entry->setCreationDate(current());
      if (config.retainInBackStore) {
        post(kTaskOverhead + key.size(),
             [key = std::string(key), entry](State& s) { s.database.updateTimestamp(key, *entry); });
      }
    }
    if (ages && entry->isExpired(current())) {
      if (fromMemory) memory.remove(key, *entry);
      return nullptr;
    }
    if (!fromMemory && keepInMemory && start.mayKeep) (void)memory.insertIfUnchanged(entry, key, start.generation);
    return entry;
  }
};

const std::shared_ptr<CacheController>& CacheController::sharedInstance() {
  static internal::NoDestructor<std::shared_ptr<CacheController>> instance(
      std::make_shared<CacheController>(kDatabaseFileName, kStorageFileName));
  // The shared controller is never destroyed, so saves still queued when the process ends
  // normally are finished on the way out: an item set just before exit is there at the next
  // start. (Not from the background queue itself, which would wait for its own job.)
  static const bool flushesAtExit = [] {
    std::atexit([] {
      const auto& state = (*instance)->state_;
      if (!state->background.isCurrent()) state->background.waitUntilIdle();
    });
    return true;
  }();
  (void)flushesAtExit;
  return *instance;
}

CacheController::CacheController(std::string_view databaseFileName, std::string_view storageFileName)
    : CacheController(Options{
          std::string(databaseFileName), std::string(storageFileName), {}, {}, {}, kDefaultBackgroundBudgetBytes}) {}

CacheController::CacheController(Options options) {
  const fs::path directory = prepareDirectory(options.directory);
  state_ = std::make_shared<State>(options, directory);
  state_->database.prepare();
  state_->files.prepareCacheFolder();

  auto& center = NotificationCenter::defaultCenter();
  auto observe = [&](std::string_view name, void (State::*handler)()) {
    observations_.push_back(center.addObserver(name, nullptr, nullptr, [weak = std::weak_ptr(state_), handler](auto&) {
      if (auto state = weak.lock()) ((*state).*handler)();
    }));
  };
  observe(ApplicationNotifications::kDidBecomeActive, &State::becomeActive);
  observe(ApplicationNotifications::kWillResignActive, &State::stopTimerOnMainThread);
  observe(ApplicationNotifications::kDidReceiveMemoryWarning, &State::dropMemoryWarningItems);
  // Made on the main thread, the controller starts up at once, so that its timer runs before
  // the host next drains the main queue; made elsewhere, or by a factory of the container that
  // holds the application, it starts up once the main queue runs.
  if (!isMainThread() || !state_->startUpNow()) {
    MainQueue::shared()->async([weak = std::weak_ptr(state_)] {
      if (auto state = weak.lock()) state->startUp();
    });
  }
}

CacheController::~CacheController() {
  observations_.clear();
  state_->close();
  if (!state_->background.isCurrent()) state_->background.waitUntilIdle();
}

// ---- writes ----

void CacheController::set(std::shared_ptr<CacheItem> item, std::string_view key) {
  if (!item || key.empty() || !isValid(*item)) return;
  auto& config = item->configuration;
  if (config.groupName && config.groupName->empty()) config.groupName.reset();
  state_->memory.set(item, key);
  if (!config.retainInBackStore || !databaseCanHold(*item, key)) return;
  std::size_t cost = kTaskOverhead + key.size();
  if (!config.retainInMemory) cost += estimatedBytes(*item->item) + estimatedBytes(ArchiveValue(item->extraItems));
  state_->post(cost, [key = std::string(key), item, generation = state_->wipeGeneration.load()](State& s) {
    if (s.wipeGeneration.load() != generation) return;  // a wipe started later removes it anyway
    s.save(*item, key);
  });
}

void CacheController::set(std::shared_ptr<Cacheable> item, std::string_view key) {
  if (!item || key.empty()) return;
  state_->memory.set(item, key);
  if (!item->cacheConfiguration().retainInBackStore || !databaseCanHold(*item, key)) return;
  // Entries of other types have no estimate of their size; only what the task adds counts.
  state_->post(kTaskOverhead + key.size(),
               [key = std::string(key), item, generation = state_->wipeGeneration.load()](State& s) {
                 if (s.wipeGeneration.load() != generation) return;
                 s.writingFiles(key, [&] {
                   const auto earlier = s.storedFile(key);
                   s.database.encode(*item, key);
                   if (!s.storedFile(key)) s.removeFile(key, earlier, std::nullopt);
                 });
               });
}

void CacheController::removeCacheItem(std::string_view key) {
  // In turn with the background work, so that no save started before it lands afterwards, and
  // out of memory on both sides of it, so that no read brings back the row it removes.
  state_->memory.remove(key);
  if (!databaseCanHold(key)) return;
  state_->background.runInTurn([&] { state_->removeStored(key); });
  state_->memory.remove(key);
}

void CacheController::wipeCompleteCache() {
  state_->wipeGeneration.fetch_add(1);
  state_->pendingWipes.fetch_add(1);  // before memory empties: see startRead()
  state_->memory.removeAll();
  state_->postWipe(std::nullopt);
  state_->pendingWipes.fetch_sub(1);
}

void CacheController::wipeCompleteCache(std::string_view group) {
  state_->pendingWipes.fetch_add(1);
  state_->memory.removeForGroup(group);
  if (databaseCanHold(group)) state_->postWipe(std::string(group));
  state_->pendingWipes.fetch_sub(1);
}

void CacheController::removeAllItemsFromBackStore() {
  state_->wipeGeneration.fetch_add(1);
  state_->postWipe(std::nullopt);
}

void CacheController::wipeCompleteExpiredCache() { state_->purgeExpired(); }

void CacheController::curbUsedDiskSpace() {
  state_->post(kTaskOverhead, [](State& s) { s.files.removeOldestFiles(s.maximumCacheSizeInBytes.get(), s.database); });
}

// ---- reads ----

std::shared_ptr<CacheItem> CacheController::getCacheItem(std::string_view key) { return getCacheItem(key, true); }

std::shared_ptr<CacheItem> CacheController::getCacheItem(std::string_view key, bool loadData) {
  State& s = *state_;
  // CacheItem is final: comparing the exact type is enough, and cheaper than a cast.
  auto [hit, generation] = s.memory.lookup(key);
  if (hit) {
    const Cacheable& cached = *hit;  // typeid of a plain reference: nothing to evaluate
    if (typeid(cached) == typeid(CacheItem)) {
      return std::static_pointer_cast<CacheItem>(s.finishRead(std::move(hit), key, true, false));
    }
  }
  return s.readCacheItem(key, loadData, generation);
}

// Apart from the memory hit, so that the hit stays a short call.
std::shared_ptr<CacheItem> CacheController::State::readCacheItem(std::string_view key, bool loadData,
                                                                 std::uint64_t generation) {
  State& s = *this;
  if (!databaseCanHold(key)) return nullptr;
  const auto start = s.startRead(generation);
  auto& slot = s.fileWriteSlot(key);
  const std::uint32_t writesBefore = slot.load(std::memory_order_acquire);
  auto stored = s.database.loadCacheDataAndTimestamp(key);
  if (!stored) return nullptr;
  auto entry = CacheControllerDatabase::decodeEntry<CacheItem>(stored->data);
  // A payload or extra items that were stored but cannot be read back make another entry.
  if (!entry || !entry->isComplete()) return nullptr;
  if (entry->cacheType == CacheItemType::serialized && !entry->item) return nullptr;
  adoptStoredTimestamp(*entry, stored->timestamp);
  bool complete = true;
  if (entry->cacheType != CacheItemType::serialized) {
    if (loadData) {
      entry->item = s.loadPayload(key, *entry);
      const bool settled = writesBefore % 2 == 0 && slot.load(std::memory_order_acquire) == writesBefore;
      // A save of this key ran meanwhile: the row and the file may not belong together.
      if (!settled) return nullptr;
      if (!entry->item) {
        (void)s.database.removeCacheItem(key);
        return nullptr;
      }
    } else {
      complete = false;  // without its payload it must not stand in for the entry in memory
    }
  }
  const bool keep = complete && entry->configuration.retainInMemory;
  return std::static_pointer_cast<CacheItem>(s.finishRead(std::move(entry), key, false, keep, start));
}

std::shared_ptr<Cacheable> CacheController::get(const CacheableType& type, std::string_view key) {
  State& s = *state_;
  auto [hit, generation] = s.memory.lookup(key);
  if (hit && type.accepts(*hit)) return s.finishRead(std::move(hit), key, true, false);
  if (!databaseCanHold(key)) return nullptr;
  const auto start = s.startRead(generation);
  auto stored = s.database.loadCacheDataAndTimestamp(key);
  if (!stored) return nullptr;
  auto entry = type.decode(stored->data);
  if (!entry) return nullptr;
  adoptStoredTimestamp(*entry, stored->timestamp);
  const bool keep = entry->cacheConfiguration().retainInMemory;
  return s.finishRead(std::move(entry), key, false, keep, start);
}

// ---- settings and sizes ----

std::uint64_t CacheController::maximumCacheSizeInBytes() const { return state_->maximumCacheSizeInBytes.get(); }

void CacheController::setMaximumCacheSizeInBytes(std::uint64_t bytes) { state_->maximumCacheSizeInBytes.set(bytes); }

double CacheController::cleanUpInterval() const noexcept { return state_->cleanUpInterval.load(); }

void CacheController::setCleanUpInterval(double seconds) noexcept { state_->cleanUpInterval.store(seconds); }

std::uint64_t CacheController::getBackStoreTotalSize() const {
  const std::uint64_t database = getDatabaseTotalSize();
  const std::uint64_t files = getFileStorageTotalSize();
  if (files > UINT64_MAX - database) std::abort();  // sizes of real files never get there
  return database + files;
}

std::uint64_t CacheController::getDatabaseTotalSize() const { return state_->database.getSize(); }

std::uint64_t CacheController::getFileStorageTotalSize() const { return state_->files.getSize(); }

std::optional<std::string> CacheController::fileStorageProblem() const { return state_->files.folderProblem(); }

// ---- application life ----

void CacheController::didBecomeActive(const Notification&) { state_->becomeActive(); }

void CacheController::willResignActive(const Notification&) { state_->stopTimerOnMainThread(); }

void CacheController::receivedMemoryWarning(const Notification&) { state_->dropMemoryWarningItems(); }

void CacheController::cleanUpTimerFired() { state_->purgeExpired(); }

// ---- inspection ----

bool CacheController::hasCleanUpTimer() const {
  std::lock_guard lock(state_->timerMutex);
  return state_->cleanUpTimer != nullptr;
}

std::size_t CacheController::memoryItemCount() const { return state_->memory.count(); }

std::uint64_t CacheController::databaseItemCount() { return state_->database.getItemCount(); }

std::vector<CacheEntrySummary> CacheController::listEntries() {
  return internal::listStoredEntries(state_->database, state_->files);
}

std::optional<CacheItemInspection> CacheController::inspect(std::string_view key) {
  State& s = *state_;
  CacheItemInspection inspection;
  inspection.entry = std::dynamic_pointer_cast<CacheItem>(s.memory.get(key));
  inspection.inMemory = inspection.entry != nullptr;
  if (!internal::inspectStored(s.database, s.files, key, inspection) && !inspection.inMemory) return std::nullopt;
  if (inspection.entry) inspection.expired = inspection.entry->isExpired(s.now());
  return inspection;
}

fs::path CacheController::databasePath() const { return state_->database.path(); }

fs::path CacheController::storagePath() const { return state_->files.basePath(); }

CacheBackgroundStatistics CacheController::backgroundStatistics() const {
  const auto stats = state_->background.statistics();
  return {stats.pendingTasks, stats.pendingBytes, stats.peakTasks, stats.peakBytes};
}

void CacheController::waitForBackgroundWork() { state_->background.waitUntilIdle(); }

}  // namespace kp
