// The keychain over the platform's keychain items.
#include "kp/storage/keychain.h"

#include "kp/platform/application_info.h"
#include "platform/keychain_items.h"
#include "platform/utf8.h"

namespace kp {
namespace {

namespace attr = platform::keychain_attribute;
using platform::KeychainAttributes;

// Class generic password, account = key, service = `service`.
KeychainAttributes defaultAttributes(std::string_view key, std::string_view service) {
  return {{std::string(attr::kClass), std::string(attr::kGenericPassword)},
          {std::string(attr::kAccount), std::string(key)},
          {std::string(attr::kService), std::string(service)}};
}

KeychainStatus statusOf(platform::KeychainStatus status) { return static_cast<KeychainStatus>(status); }

std::string applicationIdentifier() {
  return ApplicationInfo::current().identifier.value_or(std::string(Keychain::kUnknownApplication));
}

}  // namespace

std::string_view describe(KeychainStatus status) noexcept {
  switch (status) {
    case KeychainStatus::success:
      return "done";
    case KeychainStatus::invalidParameter:
      return "the key, service or group is not text the keychain can hold (UTF-8 without NUL bytes)";
    case KeychainStatus::notAvailable:
      return "no keychain service answered on the session bus (none running, or it did not answer in time)";
    case KeychainStatus::duplicateItem:
      return "the item exists already";
    case KeychainStatus::itemNotFound:
      return "no such item";
    case KeychainStatus::interactionNotAllowed:
      return "the keychain is locked";
  }
  return "the keychain failed";
}

std::string_view value(KeychainAccess access) noexcept {
  switch (access) {
    case KeychainAccess::whenUnlocked:
      return "kSecAttrAccessibleWhenUnlocked";
    case KeychainAccess::afterFirstUnlock:
    case KeychainAccess::afterFirstUnlockCompat:
      return "kSecAttrAccessibleAfterFirstUnlock";
    case KeychainAccess::whenPasscodeSetThisDeviceOnly:
      return "kSecAttrAccessibleWhenPasscodeSetThisDeviceOnly";
    case KeychainAccess::whenUnlockedThisDeviceOnly:
      return "kSecAttrAccessibleWhenUnlockedThisDeviceOnly";
    case KeychainAccess::afterFirstUnlockThisDeviceOnly:
    case KeychainAccess::afterFirstUnlockThisDeviceOnlyCompat:
      return "kSecAttrAccessibleAfterFirstUnlockThisDeviceOnly";
  }
  return "kSecAttrAccessibleWhenUnlocked";
}

Keychain::Keychain() : Keychain(applicationIdentifier()) {}

Keychain::Keychain(std::string bundleIdentifier, std::chrono::milliseconds timeout)
    : Keychain(std::move(bundleIdentifier), platform::KeychainItems::system(timeout)) {}

Keychain::Keychain(std::string bundleIdentifier, std::shared_ptr<platform::KeychainItems> items)
    : bundleIdentifier_(std::move(bundleIdentifier)), items_(std::move(items)) {}

Keychain::~Keychain() = default;

namespace {

// The attributes of the item for `key`: in the bundle's service, or in the detail's service
// and access group, which are always synchronizable.
KeychainAttributes itemAttributes(std::string_view key, const KeychainGroup& detail, std::string_view bundle) {
  if (!detail) return defaultAttributes(key, bundle);
  KeychainAttributes attributes = defaultAttributes(key, detail->service);
  attributes.emplace(attr::kAccessGroup, detail->accessGroup);
  attributes.emplace(attr::kSynchronizable, "true");
  return attributes;
}

}  // namespace

KeychainStatus Keychain::store(const Data& data, std::string_view key, KeychainAccess access,
                               const KeychainGroup& detail) {
  KeychainAttributes attributes = itemAttributes(key, detail, bundleIdentifier_);
  attributes.emplace(attr::kAccessible, value(access));
  // The query of the update names only account and service, so it finds the item whatever
  // its group.
  const KeychainAttributes query = defaultAttributes(key, detail ? detail->service : bundleIdentifier_);
  // Another process may add or remove the item between our two calls: an add that finds it
  // updates it, an update that no longer finds it adds again.
  platform::KeychainStatus status = platform::KeychainStatus::itemNotFound;
  for (int attempt = 0; attempt < 3 && status == platform::KeychainStatus::itemNotFound; ++attempt) {
    status = items_->add(attributes, data.bytes());
    if (status != platform::KeychainStatus::duplicateItem) break;
    status = items_->update(query, data.bytes(), {{std::string(attr::kAccessible), std::string(value(access))}});
  }
  return statusOf(status);
}

template <class T>
void Keychain::setWrapped(const T& v, std::string_view key, KeychainAccess access, const KeychainGroup& detail) {
  // encodePropertyListData wraps scalars as {"v": value} and reports an encoding failure.
  if (std::optional<Data> bytes = encodePropertyListData(v)) (void)store(*bytes, key, access, detail);
}

template <class T>
std::optional<T> Keychain::wrapped(std::string_view key, const KeychainGroup& detail) const {
  std::optional<Data> bytes = data(key, detail);
  if (!bytes) return std::nullopt;
  return decodePropertyListData<T>(*bytes);
}

void Keychain::setString(const std::optional<std::string>& v, std::string_view key, KeychainAccess access,
                         const KeychainGroup& detail) {
  if (!v) return remove(key, detail);
  setWrapped(*v, key, access, detail);
}
void Keychain::setInt(std::int64_t v, std::string_view key, KeychainAccess access, const KeychainGroup& detail) {
  setWrapped(v, key, access, detail);
}
void Keychain::setUInt(std::uint64_t v, std::string_view key, KeychainAccess access, const KeychainGroup& detail) {
  setWrapped(v, key, access, detail);
}
void Keychain::setFloat(float v, std::string_view key, KeychainAccess access, const KeychainGroup& detail) {
  setWrapped(v, key, access, detail);
}
void Keychain::setDouble(double v, std::string_view key, KeychainAccess access, const KeychainGroup& detail) {
  setWrapped(v, key, access, detail);
}
void Keychain::setBool(bool v, std::string_view key, KeychainAccess access, const KeychainGroup& detail) {
  setWrapped(v, key, access, detail);
}
void Keychain::setDate(Date v, std::string_view key, KeychainAccess access, const KeychainGroup& detail) {
  setWrapped(v, key, access, detail);
}
void Keychain::setData(const Data& v, std::string_view key, KeychainAccess access, const KeychainGroup& detail) {
  (void)store(v, key, access, detail);
}

std::optional<std::string> Keychain::string(std::string_view key, const KeychainGroup& detail) const {
  std::optional<Data> bytes = data(key, detail);
  if (!bytes || bytes->empty()) return std::nullopt;
  if (auto text = decodePropertyListData<std::string>(*bytes)) return text;
  // Plain text, as other programs store passwords.
  if (internal::isValidUtf8(bytes->view())) return bytes->toString();
  return std::nullopt;
}
std::optional<std::int64_t> Keychain::int_(std::string_view key, const KeychainGroup& detail) const {
  return wrapped<std::int64_t>(key, detail);
}
std::optional<std::uint64_t> Keychain::uint(std::string_view key, const KeychainGroup& detail) const {
  return wrapped<std::uint64_t>(key, detail);
}
std::optional<float> Keychain::float_(std::string_view key, const KeychainGroup& detail) const {
  return wrapped<float>(key, detail);
}
std::optional<double> Keychain::double_(std::string_view key, const KeychainGroup& detail) const {
  return wrapped<double>(key, detail);
}
std::optional<bool> Keychain::bool_(std::string_view key, const KeychainGroup& detail) const {
  return wrapped<bool>(key, detail);
}
std::optional<Date> Keychain::date(std::string_view key, const KeychainGroup& detail) const {
  return wrapped<Date>(key, detail);
}

std::optional<Data> Keychain::data(std::string_view key, const KeychainGroup& detail) const {
  Data bytes;
  if (readData(key, detail, &bytes) != KeychainStatus::success) return std::nullopt;
  return bytes;
}

void Keychain::remove(std::string_view key, const KeychainGroup& detail) { (void)removeItem(key, detail); }

KeychainStatus Keychain::readData(std::string_view key, const KeychainGroup& detail, Data* out) const {
  Data bytes;
  const KeychainStatus status = statusOf(items_->copyMatching(itemAttributes(key, detail, bundleIdentifier_), &bytes));
  if (status == KeychainStatus::success && out) *out = std::move(bytes);
  return status;
}

KeychainStatus Keychain::storeString(const std::string& v, std::string_view key, KeychainAccess access,
                                     const KeychainGroup& detail) {
  if (!internal::isValidUtf8(v)) return KeychainStatus::invalidParameter;
  std::optional<Data> bytes = encodePropertyListData(v);
  if (!bytes) return KeychainStatus::invalidParameter;
  return store(*bytes, key, access, detail);
}

KeychainStatus Keychain::removeItem(std::string_view key, const KeychainGroup& detail) {
  return statusOf(items_->deleteItems(itemAttributes(key, detail, bundleIdentifier_)));
}

}  // namespace kp
