// Listings and inspections of the cache's database rows and files.
#include "cache/stored_entries.h"

#include "platform/utf8.h"

namespace kp::internal {
namespace {

bool isFileBacked(const std::optional<CacheItemType>& type) {
  return type == CacheItemType::rawDataToFile || type == CacheItemType::image;
}

}  // namespace

bool databaseCanHold(std::string_view name) { return name.find('\0') == std::string_view::npos && isValidUtf8(name); }

std::vector<CacheEntrySummary> listStoredEntries(CacheControllerDatabase& database,
                                                 const CacheControllerFileStorage& files) {
  std::vector<CacheEntrySummary> entries;
  for (auto& row : database.getRowSummaries()) {
    CacheEntrySummary entry{std::move(row), std::nullopt};
    const bool named = entry.row.keyForm == CacheRowSummary::KeyForm::text;
    if (named && isFileBacked(entry.row.type)) entry.fileSize = files.fileSize(entry.row.key, entry.row.group);
    entries.push_back(std::move(entry));
  }
  return entries;
}

bool inspectStored(CacheControllerDatabase& database, const CacheControllerFileStorage& files, std::string_view key,
                   CacheItemInspection& inspection) {
  // A key the database cannot hold would be cut short and find another key's row.
  auto row = databaseCanHold(key) ? database.getRowSummary(key) : std::nullopt;
  if (!row) return false;
  inspection.stored = CacheEntrySummary{std::move(*row), std::nullopt};
  const auto& stored = inspection.stored->row;
  if (isFileBacked(stored.type)) {
    inspection.fileData = files.loadData(key, stored.group);
    if (inspection.fileData) inspection.stored->fileSize = inspection.fileData->size();
  }
  if (!inspection.entry) {
    if (auto bytes = database.loadCacheData(key))
      inspection.entry = CacheControllerDatabase::decodeEntry<CacheItem>(*bytes);
    if (inspection.entry && !inspection.entry->isComplete()) inspection.entry.reset();
  }
  return true;
}

}  // namespace kp::internal
