// The binary property-list format, read and written by our own code; the XML format and the
// choice between the two live in kp/coding/property_list.h.
// Internal; not installed. Thread safety: each call works on its own state.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "kp/coding/property_list.h"

namespace kp::coding_detail {

// What the reader may build beyond one byte per byte of input, and the writer's bound on the
// text it shares (see binary_property_list.cc).
inline constexpr std::uint64_t kRepeatAllowance = 32ULL << 20;

// Throws the CodingError (dataCorrupted) by which a property-list reader refuses its input.
[[noreturn]] void propertyListCorrupted(std::string reason);

// REQUIRES: text in `root` is valid UTF-8 (else CodingError invalidValue).
[[nodiscard]] Data writeBinaryPropertyList(const Value& root);

// `bytes` begins with "bplist0". Throws CodingError (dataCorrupted) for anything malformed,
// nested deeper than kMaxPropertyListDepth, cyclic, or building more
// than its size allows (see kRepeatAllowance). Every file the writer makes is read back.
[[nodiscard]] Value readBinaryPropertyList(std::span<const std::uint8_t> bytes);

}  // namespace kp::coding_detail
