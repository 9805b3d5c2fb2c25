// Coded forms of cache entries and their policy.
#include "kp/cache/cache_item.h"

#include "kp/coding/coding.h"

namespace kp {
namespace {

// Hands the bytes under `key` to `use` where the coded form holds them, without a copy; bytes
// coded otherwise (as Base64 text) are decoded first. Nothing for a missing key or null.
template <class F>
void withBytes(const KeyedDecoder& keyed, std::string_view key, F&& use) {
  if (keyed.decodeNil(key)) return;
  if (const Data* bytes = keyed.decoderForKey(key).value().ifData()) {
    use(*bytes);
  } else if (auto decoded = keyed.decodeIfPresent<Data>(key)) {
    use(*decoded);
  }
}

}  // namespace

void CacheItemConfiguration::encode(Encoder& encoder) const {
  auto keyed = encoder.keyed();
  keyed.encode(kMaximumAgeKey, maximumAge);
  keyed.encode(kExpireOnMemoryWarningKey, expireOnMemoryWarning);
  keyed.encode(kRetainInBackStoreKey, retainInBackStore);
  keyed.encode(kRetainInMemoryKey, retainInMemory);
  keyed.encode(kRollingExpirationKey, rollingExpiration);
  keyed.encode(kAutoExpirationKey, autoExpiration);
  keyed.encodeIfPresent(kGroupNameKey, groupName);
}

CacheItemConfiguration CacheItemConfiguration::decode(const Decoder& decoder) {
  auto keyed = decoder.keyed();
  CacheItemConfiguration config;
  config.maximumAge = keyed.decode<double>(kMaximumAgeKey);
  config.expireOnMemoryWarning = keyed.decode<bool>(kExpireOnMemoryWarningKey);
  config.retainInBackStore = keyed.decode<bool>(kRetainInBackStoreKey);
  config.retainInMemory = keyed.decode<bool>(kRetainInMemoryKey);
  config.rollingExpiration = keyed.decode<bool>(kRollingExpirationKey);
  config.autoExpiration = keyed.decode<bool>(kAutoExpirationKey);
  config.groupName = keyed.decodeIfPresent<std::string>(kGroupNameKey);
  return config;
}

CacheItemCodingError::CacheItemCodingError(Code code, std::string codingPath)
    : CodingError(CodingError::Kind::dataCorrupted, std::move(codingPath), "invalidCacheItemType"), code_(code) {}

void CacheItem::encode(Encoder& encoder) const {
  auto keyed = encoder.keyed();
  keyed.encode(kCodingVersionKey, kCodingVersion);
  keyed.encode(kCacheTypeKey, static_cast<std::int64_t>(cacheType));
  keyed.encode(kCacheConfigurationKey, configuration);
  keyed.encode(kCreationDateKey, creationDate());
  ErrorPtr error;
  auto extras = KeyedArchiver::archivedData(ArchiveValue(extraItems), &error);
  if (!extras) {
    encoder.fail("the extra items cannot be archived: " + (error ? error->localizedDescription() : std::string()));
  }
  keyed.encode(kExtraItemsKey, *extras);
  // Only a serialized entry carries its payload; one that cannot be archived is left out.
  if (cacheType == CacheItemType::serialized && item && !item->isNull()) {
    if (auto archived = KeyedArchiver::archivedData(*item)) keyed.encode(kItemKey, *archived);
  }
}

CacheItem CacheItem::decode(const Decoder& decoder) {
  auto keyed = decoder.keyed();
  CacheItem entry;
  const auto rawType = keyed.decode<std::int64_t>(kCacheTypeKey);
  const auto type = cacheItemTypeFromRawValue(rawType);
  if (!type) {
    throw CacheItemCodingError(CacheItemCodingError::Code::invalidCacheItemType, decoder.codingPath());
  }
  entry.cacheType = *type;
  entry.configuration = keyed.decode<CacheItemConfiguration>(kCacheConfigurationKey);
  entry.setCreationDate(keyed.decode<Date>(kCreationDateKey));
  if (entry.cacheType == CacheItemType::serialized) {
    try {
      withBytes(keyed, kItemKey, [&](const Data& bytes) {
        if (auto payload = KeyedUnarchiver::safeUnarchivedObject(bytes); payload && !payload->isNull()) {
          entry.item = std::move(*payload);
        } else {
          entry.complete_ = false;
        }
      });
    } catch (const CodingError&) {
      // an unreadable payload leaves the entry without one
      entry.complete_ = false;
    }
  }
  try {
    withBytes(keyed, kExtraItemsKey, [&](const Data& bytes) {
      auto extras = KeyedUnarchiver::safeUnarchivedObject(bytes);
      auto* dictionary = extras ? extras->get<ArchiveValue::Dictionary>() : nullptr;
      if (dictionary) {
        entry.extraItems = std::move(*dictionary);
      } else {
        entry.complete_ = false;
      }
    });
  } catch (const CodingError&) {
    // unreadable extra items leave the dictionary empty
    entry.complete_ = false;
  }
  return entry;
}

bool operator==(const CacheItem& a, const CacheItem& b) {
  if (a.cacheType != b.cacheType || a.configuration != b.configuration || a.extraItems != b.extraItems) return false;
  const bool aHas = a.item && !a.item->isNull();
  const bool bHas = b.item && !b.item->isNull();
  if (aHas != bHas) return false;
  return !aHas || *a.item == *b.item;
}

}  // namespace kp
