// kp::CacheMemoryStorage: the in-process dictionary of live cache entries, with the purges the
// cache controller runs on expiry, on memory pressure and by group.
//
// Thread safety: every operation may be called from any thread; each runs under the store's
// own lock, and the store never calls another store.
//
// Example:
//   kp::CacheMemoryStorage memory;
//   memory.set(entry, "forecast/berlin");   // kept only when the entry retains in memory
//   if (auto hit = memory.get("forecast/berlin")) { ... }
//   memory.removeLowMemoryWarningItems();
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "kp/cache/cacheable.h"
#include "kp/platform/string_map.h"
#include "platform/mutex.h"

namespace kp {

class CacheMemoryStorage {
 public:
  // Removes any entry under `key`, then keeps `entry` when its configuration retains it in
  // memory (so storing an entry that is not to be retained evicts the old one).
  void set(std::shared_ptr<Cacheable> entry, std::string_view key);
  [[nodiscard]] std::shared_ptr<Cacheable> get(std::string_view key) const;
  // get(), with a count that moves on with every removal and eviction, as it was at the
  // lookup. A reader that takes it before reading an entry from elsewhere can store that entry
  // with insertIfUnchanged() without bringing back what a removal, a wipe or a newer set()
  // meant to be gone.
  struct Lookup {
    std::shared_ptr<Cacheable> entry;
    std::uint64_t generation;
  };
  [[nodiscard]] Lookup lookup(std::string_view key) const;
  void remove(std::string_view key);
  // Removes the entry under `key` only when it is `entry` (not one stored since).
  void remove(std::string_view key, const Cacheable& entry);

  // Stores `entry` under `key` when the key is free and nothing was removed since
  // `generation`. Returns the entry now under the key: `entry`, one stored meanwhile, or null.
  std::shared_ptr<Cacheable> insertIfUnchanged(std::shared_ptr<Cacheable> entry, std::string_view key,
                                               std::uint64_t generation);
  void removeAll();
  // Keeps only the entries that have not expired at `now`.
  void removeExpired(Date now = Date::now());
  // Keeps only the entries whose configuration does not expire them on memory warnings.
  void removeLowMemoryWarningItems();
  // Keeps only the entries whose group differs from `group` (entries without one are kept).
  void removeForGroup(std::string_view group);
  [[nodiscard]] std::size_t count() const;

 private:
  template <class Keep>
  void keepOnly(Keep keep) EXCLUDES(mutex_);

  mutable Mutex mutex_;
  std::uint64_t removals_ GUARDED_BY(mutex_) = 0;
  StringMap<std::shared_ptr<Cacheable>> items_ GUARDED_BY(mutex_);
};

}  // namespace kp
