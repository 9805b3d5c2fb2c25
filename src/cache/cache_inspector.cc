// The read-only cache inspector: the database and the file folder opened without preparing
// them, so that nothing in the folder changes.
#include "kp/cache/cache_inspector.h"

#include <system_error>

#include "cache/cache_database.h"
#include "cache/file_storage.h"
#include "cache/stored_entries.h"

namespace kp {

struct CacheInspector::Stores {
  Stores(const std::filesystem::path& directory, std::string_view databaseFileName, std::string_view storageFileName)
      : database(std::string(databaseFileName), directory), files(storageFileName, directory) {}
  CacheControllerDatabase database;
  CacheControllerFileStorage files;
};

CacheInspector::CacheInspector(std::unique_ptr<Stores> stores) : stores_(std::move(stores)) {}

CacheInspector::~CacheInspector() = default;

std::unique_ptr<CacheInspector> CacheInspector::open(const std::filesystem::path& directory, std::string* problem,
                                                     std::string_view databaseFileName,
                                                     std::string_view storageFileName) {
  auto stores = std::make_unique<Stores>(directory, databaseFileName, storageFileName);
  std::error_code ec;
  std::optional<std::string> failure;
  if (!std::filesystem::is_regular_file(stores->database.path(), ec)) {
    failure = "no cache database in " + directory.string();
  } else {
    failure = stores->database.openForReading();
  }
  if (!failure) return std::unique_ptr<CacheInspector>(new CacheInspector(std::move(stores)));
  if (problem) *problem = std::move(*failure);
  return nullptr;
}

std::uint64_t CacheInspector::entryCount() { return stores_->database.getItemCount(); }

std::uint64_t CacheInspector::databaseBytes() const { return stores_->database.getSize(); }

std::uint64_t CacheInspector::fileStorageBytes() const { return stores_->files.getSize(); }

std::optional<std::string> CacheInspector::fileStorageProblem() const { return stores_->files.folderProblem(); }

const std::filesystem::path& CacheInspector::databasePath() const noexcept { return stores_->database.path(); }

const std::filesystem::path& CacheInspector::storagePath() const noexcept { return stores_->files.basePath(); }

std::vector<CacheEntrySummary> CacheInspector::listEntries() {
  return internal::listStoredEntries(stores_->database, stores_->files);
}

std::optional<CacheItemInspection> CacheInspector::inspect(std::string_view key, Date now) {
  CacheItemInspection inspection;
  if (!internal::inspectStored(stores_->database, stores_->files, key, inspection)) return std::nullopt;
  if (inspection.entry) inspection.expired = inspection.entry->isExpired(now);
  return inspection;
}

}  // namespace kp
