// Test helpers: a fresh directory under the system temporary folder, removed on destruction,
// and reading a whole file.
#pragma once

#include <filesystem>
#include <string>

namespace kp::test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  [[nodiscard]] const std::filesystem::path& path() const noexcept { return path_; }
  // "file://" URL text of a path inside the folder, with spaces and '%' escaped.
  [[nodiscard]] std::string fileUrl(const std::string& name) const;

 private:
  std::filesystem::path path_;
};

// The bytes of a file, read through one open file; empty when it cannot be read.
[[nodiscard]] std::string readFile(const std::filesystem::path& path);

}  // namespace kp::test
