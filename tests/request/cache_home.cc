// Every request test process keeps the shared cache (and whatever `kpcore get --cache` runs
// store) in a folder of its own, so that runs never see each other's entries.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

#include "support/temp_dir.h"

namespace {

class CacheHome : public ::testing::Environment {
 public:
  void SetUp() override {
    folder_ = std::make_unique<kp::test::TempDir>();
    ::setenv("XDG_CACHE_HOME", folder_->path().c_str(), 1);
  }

 private:
  std::unique_ptr<kp::test::TempDir> folder_;
};

// GoogleTest takes ownership of the environment.
[[maybe_unused]] const ::testing::Environment* const environment = ::testing::AddGlobalTestEnvironment(new CacheHome);

}  // namespace
