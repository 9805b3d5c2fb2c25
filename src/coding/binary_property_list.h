// The binary property-list format, read and written by our own code; the XML format and the
// choice between the two live in kp/coding/property_list.h.
// Internal; not installed. Thread safety: each call works on its own state.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "kp/coding/property_list.h"

namespace kp::coding_detail {

// Throws the CodingError (dataCorrupted) by which a property-list reader refuses its input.
[[noreturn]] void propertyListCorrupted(std::string reason);

// REQUIRES: text in `root` is valid UTF-8 (else CodingError invalidValue).
[[nodiscard]] Data writeBinaryPropertyList(const Value& root);

// `bytes` begins with "bplist0". Throws CodingError (dataCorrupted) for anything malformed,
// nested deeper than kMaxPropertyListDepth, cyclic, or expanding beyond its budget.
[[nodiscard]] Value readBinaryPropertyList(std::span<const std::uint8_t> bytes);

}  // namespace kp::coding_detail
