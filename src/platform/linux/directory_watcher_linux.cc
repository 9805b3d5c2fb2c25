// inotify implementation of platform::DirectoryWatcher: one descriptor and one thread for the
// whole process, started on first use and never stopped.
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/directory_watcher.h"
#include "platform/no_destructor.h"

namespace kp::platform {
namespace {

constexpr std::uint32_t kEvents =
    IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE | IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

class InotifyWatcher final : public DirectoryWatcher {
 public:
  explicit InotifyWatcher(int fd) : fd_(fd) {
    std::thread([this] { run(); }).detach();
  }

  std::shared_ptr<void> watch(const std::filesystem::path& directory, Callback callback) override {
    std::lock_guard lock(mutex_);
    const int wd = ::inotify_add_watch(fd_, directory.c_str(), kEvents);
    if (wd < 0) return nullptr;
    const std::uint64_t id = nextId_++;
    subscribers_[wd].emplace(id, std::move(callback));
    // The token's deleter unsubscribes; the watcher itself is never destroyed.
    return std::shared_ptr<void>(nullptr, [this, wd, id](void*) { unsubscribe(wd, id); });
  }

 private:
  void unsubscribe(int wd, std::uint64_t id) {
    std::lock_guard lock(mutex_);
    auto it = subscribers_.find(wd);
    if (it == subscribers_.end()) return;
    it->second.erase(id);
    if (it->second.empty()) {
      subscribers_.erase(it);
      ::inotify_rm_watch(fd_, wd);
    }
  }

  void run() {
    alignas(inotify_event) char buffer[16384];
    for (;;) {
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, -1) < 0) {
        if (errno == EINTR) continue;
        return;
      }
      const ssize_t n = ::read(fd_, buffer, sizeof buffer);
      if (n <= 0) {
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        return;
      }
      for (ssize_t offset = 0; offset < n;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
        offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        deliver(*event);
      }
    }
  }

  void deliver(const inotify_event& event) {
    const bool ended = (event.mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF)) != 0;
    // An overflowed queue lost events: every subscriber must assume its file changed.
    const bool overflow = (event.mask & IN_Q_OVERFLOW) != 0;
    const std::string_view name = event.len > 0 ? std::string_view(event.name) : std::string_view();
    std::vector<Callback> targets;
    {
      std::lock_guard lock(mutex_);
      for (auto& [wd, callbacks] : subscribers_) {
        if (!overflow && wd != event.wd) continue;
        for (auto& [id, callback] : callbacks) targets.push_back(callback);
      }
      if (ended && !overflow) {
        // The kernel dropped (or is about to drop) the watch; forget it so that a later
        // inotify_add_watch for a new folder of the same name starts clean.
        if (subscribers_.erase(event.wd) > 0 && !(event.mask & IN_IGNORED)) ::inotify_rm_watch(fd_, event.wd);
      }
    }
    for (const auto& callback : targets) callback(name, ended && !overflow ? Event::watchEnded : Event::changed);
  }

  const int fd_;
  std::mutex mutex_;
  std::uint64_t nextId_ = 1;                                      // guarded by mutex_
  std::map<int, std::map<std::uint64_t, Callback>> subscribers_;  // guarded by mutex_
};

}  // namespace

DirectoryWatcher* DirectoryWatcher::shared() {
  static DirectoryWatcher* watcher = []() -> DirectoryWatcher* {
    const int fd = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (fd < 0) return nullptr;
    static internal::NoDestructor<InotifyWatcher> instance(fd);
    return instance.get();
  }();
  return watcher;
}

}  // namespace kp::platform
