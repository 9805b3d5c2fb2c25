// Stored cache entries: the database's reading of a row where it lies gives exactly what the
// general property-list decoder gives (the same entry, creation date and completeness, or an
// error from both), whatever the bytes.
#include <cstdlib>
#include <cstring>

#include "cache/cache_database.h"
#include "kp/cache/cache_item.h"
#include "kp/coding/property_list.h"

namespace {

// The entry written again, so that values that never equal themselves (NaN) still compare.
std::optional<kp::Data> rewritten(const kp::CacheItem& entry) {
  return kp::CacheControllerDatabase::encodeEntry(entry);
}

bool sameDate(kp::Date a, kp::Date b) {
  const double x = a.timeIntervalSinceReferenceDate();
  const double y = b.timeIntervalSinceReferenceDate();
  return std::memcmp(&x, &y, sizeof x) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span<const std::uint8_t> bytes(data, size);
  std::optional<kp::CacheItem> inPlace, general;
  try {
    inPlace = kp::CacheItem::decodeStored(bytes);
  } catch (const kp::CodingError&) {
  }
  try {
    general = kp::PropertyListDecoder().decode<kp::CacheItem>(bytes);
  } catch (const kp::CodingError&) {
  }
  if (inPlace.has_value() != general.has_value()) std::abort();
  if (!inPlace) return 0;
  if (inPlace->cacheType != general->cacheType || inPlace->isComplete() != general->isComplete() ||
      !sameDate(inPlace->creationDate(), general->creationDate()) ||
      inPlace->item.has_value() != general->item.has_value() ||
      inPlace->extraItems.size() != general->extraItems.size() || rewritten(*inPlace) != rewritten(*general)) {
    std::abort();
  }
  return 0;
}
