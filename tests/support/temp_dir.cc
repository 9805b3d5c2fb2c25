#include "support/temp_dir.h"

#include <fstream>
#include <iterator>
#include <random>

namespace kp::test {

TempDir::TempDir() {
  std::random_device random;
  const auto base = std::filesystem::temp_directory_path();
  for (int attempt = 0; attempt < 100; ++attempt) {
    auto candidate = base / ("kp-test-" + std::to_string(random()));
    if (std::filesystem::create_directory(candidate)) {
      path_ = candidate;
      return;
    }
  }
  throw std::runtime_error("cannot create a temporary folder");
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::fileUrl(const std::string& name) const {
  std::string url = "file://";
  for (char c : (path_ / name).string()) {
    if (c == ' ') {
      url += "%20";
    } else if (c == '%') {
      url += "%25";
    } else {
      url.push_back(c);
    }
  }
  return url;
}

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace kp::test
