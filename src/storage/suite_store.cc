// The shared per-suite store of the user defaults.
#include "suite_store.h"

#include <algorithm>
#include <cstdlib>
#include <map>

#include "kp/coding/property_list.h"
#include "kp/foundation/dispatch.h"
#include "kp/logging/tarvix_logger.h"
#include "kp/storage/keyed_storage_container.h"
#include "kp/storage/stored_value.h"
#include "platform/directory_watcher.h"
#include "platform/no_destructor.h"

namespace kp::storage_detail {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

struct Registry {
  Mutex mutex;
  std::map<fs::path, std::weak_ptr<SuiteStore>> stores GUARDED_BY(mutex);
};

Registry& registry() {
  static internal::NoDestructor<Registry> instance;
  return *instance;
}

fs::path lockFileFor(const fs::path& file) { return file.parent_path() / ("." + file.filename().string() + ".lock"); }

// The file that a write of `file` replaces: `file` itself, or where its chain of symbolic
// links ends (a loop ends nowhere, and the write then fails at the link).
fs::path writeTarget(const fs::path& file) {
  fs::path path = file;
  for (int hop = 0; hop < 40; ++hop) {
    std::error_code ec;
    if (!fs::is_symlink(fs::symlink_status(path, ec))) return path;
    const fs::path link = fs::read_symlink(path, ec);
    if (ec) return path;
    path = link.is_absolute() ? link : path.parent_path() / link;
  }
  return path;
}

}  // namespace

SuiteStore::SuiteStore(fs::path file)
    : file_(std::move(file)),
      lockFile_(lockFileFor(file_)),
      queue_(SerialQueue::make("com.kp.storage.suite." + file_.filename().string())) {}

SuiteStore::~SuiteStore() = default;

SuiteFileStatus SuiteStore::status() const {
  MutexLock io(ioMutex_);
  SuiteFileStatus out;
  if (!readError_.empty()) out.readError = readError_;
  if (!writeError_.empty()) out.writeError = writeError_;
  out.setAside = setAside_;
  return out;
}

std::shared_ptr<SuiteStore> SuiteStore::open(const fs::path& file) {
  // Changes made just before the process ends are written on the way out, as the platform's
  // store does; the registry and the stores outlive every static destructor.
  static Once exitHook;
  exitHook.run([] { std::atexit([] { SuiteStore::synchronizeAll(); }); });

  Registry& r = registry();
  MutexLock lock(r.mutex);
  if (auto it = r.stores.find(file); it != r.stores.end()) {
    if (auto existing = it->second.lock()) return existing;
  }
  std::erase_if(r.stores, [](const auto& entry) { return entry.second.expired(); });

  std::shared_ptr<SuiteStore> store(new SuiteStore(file));
  if (!platform::createPrivateDirectories(file.parent_path())) {
    TarvixLoggers::CL()->error("User defaults cannot create the folder of suite file " + file.string());
  }
  platform::removeStaleTemporaryFiles(file, std::chrono::minutes(10));
  {
    MutexLock io(store->ioMutex_);
    // Watch first, so that a change made while the file is read is not missed.
    store->watch();
    (void)store->reloadLocked(false);
  }
  r.stores[file] = store;
  return store;
}

void SuiteStore::synchronizeAll() {
  std::vector<std::shared_ptr<SuiteStore>> open;
  {
    Registry& r = registry();
    MutexLock lock(r.mutex);
    for (auto& [path, weak] : r.stores) {
      if (auto store = weak.lock()) open.push_back(std::move(store));
    }
  }
  for (auto& store : open) store->synchronize();
}

std::shared_ptr<const Value> SuiteStore::get(std::string_view key) const {
  MutexLock lock(mutex_);
  auto it = values_.find(key);
  return it == values_.end() ? nullptr : it->second;
}

void SuiteStore::set(std::string_view key, std::shared_ptr<const Value> value) {
  bool schedule = false;
  {
    MutexLock lock(mutex_);
    const std::uint64_t generation = ++generation_;
    if (value) {
      values_.insert_or_assign(std::string(key), value);
    } else if (auto it = values_.find(key); it != values_.end()) {
      values_.erase(it);
    }
    pending_.insert_or_assign(std::string(key), Pending{std::move(value), generation});
    lastChange_ = std::chrono::steady_clock::now();
    schedule = !std::exchange(writeScheduled_, true);
    if (schedule) firstChange_ = lastChange_;
  }
  if (schedule) scheduleWrite(kCoalescingDelay);
}

void SuiteStore::removeAll() {
  bool schedule = false;
  {
    MutexLock lock(mutex_);
    for (const auto& [key, value] : values_) pending_.insert_or_assign(key, Pending{nullptr, ++generation_});
    values_.clear();
    lastChange_ = std::chrono::steady_clock::now();
    schedule = !pending_.empty() && !std::exchange(writeScheduled_, true);
    if (schedule) firstChange_ = lastChange_;
  }
  if (schedule) scheduleWrite(kCoalescingDelay);
}

std::vector<std::pair<std::string, std::shared_ptr<const Value>>> SuiteStore::snapshot() const {
  std::vector<std::pair<std::string, std::shared_ptr<const Value>>> out;
  {
    MutexLock lock(mutex_);
    out.assign(values_.begin(), values_.end());
  }
  std::sort(out.begin(), out.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  return out;
}

bool SuiteStore::synchronize() {
  MutexLock io(ioMutex_);
  if (watchLost_.load()) watch();
  bool pending = false;
  {
    MutexLock lock(mutex_);
    pending = !pending_.empty();
  }
  if (!pending) {
    // Without pending changes there is nothing to write; still pick up other processes' changes,
    // which is the only way they arrive where no watcher runs.
    return reloadLocked(false);
  }
  return writeLocked();
}

void SuiteStore::scheduleWrite(std::chrono::steady_clock::duration delay) {
  queue_->asyncAfter(delay, [self = shared_from_this()] { self->scheduledWrite(); });
}

void SuiteStore::scheduledWrite() {
  {
    MutexLock lock(mutex_);
    const auto now = std::chrono::steady_clock::now();
    if (!pending_.empty() && now - lastChange_ < kCoalescingDelay && now - firstChange_ < kMaximumDelay) {
      // Still changing: one write for the whole burst.
      scheduleWrite(lastChange_ + kCoalescingDelay - now);
      return;
    }
  }
  MutexLock io(ioMutex_);
  writeLocked();
}

bool SuiteStore::writeLocked() {
  {
    MutexLock lock(mutex_);
    // Changes from here on schedule a write of their own.
    writeScheduled_ = false;
    if (pending_.empty()) return true;
  }
  if (!platform::createPrivateDirectories(file_.parent_path())) return writeFailed("cannot create its folder");
  std::optional<platform::FileLock> lock = platform::FileLock::acquire(lockFile_, kLockTimeout);
  if (!lock) return writeFailed("the suite stayed locked by another process");
  // Another process may have written since we last looked: start from its file. One that
  // cannot be read must not be replaced by a file without its keys.
  if (!reloadLocked(true)) return writeFailed("cannot read the file it would replace (" + readError_ + ")");

  std::vector<std::pair<std::string, std::shared_ptr<const Value>>> entries;
  std::vector<std::pair<std::string, std::uint64_t>> written;
  {
    MutexLock values(mutex_);
    entries.assign(values_.begin(), values_.end());
    written.reserve(pending_.size());
    for (const auto& [key, change] : pending_) written.emplace_back(key, change.generation);
  }
  // Sorted keys keep the file stable across writes, which makes it easy to compare.
  std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  Value::Dictionary dictionary;
  dictionary.reserve(entries.size());
  for (auto& [key, value] : entries) dictionary.emplace_back(std::move(key), *value);
  entries.clear();

  Data bytes;
  try {
    bytes = writePropertyList(Value(std::move(dictionary)));
  } catch (const std::exception& e) {
    return writeFailed(e.what());
  }
  // Readers take a larger file for damage and set it aside with every key in it.
  if (bytes.size() > kMaxFileSize) {
    return writeFailed("it would hold " + std::to_string(bytes.size()) + " bytes, more than the " +
                       std::to_string(kMaxFileSize) + " a suite may have");
  }
  if (std::string error; !platform::writeFileAtomically(writeTarget(file_), bytes.bytes(), &error)) {
    return writeFailed(error);
  }
  // Still under the suite's lock, so the file there is the one just written.
  lastSeen_ = platform::fileIdentity(file_);
  retryDelay_ = 0ms;
  writeError_.clear();
  writes_.fetch_add(1, std::memory_order_relaxed);
  {
    MutexLock values(mutex_);
    // A key changed again while we wrote stays pending for the next write.
    for (const auto& [key, generation] : written) {
      if (auto it = pending_.find(key); it != pending_.end() && it->second.generation == generation) {
        pending_.erase(it);
      }
    }
  }
  if (watchLost_.load()) watch();
  return true;
}

bool SuiteStore::writeFailed(const std::string& error) {
  writeError_ = error;
  TarvixLoggers::CL()->error("User defaults could not write suite file " + file_.string() + ": " + error);
  retryDelay_ = std::clamp<std::chrono::milliseconds>(retryDelay_ * 2, 1s, 60s);
  bool schedule = false;
  {
    MutexLock lock(mutex_);
    schedule = !std::exchange(writeScheduled_, true);
  }
  if (schedule) scheduleWrite(retryDelay_);
  return false;
}

bool SuiteStore::reloadLocked(bool lockHeld) {
  // A few rounds at most: each one that fails found the file replaced by another writer.
  for (int round = 0; round < 3; ++round) {
    if (platform::fileIdentity(file_) == lastSeen_) return true;
    platform::FileContents contents = platform::readFile(file_, kMaxFileSize);
    if (contents.status == platform::FileContents::Status::failed) {
      // Nothing says the content is damaged: the file stays, memory keeps what it had, and
      // lastSeen_ still differs from the file, so the next reload and every write read it again.
      readError_ = contents.error;
      TarvixLoggers::CL()->error("User defaults could not read suite file " + file_.string() + " (" + readError_ +
                                 "); trying again later");
      scheduleReadRetry();
      return false;
    }
    Entries disk;
    std::string damage;
    if (contents.status == platform::FileContents::Status::ok) {
      try {
        Value root = readPropertyList(contents.bytes.bytes());
        if (Value::Dictionary* dictionary = root.ifDictionary()) {
          for (auto& [key, value] : *dictionary) {
            // Entries a property list can hold but this store could never write back (text
            // that is not UTF-8, references) are dropped, or they would block every write.
            std::string problem;
            if (!isStorablePropertyListValue(value, &problem)) {
              TarvixLoggers::CL()->error("User defaults dropped an entry of suite file " + file_.string() + ": " +
                                         problem);
              continue;
            }
            disk.insert_or_assign(key, std::make_shared<const Value>(std::move(value)));
          }
        } else {
          damage = "it holds a property list that is not a dictionary";
        }
      } catch (const std::exception& e) {
        damage = std::string("it is not a property list: ") + e.what();
      }
    } else if (contents.status != platform::FileContents::Status::missing) {
      damage = contents.error;  // too large, or not a regular file
    }
    if (!damage.empty()) {
      if (!setAside(contents, damage, lockHeld)) continue;
      disk.clear();
      contents.identity = platform::fileIdentity(file_);
    }
    lastSeen_ = contents.identity;
    readRetryDelay_ = 0ms;
    readError_.clear();
    MutexLock lock(mutex_);
    values_ = std::move(disk);
    for (const auto& [key, change] : pending_) {
      if (change.value) {
        values_.insert_or_assign(key, change.value);
      } else if (auto it = values_.find(key); it != values_.end()) {
        values_.erase(it);
      }
    }
    return true;
  }
  // Replaced by other writers in every round: not read yet, so not to be written over either.
  readError_ = "it kept being replaced while it was read";
  return false;
}

void SuiteStore::scheduleReadRetry() {
  if (std::exchange(readRetryScheduled_, true)) return;
  readRetryDelay_ = std::clamp<std::chrono::milliseconds>(readRetryDelay_ * 2, 1s, 60s);
  queue_->asyncAfter(readRetryDelay_, [weak = weak_from_this()] {
    auto self = weak.lock();
    if (!self) return;
    MutexLock io(self->ioMutex_);
    self->readRetryScheduled_ = false;
    (void)self->reloadLocked(false);
  });
}

void SuiteStore::remember(std::string report) {
  // The latest few: a file that another process keeps damaging must not grow this list.
  if (setAside_.size() >= 16) setAside_.erase(setAside_.begin());
  setAside_.push_back(std::move(report));
}

bool SuiteStore::setAside(const platform::FileContents& contents, std::string_view reason, bool lockHeld) {
  std::optional<platform::FileLock> lock;
  if (!lockHeld) lock = platform::FileLock::acquire(lockFile_, kLockTimeout);
  const std::string prefix = "User defaults suite file " + file_.string() + " is damaged (" + std::string(reason) + ")";
  if (!lockHeld && !lock) {
    // Without the lock a writer could be replacing the file right now; leave it to the next
    // write, which replaces it under the lock.
    TarvixLoggers::CL()->error(prefix + "; starting empty");
    remember(prefix + "; left in place (its lock was busy), starting empty");
    return true;
  }
  // Under the lock nobody replaces the file, so it is still the one we read, or a newer one.
  if (contents.identity.exists && platform::fileIdentity(file_) != contents.identity) return false;
  const auto stamp =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch());
  fs::path aside = file_;
  aside += ".damaged-" + std::to_string(stamp.count());
  std::error_code ec;
  fs::rename(file_, aside, ec);
  const std::string report = ec ? prefix + " and could not be moved aside (" + ec.message() + "); starting empty"
                                : prefix + "; moved to " + aside.string() + ", starting empty";
  TarvixLoggers::CL()->error(report);
  remember(report);
  return true;
}

void SuiteStore::watch() {
  platform::DirectoryWatcher* watcher = platform::DirectoryWatcher::shared();
  if (!watcher) return;
  std::weak_ptr<SuiteStore> weak = weak_from_this();
  watchToken_ = watcher->watch(
      file_.parent_path(),
      [weak, name = file_.filename().string()](std::string_view changed, platform::DirectoryWatcher::Event event) {
        auto self = weak.lock();
        if (!self) return;
        if (event == platform::DirectoryWatcher::Event::watchEnded) self->watchLost_.store(true);
        if (event == platform::DirectoryWatcher::Event::watchEnded || changed.empty() || changed == name) {
          self->fileChanged();
        }
      });
  watchLost_.store(watchToken_ == nullptr);
}

void SuiteStore::fileChanged() {
  if (reloadScheduled_.exchange(true)) return;
  queue_->async([weak = weak_from_this()] {
    auto self = weak.lock();
    if (!self) return;
    self->reloadScheduled_.store(false);
    MutexLock io(self->ioMutex_);
    (void)self->reloadLocked(false);
  });
}

}  // namespace kp::storage_detail
