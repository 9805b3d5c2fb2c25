// The keychain: small secret values as generic-password items, one item per key (the item's
// account), in the application's own service or in a shared access group.
//
//   kp::KeychainAccess: when an item may be read; kept on the item as its accessibility.
//   kp::KeychainAccessGroupDetail: a shared service and access group.
//   kp::KeychainStorable: the keychain's operations; kp::Keychain implements them.
//
// Stored form: a byte buffer as it is; text, integers, reals, booleans and dates as a binary
// property list of the one-entry dictionary {"v": value}; other encodable values as their own
// property-list encoding. Reading text also accepts an item that holds plain UTF-8 text, so
// items written by other programs are read too.
//
// On Linux the items live in the Secret Service (GNOME Keyring, KWallet, ...) of the session
// bus; their attributes are class "genp", account, service, and with a group detail
// accessGroup and synchronizable "true", plus the accessibility. Nothing is reported:
// failures show as an absent value on reading and as an unchanged keychain after writing. A
// service that does not answer within the timeout is such a failure, and a locked keyring is
// never unlocked (that would prompt the user). Text that the service cannot carry (keys,
// services and groups that are not UTF-8 or contain NUL bytes) fails the same way. An
// encoding failure is a programming error and goes to the assertion hook. A program that must
// tell its user why a call failed uses the status forms (readData, storeString, removeItem).
//
// Processes that store one key at the same time leave one item: an add that finds the item
// made meanwhile updates it instead, and of items added at the same moment all but one go.
//
// Thread safety: every member may be called from any thread; the service orders the calls.
//
// Example:
//   kp::Keychain keychain;   // the application identifier as service
//   keychain.setString(std::string("s3cr3t"), "token", kp::KeychainAccess::afterFirstUnlock, std::nullopt);
//   std::optional<std::string> token = keychain.string("token", std::nullopt);
//   kp::KeychainAccessGroupDetail shared("com.example.shared", "TEAM.com.example.group");
//   keychain.setBool(true, "linked", kp::KeychainAccess::whenUnlocked, shared);
#pragma once

#include <chrono>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "kp/coding/property_list.h"
#include "kp/platform/data.h"
#include "kp/platform/date.h"
#include "kp/platform/export.h"

namespace kp {

namespace platform {
class KeychainItems;
}  // namespace platform

// Raw values 0 to 6; 2 and 6 repeat the accessibility of 1 and 5 on purpose (older callers
// stored those raw values).
enum class KeychainAccess : std::int64_t {
  whenUnlocked = 0,
  afterFirstUnlock = 1,
  afterFirstUnlockCompat = 2,
  whenPasscodeSetThisDeviceOnly = 3,
  whenUnlockedThisDeviceOnly = 4,
  afterFirstUnlockThisDeviceOnly = 5,
  afterFirstUnlockThisDeviceOnlyCompat = 6,
};

// The access with raw value `raw`; nothing outside 0...6.
[[nodiscard]] constexpr std::optional<KeychainAccess> keychainAccess(std::int64_t raw) noexcept {
  if (raw < 0 || raw > 6) return std::nullopt;
  return static_cast<KeychainAccess>(raw);
}

// The accessibility constant stored on the item ("kSecAttrAccessibleWhenUnlocked", ...).
[[nodiscard]] KP_EXPORT std::string_view value(KeychainAccess access) noexcept;

// How a keychain call ended, with the platform's numbers.
enum class KeychainStatus : std::int32_t {
  success = 0,
  invalidParameter = -50,          // text the keychain cannot hold (not UTF-8, NUL bytes)
  notAvailable = -25291,           // no keychain service answered in time
  duplicateItem = -25299,          // the item exists
  itemNotFound = -25300,           // no such item
  interactionNotAllowed = -25308,  // the keychain is locked
};

// What the status means, for a user: "the keychain is locked", ...
[[nodiscard]] KP_EXPORT std::string_view describe(KeychainStatus status) noexcept;

// A shared service and access group, for items that other applications of the group read.
struct KP_EXPORT KeychainAccessGroupDetail {
  // Items in `serviceName`, shared in `group`.
  KeychainAccessGroupDetail(std::string serviceName, std::string group)
      : service(std::move(serviceName)), accessGroup(std::move(group)) {}
  std::string service;      // the items' service
  std::string accessGroup;  // the items' access group
};

// Where items live: a shared group, or nothing for the application's own service.
using KeychainGroup = std::optional<KeychainAccessGroupDetail>;

// The keychain's operations: one item per key in the place `detail` names (see the top of
// this file for how values are stored and how failures show).
class KP_EXPORT KeychainStorable {
 public:
  virtual ~KeychainStorable() = default;

  // An absent text removes the item.
  virtual void setString(const std::optional<std::string>& value, std::string_view key, KeychainAccess access,
                         const KeychainGroup& detail) = 0;
  // Stores an integer, readable with int_().
  virtual void setInt(std::int64_t value, std::string_view key, KeychainAccess access, const KeychainGroup& detail) = 0;
  // Stores an unsigned integer, readable with uint().
  virtual void setUInt(std::uint64_t value, std::string_view key, KeychainAccess access,
                       const KeychainGroup& detail) = 0;
  // Stores a real number, readable with float_().
  virtual void setFloat(float value, std::string_view key, KeychainAccess access, const KeychainGroup& detail) = 0;
  // Stores a real number, readable with double_().
  virtual void setDouble(double value, std::string_view key, KeychainAccess access, const KeychainGroup& detail) = 0;
  // Stores a boolean, readable with bool_().
  virtual void setBool(bool value, std::string_view key, KeychainAccess access, const KeychainGroup& detail) = 0;
  // Stores a date, readable with date().
  virtual void setDate(Date value, std::string_view key, KeychainAccess access, const KeychainGroup& detail) = 0;
  // The bytes are stored as they are.
  virtual void setData(const Data& value, std::string_view key, KeychainAccess access, const KeychainGroup& detail) = 0;

  // The text under `key`; nothing when absent, unreadable or not text.
  [[nodiscard]] virtual std::optional<std::string> string(std::string_view key, const KeychainGroup& detail) const = 0;
  // The integer under `key`; nothing when absent, unreadable or not an integer.
  [[nodiscard]] virtual std::optional<std::int64_t> int_(std::string_view key, const KeychainGroup& detail) const = 0;
  // The unsigned integer under `key`; nothing when absent, unreadable or not one.
  [[nodiscard]] virtual std::optional<std::uint64_t> uint(std::string_view key, const KeychainGroup& detail) const = 0;
  // The real number under `key`; nothing when absent, unreadable or not a number.
  [[nodiscard]] virtual std::optional<float> float_(std::string_view key, const KeychainGroup& detail) const = 0;
  // The real number under `key`; nothing when absent, unreadable or not a number.
  [[nodiscard]] virtual std::optional<double> double_(std::string_view key, const KeychainGroup& detail) const = 0;
  // The boolean under `key`; nothing when absent, unreadable or not a boolean.
  [[nodiscard]] virtual std::optional<bool> bool_(std::string_view key, const KeychainGroup& detail) const = 0;
  // The date under `key`; nothing when absent, unreadable or not a date.
  [[nodiscard]] virtual std::optional<Date> date(std::string_view key, const KeychainGroup& detail) const = 0;
  // The item's bytes as stored; nothing when absent or unreadable.
  [[nodiscard]] virtual std::optional<Data> data(std::string_view key, const KeychainGroup& detail) const = 0;

  // Removes the item under `key`, if any.
  virtual void remove(std::string_view key, const KeychainGroup& detail) = 0;

  // Stores the value's own property-list encoding; an absent value removes the item.
  template <class T>
  void encode(const std::optional<T>& value, std::string_view key, KeychainAccess access, const KeychainGroup& detail) {
    if (!value) return remove(key, detail);
    if (std::optional<Data> bytes = encodedPropertyList(*value)) setData(*bytes, key, access, detail);
  }
  // The item's data decoded as T; nothing when absent or not a T.
  template <class T>
  [[nodiscard]] std::optional<T> decode(std::string_view key, const KeychainGroup& detail) const {
    std::optional<Data> bytes = data(key, detail);
    if (!bytes) return std::nullopt;
    try {
      return PropertyListDecoder().decode<T>(*bytes);
    } catch (const std::exception&) {
      return std::nullopt;
    }
  }

 private:
  template <class T>
  static std::optional<Data> encodedPropertyList(const T& value) {
    try {
      return PropertyListEncoder().encode(value);
    } catch (const std::exception& e) {
      coding_detail::reportEncodingFailure(e);
      return std::nullopt;
    }
  }
};

// The system's keychain (the Secret Service on Linux).
class KP_EXPORT Keychain final : public KeychainStorable {
 public:
  // The service of items without a group detail when the application has no identifier.
  static constexpr std::string_view kUnknownApplication = "TarvixWorks-Keychain-Unknown-App";
  // How long a call waits for the keychain service.
  static constexpr std::chrono::milliseconds kDefaultTimeout{3000};

  // The application identifier (ApplicationInfo) as bundle identifier, or kUnknownApplication
  // when the application has none.
  Keychain();
  // `bundleIdentifier` as the service of items without a group detail; calls wait up to
  // `timeout` for the keychain service.
  explicit Keychain(std::string bundleIdentifier, std::chrono::milliseconds timeout = kDefaultTimeout);
  // Items in `items` instead of the system's keychain.
  Keychain(std::string bundleIdentifier, std::shared_ptr<platform::KeychainItems> items);
  ~Keychain() override;

  // The service of items without a group detail.
  [[nodiscard]] const std::string& bundleIdentifier() const noexcept { return bundleIdentifier_; }

  void setString(const std::optional<std::string>& value, std::string_view key, KeychainAccess access,
                 const KeychainGroup& detail) override;
  void setInt(std::int64_t value, std::string_view key, KeychainAccess access, const KeychainGroup& detail) override;
  void setUInt(std::uint64_t value, std::string_view key, KeychainAccess access, const KeychainGroup& detail) override;
  void setFloat(float value, std::string_view key, KeychainAccess access, const KeychainGroup& detail) override;
  void setDouble(double value, std::string_view key, KeychainAccess access, const KeychainGroup& detail) override;
  void setBool(bool value, std::string_view key, KeychainAccess access, const KeychainGroup& detail) override;
  void setDate(Date value, std::string_view key, KeychainAccess access, const KeychainGroup& detail) override;
  void setData(const Data& value, std::string_view key, KeychainAccess access, const KeychainGroup& detail) override;

  [[nodiscard]] std::optional<std::string> string(std::string_view key, const KeychainGroup& detail) const override;
  [[nodiscard]] std::optional<std::int64_t> int_(std::string_view key, const KeychainGroup& detail) const override;
  [[nodiscard]] std::optional<std::uint64_t> uint(std::string_view key, const KeychainGroup& detail) const override;
  [[nodiscard]] std::optional<float> float_(std::string_view key, const KeychainGroup& detail) const override;
  [[nodiscard]] std::optional<double> double_(std::string_view key, const KeychainGroup& detail) const override;
  [[nodiscard]] std::optional<bool> bool_(std::string_view key, const KeychainGroup& detail) const override;
  [[nodiscard]] std::optional<Date> date(std::string_view key, const KeychainGroup& detail) const override;
  [[nodiscard]] std::optional<Data> data(std::string_view key, const KeychainGroup& detail) const override;

  void remove(std::string_view key, const KeychainGroup& detail) override;

  // The same calls with the keychain's answer: the item's bytes into `out` (when given);
  // `value` stored as setString() stores it (invalidParameter for text that is not UTF-8);
  // the item removed (itemNotFound when there was none).
  [[nodiscard]] KeychainStatus readData(std::string_view key, const KeychainGroup& detail, Data* out) const;
  // See readData().
  [[nodiscard]] KeychainStatus storeString(const std::string& value, std::string_view key, KeychainAccess access,
                                           const KeychainGroup& detail);
  // See readData().
  [[nodiscard]] KeychainStatus removeItem(std::string_view key, const KeychainGroup& detail);

 private:
  template <class T>
  void setWrapped(const T& value, std::string_view key, KeychainAccess access, const KeychainGroup& detail);
  template <class T>
  [[nodiscard]] std::optional<T> wrapped(std::string_view key, const KeychainGroup& detail) const;
  KeychainStatus store(const Data& data, std::string_view key, KeychainAccess access, const KeychainGroup& detail);

  std::string bundleIdentifier_;
  std::shared_ptr<platform::KeychainItems> items_;
};

}  // namespace kp
