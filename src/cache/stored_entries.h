// kp::internal: listings and inspections of what the cache database and the file store hold,
// shared by the cache controller and the read-only cache inspector. Internal; not installed.
//
// Thread safety: as the stores' own operations: any thread.
#pragma once

#include <string_view>
#include <vector>

#include "cache/cache_database.h"
#include "cache/file_storage.h"
#include "kp/cache/cache_controller.h"

namespace kp::internal {

// Keys and groups reach the database as text cut at a NUL byte, and come back from it only
// when they are UTF-8: other names cannot have a row of their own.
[[nodiscard]] bool databaseCanHold(std::string_view name);

// Every row, oldest first, with its file's size.
[[nodiscard]] std::vector<CacheEntrySummary> listStoredEntries(CacheControllerDatabase& database,
                                                               const CacheControllerFileStorage& files);

// Adds what the stores hold under `key` to `inspection`: the row, the file's bytes for a
// file-backed row, and the entry decoded from the row unless `inspection.entry` is already set.
// False when no row holds the key.
bool inspectStored(CacheControllerDatabase& database, const CacheControllerFileStorage& files, std::string_view key,
                   CacheItemInspection& inspection);

}  // namespace kp::internal
