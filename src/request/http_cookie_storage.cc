// The cookie stores: the jar in memory under one lock, and its file, read on first use and
// written (after taking in what other processes wrote) a moment after changes.
#include "kp/request/http_cookie_storage.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <mutex>
#include <set>

#include "kp/logging/tarvix_logger.h"
#include "kp/platform/application_info.h"
#include "kp/platform/dispatch.h"
#include "platform/files.h"
#include "platform/no_destructor.h"
#include "request/cookies/cookie_file.h"
#include "request/header_text.h"

namespace kp {

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using internal::CookieKey;
using internal::StoredCookie;

// Changes within this time after the first go to the file together.
constexpr auto kWriteDelay = 1s;
constexpr auto kLockTimeout = 2s;
// Temporary files of writers that died are removed once they are this old.
constexpr auto kStaleTemporaryAge = std::chrono::minutes(10);

std::int64_t milliseconds(Date date) {
  return static_cast<std::int64_t>(std::max(0.0, date.timeIntervalSince1970() * 1000.0));
}

void report(const std::string& message) { TarvixLoggers::CL()->error(message); }

struct ExitRegistry {
  std::mutex mutex;
  std::vector<std::weak_ptr<HttpCookieStorage>> stores;  // guarded by mutex
};

ExitRegistry& exitRegistry() {
  static internal::NoDestructor<ExitRegistry> registry;
  return *registry;
}

// Stores kept in files write their last changes when the process ends normally.
void writeAtExit(const std::shared_ptr<HttpCookieStorage>& storage) {
  static std::once_flag hook;
  std::call_once(hook, [] {
    std::atexit([] {
      std::vector<std::shared_ptr<HttpCookieStorage>> open;
      {
        ExitRegistry& registry = exitRegistry();
        std::lock_guard lock(registry.mutex);
        for (auto& weak : registry.stores) {
          if (auto store = weak.lock()) open.push_back(std::move(store));
        }
      }
      for (auto& store : open) (void)store->synchronize();
    });
  });
  ExitRegistry& registry = exitRegistry();
  std::lock_guard lock(registry.mutex);
  std::erase_if(registry.stores, [](const auto& weak) { return weak.expired(); });
  registry.stores.push_back(storage);
}

}  // namespace

struct HttpCookieStorage::Impl {
  Impl(fs::path path, bool shared) : file(std::move(path)), locatesFile(shared) {}

  // The shared store finds its file on first use; set before `loaded` and fixed after it.
  fs::path file;  // empty: kept in memory only
  const bool locatesFile;
  std::atomic<bool> loaded{false};
  // jar.size(), for requests to see without the lock that there is nothing to send.
  std::atomic<std::size_t> count{0};

  mutable std::mutex mutex;
  internal::CookieJar jar;                                                             // guarded by mutex
  HttpCookieAcceptPolicy policy = HttpCookieAcceptPolicy::onlyFromMainDocumentDomain;  // guarded by mutex
  // What the next write must not take back from the file.
  std::set<CookieKey> removedSinceWrite;  // guarded by mutex
  bool clearedSinceWrite = false;         // guarded by mutex
  bool dirty = false;                     // guarded by mutex
  bool writeScheduled = false;            // guarded by mutex

  // File work; taken before `mutex`, never while holding it.
  std::mutex ioMutex;
  std::optional<platform::FileIdentity> lastSeen;  // guarded by ioMutex
  std::chrono::milliseconds retryDelay{0};         // guarded by ioMutex

  [[nodiscard]] fs::path lockFile() const { return file.parent_path() / ("." + file.filename().string() + ".lock"); }

  void ensureLoaded() {
    if (loaded.load(std::memory_order_acquire)) return;
    std::lock_guard io(ioMutex);
    if (loaded.load(std::memory_order_relaxed)) return;
    if (locatesFile) file = dataDirectory() / "Cookies";
    if (!file.empty()) {
      platform::removeStaleTemporaryFiles(file, kStaleTemporaryAge);
      const auto lock = platform::FileLock::acquire(lockFile(), kLockTimeout);
      (void)readFile(lock.has_value());
    }
    loaded.store(true, std::memory_order_release);
  }

  // Takes in the file when it changed since this store last saw it. False when it cannot be
  // read now: then it must not be written over either. REQUIRES: ioMutex.
  bool readFile(bool locked) {
    // A few rounds at most: each one that fails found the file replaced by another writer.
    for (int round = 0; round < 3; ++round) {
      if (lastSeen && platform::fileIdentity(file) == *lastSeen) return true;
      platform::FileContents contents = platform::readFile(file, internal::kMaxCookieFileBytes);
      std::string damage;
      std::vector<StoredCookie> cookies;
      switch (contents.status) {
        case platform::FileContents::Status::failed:
          report("Cookies could not read " + file.string() + " (" + contents.error + "); trying again later");
          return false;
        case platform::FileContents::Status::missing:
          break;
        case platform::FileContents::Status::ok:
          if (auto read = internal::readCookieFile(contents.bytes.view(), &damage)) cookies = std::move(*read);
          break;
        case platform::FileContents::Status::tooLarge:
        case platform::FileContents::Status::wrongKind:
          damage = contents.error.empty() ? "it is not a cookie file" : contents.error;
          break;
      }
      if (!damage.empty()) {
        // Without the lock a writer may be replacing it right now: the next write, which holds
        // the lock, reads it again and sets it aside.
        if (!locked) return true;
        if (!setAside(contents, damage)) continue;
        contents.identity = platform::fileIdentity(file);
      }
      merge(std::move(cookies));
      lastSeen = contents.identity;
      return true;
    }
    return false;
  }

  // REQUIRES: ioMutex and the file's lock.
  bool setAside(const platform::FileContents& contents, std::string_view reason) {
    if (contents.identity.exists && platform::fileIdentity(file) != contents.identity) return false;
    const auto stamp =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch());
    fs::path aside = file;
    aside += ".damaged-" + std::to_string(stamp.count());
    std::error_code ec;
    fs::rename(file, aside, ec);
    const std::string prefix = "Cookie file " + file.string() + " is damaged (" + std::string(reason) + ")";
    report(ec ? prefix + " and could not be moved aside (" + ec.message() + "); starting empty"
              : prefix + "; moved to " + aside.string() + ", starting empty");
    return true;
  }

  // Cookies of the file that this store neither holds nor removed since its last write.
  void merge(std::vector<StoredCookie> cookies) {
    std::stable_sort(cookies.begin(), cookies.end(),
                     [](const auto& a, const auto& b) { return a.createdMilliseconds < b.createdMilliseconds; });
    const Date now = Date::now();
    std::lock_guard lock(mutex);
    if (clearedSinceWrite) return;
    std::vector<CookieKey> evicted;
    for (auto& stored : cookies) {
      auto cookie = internal::acceptableCookie(stored.cookie, std::nullopt, now);
      if (!cookie || !cookie->expiresDate()) continue;
      const CookieKey key = internal::keyOf(*cookie);
      if (removedSinceWrite.count(key) || jar.contains(key)) continue;
      (void)jar.insert(std::move(*cookie), stored.createdMilliseconds, now, evicted);
    }
    removedSinceWrite.insert(evicted.begin(), evicted.end());
    count.store(jar.size(), std::memory_order_relaxed);
  }

  // REQUIRES: ioMutex.
  bool write() {
    {
      std::lock_guard lock(mutex);
      if (!dirty) return true;
    }
    auto failed = [&](const std::string& why) {
      report("Cookies could not write " + file.string() + ": " + why);
      return false;
    };
    if (!platform::createPrivateDirectories(file.parent_path())) return failed("cannot create its folder");
    const auto lock = platform::FileLock::acquire(lockFile(), kLockTimeout);
    if (!lock) return failed("another process kept it locked");
    // Another process may have written since: its cookies stay, unless this one removed them.
    if (!readFile(true)) return failed("cannot read the file it would replace");
    std::vector<StoredCookie> kept;
    std::set<CookieKey> removed;
    bool cleared = false;
    {
      std::lock_guard guard(mutex);
      kept = jar.all(Date::now());
      removed.swap(removedSinceWrite);
      cleared = std::exchange(clearedSinceWrite, false);
      dirty = false;
    }
    const std::string text = internal::writeCookieFile(kept);
    std::string error;
    if (!platform::writeFileAtomically(file, Data::fromString(text).bytes(), &error)) {
      std::lock_guard guard(mutex);
      dirty = true;
      removedSinceWrite.merge(removed);
      clearedSinceWrite = clearedSinceWrite || cleared;
      return failed(error);
    }
    // Still under the file's lock, so the file there is the one just written.
    lastSeen = platform::fileIdentity(file);
    return true;
  }

  // Keeps an acceptable cookie; true when the file must be written. REQUIRES: mutex.
  bool keep(HttpCookie cookie, Date now) {
    const CookieKey key = internal::keyOf(cookie);
    const bool lasting = cookie.expiresDate() && *cookie.expiresDate() > now;
    std::vector<CookieKey> removed;
    const bool changed = jar.insert(std::move(cookie), milliseconds(now), now, removed);
    removedSinceWrite.insert(removed.begin(), removed.end());
    if (lasting) removedSinceWrite.erase(key);
    count.store(jar.size(), std::memory_order_relaxed);
    return markChanged(changed);
  }

  // True when a write must be scheduled. REQUIRES: mutex.
  bool markChanged(bool changed) {
    if (!changed || file.empty()) return false;
    dirty = true;
    return !std::exchange(writeScheduled, true);
  }
};

HttpCookieStorage::HttpCookieStorage(fs::path file, bool shared)
    : impl_(std::make_unique<Impl>(std::move(file), shared)) {
  if (!shared && impl_->file.empty()) impl_->loaded.store(true);
}

HttpCookieStorage::~HttpCookieStorage() { (void)synchronize(); }

std::shared_ptr<HttpCookieStorage> HttpCookieStorage::shared() {
  static internal::NoDestructor<std::shared_ptr<HttpCookieStorage>> storage([] {
    std::shared_ptr<HttpCookieStorage> made(new HttpCookieStorage({}, true));
    writeAtExit(made);
    return made;
  }());
  return *storage;
}

std::shared_ptr<HttpCookieStorage> HttpCookieStorage::make(fs::path file) {
  const bool persisted = !file.empty();
  std::shared_ptr<HttpCookieStorage> made(new HttpCookieStorage(std::move(file), false));
  if (persisted) writeAtExit(made);
  return made;
}

HttpCookieAcceptPolicy HttpCookieStorage::cookieAcceptPolicy() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->policy;
}

void HttpCookieStorage::setCookieAcceptPolicy(HttpCookieAcceptPolicy policy) {
  std::lock_guard lock(impl_->mutex);
  impl_->policy = policy;
}

std::vector<HttpCookie> HttpCookieStorage::cookies() const {
  impl_->ensureLoaded();
  std::vector<StoredCookie> all;
  {
    std::lock_guard lock(impl_->mutex);
    all = impl_->jar.all(Date::now());
  }
  std::vector<HttpCookie> out;
  out.reserve(all.size());
  for (auto& stored : all) out.push_back(std::move(stored.cookie));
  return out;
}

std::vector<HttpCookie> HttpCookieStorage::cookies(const Url& url) const {
  impl_->ensureLoaded();
  if (impl_->count.load(std::memory_order_relaxed) == 0) return {};
  std::lock_guard lock(impl_->mutex);
  return impl_->jar.matching(url, Date::now());
}

void HttpCookieStorage::setCookie(const HttpCookie& cookie) {
  impl_->ensureLoaded();
  const Date now = Date::now();
  auto accepted = internal::acceptableCookie(cookie, std::nullopt, now);
  if (!accepted) return;
  bool schedule = false;
  {
    std::lock_guard lock(impl_->mutex);
    if (impl_->policy == HttpCookieAcceptPolicy::never) return;
    schedule = impl_->keep(std::move(*accepted), now);
  }
  if (schedule) scheduleWrite(kWriteDelay);
}

void HttpCookieStorage::setCookies(const std::vector<HttpCookie>& cookies, const Url& url,
                                   const std::optional<Url>& mainDocumentURL) {
  if (cookies.empty()) return;
  impl_->ensureLoaded();
  const Date now = Date::now();
  const bool secureOrigin = internal::equalsIgnoringCase(url.scheme(), "https");
  bool schedule = false;
  {
    std::lock_guard lock(impl_->mutex);
    if (impl_->policy == HttpCookieAcceptPolicy::never) return;
    if (impl_->policy == HttpCookieAcceptPolicy::onlyFromMainDocumentDomain && mainDocumentURL &&
        internal::siteOf(internal::asciiLowercased(url.host())) !=
            internal::siteOf(internal::asciiLowercased(mainDocumentURL->host()))) {
      return;
    }
    for (const auto& cookie : cookies) {
      auto accepted = internal::acceptableCookie(cookie, url, now);
      if (!accepted || (!secureOrigin && impl_->jar.shadowsSecureCookie(*accepted))) continue;
      schedule = impl_->keep(std::move(*accepted), now) || schedule;
    }
  }
  if (schedule) scheduleWrite(kWriteDelay);
}

void HttpCookieStorage::deleteCookie(const HttpCookie& cookie) {
  impl_->ensureLoaded();
  CookieKey key{cookie.name(), internal::asciiLowercased(cookie.domain()), cookie.path()};
  bool schedule = false;
  {
    std::lock_guard lock(impl_->mutex);
    const bool removed = impl_->jar.remove(key);
    impl_->removedSinceWrite.insert(std::move(key));
    impl_->count.store(impl_->jar.size(), std::memory_order_relaxed);
    schedule = impl_->markChanged(removed);
  }
  if (schedule) scheduleWrite(kWriteDelay);
}

void HttpCookieStorage::deleteAllCookies() {
  impl_->ensureLoaded();
  bool schedule = false;
  {
    std::lock_guard lock(impl_->mutex);
    impl_->jar.clear();
    impl_->removedSinceWrite.clear();
    impl_->clearedSinceWrite = true;
    impl_->count.store(0, std::memory_order_relaxed);
    schedule = impl_->markChanged(true);
  }
  if (schedule) scheduleWrite(kWriteDelay);
}

bool HttpCookieStorage::synchronize() {
  // Nothing can have changed before the file was read.
  if (!impl_->loaded.load(std::memory_order_acquire) || impl_->file.empty()) return true;
  std::lock_guard io(impl_->ioMutex);
  return impl_->write();
}

void HttpCookieStorage::scheduleWrite(std::chrono::milliseconds delay) {
  globalQueue()->asyncAfter(delay, [weak = weak_from_this()] {
    auto self = weak.lock();
    if (!self) return;
    Impl& impl = *self->impl_;
    std::lock_guard io(impl.ioMutex);
    {
      std::lock_guard lock(impl.mutex);
      impl.writeScheduled = false;
    }
    if (impl.write()) {
      impl.retryDelay = 0ms;
      return;
    }
    impl.retryDelay = std::clamp<std::chrono::milliseconds>(impl.retryDelay * 2, 1s, 60s);
    bool again = false;
    {
      std::lock_guard lock(impl.mutex);
      again = impl.dirty && !std::exchange(impl.writeScheduled, true);
    }
    if (again) self->scheduleWrite(impl.retryDelay);
  });
}

}  // namespace kp
