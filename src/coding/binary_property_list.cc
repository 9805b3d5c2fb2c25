// Binary property lists ("bplist00"), read and written here rather than by libplist so that
// every bound on hostile input is ours: nesting depth, cycles, object counts against the bytes
// present, and the expansion of shared objects.
//
// A shared object is built anew for each reference to it, so the reader bounds what it builds,
// not what it decodes: at most one tree node per byte of input (every reference takes a byte
// at least, and only containers shared by reference could give more), and text and data of
// kRepeatAllowance plus 16 bytes per byte of input. The writer shares equal text, and keeps
// what that repetition adds within kRepeatAllowance plus 14 bytes per reference written; with
// what is decoded once (at most 1.5 bytes built per byte of input) every file it writes stays
// within the reader's bounds, however often it repeats one string.
// Internal; not installed. Thread safety: each call works on its own state.
#include "coding/binary_property_list.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

namespace kp::coding_detail {

void propertyListCorrupted(std::string reason) {
  throw CodingError(CodingError::Kind::dataCorrupted, {}, std::move(reason));
}

namespace {

[[noreturn]] void corrupt(std::string reason) { propertyListCorrupted(std::move(reason)); }

// ---- UTF-8 ----

void appendUtf8(std::string& out, std::uint32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

}  // namespace

// ---- Binary reader ----

namespace {
// Every object access reads a reference and an offset this way, most of them one or two bytes
// wide: those widths take no loop.
inline std::uint64_t be(const std::uint8_t* p, std::size_t n) {
  if (n == 1) return p[0];
  if (n == 2) return (std::uint64_t{p[0]} << 8) | p[1];
  if (n == 8) {
    // The trailer's fields, reals and dates.
    std::uint64_t v;
    std::memcpy(&v, p, 8);
    return std::endian::native == std::endian::little ? __builtin_bswap64(v) : v;
  }
  std::uint64_t v = 0;
  for (std::size_t i = 0; i < n; ++i) v = (v << 8) | p[i];
  return v;
}
}  // namespace

BinaryPropertyListReader::BinaryPropertyListReader(std::span<const std::uint8_t> bytes) : b_(bytes) {
  nodeBudget_ = bytes.size() + 1024;
  byteBudget_ = kRepeatAllowance + 16 * static_cast<std::uint64_t>(bytes.size());
  if (b_.size() < 8 + 32) corrupt("property list is truncated");
  const std::uint8_t* t = b_.data() + b_.size() - 32;
  offsetSize_ = t[6];
  refSize_ = t[7];
  count_ = be(t + 8, 8);
  top_ = be(t + 16, 8);
  tableOffset_ = be(t + 24, 8);
  if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8) corrupt("bad trailer");
  const std::uint64_t end = b_.size() - 32;
  if (count_ == 0 || top_ >= count_ || tableOffset_ < 8 || tableOffset_ > end ||
      count_ > (end - tableOffset_) / offsetSize_) {
    corrupt("bad trailer");
  }
}

inline const std::uint8_t* BinaryPropertyListReader::need(std::uint64_t pos, std::uint64_t n) const {
  if (pos > tableOffset_ || n > tableOffset_ - pos) corrupt("object runs past its area");
  return b_.data() + pos;
}

inline std::uint64_t BinaryPropertyListReader::offsetOf(std::uint64_t ref) const {
  if (ref >= count_) corrupt("object reference out of range");
  const std::uint64_t o = be(b_.data() + tableOffset_ + ref * offsetSize_, offsetSize_);
  if (o < 8 || o >= tableOffset_) corrupt("object offset out of range");
  return o;
}

inline std::uint64_t BinaryPropertyListReader::countOf(std::uint8_t low, std::uint64_t& pos) const {
  if (low != 0x0F) return low;
  const std::uint8_t m = *need(pos, 1);
  if ((m & 0xF0) != 0x10 || (m & 0x0F) > 3) corrupt("bad count");
  const std::size_t n = std::size_t{1} << (m & 0x0F);
  const std::uint64_t c = be(need(pos + 1, n), n);
  pos += 1 + n;
  return c;
}

inline std::optional<BinaryPropertyListReader::Container> BinaryPropertyListReader::container(std::uint64_t ref) const {
  std::uint64_t pos = offsetOf(ref);
  const std::uint8_t marker = *need(pos, 1);
  ++pos;
  if (marker >> 4 != 0xA && marker >> 4 != 0xD) return std::nullopt;
  const bool isArray = marker >> 4 == 0xA;
  const std::uint64_t n = countOf(marker & 0x0F, pos);
  const std::uint64_t refs = isArray ? n : n * 2;
  if (n > tableOffset_ || refs > tableOffset_ / refSize_) corrupt("count larger than the data");
  return Container{isArray, n, need(pos, refs * refSize_)};
}

inline std::uint8_t BinaryPropertyListReader::markerOf(std::uint64_t ref, std::uint64_t& pos) const {
  pos = offsetOf(ref);
  const std::uint8_t m = *need(pos, 1);
  ++pos;
  return m;
}

inline bool BinaryPropertyListReader::unitsEqual(std::uint64_t pos, std::uint64_t n, std::size_t unitSize,
                                                 std::string_view text) const {
  if (n != text.size()) return false;
  // Bytes above 0x7F read as Latin-1, and UTF-16 units above it are no ASCII either: neither
  // equals the plain ASCII text asked for.
  const std::uint8_t* p = need(pos, n * unitSize);
  if (unitSize == 1) return std::memcmp(p, text.data(), text.size()) == 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (be(p + 2 * i, 2) != static_cast<unsigned char>(text[i])) return false;
  }
  return true;
}

inline bool BinaryPropertyListReader::keyEquals(std::uint64_t ref, std::string_view key) const {
  std::uint64_t pos = 0;
  const std::uint8_t m = markerOf(ref, pos);
  if (m >> 4 != 0x5 && m >> 4 != 0x6) corrupt("dictionary key is not text");
  const std::uint64_t n = countOf(m & 0x0F, pos);
  return unitsEqual(pos, n, m >> 4 == 0x5 ? 1 : 2, key);
}

bool BinaryPropertyListReader::textEquals(std::uint64_t ref, std::string_view text) const {
  std::uint64_t pos = 0;
  const std::uint8_t m = markerOf(ref, pos);
  if (m >> 4 != 0x5 && m >> 4 != 0x6) return false;
  const std::uint64_t n = countOf(m & 0x0F, pos);
  return unitsEqual(pos, n, m >> 4 == 0x5 ? 1 : 2, text);
}

double BinaryPropertyListReader::realAt(std::uint8_t head, std::uint64_t pos) const {
  const std::uint8_t low = head & 0x0F;
  if (low == 2) return std::bit_cast<float>(static_cast<std::uint32_t>(be(need(pos, 4), 4)));
  if (low == 3) return std::bit_cast<double>(be(need(pos, 8), 8));
  corrupt("bad real size");
}

std::optional<bool> BinaryPropertyListReader::boolean(std::uint64_t ref) const {
  std::uint64_t pos = 0;
  const std::uint8_t m = markerOf(ref, pos);
  if (m == 0x08 || m == 0x09) return m == 0x09;
  return std::nullopt;
}

std::optional<std::int64_t> BinaryPropertyListReader::integer(std::uint64_t ref) const {
  std::uint64_t pos = 0;
  const std::uint8_t m = markerOf(ref, pos);
  if (m >> 4 != 0x1) return std::nullopt;
  if ((m & 0x0F) > 4) corrupt("bad integer size");
  const std::size_t n = std::size_t{1} << (m & 0x0F);
  const std::uint8_t* p = need(pos, n);
  if (n == 16) {
    // Of the 16-byte form, only values whose upper half is not zero are signed integers.
    if (be(p, 8) == 0) return std::nullopt;
    return static_cast<std::int64_t>(be(p + 8, 8));
  }
  return static_cast<std::int64_t>(be(p, n));
}

std::optional<double> BinaryPropertyListReader::real(std::uint64_t ref) const {
  std::uint64_t pos = 0;
  const std::uint8_t m = markerOf(ref, pos);
  if (m >> 4 != 0x2) return std::nullopt;
  return realAt(m, pos);
}

std::optional<Date> BinaryPropertyListReader::date(std::uint64_t ref) const {
  std::uint64_t pos = 0;
  const std::uint8_t m = markerOf(ref, pos);
  if (m >> 4 != 0x3) return std::nullopt;
  return Date::fromTimeIntervalSinceReferenceDate(realAt(m, pos));
}

std::optional<std::uint64_t> BinaryPropertyListReader::uid(std::uint64_t ref) const {
  std::uint64_t pos = 0;
  const std::uint8_t m = markerOf(ref, pos);
  if (m >> 4 != 0x8) return std::nullopt;
  const std::size_t n = (m & 0x0F) + 1u;
  if (n > 8) corrupt("bad reference size");
  return be(need(pos, n), n);
}

Value BinaryPropertyListReader::build(std::uint64_t ref) { return object(ref, 0); }

std::optional<std::uint64_t> BinaryPropertyListReader::find(std::uint64_t ref, std::string_view key) const {
  const auto entries = container(ref);
  if (!entries || entries->isArray) return std::nullopt;
  for (std::uint64_t i = 0; i < entries->count; ++i) {
    if (keyEquals(be(entries->refs + i * refSize_, refSize_), key)) {
      return be(entries->refs + (entries->count + i) * refSize_, refSize_);
    }
  }
  return std::nullopt;
}

std::optional<std::uint64_t> BinaryPropertyListReader::find(std::uint64_t ref, std::string_view key,
                                                            std::uint64_t& cursor) const {
  const auto entries = dictionary(ref);
  return entries ? find(*entries, key, cursor) : std::nullopt;
}

std::optional<BinaryPropertyListReader::Dictionary> BinaryPropertyListReader::dictionary(std::uint64_t ref) const {
  const auto entries = container(ref);
  if (!entries || entries->isArray) return std::nullopt;
  return Dictionary{entries->count, entries->refs};
}

std::optional<std::uint64_t> BinaryPropertyListReader::find(const Dictionary& entries, std::string_view key,
                                                            std::uint64_t& cursor) const {
  const std::uint64_t n = entries.count;
  std::uint64_t i = cursor < n ? cursor : 0;
  for (std::uint64_t k = 0; k < n; ++k, i = i + 1 < n ? i + 1 : 0) {
    if (keyEquals(be(entries.refs + i * refSize_, refSize_), key)) {
      cursor = i + 1;
      return be(entries.refs + (n + i) * refSize_, refSize_);
    }
  }
  return std::nullopt;
}

std::optional<std::uint64_t> BinaryPropertyListReader::valueAt(const Dictionary& entries, std::uint64_t index,
                                                               std::string_view key) const {
  if (index >= entries.count || !textEquals(be(entries.refs + index * refSize_, refSize_), key)) return std::nullopt;
  return be(entries.refs + (entries.count + index) * refSize_, refSize_);
}

std::optional<std::uint64_t> BinaryPropertyListReader::entryCount(std::uint64_t ref) const {
  const auto entries = container(ref);
  if (!entries || entries->isArray) return std::nullopt;
  return entries->count;
}

bool BinaryPropertyListReader::isDictionary(std::uint64_t ref) const {
  const auto entries = container(ref);
  return entries && !entries->isArray;
}

std::optional<std::span<const std::uint8_t>> BinaryPropertyListReader::bytes(std::uint64_t ref) const {
  std::uint64_t pos = offsetOf(ref);
  const std::uint8_t marker = *need(pos, 1);
  ++pos;
  if (marker >> 4 != 0x4) return std::nullopt;
  const std::uint64_t n = countOf(marker & 0x0F, pos);
  return std::span<const std::uint8_t>(need(pos, n), n);
}

std::optional<std::uint64_t> BinaryPropertyListReader::count(std::uint64_t ref) const {
  const auto elements = container(ref);
  if (!elements || !elements->isArray) return std::nullopt;
  return elements->count;
}

std::uint64_t BinaryPropertyListReader::element(std::uint64_t ref, std::uint64_t index) const {
  const auto elements = container(ref);
  if (!elements || !elements->isArray || index >= elements->count) corrupt("no such array element");
  return be(elements->refs + index * refSize_, refSize_);
}

void BinaryPropertyListReader::spendNode() {
  if (nodeBudget_ == 0) corrupt("property list has more objects than its size allows");
  --nodeBudget_;
}

void BinaryPropertyListReader::spendBytes(std::uint64_t n) {
  if (n > byteBudget_) corrupt("property list expands beyond its size");
  byteBudget_ -= n;
}

Value BinaryPropertyListReader::object(std::uint64_t ref, std::size_t depth) {
  if (depth > kMaxPropertyListDepth) corrupt("nesting too deep");
  spendNode();
  std::uint64_t pos = offsetOf(ref);
  const std::uint8_t marker = *need(pos, 1);
  ++pos;
  if (marker >> 4 == 0xA || marker >> 4 == 0xD) {
    const auto entries = container(ref);
    // Sized on the first container: building scalars alone needs no marks.
    if (inProgress_.empty()) inProgress_.assign(count_, false);
    if (inProgress_[ref]) corrupt("object graph has a cycle");
    inProgress_[ref] = true;
    const std::uint8_t* p = entries->refs;
    const std::uint64_t n = entries->count;
    Value out;
    if (entries->isArray) {
      Value::Array items;
      items.reserve(n);
      for (std::uint64_t i = 0; i < n; ++i) items.push_back(object(be(p + i * refSize_, refSize_), depth + 1));
      out = std::move(items);
    } else {
      Value::Dictionary fields;
      fields.reserve(n);
      for (std::uint64_t i = 0; i < n; ++i) {
        Value key = object(be(p + i * refSize_, refSize_), depth + 1);
        std::string* k = key.ifString();
        if (!k) corrupt("dictionary key is not text");
        fields.emplace_back(std::move(*k), object(be(p + (n + i) * refSize_, refSize_), depth + 1));
      }
      out = std::move(fields);
    }
    inProgress_[ref] = false;
    return out;
  }
  const std::uint8_t low = marker & 0x0F;
  switch (marker >> 4) {
    case 0x0:
      if (marker == 0x08) return false;
      if (marker == 0x09) return true;
      if (marker == 0x00) return Value();
      corrupt("unknown object marker");
    case 0x1: {
      if (low > 4) corrupt("bad integer size");
      const std::size_t n = std::size_t{1} << low;
      const std::uint8_t* p = need(pos, n);
      if (n == 16) {
        // Values beyond the signed range, their upper half zero; of others the low 64 bits.
        const std::uint64_t lower = be(p + 8, 8);
        if (be(p, 8) == 0) return lower;
        return static_cast<std::int64_t>(lower);
      }
      return static_cast<std::int64_t>(be(p, n));
    }
    case 0x2:
    case 0x3: {
      const double d = realAt(marker, pos);
      if (marker >> 4 == 0x3) return Date::fromTimeIntervalSinceReferenceDate(d);
      return d;
    }
    case 0x4: {
      const std::uint64_t n = countOf(low, pos);
      const std::uint8_t* p = need(pos, n);
      spendBytes(n);
      return Data(p, n);
    }
    case 0x5: {
      const std::uint64_t n = countOf(low, pos);
      const std::uint8_t* p = need(pos, n);
      std::string s;
      if (std::all_of(p, p + n, [](std::uint8_t c) { return c < 0x80; })) {
        // Plain ASCII, as keys and class names are: the same bytes in UTF-8.
        s.assign(reinterpret_cast<const char*>(p), n);
      } else {
        s.reserve(n);
        for (std::uint64_t i = 0; i < n; ++i) appendUtf8(s, p[i]);  // bytes above 0x7F read as Latin-1
      }
      spendBytes(s.size());
      return s;
    }
    case 0x6: {
      const std::uint64_t n = countOf(low, pos);
      if (n > tableOffset_) corrupt("string runs past its area");
      const std::uint8_t* p = need(pos, n * 2);
      std::string s;
      s.reserve(n);
      for (std::uint64_t i = 0; i < n; ++i) {
        std::uint32_t u = static_cast<std::uint32_t>(be(p + 2 * i, 2));
        if (u >= 0xD800 && u <= 0xDBFF && i + 1 < n) {
          const auto lo = static_cast<std::uint32_t>(be(p + 2 * i + 2, 2));
          if (lo >= 0xDC00 && lo <= 0xDFFF) {
            u = 0x10000 + ((u - 0xD800) << 10) + (lo - 0xDC00);
            ++i;
          }
        }
        if (u >= 0xD800 && u <= 0xDFFF) u = 0xFFFD;
        appendUtf8(s, u);
      }
      spendBytes(s.size());
      return s;
    }
    case 0x8: {
      const std::size_t n = low + 1u;
      if (n > 8) corrupt("bad reference size");
      const std::uint64_t u = be(need(pos, n), n);
      return Uid{u};
    }
    default:
      corrupt("unknown object marker");
  }
}

Value readBinaryPropertyList(std::span<const std::uint8_t> bytes) {
  BinaryPropertyListReader reader(bytes);
  return reader.build(reader.top());
}

}  // namespace kp::coding_detail
