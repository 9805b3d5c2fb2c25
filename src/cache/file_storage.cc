// The file store of the cache.
#include "cache/file_storage.h"

#include <cerrno>
#include <chrono>
#include <limits>
#include <system_error>
#include <vector>

#include "cache/cache_database.h"
#include "kp/crypto/hash.h"
#include "kp/logging/tarvix_logger.h"
#include "kp/platform/application_info.h"
#include "platform/files.h"
#include "platform/folder.h"

namespace kp {

namespace fs = std::filesystem;

CacheControllerFileStorage::CacheControllerFileStorage(std::string_view fileName)
    : CacheControllerFileStorage(fileName, cachesDirectory()) {}

CacheControllerFileStorage::CacheControllerFileStorage(std::string_view fileName, const fs::path& directory)
    : basePath_(directory / fileName) {}

fs::path CacheControllerFileStorage::filePath(std::string_view key, const std::optional<std::string>& group) const {
  if (!group || group->empty()) return basePath_ / hashSha1(key);
  return basePath_ / hashSha1(std::string_view(*group)) / hashSha1(key);
}

namespace {

using platform::Folder;

// A partial file younger than this may belong to a save still running in another process
// (a tool opening the folder while the application saves); older ones were left by a process
// that ended mid-write.
constexpr auto kAbandonedAfter = std::chrono::minutes(10);

// Names the store gives its files and group folders: SHA-1 digests in lower-case hex.
bool isDigest(std::string_view name) {
  return name.size() == 40 && name.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

// A save's temporary file: the prefix, the digest it is to replace, a dot and a suffix.
bool isOwnTemporary(std::string_view name) {
  if (!name.starts_with(platform::kTemporaryFilePrefix)) return false;
  name.remove_prefix(platform::kTemporaryFilePrefix.size());
  return name.size() > 41 && isDigest(name.substr(0, 40)) && name[40] == '.';
}

bool isOwnFile(const Folder::Entry& entry) {
  return entry.kind == Folder::Kind::file && (isDigest(entry.name) || isOwnTemporary(entry.name));
}

bool isOwnGroupFolder(const Folder::Entry& entry) { return entry.kind == Folder::Kind::folder && isDigest(entry.name); }

// The folder that holds the files of `group`: the store's own, or the group's inside it.
std::optional<Folder> openFolderOf(const fs::path& base, const std::optional<std::string>& group, bool create) {
  auto folder = Folder::open(base);
  if (!folder || !group || group->empty()) return folder;
  return folder->folder(hashSha1(std::string_view(*group)), create);
}

// Removes what writes cut short by the end of a process left behind in `folder`.
void removePartialFiles(const Folder& folder, bool withGroupFolders) {
  const auto now = std::chrono::system_clock::now();
  for (const auto& entry : folder.entries().value_or(std::vector<Folder::Entry>{})) {
    if (withGroupFolders && isOwnGroupFolder(entry)) {
      if (auto group = folder.folder(entry.name, false)) removePartialFiles(*group, false);
    } else if (entry.kind == Folder::Kind::file && isOwnTemporary(entry.name) &&
               now - entry.modified > kAbandonedAfter) {
      (void)folder.removeFile(entry.name);
    }
  }
}

// Removes the store's files from `folder`; false at the first that stays.
bool removeOwnFiles(const Folder& folder) {
  bool complete = false;
  const auto entries = folder.entries(&complete);
  if (!entries) return false;
  for (const auto& entry : *entries) {
    if (!isOwnFile(entry)) continue;
    if (const int error = folder.removeFile(entry.name); error != 0 && error != ENOENT) return false;
  }
  return complete;
}

// Removes a group folder with the store's files in it; one that holds anything else stays.
bool removeGroupFolder(const Folder& base, const std::string& name) {
  auto group = base.folder(name, false);
  if (!group) return true;  // gone meanwhile, or not a folder of ours
  if (!removeOwnFiles(*group)) return false;
  const int error = base.removeEmptyFolder(name);
  return error == 0 || error == ENOENT || error == ENOTEMPTY || error == EEXIST;
}

// Bytes of the store's files in `folder` (and its group folders); false once an entry could
// not be read.
bool addOwnSizes(const Folder& folder, bool withGroupFolders, std::uint64_t& total) {
  bool complete = false;
  const auto entries = folder.entries(&complete);
  if (!entries) return false;
  for (const auto& entry : *entries) {
    if (isOwnFile(entry)) {
      total += entry.size;
    } else if (withGroupFolders && isOwnGroupFolder(entry)) {
      auto group = folder.folder(entry.name, false);
      if (group && !addOwnSizes(*group, false, total)) return false;
    }
  }
  return complete;
}

}  // namespace

std::optional<std::string> CacheControllerFileStorage::folderProblem() const {
  platform::FolderProblem problem = platform::FolderProblem::none;
  if (Folder::open(basePath_, &problem)) return std::nullopt;
  switch (problem) {
    case platform::FolderProblem::symbolicLink:
      return basePath_.string() + " is a symbolic link, not a folder of the cache's own; no files are kept there";
    case platform::FolderProblem::notAFolder:
      return basePath_.string() + " is not a folder; no files are kept there";
    default:
      return std::nullopt;
  }
}

void CacheControllerFileStorage::prepareCacheFolder() {
  std::lock_guard lock(mutex_);
  if (auto folder = Folder::create(basePath_)) {
    removePartialFiles(*folder, true);
  } else if (auto problem = folderProblem()) {
    TarvixLoggers::CL()->error(*problem);
  }
}

bool CacheControllerFileStorage::save(const Data& data, std::string_view key, const std::optional<std::string>& group,
                                      const std::function<bool()>& beforeReplacing) {
  // Written aside and renamed over the old file: a failed or interrupted write keeps the old
  // payload, and no reader ever sees a cut-off one. Only the rename needs the lock; the
  // temporary file is this call's own, and `beforeReplacing` may take other stores' locks.
  const auto folder = openFolderOf(basePath_, group, true);
  if (!folder) return false;
  auto staged = folder->stage(hashSha1(key), data.bytes());
  if (!staged) return false;
  if (beforeReplacing && !beforeReplacing()) return false;
  std::lock_guard lock(mutex_);
  return staged->commit();
}

std::optional<Data> CacheControllerFileStorage::loadData(std::string_view key,
                                                         const std::optional<std::string>& group) const {
  std::lock_guard lock(mutex_);
  const auto folder = openFolderOf(basePath_, group, false);
  if (!folder) return std::nullopt;
  auto contents = folder->readFile(hashSha1(key), std::numeric_limits<std::uint64_t>::max());
  if (contents.status != platform::FileContents::Status::ok) return std::nullopt;
  return std::move(contents.bytes);
}

std::optional<std::uint64_t> CacheControllerFileStorage::fileSize(std::string_view key,
                                                                  const std::optional<std::string>& group) const {
  std::lock_guard lock(mutex_);
  const auto folder = openFolderOf(basePath_, group, false);
  if (!folder) return std::nullopt;
  const auto entry = folder->entry(hashSha1(key));
  if (!entry || entry->kind != Folder::Kind::file) return std::nullopt;
  return entry->size;
}

void CacheControllerFileStorage::removeData(std::string_view key, const std::optional<std::string>& group) {
  std::lock_guard lock(mutex_);
  const auto folder = openFolderOf(basePath_, group, false);
  if (!folder) return;
  const auto name = hashSha1(key);
  const auto entry = folder->entry(name);
  if (!entry || entry->kind != Folder::Kind::file) return;
  if (const int error = folder->removeFile(name); error != 0 && error != ENOENT) {
    TarvixLoggers::CL()->error(std::error_code(error, std::generic_category()).message());
  }
}

void CacheControllerFileStorage::removeAllItems(const std::optional<std::string>& group) {
  std::lock_guard lock(mutex_);
  const auto base = Folder::open(basePath_);
  if (!base) return;
  if (group && !group->empty()) {
    (void)removeGroupFolder(*base, hashSha1(std::string_view(*group)));
    return;
  }
  bool complete = false;
  const auto entries = base->entries(&complete);
  if (!entries) return;
  for (const auto& entry : *entries) {
    if (isOwnFile(entry)) {
      if (const int error = base->removeFile(entry.name); error != 0 && error != ENOENT) return;
    } else if (isOwnGroupFolder(entry)) {
      if (!removeGroupFolder(*base, entry.name)) return;
    }
  }
}

std::uint64_t CacheControllerFileStorage::getSize() const {
  std::lock_guard lock(mutex_);
  std::uint64_t total = 0;
  if (const auto base = Folder::open(basePath_)) (void)addOwnSizes(*base, true, total);
  return total;
}

void CacheControllerFileStorage::removeOldestFiles(std::uint64_t maxCacheSize, CacheControllerDatabase& database) {
  const std::uint64_t current = getSize();
  if (current <= maxCacheSize) return;
  const auto keys = database.getFileCacheKeysSortedByCreationDate();
  std::lock_guard lock(mutex_);
  // The keys come without their groups, so only files outside group folders are trimmed.
  const auto base = Folder::open(basePath_);
  if (!base) return;
  std::uint64_t removed = 0;
  const std::uint64_t floor = maxCacheSize / 5;  // free at least a fifth of the limit
  for (const auto& entry : keys) {
    const auto name = hashSha1(std::string_view(entry.key));
    const auto found = base->entry(name);
    if (!found || found->kind != Folder::Kind::file) continue;
    if (base->removeFile(name) != 0) continue;
    removed += found->size;
    if (removed < floor) continue;
    if (current - std::min(removed, current) >= maxCacheSize) continue;
    break;
  }
}

}  // namespace kp
