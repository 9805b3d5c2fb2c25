// Test helper: a test program that includes this header (from one of its files) keeps the
// shared cache and cookie store, and whatever the kpcore runs it starts store, in folders of
// its own, so that runs never see each other's entries.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

#include "support/temp_dir.h"

namespace kp::test {

class CacheHome : public ::testing::Environment {
 public:
  void SetUp() override {
    folder_ = std::make_unique<TempDir>();
    ::setenv("XDG_CACHE_HOME", folder_->path().c_str(), 1);
    ::setenv("XDG_DATA_HOME", (folder_->path() / "data").c_str(), 1);
  }

 private:
  std::unique_ptr<TempDir> folder_;
};

// GoogleTest takes ownership of the environment; one per program.
inline const ::testing::Environment* const kCacheHome = ::testing::AddGlobalTestEnvironment(new CacheHome);

}  // namespace kp::test
