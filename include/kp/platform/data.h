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

// A growable byte buffer: what requests send and receive, what files and the cache hold.
class KP_EXPORT Data {
 public:
  using value_type = std::uint8_t;                                   // a byte
  using iterator = std::vector<std::uint8_t>::iterator;              // over the bytes
  using const_iterator = std::vector<std::uint8_t>::const_iterator;  // over the bytes

  Data() = default;
  Data(std::initializer_list<std::uint8_t> bytes) : bytes_(bytes) {}                          // these bytes
  explicit Data(std::vector<std::uint8_t> bytes) noexcept : bytes_(std::move(bytes)) {}       // takes the vector
  Data(const void* bytes, std::size_t count);                                                 // a copy of `count` bytes
  explicit Data(std::span<const std::uint8_t> bytes) : bytes_(bytes.begin(), bytes.end()) {}  // a copy
  // A buffer of `count` zero bytes.
  [[nodiscard]] static Data zeros(std::size_t count) { return Data(std::vector<std::uint8_t>(count)); }
  // The bytes of `text`, without a terminator.
  [[nodiscard]] static Data fromString(std::string_view text) { return Data(text.data(), text.size()); }

  [[nodiscard]] std::size_t size() const noexcept { return bytes_.size(); }              // the number of bytes
  [[nodiscard]] bool empty() const noexcept { return bytes_.empty(); }                   // no bytes
  [[nodiscard]] const std::uint8_t* data() const noexcept { return bytes_.data(); }      // the first byte
  [[nodiscard]] std::uint8_t* data() noexcept { return bytes_.data(); }                  // the first byte
  [[nodiscard]] std::span<const std::uint8_t> bytes() const noexcept { return bytes_; }  // all bytes
  [[nodiscard]] std::span<std::uint8_t> mutableBytes() noexcept { return bytes_; }       // all bytes
  // The bytes seen as characters; valid until the buffer changes.
  [[nodiscard]] std::string_view view() const noexcept {
    return {reinterpret_cast<const char*>(bytes_.data()), bytes_.size()};
  }
  [[nodiscard]] std::string toString() const { return std::string(view()); }  // a copy of view()

  std::uint8_t& operator[](std::size_t i) noexcept { return bytes_[i]; }              // REQUIRES: i < size()
  const std::uint8_t& operator[](std::size_t i) const noexcept { return bytes_[i]; }  // REQUIRES: i < size()
  iterator begin() noexcept { return bytes_.begin(); }                                // the first byte
  iterator end() noexcept { return bytes_.end(); }                                    // past the last byte
  const_iterator begin() const noexcept { return bytes_.begin(); }                    // the first byte
  const_iterator end() const noexcept { return bytes_.end(); }                        // past the last byte

  void append(const void* bytes, std::size_t count);  // adds a copy of `count` bytes
  void append(std::span<const std::uint8_t> bytes) { append(bytes.data(), bytes.size()); }  // adds a copy
  void append(const Data& other) { append(other.data(), other.size()); }                    // adds a copy
  void append(std::string_view text) { append(text.data(), text.size()); }                  // adds the characters
  void push_back(std::uint8_t byte) { bytes_.push_back(byte); }                             // adds one byte
  void resize(std::size_t count) { bytes_.resize(count); }    // cuts, or pads with zero bytes
  void reserve(std::size_t count) { bytes_.reserve(count); }  // room for `count` bytes
  void clear() noexcept { bytes_.clear(); }                   // no bytes

  // Gives up the storage without copying.
  [[nodiscard]] std::vector<std::uint8_t> release() && noexcept { return std::move(bytes_); }
  [[nodiscard]] const std::vector<std::uint8_t>& vector() const noexcept { return bytes_; }  // the storage

  friend bool operator==(const Data&, const Data&) = default;   // the same bytes
  friend auto operator<=>(const Data&, const Data&) = default;  // byte by byte

 private:
  std::vector<std::uint8_t> bytes_;
};

// Lower-case hexadecimal text of the bytes, two digits per byte.
[[nodiscard]] KP_EXPORT std::string hexString(std::span<const std::uint8_t> bytes);

}  // namespace kp
