// The binary property-list format, read and written by our own code; the XML format and the
// choice between the two live in kp/coding/property_list.h.
// Internal; not installed. Thread safety: each call works on its own state.
#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kp/coding/property_list.h"

namespace kp::coding_detail {

// What the reader may build beyond one byte per byte of input, and the writer's bound on the
// text it shares (see binary_property_list.cc).
inline constexpr std::uint64_t kRepeatAllowance = 32ULL << 20;

// Whether `bytes` are a binary property list rather than XML.
[[nodiscard]] inline bool isBinaryPropertyList(std::span<const std::uint8_t> bytes) noexcept {
  static constexpr std::uint8_t kMagic[] = {'b', 'p', 'l', 'i', 's', 't', '0'};
  return bytes.size() >= 8 && std::equal(std::begin(kMagic), std::end(kMagic), bytes.begin());
}

// Throws the CodingError (dataCorrupted) by which a property-list reader refuses its input.
[[noreturn]] void propertyListCorrupted(std::string reason);

// REQUIRES: text in `root` is valid UTF-8 (else CodingError invalidValue).
[[nodiscard]] Data writeBinaryPropertyList(const Value& root);

// `bytes` begins with "bplist0". Throws CodingError (dataCorrupted) for anything malformed,
// nested deeper than kMaxPropertyListDepth, cyclic, or building more
// than its size allows (see kRepeatAllowance). Every file the writer makes is read back.
[[nodiscard]] Value readBinaryPropertyList(std::span<const std::uint8_t> bytes);

// The objects of one binary property list by their reference numbers, for a caller that wants
// a few of them rather than the whole tree: it looks entries up where they lie and builds only
// the objects it asks for. What one reader builds, in any number of calls, stays within the
// bounds of readBinaryPropertyList(). Every call throws CodingError (dataCorrupted) for
// malformed bytes it meets.
class BinaryPropertyListReader {
 public:
  // `bytes` begins with "bplist0" and outlives the reader; its trailer is checked here.
  explicit BinaryPropertyListReader(std::span<const std::uint8_t> bytes);
  [[nodiscard]] std::uint64_t top() const noexcept { return top_; }  // the root object
  // The tree of the object `ref`.
  [[nodiscard]] Value build(std::uint64_t ref);
  // The object under `key` (its first entry) in the dictionary `ref`; nothing when `ref` is
  // no dictionary or has no such key.
  [[nodiscard]] std::optional<std::uint64_t> find(std::uint64_t ref, std::string_view key) const;
  // The same, trying the entry at `cursor` first and then the others in turn, and moving
  // `cursor` past the entry found: keys looked up in the order they were written cost one
  // comparison each. Of a key written twice, the entry found may be either.
  [[nodiscard]] std::optional<std::uint64_t> find(std::uint64_t ref, std::string_view key, std::uint64_t& cursor) const;
  // The entries of a dictionary where they lie, read once for a caller that looks up several
  // of its keys.
  struct Dictionary {
    std::uint64_t count = 0;
    const std::uint8_t* refs = nullptr;  // the key references, then the value references
  };
  // Nothing when `ref` is no dictionary.
  [[nodiscard]] std::optional<Dictionary> dictionary(std::uint64_t ref) const;
  // find() with a cursor, in entries read before.
  [[nodiscard]] std::optional<std::uint64_t> find(const Dictionary& entries, std::string_view key,
                                                  std::uint64_t& cursor) const;
  // The value of entry `index` (below the count) when its key is the text `key`; nothing for
  // any other key, text or not.
  [[nodiscard]] std::optional<std::uint64_t> valueAt(const Dictionary& entries, std::uint64_t index,
                                                     std::string_view key) const;
  // The entry count of the dictionary `ref`; nothing when it is no dictionary.
  [[nodiscard]] std::optional<std::uint64_t> entryCount(std::uint64_t ref) const;
  [[nodiscard]] bool isDictionary(std::uint64_t ref) const;
  // The bytes of the data object `ref` where they lie in the input; nothing for any other
  // object.
  [[nodiscard]] std::optional<std::span<const std::uint8_t>> bytes(std::uint64_t ref) const;
  // The scalar `ref` read where it lies, as build() would give it; nothing when it is an
  // object of another kind (an integer beyond the signed range is no integer here).
  [[nodiscard]] std::optional<bool> boolean(std::uint64_t ref) const;
  [[nodiscard]] std::optional<std::int64_t> integer(std::uint64_t ref) const;
  [[nodiscard]] std::optional<double> real(std::uint64_t ref) const;
  [[nodiscard]] std::optional<Date> date(std::uint64_t ref) const;
  [[nodiscard]] std::optional<std::uint64_t> uid(std::uint64_t ref) const;
  // Whether the object `ref` is text equal to the ASCII `text`; false for any other object.
  [[nodiscard]] bool textEquals(std::uint64_t ref, std::string_view text) const;
  // The element count of the array `ref`; nothing when it is no array.
  [[nodiscard]] std::optional<std::uint64_t> count(std::uint64_t ref) const;
  // REQUIRES: `ref` is an array of more than `index` elements, else CodingError.
  [[nodiscard]] std::uint64_t element(std::uint64_t ref, std::uint64_t index) const;

 private:
  struct Container {
    bool isArray;
    std::uint64_t count;
    const std::uint8_t* refs;  // the element references (of a dictionary: keys, then values)
  };
  // Bytes [pos, pos + n) of the object area.
  [[nodiscard]] const std::uint8_t* need(std::uint64_t pos, std::uint64_t n) const;
  [[nodiscard]] std::uint64_t offsetOf(std::uint64_t ref) const;
  // The element count after a marker whose low nibble is `low`; moves `pos` past it.
  [[nodiscard]] std::uint64_t countOf(std::uint8_t low, std::uint64_t& pos) const;
  // The array or dictionary `ref`; nothing for any other object.
  [[nodiscard]] std::optional<Container> container(std::uint64_t ref) const;
  [[nodiscard]] bool keyEquals(std::uint64_t ref, std::string_view key) const;
  // The marker of the object `ref`, with the position after it.
  [[nodiscard]] std::uint8_t markerOf(std::uint64_t ref, std::uint64_t& pos) const;
  // Text of `n` units (of `unitSize` bytes) at `pos` equal to the ASCII `text`.
  [[nodiscard]] bool unitsEqual(std::uint64_t pos, std::uint64_t n, std::size_t unitSize, std::string_view text) const;
  // The real after `marker` at `pos` (four or eight bytes).
  [[nodiscard]] double realAt(std::uint8_t head, std::uint64_t pos) const;
  void spendNode();                  // one more node of a tree
  void spendBytes(std::uint64_t n);  // `n` bytes of text or data built
  [[nodiscard]] Value object(std::uint64_t ref, std::size_t depth);

  std::span<const std::uint8_t> b_;
  std::size_t offsetSize_ = 0;
  std::size_t refSize_ = 0;
  std::uint64_t count_ = 0;
  std::uint64_t top_ = 0;
  std::uint64_t tableOffset_ = 0;
  std::uint64_t nodeBudget_ = 0;
  std::uint64_t byteBudget_ = 0;
  std::vector<bool> inProgress_;  // containers being built, by reference
};

}  // namespace kp::coding_detail
