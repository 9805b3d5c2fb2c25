// kp::internal: what the cache controller asks of an entry before it keeps it: whether its
// payload suits its kind, whether the database can hold its names, roughly how many bytes it
// holds, and which creation date it carries when read back. Internal; not installed.
//
// Thread safety: pure functions of their arguments; any thread.
#pragma once

#include <cstddef>
#include <string_view>

#include "kp/cache/cache_item.h"
#include "kp/coding/keyed_archiver.h"
#include "kp/platform/date.h"

namespace kp::internal {

// A general entry is valid when its payload suits its kind.
[[nodiscard]] bool isValid(const CacheItem& entry);

// A key or group the database cannot hold would share a row with another key, or leave a row
// and a file that no clean-up and no trim can name; entries under such names live in memory
// only.
[[nodiscard]] bool databaseCanHold(const Cacheable& entry, std::string_view key);

// Roughly the bytes a value holds: what the background work counts against its budget.
[[nodiscard]] std::size_t estimatedBytes(const ArchiveValue& value);

// Rolling expiry moves the row's timestamp on, not the creation date coded in the row: a
// later one is the entry's.
void adoptStoredTimestamp(Cacheable& entry, Date timestamp);

}  // namespace kp::internal
