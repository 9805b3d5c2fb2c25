// tarvix::KeyedStorageService: a key-value store for settings and small values.
//
// Values are held as std::any. Persistent implementations accept property-list values
// (text, integers, reals, booleans, byte buffers, dates, lists and string-keyed maps of
// them); the typed getters answer from the stored value as the implementation documents.
//
// Thread safety: implementations may be called from any thread.
//
// Example:
//   storage.setObject(std::string("metric"), "units");
//   storage.setInteger(3, "launchCount");
//   std::optional<std::string> units = storage.string("units");
#pragma once

#include <any>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tarvix/service.h"

namespace tarvix {

// The store (see the top of this file).
class KeyedStorageService : public virtual Service {
 public:
  // Stores `value` under `key`; an absent value removes the key.
  virtual void setObject(std::optional<std::any> value, std::string_view key) = 0;
  virtual void setInteger(std::int64_t value, std::string_view key) = 0;  // stores an integer
  virtual void setFloat(float value, std::string_view key) = 0;           // stores a real number
  virtual void setDouble(double value, std::string_view key) = 0;         // stores a real number
  virtual void setBool(bool value, std::string_view key) = 0;             // stores a boolean
  virtual void removeObject(std::string_view key) = 0;                    // removes the key

  // The value under `key`; nothing when the key is missing.
  [[nodiscard]] virtual std::optional<std::any> object(std::string_view key) const = 0;
  // The value under `key` as text; nothing when missing or not text.
  [[nodiscard]] virtual std::optional<std::string> string(std::string_view key) const = 0;
  // The value under `key` as an integer; 0 when missing or not a number.
  [[nodiscard]] virtual std::int64_t integer(std::string_view key) const = 0;
  // The value under `key` as a real number; 0 when missing or not a number.
  [[nodiscard]] virtual float float_(std::string_view key) const = 0;
  // The value under `key` as a real number; 0 when missing or not a number.
  [[nodiscard]] virtual double double_(std::string_view key) const = 0;
  // The value under `key` as a boolean; false when missing or not one.
  [[nodiscard]] virtual bool bool_(std::string_view key) const = 0;
};

}  // namespace tarvix
