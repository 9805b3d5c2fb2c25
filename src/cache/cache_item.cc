// Coded forms of cache entries and their policy.
#include "kp/cache/cache_item.h"

#include <algorithm>

#include "coding/binary_property_list.h"
#include "kp/coding/coding.h"
#include "kp/coding/property_list.h"
#include "platform/no_destructor.h"

namespace kp {
namespace {

// Hands the bytes under `key` to `use` where the coded form holds them, without a copy; bytes
// coded otherwise (as Base64 text) are decoded first. Nothing for a missing key or null.
template <class F>
void withBytes(const KeyedDecoder& keyed, std::string_view key, F&& use) {
  if (keyed.decodeNil(key)) return;
  if (const Data* bytes = keyed.decoderForKey(key).value().ifData()) {
    use(bytes->bytes());
  } else if (auto decoded = keyed.decodeIfPresent<Data>(key)) {
    use(decoded->bytes());
  }
}

// The stored form read where it lies. It accepts only the form that encode() writes (each
// field present with the type written for it); for anything else it gives up, and decode()
// reads the entry instead, with the same result or the same error as ever.
class StoredForm {
 public:
  using Bytes = std::span<const std::uint8_t>;
  using Reader = coding_detail::BinaryPropertyListReader;

  explicit StoredForm(Bytes bytes) : reader_(bytes) {}

  // The entry's fields, with its payload and extra items still archived; nothing when the form
  // is not the one written.
  struct Read {
    CacheItemType type;
    CacheItemConfiguration configuration;
    Date creationDate;
    std::optional<Bytes> item;
    std::optional<Bytes> extras;
  };
  std::optional<Read> read() {
    Fields root(reader_, reader_.top());
    // Found by reference, not returned as optionals: the lookups are the hit's inner loop.
    std::int64_t version = 0, typeNumber = 0;
    std::uint64_t configuration = 0;
    Date created;
    std::optional<Bytes> extras, item;
    // The version is read although unused, as the general decoder reads every object: a damaged
    // one fails it.
    if (!root.scalar(CacheItem::kCodingVersionKey, &Reader::integer, version) ||
        !root.scalar(CacheItem::kCacheTypeKey, &Reader::integer, typeNumber) ||
        !root.find(CacheItem::kCacheConfigurationKey, configuration) ||
        !root.scalar(CacheItem::kCreationDateKey, &Reader::date, created) ||
        !root.bytes(CacheItem::kExtraItemsKey, extras) || !root.bytes(CacheItem::kItemKey, item) || !root.allFound()) {
      return std::nullopt;
    }
    const auto type = cacheItemTypeFromRawValue(typeNumber);
    if (!type) return std::nullopt;
    auto policy = readConfiguration(configuration);
    if (!policy) return std::nullopt;
    return Read{*type, std::move(*policy), created, *type == CacheItemType::serialized ? item : std::nullopt, extras};
  }

 private:
  // The entries of one dictionary, looked up in the order encode() writes them. Once every
  // entry was found under a distinct key, no key can have been written twice, so nothing was
  // read that the tree's first-entry rule would not have read; and no key asked for after
  // that can be there.
  class Fields {
   public:
    Fields(Reader& reader, std::uint64_t ref) : reader_(reader), entries_(reader.dictionary(ref)) {}

    // False when the key is not there.
    bool find(std::string_view key, std::uint64_t& ref) {
      if (!entries_ || found_ == entries_->count) return false;
      const auto found = reader_.find(*entries_, key, cursor_);
      if (!found) return false;
      ++found_;
      ref = *found;
      return true;
    }
    std::optional<Value> value(std::string_view key) {
      std::uint64_t ref = 0;
      if (!find(key, ref)) return std::nullopt;
      return reader_.build(ref);
    }
    // The scalar under `key` read in place by `read` (one of the reader's scalar accessors);
    // false when it is missing or of another kind.
    template <class T>
    bool scalar(std::string_view key, std::optional<T> (Reader::*read)(std::uint64_t) const, T& out) {
      std::uint64_t ref = 0;
      if (!find(key, ref)) return false;
      const auto found = (reader_.*read)(ref);
      if (!found) return false;
      out = *found;
      return true;
    }
    // The bytes under `key`, none when it is missing; false for anything but bytes.
    bool bytes(std::string_view key, std::optional<Bytes>& out) {
      std::uint64_t ref = 0;
      if (!find(key, ref)) return true;
      out = reader_.bytes(ref);
      return out.has_value();
    }
    [[nodiscard]] bool allFound() const { return entries_ && found_ == entries_->count; }

   private:
    Reader& reader_;
    std::optional<Reader::Dictionary> entries_;  // nothing for no dictionary
    std::uint64_t cursor_ = 0;
    std::uint64_t found_ = 0;
  };

  std::optional<CacheItemConfiguration> readConfiguration(std::uint64_t ref) {
    Fields fields(reader_, ref);
    const auto flag = &Reader::boolean;
    CacheItemConfiguration config;
    if (!fields.scalar(CacheItemConfiguration::kMaximumAgeKey, &Reader::real, config.maximumAge) ||
        !fields.scalar(CacheItemConfiguration::kExpireOnMemoryWarningKey, flag, config.expireOnMemoryWarning) ||
        !fields.scalar(CacheItemConfiguration::kRetainInBackStoreKey, flag, config.retainInBackStore) ||
        !fields.scalar(CacheItemConfiguration::kRetainInMemoryKey, flag, config.retainInMemory) ||
        !fields.scalar(CacheItemConfiguration::kRollingExpirationKey, flag, config.rollingExpiration) ||
        !fields.scalar(CacheItemConfiguration::kAutoExpirationKey, flag, config.autoExpiration)) {
      return std::nullopt;
    }
    const auto group = fields.value(CacheItemConfiguration::kGroupNameKey);
    if (!fields.allFound()) return std::nullopt;
    if (group) {
      if (!group->ifString() || group->isNil()) return std::nullopt;
      config.groupName = *group->ifString();
    }
    return config;
  }

  Reader reader_;
};

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
      withBytes(keyed, kItemKey, [&](std::span<const std::uint8_t> bytes) { entry.adoptPayload(bytes); });
    } catch (const CodingError&) {
      // an unreadable payload leaves the entry without one
      entry.complete_ = false;
    }
  }
  try {
    withBytes(keyed, kExtraItemsKey, [&](std::span<const std::uint8_t> bytes) { entry.adoptExtraItems(bytes); });
  } catch (const CodingError&) {
    // unreadable extra items leave the dictionary empty
    entry.complete_ = false;
  }
  return entry;
}

void CacheItem::adoptPayload(std::span<const std::uint8_t> archived) {
  if (auto payload = KeyedUnarchiver::safeUnarchivedObject(archived); payload && !payload->isNull()) {
    item = std::move(*payload);
  } else {
    complete_ = false;
  }
}

void CacheItem::adoptExtraItems(std::span<const std::uint8_t> archived) {
  // Most entries carry no extra items, and their archive is always the same bytes: those are
  // known without reading them. (Never destroyed: reads may still run while the process exits.)
  static internal::NoDestructor<Data> noExtraItems(
      KeyedArchiver::archivedData(ArchiveValue(ArchiveValue::Dictionary{})).value_or(Data()));
  if (!noExtraItems->empty() && std::ranges::equal(archived, noExtraItems->bytes())) {
    extraItems.clear();
    return;
  }
  auto extras = KeyedUnarchiver::safeUnarchivedObject(archived);
  if (auto* dictionary = extras ? extras->get<ArchiveValue::Dictionary>() : nullptr) {
    extraItems = std::move(*dictionary);
  } else {
    complete_ = false;
  }
}

CacheItem CacheItem::decodeStored(std::span<const std::uint8_t> propertyList) {
  if (coding_detail::isBinaryPropertyList(propertyList)) {
    std::optional<StoredForm::Read> read;
    try {
      read = StoredForm(propertyList).read();
    } catch (const CodingError&) {
      // damaged: decode() says how
    }
    if (read) {
      CacheItem entry(read->type, std::move(read->configuration), read->creationDate);
      if (read->item) entry.adoptPayload(*read->item);
      if (read->extras) entry.adoptExtraItems(*read->extras);
      return entry;
    }
  }
  return PropertyListDecoder().decode<CacheItem>(propertyList);
}

bool operator==(const CacheItem& a, const CacheItem& b) {
  if (a.cacheType != b.cacheType || a.configuration != b.configuration || a.extraItems != b.extraItems) return false;
  const bool aHas = a.item && !a.item->isNull();
  const bool bHas = b.item && !b.item->isNull();
  if (aHas != bHas) return false;
  return !aHas || *a.item == *b.item;
}

}  // namespace kp
