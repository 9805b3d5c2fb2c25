// kp::Data: an owned, contiguous byte buffer (the platform's byte buffer).
//
// Thread safety: a value type. Distinct objects may be used from any threads; one object
// needs external synchronisation when one of the threads writes to it.
//
// Example:
//   kp::Data body = kp::Data::fromString("hello");
//   body.append(kp::Data{0x00, 0xff});
//   std::span<const std::uint8_t> bytes = body.bytes();
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kp/platform/export.h"

namespace kp {

class KP_EXPORT Data {
 public:
  using value_type = std::uint8_t;
  using iterator = std::vector<std::uint8_t>::iterator;
  using const_iterator = std::vector<std::uint8_t>::const_iterator;

  Data() = default;
  Data(std::initializer_list<std::uint8_t> bytes) : bytes_(bytes) {}
  explicit Data(std::vector<std::uint8_t> bytes) noexcept : bytes_(std::move(bytes)) {}
  Data(const void* bytes, std::size_t count);
  explicit Data(std::span<const std::uint8_t> bytes) : bytes_(bytes.begin(), bytes.end()) {}
  // A buffer of `count` zero bytes.
  [[nodiscard]] static Data zeros(std::size_t count) { return Data(std::vector<std::uint8_t>(count)); }
  // The bytes of `text`, without a terminator.
  [[nodiscard]] static Data fromString(std::string_view text) { return Data(text.data(), text.size()); }

  [[nodiscard]] std::size_t size() const noexcept { return bytes_.size(); }
  [[nodiscard]] bool empty() const noexcept { return bytes_.empty(); }
  [[nodiscard]] const std::uint8_t* data() const noexcept { return bytes_.data(); }
  [[nodiscard]] std::uint8_t* data() noexcept { return bytes_.data(); }
  [[nodiscard]] std::span<const std::uint8_t> bytes() const noexcept { return bytes_; }
  [[nodiscard]] std::span<std::uint8_t> mutableBytes() noexcept { return bytes_; }
  // The bytes seen as characters; valid until the buffer changes.
  [[nodiscard]] std::string_view view() const noexcept {
    return {reinterpret_cast<const char*>(bytes_.data()), bytes_.size()};
  }
  [[nodiscard]] std::string toString() const { return std::string(view()); }

  std::uint8_t& operator[](std::size_t i) noexcept { return bytes_[i]; }
  const std::uint8_t& operator[](std::size_t i) const noexcept { return bytes_[i]; }
  iterator begin() noexcept { return bytes_.begin(); }
  iterator end() noexcept { return bytes_.end(); }
  const_iterator begin() const noexcept { return bytes_.begin(); }
  const_iterator end() const noexcept { return bytes_.end(); }

  void append(const void* bytes, std::size_t count);
  void append(std::span<const std::uint8_t> bytes) { append(bytes.data(), bytes.size()); }
  void append(const Data& other) { append(other.data(), other.size()); }
  void append(std::string_view text) { append(text.data(), text.size()); }
  void push_back(std::uint8_t byte) { bytes_.push_back(byte); }
  void resize(std::size_t count) { bytes_.resize(count); }
  void reserve(std::size_t count) { bytes_.reserve(count); }
  void clear() noexcept { bytes_.clear(); }

  // Gives up the storage without copying.
  [[nodiscard]] std::vector<std::uint8_t> release() && noexcept { return std::move(bytes_); }
  [[nodiscard]] const std::vector<std::uint8_t>& vector() const noexcept { return bytes_; }

  friend bool operator==(const Data&, const Data&) = default;
  friend auto operator<=>(const Data&, const Data&) = default;

 private:
  std::vector<std::uint8_t> bytes_;
};

// Lower-case hexadecimal text of the bytes, two digits per byte.
[[nodiscard]] KP_EXPORT std::string hexString(std::span<const std::uint8_t> bytes);

}  // namespace kp
