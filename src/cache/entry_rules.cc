// What the cache controller asks of an entry before it keeps it (see entry_rules.h).
#include "cache/entry_rules.h"

#include "cache/stored_entries.h"
#include "kp/coding/archivable_image.h"

namespace kp::internal {
namespace {

constexpr int kMaxEstimateDepth = 8;

std::size_t estimatedBytes(const ArchiveValue& value, int depth) {
  if (const auto* data = value.get<Data>()) return data->size();
  if (const auto* text = value.get<std::string>()) return text->size();
  if (auto image = value.object<ArchivableImage>()) return image->image().pixels().size();
  if (depth >= kMaxEstimateDepth) return 64;
  std::size_t total = 0;
  if (const auto* array = value.get<ArchiveValue::Array>()) {
    for (const auto& element : *array) total += estimatedBytes(element, depth + 1) + 16;
    return total;
  }
  if (const auto* dictionary = value.get<ArchiveValue::Dictionary>()) {
    for (const auto& [name, element] : *dictionary) total += name.size() + estimatedBytes(element, depth + 1) + 48;
    return total;
  }
  return 64;
}

}  // namespace

std::size_t estimatedBytes(const ArchiveValue& value) { return estimatedBytes(value, 0); }

void adoptStoredTimestamp(Cacheable& entry, Date timestamp) {
  if (entry.cacheConfiguration().rollingExpiration && timestamp > entry.creationDate()) {
    entry.setCreationDate(timestamp);
  }
}

bool isValid(const CacheItem& entry) {
  if (!entry.item) return false;
  switch (entry.cacheType) {
    case CacheItemType::serialized: {
      if (entry.item->isNull()) return false;
      const auto* object = entry.item->get<ArchivablePtr>();
      return object == nullptr || *object != nullptr;
    }
    case CacheItemType::rawDataToFile:
      return entry.item->get<Data>() != nullptr;
    case CacheItemType::image:
      return entry.item->object<ArchivableImage>() != nullptr;
  }
  return false;
}

bool databaseCanHold(const Cacheable& entry, std::string_view key) {
  const auto& group = entry.cacheConfiguration().groupName;
  return databaseCanHold(key) && (!group || databaseCanHold(*group));
}

}  // namespace kp::internal
