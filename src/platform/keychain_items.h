// platform::KeychainItems: the platform keychain's four item operations (add, update, copy
// matching, delete) with its attribute names and numeric statuses, so that the keychain above
// is written once for every host. Internal; not installed. On Linux the items are Secret
// Service items (linux/keychain_items_linux.cc), reached over the session bus with libsecret.
//
// An item is its data plus text attributes. A query matches the items that carry every one of
// its attributes with the same value (other attributes do not matter). Two items are the
// same item, for add(), when they agree on class, account, service, access group and
// synchronizable (a missing attribute agrees only with a missing one).
//
// No call waits longer than the store's timeout: a service that does not answer in time
// makes the call fail with notAvailable. Locked items are never unlocked (that would prompt
// the user); they make calls fail with interactionNotAllowed.
//
// Thread safety: every member may be called from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "kp/platform/data.h"

namespace kp::platform {

// The platform's statuses; every failure the platform knows by another number is mapped to
// the closest of these.
enum class KeychainStatus : std::int32_t {
  success = 0,
  invalidParameter = -50,         // text that the store cannot carry (not UTF-8, NUL bytes)
  notAvailable = -25291,          // no keychain service, or it did not answer in time
  duplicateItem = -25299,         // add(): the item exists
  itemNotFound = -25300,          // nothing matches
  interactionNotAllowed = -25308  // the matching items are locked
};

// Attribute names (the platform's item attribute keys).
namespace keychain_attribute {
inline constexpr std::string_view kClass = "class";  // "genp": a generic password
inline constexpr std::string_view kAccount = "account";
inline constexpr std::string_view kService = "service";
inline constexpr std::string_view kAccessGroup = "accessGroup";
inline constexpr std::string_view kSynchronizable = "synchronizable";  // "true" when present
inline constexpr std::string_view kAccessible = "accessible";
inline constexpr std::string_view kGenericPassword = "genp";
}  // namespace keychain_attribute

using KeychainAttributes = std::map<std::string, std::string, std::less<>>;

class KeychainItems {
 public:
  virtual ~KeychainItems() = default;

  // The keychain of this system, with calls bounded by `timeout`.
  [[nodiscard]] static std::shared_ptr<KeychainItems> system(std::chrono::milliseconds timeout);

  // Adds an item; duplicateItem when the same item exists.
  virtual KeychainStatus add(const KeychainAttributes& attributes, std::span<const std::uint8_t> data) = 0;
  // Gives every unlocked matching item `data` and the attributes in `changes`.
  virtual KeychainStatus update(const KeychainAttributes& query, std::span<const std::uint8_t> data,
                                const KeychainAttributes& changes) = 0;
  // The data of the matching item (the one that agrees best with the query, then the newest).
  virtual KeychainStatus copyMatching(const KeychainAttributes& query, Data* data) = 0;
  // Deletes every unlocked matching item.
  virtual KeychainStatus deleteItems(const KeychainAttributes& query) = 0;
};

}  // namespace kp::platform
