// The memory store of the cache.
#include "cache/memory_storage.h"

namespace kp {

void CacheMemoryStorage::set(std::shared_ptr<Cacheable> entry, std::string_view key) {
  MutexLock lock(mutex_);
  auto it = items_.find(key);
  if (entry && entry->cacheConfiguration().retainInMemory) {
    if (it != items_.end()) {
      it->second = std::move(entry);
    } else {
      items_.emplace(std::string(key), std::move(entry));
    }
    return;
  }
  if (it != items_.end()) items_.erase(it);
  ++removals_;
}

std::shared_ptr<Cacheable> CacheMemoryStorage::get(std::string_view key) const {
  MutexLock lock(mutex_);
  auto it = items_.find(key);
  return it == items_.end() ? nullptr : it->second;
}

CacheMemoryStorage::Lookup CacheMemoryStorage::lookup(std::string_view key) const {
  MutexLock lock(mutex_);
  auto it = items_.find(key);
  return {it == items_.end() ? nullptr : it->second, removals_};
}

void CacheMemoryStorage::remove(std::string_view key) {
  MutexLock lock(mutex_);
  if (auto it = items_.find(key); it != items_.end()) items_.erase(it);
  ++removals_;
}

void CacheMemoryStorage::remove(std::string_view key, const Cacheable& entry) {
  MutexLock lock(mutex_);
  if (auto it = items_.find(key); it != items_.end() && it->second.get() == &entry) {
    items_.erase(it);
    ++removals_;
  }
}

std::shared_ptr<Cacheable> CacheMemoryStorage::insertIfUnchanged(std::shared_ptr<Cacheable> entry, std::string_view key,
                                                                 std::uint64_t generation) {
  MutexLock lock(mutex_);
  if (auto it = items_.find(key); it != items_.end()) return it->second;
  if (removals_ != generation || !entry || !entry->cacheConfiguration().retainInMemory) return nullptr;
  items_.emplace(std::string(key), entry);
  return entry;
}

void CacheMemoryStorage::removeAll() {
  MutexLock lock(mutex_);
  items_.clear();
  ++removals_;
}

template <class Keep>
void CacheMemoryStorage::keepOnly(Keep keep) {
  MutexLock lock(mutex_);
  std::erase_if(items_, [&](const auto& item) { return !keep(*item.second); });
  ++removals_;
}

void CacheMemoryStorage::removeExpired(Date now) {
  keepOnly([now](const Cacheable& entry) { return !entry.isExpired(now); });
}

void CacheMemoryStorage::removeLowMemoryWarningItems() {
  keepOnly([](const Cacheable& entry) { return !entry.cacheConfiguration().expireOnMemoryWarning; });
}

void CacheMemoryStorage::removeForGroup(std::string_view group) {
  keepOnly([group](const Cacheable& entry) {
    const auto& name = entry.cacheConfiguration().groupName;
    return !name || *name != group;
  });
}

std::size_t CacheMemoryStorage::count() const {
  MutexLock lock(mutex_);
  return items_.size();
}

}  // namespace kp
