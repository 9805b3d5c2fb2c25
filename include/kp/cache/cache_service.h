// kp::CacheService: the cache as a service of the container, the contract that the request
// executor and host code use (kp::CacheController implements it).
//
//   set(CacheItem)   validates the entry, keeps it in memory and, when it is to be retained
//                    in the back store, saves it there in the background.
//   set(Cacheable)   the same for any entry with a coded form, without validation or files.
//   get<T>(key)      an entry of type T from memory or the database.
//   getCacheItem     a general entry from memory, the database and its file, in that order.
//   wipe...          empties memory now and the back store in the background.
//
// Thread safety: implementations may be called from any thread.
//
// Example:
//   std::shared_ptr<kp::CacheService> cache = services->safeGet<kp::CacheService>();
//   cache->set(std::make_shared<kp::CacheItem>(kp::ArchiveValue("sunny"), kp::CacheItemConfiguration(600)),
//              "forecast/berlin");
//   if (auto hit = cache->getCacheItem("forecast/berlin")) { ... }
//   auto settings = cache->get<kp::CodableCacheItem<Settings>>("settings");
#pragma once

#include <exception>
#include <memory>
#include <string_view>

#include "kp/cache/cache_item.h"
#include "kp/coding/property_list.h"
#include "kp/platform/export.h"
#include "tarvix/service.h"

namespace kp {

// How the generic get() recognises and reads one type of entry.
struct KP_EXPORT CacheableType {
  // True for an entry of the type.
  bool (*accepts)(const Cacheable& entry);
  // The entry decoded from its stored coded form, or null.
  std::shared_ptr<Cacheable> (*decode)(const Data& bytes);

  // REQUIRES: T is a Cacheable with `static T decode(const Decoder&)`.
  template <class T>
  [[nodiscard]] static CacheableType of() {
    return {[](const Cacheable& entry) { return dynamic_cast<const T*>(&entry) != nullptr; },
            [](const Data& bytes) -> std::shared_ptr<Cacheable> {
              try {
                return std::make_shared<T>(PropertyListDecoder().decode<T>(bytes));
              } catch (const std::exception&) {
                return nullptr;  // damaged stored data reads as absent
              }
            }};
  }
};

class KP_EXPORT CacheService : public virtual tarvix::Service {
 public:
  // A general entry: ignored for an empty key or an invalid entry (a serialized entry without
  // a payload, a file entry whose payload is not bytes, an image entry without an image).
  virtual void set(std::shared_ptr<CacheItem> item, std::string_view key) = 0;
  // Any entry with a coded form; its back-store copy is its database row.
  virtual void set(std::shared_ptr<Cacheable> item, std::string_view key) = 0;
  // Removes the entry under `key` from memory, its file and its row.
  virtual void removeCacheItem(std::string_view key) = 0;
  // The entry of `type` under `key`, or null; see get<T>().
  [[nodiscard]] virtual std::shared_ptr<Cacheable> get(const CacheableType& type, std::string_view key) = 0;
  // getCacheItem(key, true).
  [[nodiscard]] virtual std::shared_ptr<CacheItem> getCacheItem(std::string_view key) = 0;
  // The entry under `key`, or null when there is none or it has expired. With `loadData`
  // false, an entry whose payload lives in a file comes without it.
  [[nodiscard]] virtual std::shared_ptr<CacheItem> getCacheItem(std::string_view key, bool loadData) = 0;
  // Removes every entry: from memory now, from the database and the files in the background.
  virtual void wipeCompleteCache() = 0;
  // Removes the entries of `group`, as wipeCompleteCache() does.
  virtual void wipeCompleteCache(std::string_view group) = 0;
  // Removes the entries that have expired.
  virtual void wipeCompleteExpiredCache() = 0;

  // The entry of type T under `key`, from memory or from its database row, or null.
  template <class T>
  [[nodiscard]] std::shared_ptr<T> get(std::string_view key) {
    return std::static_pointer_cast<T>(get(CacheableType::of<T>(), key));
  }
};

}  // namespace kp
