// Internal: a folder held open by its descriptor, for stores that must keep what they do inside
// their own folder. Nothing here follows a symbolic link: not the folder's own name when it is
// opened, and no name inside it. Every operation works through the descriptor of the folder
// that was opened, so a folder renamed, or replaced by a link, after it was opened is never
// followed to somewhere else either.
//
// Thread safety: the const operations may run on several threads at once; moving or destroying
// a Folder belongs to one. A Staged file belongs to the thread that made it.
//
// Example:
//   platform::FolderProblem problem;
//   if (auto folder = platform::Folder::open(base, &problem)) {
//     if (auto staged = folder->stage("tile", bytes)) staged->commit();
//     for (const auto& entry : folder->entries().value_or({})) use(entry.name, entry.kind);
//   }
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/files.h"

namespace kp::platform {

// Why a folder could not be opened.
enum class FolderProblem { none, missing, symbolicLink, notAFolder, failed };

class Folder {
 public:
  enum class Kind { file, folder, symbolicLink, other };
  struct Entry {
    std::string name;
    Kind kind = Kind::other;
    std::uint64_t size = 0;
    std::chrono::system_clock::time_point modified;
  };

  // Opens the folder at `path`; a symbolic link there is reported (symbolicLink), not followed.
  // Links among the folders leading to it are followed as usual.
  [[nodiscard]] static std::optional<Folder> open(const std::filesystem::path& path,
                                                  FolderProblem* problem = nullptr) noexcept;
  // Creates the folder at `path` (0700) when nothing is there (its parent must exist), then
  // opens it as open() does.
  [[nodiscard]] static std::optional<Folder> create(const std::filesystem::path& path,
                                                    FolderProblem* problem = nullptr) noexcept;
  // The folder `name` inside this one, created (0700) first when `create` is set and nothing is
  // there; a link or anything else under that name is not opened.
  [[nodiscard]] std::optional<Folder> folder(std::string_view name, bool create,
                                             FolderProblem* problem = nullptr) const noexcept;

  // What is inside, but "." and ".."; nothing when the folder cannot be listed. An entry whose
  // kind cannot be read ends the listing there (`complete` is then false).
  [[nodiscard]] std::optional<std::vector<Entry>> entries(bool* complete = nullptr) const noexcept;
  // The entry `name` as it is (a link is reported as a link); nothing when it is not there.
  [[nodiscard]] std::optional<Entry> entry(std::string_view name) const noexcept;

  // Reads the regular file `name` whole, as platform::readFile() does; a link is wrongKind.
  [[nodiscard]] FileContents readFile(std::string_view name, std::uint64_t maxSize) const noexcept;
  // Removes the file or link `name`, never a folder: 0, or the errno value of the failure.
  [[nodiscard]] int removeFile(std::string_view name) const noexcept;
  // Removes the folder `name` when it is empty: 0, or the errno value of the failure.
  [[nodiscard]] int removeEmptyFolder(std::string_view name) const noexcept;

  // The bytes for the file `name`, written to a temporary file in this folder (named
  // kTemporaryFilePrefix + name + "." and six characters, 0600) and flushed to the disk.
  // commit() renames it over `name` and makes the rename durable; a Staged file dropped
  // without a successful commit() is removed.
  class Staged {
   public:
    [[nodiscard]] bool commit() noexcept;
    Staged(Staged&& other) noexcept
        : folder_(std::exchange(other.folder_, -1)),
          name_(std::move(other.name_)),
          temporary_(std::exchange(other.temporary_, {})) {}
    Staged& operator=(Staged&&) = delete;
    Staged(const Staged&) = delete;
    Staged& operator=(const Staged&) = delete;
    ~Staged();

   private:
    friend class Folder;
    Staged(int folder, std::string name, std::string temporary) noexcept
        : folder_(folder), name_(std::move(name)), temporary_(std::move(temporary)) {}
    int folder_;  // a descriptor of its own
    std::string name_;
    std::string temporary_;  // empty once committed or removed
  };
  [[nodiscard]] std::optional<Staged> stage(std::string_view name, std::span<const std::uint8_t> bytes) const noexcept;

  Folder(Folder&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Folder& operator=(Folder&& other) noexcept;
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder();

 private:
  explicit Folder(int fd) noexcept : fd_(fd) {}
  int fd_;
};

}  // namespace kp::platform
