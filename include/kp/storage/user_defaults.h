// kp::UserDefaults: the user-defaults store, suites of keyed property-list values kept in one
// binary property-list file per suite, $XDG_CONFIG_HOME (else ~/.config) / the application's
// folder name / <suite>.plist. The standard suite is named after the application identifier
// ("com.kp.app" when the application has none).
//
// Reads answer from memory. Writes change memory at once and reach the disk a moment later,
// coalesced, through a temporary file that is flushed and renamed over the suite file, so a
// crash or a full disk leaves the old file or the new one; synchronize() writes now and says
// whether it could. Pending changes are also written when the process exits normally. A
// suite file may hold at most 64 MiB: changes that would make it larger are kept in memory
// and not written (synchronize() says false), since a larger file would not be read back.
// Several processes may use one suite: each write lays this process's changes over the file
// as it is on disk (under a lock file), so processes that change different keys keep each
// other's keys, and changes made by others reach this process's memory shortly after they
// are written (at the latest on synchronize()).
//
// Values are property-list values (see stored_value.h): object() gives scalars as
// std::string, std::int64_t, double, bool, kp::Data or kp::Date and lists and dictionaries as
// kp::Value. A value that a property list cannot hold, and a key that is not UTF-8, are
// refused (reported, nothing stored). The typed getters convert as the platform's store does:
// numbers and numeric text read as each other's kind, booleans as 0/1, "YES"/"true" as true;
// anything else gives 0, false or nothing.
//
// A suite file that is not a property list, holds something other than a dictionary, or is
// not a regular file is renamed aside ("<file>.damaged-<milliseconds>"), reported, and the
// suite starts empty. A file that cannot be read at the moment (out of file descriptors,
// permission denied) stays where it is: the suite starts empty in memory and reads it again
// later and before each write; until then no write replaces it, and synchronize() says false.
// fileStatus() tells what happened, for a program that shows it to its user. A suite file that
// is a symbolic link stays one: writes replace the file it leads to.
//
// Thread safety: every member may be called from any thread.
//
// Example:
//   auto defaults = kp::UserDefaults::standard();
//   defaults->setObject(std::string("metric"), "units");
//   defaults->setInteger(defaults->integer("launchCount") + 1, "launchCount");
//   std::optional<std::string> units = defaults->string("units");
//   auto widget = kp::UserDefaults::suite("widget");     // null for a name that is no file name
//   enum class Setting { units };  std::string_view storageKey(Setting) { return "units"; }
//   auto settings = kp::UserDefaults::defaultContainer<Setting>();
//   settings.object<std::string>(Setting::units, [] { return std::string("auto"); });
#pragma once

#include <any>
#include <concepts>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kp/coding/keyed_archiver.h"
#include "kp/coding/property_list.h"
#include "kp/coding/value.h"
#include "kp/logging/tarvix_logger.h"
#include "kp/platform/data.h"
#include "kp/platform/export.h"
#include "kp/platform/url.h"
#include "kp/storage/data_storable.h"
#include "kp/storage/keyed_storage_container.h"
#include "kp/storage/storage_key.h"
#include "tarvix/keyed_storage_service.h"

namespace kp {

namespace storage_detail {
class SuiteStore;
}  // namespace storage_detail

// What went wrong with a suite's file lately.
struct KP_EXPORT SuiteFileStatus {
  // Why the file could not be read the last time it was tried ("cannot open PATH: Permission
  // denied"); it is read again later and before every write. Nothing once it was read.
  std::optional<std::string> readError;
  // Why the last write failed; the changes stay pending. Nothing once a write succeeded.
  std::optional<std::string> writeError;
  // The damaged files this process set aside, each with its reason and where it went (the
  // latest 16), oldest first.
  std::vector<std::string> setAside;
};

// A key given by its textual description (a number, a type with description(), ...).
template <class K>
concept TextConvertibleKey = DescribableKey<K> && !std::convertible_to<const K&, std::string_view>;

// A user-defaults suite (see the top of this file).
class KP_EXPORT UserDefaults final : public tarvix::KeyedStorageService,
                                     public DataStorable,
                                     public FlushableStorage,
                                     public std::enable_shared_from_this<UserDefaults> {
 public:
  template <StorageKey Key>
  class Container;

  // The suite named after the application's folder name; made on first use and kept for the
  // life of the process.
  [[nodiscard]] static const std::shared_ptr<UserDefaults>& standard();
  // The suite `suiteName`, sharing its values with every other UserDefaults of that suite in
  // this process; null when the name cannot name a file (see isValidSuiteName).
  [[nodiscard]] static std::shared_ptr<UserDefaults> suite(std::string_view suiteName);
  // 1 to 200 bytes of UTF-8 without "/", control characters or a leading ".".
  [[nodiscard]] static bool isValidSuiteName(std::string_view suiteName) noexcept;

  [[nodiscard]] const std::string& suiteName() const noexcept { return suiteName_; }  // the suite's name
  [[nodiscard]] const std::filesystem::path& filePath() const noexcept;               // the suite's file

  // tarvix::KeyedStorageService.
  void setObject(std::optional<std::any> value, std::string_view key) override;
  void setInteger(std::int64_t value, std::string_view key) override;
  void setFloat(float value, std::string_view key) override;
  void setDouble(double value, std::string_view key) override;
  void setBool(bool value, std::string_view key) override;
  void removeObject(std::string_view key) override;
  [[nodiscard]] std::optional<std::any> object(std::string_view key) const override;
  [[nodiscard]] std::optional<std::string> string(std::string_view key) const override;
  [[nodiscard]] std::int64_t integer(std::string_view key) const override;
  [[nodiscard]] float float_(std::string_view key) const override;
  [[nodiscard]] double double_(std::string_view key) const override;
  [[nodiscard]] bool bool_(std::string_view key) const override;

  // The stored value as a property-list tree.
  [[nodiscard]] std::optional<Value> value(std::string_view key) const;
  // The list under `key`; nothing when missing or not a list.
  [[nodiscard]] std::optional<Value::Array> array(std::string_view key) const;
  // A list whose elements are all text; nothing otherwise.
  [[nodiscard]] std::optional<std::vector<std::string>> stringArray(std::string_view key) const;
  // The dictionary under `key`; nothing when missing or not a dictionary.
  [[nodiscard]] std::optional<Value::Dictionary> dictionary(std::string_view key) const;
  // The bytes under `key`; nothing when missing or not bytes.
  [[nodiscard]] std::optional<Data> data(std::string_view key) const;
  // A URL stored by setUrl, URL text, a file path ("/..." or "~/...") as a file URL, or an
  // archived URL.
  [[nodiscard]] std::optional<Url> url(std::string_view key) const;
  // Stores the URL's text; nothing removes the key.
  void setUrl(const std::optional<Url>& value, std::string_view key);
  // Every entry, sorted by key.
  [[nodiscard]] Value::Dictionary dictionaryRepresentation() const;
  // Removes every key of the suite.
  void removeAll();

  // Stores the property-list encoding of `value` (scalars wrapped as {"v": value}); when it
  // cannot be encoded the failure goes to the assertion hook and nothing is stored.
  template <class T>
  void encode(const T& value, std::string_view key) {
    if (std::optional<Data> bytes = encodePropertyListData(value)) setObject(std::any(std::move(*bytes)), key);
  }
  // What encode() stored, or nothing.
  template <class T>
  [[nodiscard]] std::optional<T> decode(std::string_view key) const {
    std::optional<Data> bytes = data(key);
    if (!bytes) return std::nullopt;
    return decodePropertyListData<T>(*bytes);
  }

  // DataStorable: objects as keyed archives.
  [[nodiscard]] std::optional<ArchiveValue> getObjectForKey(std::string_view key) const override;
  void saveObject(const std::optional<ArchiveValue>& object, std::string_view key) override;

  // Writes pending changes now (and reads other processes' changes); false when they could
  // not be written, in which case they stay pending and are tried again later, or when the
  // suite file could not be read.
  bool synchronize() override;
  // How many times this process has written the suite file.
  [[nodiscard]] std::uint64_t fileWriteCount() const noexcept;
  // What went wrong with the suite file in this process (waits for file work under way).
  [[nodiscard]] SuiteFileStatus fileStatus() const;

  // object() with the key's textual description.
  template <TextConvertibleKey K>
  [[nodiscard]] std::optional<std::any> object(const K& key) const {
    return object(describeKey(key));
  }
  // setObject() with the key's textual description.
  template <TextConvertibleKey K>
  void setObject(std::optional<std::any> value, const K& key) {
    setObject(std::move(value), describeKey(key));
  }
  // removeObject() with the key's textual description.
  template <TextConvertibleKey K>
  void removeObject(const K& key) {
    removeObject(describeKey(key));
  }
  // string() with the key's textual description.
  template <TextConvertibleKey K>
  [[nodiscard]] std::optional<std::string> string(const K& key) const {
    return string(describeKey(key));
  }
  // array() with the key's textual description.
  template <TextConvertibleKey K>
  [[nodiscard]] std::optional<Value::Array> array(const K& key) const {
    return array(describeKey(key));
  }
  // stringArray() with the key's textual description.
  template <TextConvertibleKey K>
  [[nodiscard]] std::optional<std::vector<std::string>> stringArray(const K& key) const {
    return stringArray(describeKey(key));
  }
  // dictionary() with the key's textual description.
  template <TextConvertibleKey K>
  [[nodiscard]] std::optional<Value::Dictionary> dictionary(const K& key) const {
    return dictionary(describeKey(key));
  }
  // data() with the key's textual description.
  template <TextConvertibleKey K>
  [[nodiscard]] std::optional<Data> data(const K& key) const {
    return data(describeKey(key));
  }
  // integer() with the key's textual description.
  template <TextConvertibleKey K>
  [[nodiscard]] std::int64_t integer(const K& key) const {
    return integer(describeKey(key));
  }
  // setInteger() with the key's textual description.
  template <TextConvertibleKey K>
  void setInteger(std::int64_t value, const K& key) {
    setInteger(value, describeKey(key));
  }
  // float_() with the key's textual description.
  template <TextConvertibleKey K>
  [[nodiscard]] float float_(const K& key) const {
    return float_(describeKey(key));
  }
  // setFloat() with the key's textual description.
  template <TextConvertibleKey K>
  void setFloat(float value, const K& key) {
    setFloat(value, describeKey(key));
  }
  // double_() with the key's textual description.
  template <TextConvertibleKey K>
  [[nodiscard]] double double_(const K& key) const {
    return double_(describeKey(key));
  }
  // setDouble() with the key's textual description.
  template <TextConvertibleKey K>
  void setDouble(double value, const K& key) {
    setDouble(value, describeKey(key));
  }
  // bool_() with the key's textual description.
  template <TextConvertibleKey K>
  [[nodiscard]] bool bool_(const K& key) const {
    return bool_(describeKey(key));
  }
  // setBool() with the key's textual description.
  template <TextConvertibleKey K>
  void setBool(bool value, const K& key) {
    setBool(value, describeKey(key));
  }
  // url() with the key's textual description.
  template <TextConvertibleKey K>
  [[nodiscard]] std::optional<Url> url(const K& key) const {
    return url(describeKey(key));
  }
  // setUrl() with the key's textual description.
  template <TextConvertibleKey K>
  void setUrl(const std::optional<Url>& value, const K& key) {
    setUrl(value, describeKey(key));
  }

  // Typed containers: over the standard suite, over this suite, or over the suite
  // `suiteName` (nothing when the name is refused).
  template <StorageKey Key>
  [[nodiscard]] static Container<Key> defaultContainer() {
    return Container<Key>(standard());
  }
  // A typed container over this suite.
  template <StorageKey Key>
  [[nodiscard]] Container<Key> container() {
    return Container<Key>(shared_from_this());
  }
  // A typed container over the suite `suiteName`; nothing when the name is refused.
  template <StorageKey Key>
  [[nodiscard]] static std::optional<Container<Key>> container(std::string_view suiteName) {
    auto defaults = suite(suiteName);
    if (!defaults) return std::nullopt;
    return Container<Key>(std::move(defaults));
  }

  UserDefaults(const UserDefaults&) = delete;
  UserDefaults& operator=(const UserDefaults&) = delete;
  ~UserDefaults() override;

 private:
  UserDefaults(std::string suiteName, std::shared_ptr<storage_detail::SuiteStore> store);
  void store(std::string_view key, std::optional<Value> value);

  const std::string suiteName_;
  const std::shared_ptr<storage_detail::SuiteStore> store_;
};

// The typed operations of KeyedStorageContainer over a user-defaults suite, with lists,
// encodable values and archived objects.
template <StorageKey Key>
class UserDefaults::Container : public KeyedStorageContainer<Key> {
 public:
  using KeyedStorageContainer<Key>::unarchivedObject;

  // REQUIRES: `defaults` is not null.
  explicit Container(std::shared_ptr<UserDefaults> defaults)
      : KeyedStorageContainer<Key>(defaults), defaults_(std::move(defaults)) {}

  [[nodiscard]] const std::shared_ptr<UserDefaults>& defaults() const noexcept { return defaults_; }  // the suite

  // The stored list with every element read as T; nothing when it is absent or any element
  // is not a T.
  template <class T>
  [[nodiscard]] std::optional<std::vector<T>> array(const Key& key) const {
    return this->template object<std::vector<T>>(key);
  }
  // As above; `makeDefault()` when absent or of another type (reported).
  template <class T, std::invocable Make>
  [[nodiscard]] std::vector<T> array(const Key& key, Make&& makeDefault) const {
    return this->template object<std::vector<T>>(key, std::forward<Make>(makeDefault));
  }

  // UserDefaults::encode() under the key's text.
  template <class T>
  void encode(const T& value, const Key& key) const {
    defaults_->encode(value, storageKeyText(key));
  }
  // UserDefaults::decode() under the key's text.
  template <class T>
  [[nodiscard]] std::optional<T> decode(const Key& key) const {
    return defaults_->template decode<T>(storageKeyText(key));
  }

  // Stores the keyed archive of `value`; nothing removes the key. A value that cannot be
  // archived is reported and changes nothing.
  void setArchivable(const std::optional<ArchiveValue>& value, const Key& key) const {
    if (!value) return this->removeObject(key);
    ErrorPtr error;
    if (std::optional<Data> bytes = KeyedArchiver::archivedData(*value, &error)) {
      this->setObject(std::any(std::move(*bytes)), key);
    } else {
      TarvixLoggers::CL()->error("Failed to archive object: " +
                                 (error ? error->localizedDescription() : std::string("unknown error")));
    }
  }

  // The stored archive unarchived with `typeMapping` resolving class names this process has
  // no class for; `makeDefault()` unless it yields a T.
  template <class T, std::invocable Make>
  [[nodiscard]] storage_detail::UnarchivedValue<T> unarchivedObject(const Key& key,
                                                                    const KeyedUnarchiver::ClassMapping& typeMapping,
                                                                    Make&& makeDefault) const {
    if (std::optional<Data> bytes = this->template object<Data>(key)) {
      auto result = storage_detail::unarchivedAs<T>(KeyedUnarchiver::safeUnarchivedObject(*bytes, typeMapping));
      if (result) return storage_detail::unwrapUnarchived<T>(std::move(result));
    }
    return std::forward<Make>(makeDefault)();
  }

 private:
  std::shared_ptr<UserDefaults> defaults_;
};

}  // namespace kp
