// kp::KeyedStorageContainer<Key>: typed access to a tarvix::KeyedStorageService through keys
// of an application-defined StorageKey type, with helpers for encodable values and archived
// objects. kp::FlushableStorage: a keyed store whose writes can be made durable on demand.
//
// Data problems never throw: a stored value of the wrong type gives the default, a value that
// cannot be encoded is not stored, data that cannot be decoded gives nothing; each is reported
// to the library's core log (TarvixLoggers::CL) with the texts below. The stored value is left
// in place in every case.
//
// Thread safety: a container keeps no state besides its storage and may be used from any
// thread the storage allows (the library's stores: any).
//
// Example:
//   enum class Setting { units, lastCity };
//   std::string_view storageKey(Setting s) { return s == Setting::units ? "units" : "lastCity"; }
//
//   kp::KeyedStorageContainer<Setting> settings(kp::UserDefaults::standard());
//   settings.setObject(std::string("metric"), Setting::units);
//   std::string units = settings.object<std::string>(Setting::units, [] { return std::string("auto"); });
//   settings.setEncodable(City{"Bern", 46.9, 7.4}, Setting::lastCity);
//   std::optional<City> city = settings.decodable<City>(Setting::lastCity);
#pragma once

#include <any>
#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "kp/coding/keyed_archiver.h"
#include "kp/coding/property_list.h"
#include "kp/logging/tarvix_logger.h"
#include "kp/platform/export.h"
#include "kp/storage/storage_key.h"
#include "kp/storage/stored_value.h"
#include "tarvix/keyed_storage_service.h"
#include "tarvix/service.h"

namespace kp {

// A store whose changes may wait before they are written.
class KP_EXPORT FlushableStorage {
 public:
  virtual ~FlushableStorage() = default;
  // Writes pending changes now; false when they could not be written.
  virtual bool synchronize() = 0;
};

namespace storage_detail {

// The texts of the reports.
[[nodiscard]] KP_EXPORT std::string wrongTypeMessage(const std::type_info& expected);
[[nodiscard]] KP_EXPORT std::string encodeFailureMessage(std::string_view valueDescription,
                                                         std::string_view keyDescription);
[[nodiscard]] KP_EXPORT std::string decodeFailureMessage(std::string_view keyDescription, const std::type_info& type);

// A value's description for reports: its textual description when it has one, else the name
// of its type.
template <class T>
[[nodiscard]] std::string describeValue(const T& value) {
  if constexpr (DescribableKey<T>) {
    return describeKey(value);
  } else {
    return tarvix::unqualifiedTypeName(typeid(T));
  }
}

// What unarchiving yields for T: the object for archivable classes, else the plain value.
template <class T>
using UnarchivedResult =
    std::conditional_t<std::is_base_of_v<Archivable, T>, std::shared_ptr<const T>, std::optional<T>>;

template <class T>
[[nodiscard]] UnarchivedResult<T> unarchivedAs(const std::optional<ArchiveValue>& value) {
  if constexpr (std::is_base_of_v<Archivable, T>) {
    return value ? value->template object<T>() : nullptr;
  } else {
    if (!value) return std::nullopt;
    if (const T* v = value->template get<T>()) return *v;
    return std::nullopt;
  }
}

// What unarchiving with a default yields for T: the object for archivable classes, else T.
template <class T>
using UnarchivedValue = std::conditional_t<std::is_base_of_v<Archivable, T>, std::shared_ptr<const T>, T>;

// REQUIRES: `result` holds a value.
template <class T>
[[nodiscard]] UnarchivedValue<T> unwrapUnarchived(UnarchivedResult<T> result) {
  if constexpr (std::is_base_of_v<Archivable, T>) {
    return result;
  } else {
    return std::move(*result);
  }
}

}  // namespace storage_detail

template <StorageKey Key>
class KeyedStorageContainer {
 public:
  // REQUIRES: `storage` is not null.
  explicit KeyedStorageContainer(std::shared_ptr<tarvix::KeyedStorageService> storage) : storage_(std::move(storage)) {}

  // The store.
  [[nodiscard]] const std::shared_ptr<tarvix::KeyedStorageService>& storage() const noexcept { return storage_; }

  // The store's operations under the key's text.
  [[nodiscard]] std::optional<std::any> object(const Key& key) const { return storage_->object(storageKeyText(key)); }
  // The store's setObject() under the key's text.
  void setObject(std::optional<std::any> value, const Key& key) const {
    storage_->setObject(std::move(value), storageKeyText(key));
  }
  // The store's removeObject() under the key's text.
  void removeObject(const Key& key) const { storage_->removeObject(storageKeyText(key)); }
  // The store's string() under the key's text.
  [[nodiscard]] std::optional<std::string> string(const Key& key) const {
    return storage_->string(storageKeyText(key));
  }
  // The store's integer() under the key's text.
  [[nodiscard]] std::int64_t integer(const Key& key) const { return storage_->integer(storageKeyText(key)); }
  // The store's setInteger() under the key's text.
  void setInteger(std::int64_t value, const Key& key) const { storage_->setInteger(value, storageKeyText(key)); }
  // The store's float_() under the key's text.
  [[nodiscard]] float float_(const Key& key) const { return storage_->float_(storageKeyText(key)); }
  // The store's setFloat() under the key's text.
  void setFloat(float value, const Key& key) const { storage_->setFloat(value, storageKeyText(key)); }
  // The store's double_() under the key's text.
  [[nodiscard]] double double_(const Key& key) const { return storage_->double_(storageKeyText(key)); }
  // The store's setDouble() under the key's text.
  void setDouble(double value, const Key& key) const { storage_->setDouble(value, storageKeyText(key)); }
  // The store's bool_() under the key's text.
  [[nodiscard]] bool bool_(const Key& key) const { return storage_->bool_(storageKeyText(key)); }
  // The store's setBool() under the key's text.
  void setBool(bool value, const Key& key) const { storage_->setBool(value, storageKeyText(key)); }

  // The stored value as T (see storedValueAs), or nothing.
  template <class T>
  [[nodiscard]] std::optional<T> object(const Key& key) const {
    std::optional<std::any> stored = object(key);
    if (!stored) return std::nullopt;
    return storedValueAs<T>(*stored);
  }

  // The stored value as T; `makeDefault()` when it is absent, or when it is of another type
  // (which is reported and left stored).
  template <class T, std::invocable Make>
  [[nodiscard]] T object(const Key& key, Make&& makeDefault) const {
    std::optional<std::any> stored = object(key);
    if (!stored) return std::forward<Make>(makeDefault)();
    if (std::optional<T> value = storedValueAs<T>(*stored)) return std::move(*value);
    TarvixLoggers::CL()->error(storage_detail::wrongTypeMessage(typeid(T)));
    return std::forward<Make>(makeDefault)();
  }

  // Stores the property-list encoding of `value` (scalars wrapped as {"v": value}). When it
  // cannot be encoded nothing changes and the failure is reported.
  template <class T>
  void setEncodable(const T& value, const Key& key) const {
    if (std::optional<Data> data = encodePropertyListData(value)) {
      setObject(std::any(std::move(*data)), key);
    } else {
      TarvixLoggers::CL()->error(
          storage_detail::encodeFailureMessage(storage_detail::describeValue(value), keyDescription(key)));
    }
  }

  // The value that setEncodable stored; nothing when absent, and nothing (reported) when the
  // data does not decode as T.
  template <class T>
  [[nodiscard]] std::optional<T> decodable(const Key& key) const {
    std::optional<Data> data = object<Data>(key);
    if (!data) return std::nullopt;
    std::optional<T> value = decodePropertyListData<T>(*data);
    if (!value) TarvixLoggers::CL()->error(storage_detail::decodeFailureMessage(keyDescription(key), typeid(T)));
    return value;
  }

  // The stored data unarchived: an object of class T (null otherwise) for archivable T, or a
  // plain archived value of type T.
  template <class T>
  [[nodiscard]] storage_detail::UnarchivedResult<T> unarchivedObject(const Key& key) const {
    std::optional<Data> data = object<Data>(key);
    if (!data) return storage_detail::unarchivedAs<T>(std::nullopt);
    return storage_detail::unarchivedAs<T>(KeyedUnarchiver::safeUnarchivedObject(*data));
  }

  // Makes pending writes durable when the storage can; true for stores without a disk.
  bool synchronize() const {
    if (auto* flushable = dynamic_cast<FlushableStorage*>(storage_.get())) return flushable->synchronize();
    return true;
  }

 protected:
  // The key's text, for messages.
  static std::string keyDescription(const Key& key) { return std::string(std::string_view(storageKeyText(key))); }

 private:
  std::shared_ptr<tarvix::KeyedStorageService> storage_;
};

}  // namespace kp
