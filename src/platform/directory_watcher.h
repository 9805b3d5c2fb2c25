// platform::DirectoryWatcher: tells subscribers when files in a folder are created, written,
// renamed into place or removed, so that a store notices changes other processes make.
// Internal; not installed. Linux uses inotify (linux/directory_watcher_linux.cc); a host
// without a watch facility gets no watcher and stores fall back to comparing modification
// times when they synchronise.
//
// Thread safety: watch() may be called from any thread. Callbacks run on the watcher's own
// thread, one at a time; they must be short (post the real work elsewhere) and may still run
// once shortly after their subscription was dropped.
//
// Example:
//   auto token = platform::DirectoryWatcher::shared()->watch(dir, [weak](auto name, auto event) {
//     if (auto store = weak.lock()) store->fileChanged(name);
//   });
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string_view>

namespace kp::platform {

class DirectoryWatcher {
 public:
  enum class Event {
    changed,     // the named file was created, written, renamed or removed
    watchEnded,  // the folder itself went away; subscribe again once it exists
  };
  using Callback = std::function<void(std::string_view fileName, Event event)>;

  virtual ~DirectoryWatcher() = default;

  // The process-wide watcher, or null when the system offers none.
  [[nodiscard]] static DirectoryWatcher* shared();

  // Calls `callback` for changes in `directory` until the returned token is dropped. Null
  // when the folder cannot be watched (missing, or the system's watch limit is reached).
  [[nodiscard]] virtual std::shared_ptr<void> watch(const std::filesystem::path& directory, Callback callback) = 0;
};

}  // namespace kp::platform
