// kp::CacheRowSummary: one entry of the cache's database as a listing shows it (see
// CacheController::listEntries() and CacheInspector), without its encoded payload.
//
// Thread safety: a plain value.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "kp/cache/cacheable.h"
#include "kp/platform/date.h"
#include "kp/platform/export.h"

namespace kp {

// One row as a listing shows it.
struct KP_EXPORT CacheRowSummary {
  // How the row names its entry. Only a UTF-8 text id can match a key: a row named otherwise
  // was written by something else, and no read ever reaches it, but it is listed all the same.
  enum class KeyForm { text, bytes, null };
  // The id: as text, or the bytes of a blob or of text in another encoding; empty for NULL.
  std::string key;
  KeyForm keyForm = KeyForm::text;   // how the row names its entry
  std::optional<std::string> group;  // the entry's group; none without one
  // Nothing for a kind this library does not know.
  std::optional<CacheItemType> type;
  // The entry's creation date, whole seconds.
  Date timestamp;
  std::int32_t maximumAge = 0;     // the entry's lifetime in seconds; 0 or less never expires
  bool rollingExpiration = false;  // every read restarts the lifetime
  bool autoExpiration = false;     // the clean-up may delete it once expired
  // Bytes of the encoded entry in the row.
  std::uint64_t dataSize = 0;
};

}  // namespace kp
