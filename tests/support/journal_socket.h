// Test helper: a datagram socket bound where a journal would listen, which reads entries in
// the journal's native protocol, including those passed as memory files.
#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kp::test {

using JournalFields = std::map<std::string, std::string>;

class JournalSocket {
 public:
  // REQUIRES: nothing listens at `path`.
  explicit JournalSocket(std::filesystem::path path);
  ~JournalSocket();
  JournalSocket(const JournalSocket&) = delete;
  JournalSocket& operator=(const JournalSocket&) = delete;

  [[nodiscard]] const std::filesystem::path& path() const noexcept { return path_; }
  // The next entry, or nothing when none arrives within `timeout`. A malformed datagram fails
  // the calling test and yields an empty entry.
  [[nodiscard]] std::optional<JournalFields> receive(std::chrono::milliseconds timeout = std::chrono::seconds(5));
  // Drops whatever is queued; returns how many datagrams that was.
  int drain();

 private:
  std::filesystem::path path_;
  std::vector<char> buffer_;
  int fd_;
};

// Parses the native protocol.
[[nodiscard]] std::optional<JournalFields> parseJournalEntry(const std::string& bytes);

}  // namespace kp::test
