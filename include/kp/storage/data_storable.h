// kp::DataStorable: a store of archived objects by key. The user-defaults store implements it:
// objects are kept as keyed archives and read back through the safe unarchiving helper, which
// accepts every class this process registered and nothing else.
//
// Thread safety: as the implementation documents (the user-defaults store: any thread).
//
// Example:
//   kp::DataStorable& store = *kp::UserDefaults::standard();
//   store.saveObject(kp::ArchiveValue(forecast), "lastForecast");
//   auto back = store.getObjectForKey("lastForecast");   // nothing when unreadable
#pragma once

#include <optional>
#include <string_view>

#include "kp/coding/keyed_archiver.h"
#include "kp/platform/export.h"

namespace kp {

class KP_EXPORT DataStorable {
 public:
  virtual ~DataStorable() = default;
  // The object archived under `key`; nothing when absent, not an archive, or unreadable.
  [[nodiscard]] virtual std::optional<ArchiveValue> getObjectForKey(std::string_view key) const = 0;
  // Archives `object` under `key`. An absent object, or one that cannot be archived, removes
  // the key and reports "Failed to archive object: " + the reason.
  virtual void saveObject(const std::optional<ArchiveValue>& object, std::string_view key) = 0;
};

}  // namespace kp
