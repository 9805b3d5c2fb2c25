// The policy and the common interface of cache entries.
//
//   CacheItemType: where an entry's payload lives (archived in its row, or in its own file).
//   CacheItemConfiguration: the policy attached to an entry (age limit, memory and back-store
//     retention, rolling and automatic expiry, group).
//   Cacheable: what every entry offers the cache: its configuration, its creation date (which
//     rolling expiry moves), its expiry test and its coded form.
//
// Thread safety: CacheItemConfiguration is a value type. A Cacheable's creation date may be
// read and moved from any thread; the rest of an entry is fixed once it is in the cache.
//
// Example:
//   kp::CacheItemConfiguration config(3600);   // one hour
//   config.groupName = "forecasts";
//   config.rollingExpiration = true;
//   if (entry->isExpired()) { ... }
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "kp/platform/data.h"
#include "kp/platform/date.h"
#include "kp/platform/export.h"

namespace kp {

class Encoder;
class Decoder;

// Where an entry's payload is kept.
enum class CacheItemType : std::int32_t {
  serialized = 0,     // the payload is archived into the entry's database row
  rawDataToFile = 1,  // the payload bytes live in a file of their own
  image = 2,          // an image, in a file of its own
};

// 0, 1 and 2 give their kind; anything else gives nothing.
[[nodiscard]] constexpr std::optional<CacheItemType> cacheItemTypeFromRawValue(std::int64_t raw) noexcept {
  if (raw < 0 || raw > 2) return std::nullopt;
  return static_cast<CacheItemType>(raw);
}

// How the cache keeps one entry: its lifetime, where it lives and its group.
struct KP_EXPORT CacheItemConfiguration {
  // Keys of the coded form.
  static constexpr std::string_view kMaximumAgeKey = "maximumAge";
  static constexpr std::string_view kExpireOnMemoryWarningKey = "expireOnMemoryWarning";  // see kMaximumAgeKey
  static constexpr std::string_view kRetainInBackStoreKey = "retainInBackStore";          // see kMaximumAgeKey
  static constexpr std::string_view kRetainInMemoryKey = "retainInMemory";                // see kMaximumAgeKey
  static constexpr std::string_view kRollingExpirationKey = "rollingExpiration";          // see kMaximumAgeKey
  static constexpr std::string_view kAutoExpirationKey = "autoExpiration";                // see kMaximumAgeKey
  static constexpr std::string_view kGroupNameKey = "groupName";                          // see kMaximumAgeKey

  CacheItemConfiguration() = default;
  // The defaults, with a lifetime of `maximumAgeSeconds`.
  explicit CacheItemConfiguration(double maximumAgeSeconds) : maximumAge(maximumAgeSeconds) {}

  // Lifetime from the creation date in seconds; 0 or less never expires by age.
  double maximumAge = 0;
  // Drop the in-memory copy on memory pressure.
  bool expireOnMemoryWarning = true;
  // Also keep the entry in the persistent store (database or file).
  bool retainInBackStore = false;
  // Keep the entry in memory.
  bool retainInMemory = true;
  // Every read restarts the lifetime.
  bool rollingExpiration = false;
  // The periodic clean-up may delete the entry once expired.
  bool autoExpiration = true;
  // A whole group can be removed at once. An empty name counts as no group in the file store.
  std::optional<std::string> groupName;

  [[nodiscard]] bool hasRollingExpiration() const noexcept { return rollingExpiration; }  // rollingExpiration
  [[nodiscard]] bool hasAutoExpiration() const noexcept { return autoExpiration; }        // autoExpiration

  // The coded form, under the seven keys above ("groupName" only when present).
  void encode(Encoder& encoder) const;
  // Reads back the coded form. Throws kp::CodingError.
  [[nodiscard]] static CacheItemConfiguration decode(const Decoder& decoder);

  // Equal fields.
  friend bool operator==(const CacheItemConfiguration&, const CacheItemConfiguration&) = default;
};

// Anything the cache can hold: it has a configuration, a creation date and a coded form.
class KP_EXPORT Cacheable {
 public:
  // Created at `creationDate`.
  explicit Cacheable(Date creationDate = Date::now()) noexcept : creationDate_(creationDate) {}
  virtual ~Cacheable() = default;

  // How the cache keeps the entry.
  [[nodiscard]] virtual const CacheItemConfiguration& cacheConfiguration() const noexcept = 0;
  // The entry's kind as the database records it; entries that are not general cache items
  // are serialized.
  [[nodiscard]] virtual CacheItemType storedCacheType() const noexcept { return CacheItemType::serialized; }

  // Where the entry's lifetime starts.
  [[nodiscard]] Date creationDate() const noexcept { return creationDate_.load(std::memory_order_relaxed); }
  // Moves the start of the lifetime, as a rolling read does.
  void setCreationDate(Date date) noexcept { creationDate_.store(date, std::memory_order_relaxed); }

  // Expired exactly when the age limit is positive and smaller than the entry's age; an age
  // equal to the limit is still fresh.
  [[nodiscard]] bool isExpired(Date now) const noexcept {
    const double maximumAge = cacheConfiguration().maximumAge;
    if (!(maximumAge > 0)) return false;
    return maximumAge < now.timeIntervalSince(creationDate());
  }
  [[nodiscard]] bool isExpired() const noexcept { return isExpired(Date::now()); }  // isExpired(Date::now())

  // Writes the entry's coded form (what the database stores). Throws kp::CodingError.
  virtual void encode(Encoder& encoder) const = 0;

 protected:
  // A copy of `other`'s creation date.
  Cacheable(const Cacheable& other) noexcept : creationDate_(other.creationDate()) {}
  // Takes `other`'s creation date.
  Cacheable& operator=(const Cacheable& other) noexcept {
    setCreationDate(other.creationDate());
    return *this;
  }

 private:
  std::atomic<Date> creationDate_;
};

}  // namespace kp
