// The file store of the cache.
#include "kp/cache/file_storage.h"

#include <chrono>
#include <fstream>

#include "kp/cache/cache_database.h"
#include "kp/logging/tarvix_logger.h"
#include "kp/platform/application_info.h"
#include "kp/service/encryption.h"
#include "platform/files.h"

namespace kp {

namespace fs = std::filesystem;

CacheControllerFileStorage::CacheControllerFileStorage(std::string_view fileName)
    : CacheControllerFileStorage(fileName, cachesDirectory()) {}

CacheControllerFileStorage::CacheControllerFileStorage(std::string_view fileName, const fs::path& directory)
    : basePath_(directory / fileName) {}

fs::path CacheControllerFileStorage::groupFolder(const std::optional<std::string>& group) const {
  if (!group || group->empty()) return basePath_;
  return basePath_ / hashSha1(std::string_view(*group));
}

fs::path CacheControllerFileStorage::filePath(std::string_view key, const std::optional<std::string>& group) const {
  return groupFolder(group) / hashSha1(key);
}

namespace {

// A partial file younger than this may belong to a save still running in another process
// (a tool opening the folder while the application saves); older ones were left by a process
// that ended mid-write.
constexpr auto kAbandonedAfter = std::chrono::minutes(10);

// Removes what writes cut short by the end of a process left behind in `folder`.
void removePartialFiles(const fs::path& folder, bool withGroupFolders) {
  std::error_code ec;
  fs::directory_iterator it(folder, ec);
  if (ec) return;
  for (const fs::directory_iterator end; it != end; it.increment(ec)) {
    if (ec) return;
    const auto status = it->symlink_status(ec);
    if (ec) continue;
    if (fs::is_directory(status)) {
      if (withGroupFolders) removePartialFiles(it->path(), false);
    } else if (it->path().filename().string().starts_with(platform::kTemporaryFilePrefix)) {
      const auto modified = fs::last_write_time(it->path(), ec);
      if (!ec && fs::file_time_type::clock::now() - modified > kAbandonedAfter) fs::remove(it->path(), ec);
    }
  }
}

}  // namespace

void CacheControllerFileStorage::prepareCacheFolder() {
  std::lock_guard lock(mutex_);
  (void)platform::createPrivateDirectory(basePath_);
  removePartialFiles(basePath_, true);
}

bool CacheControllerFileStorage::save(const Data& data, std::string_view key, const std::optional<std::string>& group,
                                      const std::function<bool()>& beforeReplacing) {
  const auto path = filePath(key, group);
  // Written aside and renamed over the old file: a failed or interrupted write keeps the old
  // payload, and no reader ever sees a cut-off one. Only the rename needs the lock; the
  // temporary file is this call's own, and `beforeReplacing` may take other stores' locks.
  if (group && !group->empty() && !platform::createPrivateDirectory(path.parent_path())) return false;
  std::optional<platform::StagedFile> staged = platform::StagedFile::write(path, data.bytes());
  if (!staged) return false;
  if (beforeReplacing && !beforeReplacing()) return false;
  std::lock_guard lock(mutex_);
  return staged->commit();
}

std::optional<Data> CacheControllerFileStorage::loadData(std::string_view key,
                                                         const std::optional<std::string>& group) const {
  const auto path = filePath(key, group);
  std::lock_guard lock(mutex_);
  std::error_code ec;
  if (!fs::is_regular_file(path, ec)) return std::nullopt;
  const auto size = fs::file_size(path, ec);
  if (ec) return std::nullopt;
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  Data bytes = Data::zeros(static_cast<std::size_t>(size));
  in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(size));
  if (static_cast<std::uintmax_t>(in.gcount()) != size) return std::nullopt;
  return bytes;
}

void CacheControllerFileStorage::removeData(std::string_view key, const std::optional<std::string>& group) {
  const auto path = filePath(key, group);
  std::lock_guard lock(mutex_);
  std::error_code ec;
  if (fs::exists(path, ec) && !fs::remove(path, ec) && ec) TarvixLoggers::CL()->error(ec.message());
}

void CacheControllerFileStorage::removeAllItems(const std::optional<std::string>& group) {
  std::lock_guard lock(mutex_);
  std::error_code ec;
  if (group && !group->empty()) {
    const auto folder = groupFolder(group);
    if (fs::exists(folder, ec)) fs::remove_all(folder, ec);
    return;
  }
  fs::directory_iterator it(basePath_, ec);
  if (ec) return;
  for (const fs::directory_iterator end; it != end; it.increment(ec)) {
    if (ec) return;
    fs::remove_all(it->path(), ec);
    if (ec) return;
  }
}

std::uint64_t CacheControllerFileStorage::sizeLocked() const {
  std::uint64_t total = 0;
  std::error_code ec;
  fs::recursive_directory_iterator it(basePath_, ec);
  if (ec) return 0;
  for (const fs::recursive_directory_iterator end; it != end; it.increment(ec)) {
    if (ec) break;
    const auto status = it->symlink_status(ec);
    if (ec) break;
    if (fs::is_directory(status)) continue;
    const auto size = it->file_size(ec);
    if (ec) break;
    total += static_cast<std::uint64_t>(size);
  }
  return total;
}

std::uint64_t CacheControllerFileStorage::getSize() const {
  std::lock_guard lock(mutex_);
  return sizeLocked();
}

void CacheControllerFileStorage::removeOldestFiles(std::uint64_t maxCacheSize, CacheControllerDatabase& database) {
  const std::uint64_t current = getSize();
  if (current <= maxCacheSize) return;
  const auto keys = database.getFileCacheKeysSortedByCreationDate();
  std::lock_guard lock(mutex_);
  std::uint64_t removed = 0;
  const std::uint64_t floor = maxCacheSize / 5;  // free at least a fifth of the limit
  for (const auto& entry : keys) {
    const auto path = filePath(entry.key, entry.group);
    std::error_code ec;
    const auto status = fs::symlink_status(path, ec);
    if (ec || !fs::exists(status) || fs::is_directory(status)) continue;
    const auto size = fs::file_size(path, ec);
    if (ec) continue;
    if (!fs::remove(path, ec) || ec) continue;
    removed += static_cast<std::uint64_t>(size);
    if (removed < floor) continue;
    if (current - std::min(removed, current) >= maxCacheSize) continue;
    break;
  }
}

}  // namespace kp
