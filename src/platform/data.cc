// Out-of-line parts of the byte buffer.
#include "kp/platform/data.h"

#include <cstring>

namespace kp {

Data::Data(const void* bytes, std::size_t count) {
  if (count > 0) {
    const auto* begin = static_cast<const std::uint8_t*>(bytes);
    bytes_.assign(begin, begin + count);
  }
}

void Data::append(const void* bytes, std::size_t count) {
  if (count == 0) return;
  const auto* begin = static_cast<const std::uint8_t*>(bytes);
  bytes_.insert(bytes_.end(), begin, begin + count);
}

std::string hexString(std::span<const std::uint8_t> bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out(bytes.size() * 2, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    out[2 * i] = kDigits[bytes[i] >> 4];
    out[2 * i + 1] = kDigits[bytes[i] & 0x0f];
  }
  return out;
}

}  // namespace kp
