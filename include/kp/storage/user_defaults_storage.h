// kp::UserDefaultsStorage: the keyed-storage service over a user-defaults suite (the standard
// one unless told otherwise), as the library registers it for tarvix::KeyedStorageService.
// Every operation forwards to the suite, with its conversions and persistence.
//
// Thread safety: every member may be called from any thread.
//
// Example:
//   services->registerInstance<tarvix::KeyedStorageService>(std::make_shared<kp::UserDefaultsStorage>());
//   auto storage = services->safeGet<tarvix::KeyedStorageService>();
//   storage->setBool(true, "onboardingDone");
#pragma once

#include <memory>

#include "kp/platform/export.h"
#include "kp/storage/user_defaults.h"

namespace kp {

class KP_EXPORT UserDefaultsStorage final : public tarvix::KeyedStorageService, public FlushableStorage {
 public:
  UserDefaultsStorage() : UserDefaultsStorage(UserDefaults::standard()) {}
  // REQUIRES: `defaults` is not null.
  explicit UserDefaultsStorage(std::shared_ptr<UserDefaults> defaults) : defaults_(std::move(defaults)) {}

  // The suite.
  [[nodiscard]] const std::shared_ptr<UserDefaults>& defaults() const noexcept { return defaults_; }

  void setObject(std::optional<std::any> value, std::string_view key) override {
    defaults_->setObject(std::move(value), key);
  }
  void setInteger(std::int64_t value, std::string_view key) override { defaults_->setInteger(value, key); }
  void setFloat(float value, std::string_view key) override { defaults_->setFloat(value, key); }
  void setDouble(double value, std::string_view key) override { defaults_->setDouble(value, key); }
  void setBool(bool value, std::string_view key) override { defaults_->setBool(value, key); }
  void removeObject(std::string_view key) override { defaults_->removeObject(key); }
  [[nodiscard]] std::optional<std::any> object(std::string_view key) const override { return defaults_->object(key); }
  [[nodiscard]] std::optional<std::string> string(std::string_view key) const override {
    return defaults_->string(key);
  }
  [[nodiscard]] std::int64_t integer(std::string_view key) const override { return defaults_->integer(key); }
  [[nodiscard]] float float_(std::string_view key) const override { return defaults_->float_(key); }
  [[nodiscard]] double double_(std::string_view key) const override { return defaults_->double_(key); }
  [[nodiscard]] bool bool_(std::string_view key) const override { return defaults_->bool_(key); }
  bool synchronize() override { return defaults_->synchronize(); }

 private:
  std::shared_ptr<UserDefaults> defaults_;
};

}  // namespace kp
