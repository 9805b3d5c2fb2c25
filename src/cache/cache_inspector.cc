// The read-only cache inspector: the stores opened without preparing them.
#include "kp/cache/cache_inspector.h"

#include <system_error>

#include "cache/stored_entries.h"

namespace kp {

CacheInspector::CacheInspector(const std::filesystem::path& directory, std::string_view databaseFileName,
                               std::string_view storageFileName)
    : database_(std::string(databaseFileName), directory), files_(storageFileName, directory) {}

std::unique_ptr<CacheInspector> CacheInspector::open(const std::filesystem::path& directory, std::string* problem,
                                                     std::string_view databaseFileName,
                                                     std::string_view storageFileName) {
  std::unique_ptr<CacheInspector> inspector(new CacheInspector(directory, databaseFileName, storageFileName));
  std::error_code ec;
  std::optional<std::string> failure;
  if (!std::filesystem::is_regular_file(inspector->database_.path(), ec)) {
    failure = "no cache database in " + directory.string();
  } else {
    failure = inspector->database_.openForReading();
  }
  if (!failure) return inspector;
  if (problem) *problem = std::move(*failure);
  return nullptr;
}

std::vector<CacheEntrySummary> CacheInspector::listEntries() { return internal::listStoredEntries(database_, files_); }

std::optional<CacheItemInspection> CacheInspector::inspect(std::string_view key, Date now) {
  CacheItemInspection inspection;
  if (!internal::inspectStored(database_, files_, key, inspection)) return std::nullopt;
  if (inspection.entry) inspection.expired = inspection.entry->isExpired(now);
  return inspection;
}

}  // namespace kp
