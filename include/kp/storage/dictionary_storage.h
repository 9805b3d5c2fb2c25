// kp::DictionaryStorage: keyed storage in memory, for tests, previews and values that must not
// outlive the process. It keeps exactly what it is given (text literals become std::string)
// and converts nothing: string(), integer(), float_(), double_() and bool_() answer only for a
// value of exactly that kind (any integer type for integer()), else nothing, 0 or false.
//
// Thread safety: every member may be called from any thread; each access to the map runs on
// the map's own serial queue (kp::Synchronized).
//
// Example:
//   auto storage = std::make_shared<kp::DictionaryStorage>();
//   storage->setObject(std::string("5"), "count");
//   storage->integer("count");   // 0: text is not converted
#pragma once

#include <any>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "kp/platform/export.h"
#include "kp/platform/string_map.h"
#include "kp/platform/synchronized.h"
#include "tarvix/keyed_storage_service.h"

namespace kp {

class KP_EXPORT DictionaryStorage final : public tarvix::KeyedStorageService {
 public:
  // The values by key.
  using Content = StringMap<std::any>;

  // A store holding `content`.
  explicit DictionaryStorage(Content content = {});

  // A copy of everything stored.
  [[nodiscard]] Content content() const { return content_.get(); }

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

 private:
  Synchronized<Content> content_;
};

}  // namespace kp
