// kp::KeyedStorage<Key>: keyed storage as a member. It resolves tarvix::KeyedStorageService
// through Services (the non-throwing get()) when made and wraps it in a
// KeyedStorageContainer<Key>. When resolution fails, the failure goes to the assertion hook at
// the place that declared the member, and the container works on an empty in-memory
// DictionaryStorage instead, so that a release build keeps running.
//
// Thread safety: immutable once made; the container may be used from any thread.
//
// Example:
//   class Onboarding {
//     kp::KeyedStorage<Setting> settings_;
//    public:
//     bool done() const { return settings_->bool_(Setting::onboardingDone); }
//   };
#pragma once

#include <memory>

#include "kp/container/services.h"
#include "kp/storage/dictionary_storage.h"
#include "kp/storage/keyed_storage_container.h"
#include "tarvix/source_location.h"

namespace kp {

template <StorageKey Key>
class KeyedStorage {
 public:
  // The keyed storage service of `services`, as a container of Key.
  explicit KeyedStorage(const std::shared_ptr<Services>& services = Services::default_(),
                        tarvix::SourceLocation location = tarvix::SourceLocation::current())
      : container_(resolve(*services, location)) {}

  // The container.
  [[nodiscard]] const KeyedStorageContainer<Key>& wrappedValue() const noexcept { return container_; }
  // The container.
  const KeyedStorageContainer<Key>* operator->() const noexcept { return &container_; }
  // The container.
  const KeyedStorageContainer<Key>& operator*() const noexcept { return container_; }

 private:
  static std::shared_ptr<tarvix::KeyedStorageService> resolve(Services& services, tarvix::SourceLocation location) {
    if (auto storage = services.template get<tarvix::KeyedStorageService>(location)) return storage;
    return std::make_shared<DictionaryStorage>();
  }

  KeyedStorageContainer<Key> container_;
};

}  // namespace kp
