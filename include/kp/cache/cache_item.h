// The entries of the cache.
//
//   CacheItem: the general entry: a payload of any archivable value (or none), its kind, its
//     policy, its creation date and further archivable values ("extra items"). A serialized
//     entry carries its payload archived in its coded form; file-backed kinds keep their bytes
//     in the file store, so their payload is not coded.
//   CodableCacheItem<Item>: an entry for a value with a coded form of its own.
//
// Thread safety: an entry's creation date may be read and moved from any thread (rolling
// expiry); set the other fields before the entry is shared.
//
// Example:
//   auto entry = std::make_shared<kp::CacheItem>(kp::ArchiveValue("payload"),
//                                                kp::CacheItemConfiguration(3600));
//   entry->extraItems["result"] = kp::ArchiveValue(result);
//   database.encode(*entry, "forecast/berlin");
//   auto back = database.decode<kp::CacheItem>("forecast/berlin");
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string_view>

#include "kp/cache/cacheable.h"
#include "kp/coding/coding.h"
#include "kp/coding/keyed_archiver.h"
#include "kp/platform/export.h"

namespace kp {

// A stored entry whose kind is not one of the three.
class KP_EXPORT CacheItemCodingError : public CodingError {
 public:
  // The only failure: a kind that is not 0, 1 or 2.
  enum class Code { invalidCacheItemType };
  // The failure `code` at `codingPath`.
  CacheItemCodingError(Code code, std::string codingPath);
  [[nodiscard]] Code code() const noexcept { return code_; }  // what failed

 private:
  Code code_;
};

// The general entry (see the top of this file).
class KP_EXPORT CacheItem final : public Cacheable {
 public:
  // Keys of the coded form; see encode().
  static constexpr std::string_view kCodingVersionKey = "codingVersion";
  static constexpr std::string_view kCacheTypeKey = "cacheType";                    // see kCodingVersionKey
  static constexpr std::string_view kCacheConfigurationKey = "cacheConfiguration";  // see kCodingVersionKey
  static constexpr std::string_view kCreationDateKey = "creationDate";              // see kCodingVersionKey
  static constexpr std::string_view kExtraItemsKey = "extraItems";                  // see kCodingVersionKey
  static constexpr std::string_view kItemKey = "item";                              // see kCodingVersionKey
  static constexpr std::int64_t kCodingVersion = 1;  // what the coded form writes under "codingVersion"

  CacheItem() = default;
  // An entry of `type` holding `payload`, kept as `policy` says, created now.
  explicit CacheItem(std::optional<ArchiveValue> payload, CacheItemConfiguration policy = {},
                     CacheItemType type = CacheItemType::serialized)
      : cacheType(type), configuration(std::move(policy)), item(std::move(payload)) {}
  CacheItem(const CacheItem&) = default;             // a copy, creation date included
  CacheItem& operator=(const CacheItem&) = default;  // takes every field, creation date included
  // Takes the payload and the extra items without copying them, and the creation date.
  CacheItem(CacheItem&&) noexcept = default;
  CacheItem& operator=(CacheItem&&) noexcept = default;  // see CacheItem(CacheItem&&)

  CacheItemType cacheType = CacheItemType::serialized;  // where the payload is kept
  CacheItemConfiguration configuration;                 // how the cache keeps the entry
  std::optional<ArchiveValue> item;                     // the payload; none for an empty entry
  ArchiveValue::Dictionary extraItems;                  // further values kept with the entry

  // `configuration`.
  [[nodiscard]] const CacheItemConfiguration& cacheConfiguration() const noexcept override { return configuration; }
  [[nodiscard]] CacheItemType storedCacheType() const noexcept override { return cacheType; }  // `cacheType`
  void resetCreationDate() noexcept { setCreationDate(Date::now()); }  // the lifetime starts again now

  // Keys in order: "codingVersion" (1), "cacheType", "cacheConfiguration", "creationDate",
  // "extraItems" (archived), and "item" (archived) for a serialized entry with a payload.
  // Throws CodingError when the extra items cannot be archived.
  void encode(Encoder& encoder) const override;
  // Throws CacheItemCodingError for a kind that is not 0, 1 or 2, and CodingError for an unreadable
  // configuration or date. An unreadable payload or extra items leave them empty.
  [[nodiscard]] static CacheItem decode(const Decoder& decoder);
  // The entry from the property list that the cache database keeps of it (what decode() reads
  // from a property-list decoder), read where it lies when it is in the form that encode()
  // writes. Throws as decode() does.
  [[nodiscard]] static CacheItem decodeStored(std::span<const std::uint8_t> propertyList);
  // False for an entry whose decoding dropped a stored payload or stored extra items that could
  // not be read (damaged bytes, a class this process does not know): such an entry is not
  // the one that was stored.
  [[nodiscard]] bool isComplete() const noexcept { return complete_; }

  // Kind, configuration, extra items and payload (objects by their own equality); the
  // creation date takes no part.
  friend KP_EXPORT bool operator==(const CacheItem& a, const CacheItem& b);

 private:
  // An entry read back from its stored form, without a payload yet.
  CacheItem(CacheItemType type, CacheItemConfiguration policy, Date created) noexcept
      : Cacheable(created), cacheType(type), configuration(std::move(policy)) {}
  // The archived payload, or the archived extra items; what cannot be read leaves the entry
  // incomplete.
  void adoptPayload(std::span<const std::uint8_t> archived);
  void adoptExtraItems(std::span<const std::uint8_t> archived);

  bool complete_ = true;
};

// An entry for a value with a coded form of its own.
template <class Item>
class CodableCacheItem final : public Cacheable {
 public:
  // Keys of the coded form.
  static constexpr std::string_view kCacheConfigurationKey = "cacheConfiguration";
  static constexpr std::string_view kItemKey = "item";                  // see kCacheConfigurationKey
  static constexpr std::string_view kCreationDateKey = "creationDate";  // see kCacheConfigurationKey

  // An entry holding `value`, kept as `policy` says, created now.
  CodableCacheItem(Item value, CacheItemConfiguration policy)
      : configuration(std::move(policy)), item(std::move(value)) {}
  CodableCacheItem(const CodableCacheItem&) = default;  // a copy, creation date included

  CacheItemConfiguration configuration;  // how the cache keeps the entry
  Item item;                             // the value

  // `configuration`.
  [[nodiscard]] const CacheItemConfiguration& cacheConfiguration() const noexcept override { return configuration; }

  void encode(Encoder& encoder) const override {
    auto keyed = encoder.keyed();
    keyed.encode(kCacheConfigurationKey, configuration);
    keyed.encode(kItemKey, item);
    keyed.encode(kCreationDateKey, creationDate());
  }
  // Reads back what encode() wrote. Throws kp::CodingError.
  [[nodiscard]] static CodableCacheItem decode(const Decoder& decoder) {
    auto keyed = decoder.keyed();
    CodableCacheItem entry(keyed.template decode<Item>(kItemKey),
                           keyed.template decode<CacheItemConfiguration>(kCacheConfigurationKey));
    entry.setCreationDate(keyed.template decode<Date>(kCreationDateKey));
    return entry;
  }
};

}  // namespace kp
