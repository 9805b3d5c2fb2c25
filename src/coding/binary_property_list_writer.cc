// The binary property-list writer (the reader and the bounds it keeps are in
// binary_property_list.cc, whose top says how the writer's sharing of equal text stays within
// them).
// Internal; not installed. Thread safety: each call works on its own state.
#include <bit>
#include <string>
#include <unordered_map>
#include <vector>

#include "coding/binary_property_list.h"

namespace kp::coding_detail {
namespace {

using Kind = CodingError::Kind;

// ---- UTF-8 to UTF-16 ----

bool isAscii(std::string_view s) {
  for (const char c : s) {
    if (static_cast<unsigned char>(c) >= 0x80) return false;
  }
  return true;
}

// UTF-8 to UTF-16 code units; nothing for text that is not UTF-8.
bool toUtf16(std::string_view s, std::vector<std::uint16_t>& out) {
  out.clear();
  for (std::size_t i = 0; i < s.size();) {
    const auto c = static_cast<unsigned char>(s[i]);
    std::uint32_t cp;
    std::size_t n;
    if (c < 0x80) {
      cp = c, n = 1;
    } else if ((c & 0xE0) == 0xC0) {
      cp = c & 0x1F, n = 2;
    } else if ((c & 0xF0) == 0xE0) {
      cp = c & 0x0F, n = 3;
    } else if ((c & 0xF8) == 0xF0) {
      cp = c & 0x07, n = 4;
    } else {
      return false;
    }
    if (i + n > s.size()) return false;
    for (std::size_t k = 1; k < n; ++k) {
      const auto cc = static_cast<unsigned char>(s[i + k]);
      if ((cc & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (cc & 0x3F);
    }
    static constexpr std::uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kMin[n] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out.push_back(static_cast<std::uint16_t>(0xD800 + (cp >> 10)));
      out.push_back(static_cast<std::uint16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
      out.push_back(static_cast<std::uint16_t>(cp));
    }
    i += n;
  }
  return true;
}

// ---- Binary writer ----

class BinaryWriter {
 public:
  Data write(const Value& root) {
    // Pass 1: number every object (equal strings share one object).
    collect(root, 0);
    const std::size_t count = objects_.size();
    refSize_ = count < 0x100 ? 1 : count < 0x10000 ? 2 : 4;
    // Pass 2: write the objects, then the offset table and the trailer.
    out_.append("bplist00", 8);
    std::vector<std::uint64_t> offsets(count);
    for (std::size_t i = 0; i < count; ++i) {
      offsets[i] = out_.size();
      writeObject(objects_[i]);
    }
    const std::uint64_t tableOffset = out_.size();
    const std::size_t offsetSize = tableOffset < 0x100         ? 1
                                   : tableOffset < 0x10000     ? 2
                                   : tableOffset < 0x100000000 ? 4
                                                               : 8;
    for (const std::uint64_t o : offsets) writeBE(o, offsetSize);
    std::uint8_t trailer[32] = {};
    trailer[6] = static_cast<std::uint8_t>(offsetSize);
    trailer[7] = static_cast<std::uint8_t>(refSize_);
    putBE(trailer + 8, count, 8);
    putBE(trailer + 16, 0, 8);
    putBE(trailer + 24, tableOffset, 8);
    out_.append(trailer, sizeof trailer);
    return std::move(out_);
  }

 private:
  struct Object {
    const Value* value;          // null for a dictionary key
    const std::string* keyText;  // the key, when value is null
    std::uint32_t firstChild;    // index into children_
    std::uint32_t childCount;
  };

  std::uint32_t collect(const Value& v, std::size_t depth) {
    if (depth > kMaxPropertyListDepth) throw CodingError(Kind::invalidValue, {}, "nesting too deep to encode");
    ++references_;
    if (const std::string* s = v.ifString()) return stringObject(s, &v);
    const auto index = static_cast<std::uint32_t>(objects_.size());
    objects_.push_back({&v, nullptr, 0, 0});
    if (const Value::Array* a = v.ifArray()) {
      std::vector<std::uint32_t> refs;
      refs.reserve(a->size());
      for (const Value& e : *a) refs.push_back(collect(e, depth + 1));
      setChildren(index, refs);
    } else if (const Value::Dictionary* d = v.ifDictionary()) {
      std::vector<std::uint32_t> refs(d->size() * 2);
      for (std::size_t i = 0; i < d->size(); ++i) {
        ++references_;
        refs[i] = stringObject(&(*d)[i].first, nullptr);
        refs[d->size() + i] = collect((*d)[i].second, depth + 1);
      }
      setChildren(index, refs);
    }
    return index;
  }

  void setChildren(std::uint32_t index, const std::vector<std::uint32_t>& refs) {
    objects_[index].firstChild = static_cast<std::uint32_t>(children_.size());
    objects_[index].childCount = static_cast<std::uint32_t>(refs.size());
    children_.insert(children_.end(), refs.begin(), refs.end());
  }

  // Equal text is written once and referenced again, while the reader's rebuilding of the
  // repeats stays within its allowance; beyond it, the text is written again.
  std::uint32_t stringObject(const std::string* text, const Value* value) {
    const auto index = static_cast<std::uint32_t>(objects_.size());
    auto [it, inserted] = strings_.try_emplace(*text, index);
    if (!inserted) {
      const std::uint64_t allowance = kRepeatAllowance + 14 * references_;
      if (repeated_ + text->size() <= allowance) {
        repeated_ += text->size();
        return it->second;
      }
      it->second = index;
    }
    objects_.push_back({value, text, 0, 0});
    return index;
  }

  static void putBE(std::uint8_t* p, std::uint64_t v, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) p[i] = static_cast<std::uint8_t>(v >> (8 * (n - 1 - i)));
  }
  void writeBE(std::uint64_t v, std::size_t n) {
    std::uint8_t buf[8];
    putBE(buf, v, n);
    out_.append(buf, n);
  }
  // Beyond the signed range an integer takes 16 bytes, the upper 8 zero, as the platform
  // writes such values.
  void writeUnsigned(std::uint64_t u) {
    out_.push_back(0x14);
    writeBE(0, 8);
    writeBE(u, 8);
  }
  void writeInt(std::int64_t i) {
    if (i >= 0 && i < 0x100) {
      out_.push_back(0x10), writeBE(static_cast<std::uint64_t>(i), 1);
    } else if (i >= 0 && i < 0x10000) {
      out_.push_back(0x11), writeBE(static_cast<std::uint64_t>(i), 2);
    } else if (i >= 0 && i < 0x100000000) {
      out_.push_back(0x12), writeBE(static_cast<std::uint64_t>(i), 4);
    } else {
      out_.push_back(0x13), writeBE(static_cast<std::uint64_t>(i), 8);
    }
  }
  void writeHeader(std::uint8_t kind, std::size_t count) {
    if (count < 15) {
      out_.push_back(static_cast<std::uint8_t>(kind | count));
    } else {
      out_.push_back(static_cast<std::uint8_t>(kind | 0x0F));
      writeInt(static_cast<std::int64_t>(count));
    }
  }
  void writeReal(std::uint8_t marker, double d) {
    out_.push_back(marker);
    writeBE(std::bit_cast<std::uint64_t>(d), 8);
  }
  void writeString(const std::string& s) {
    if (isAscii(s)) {
      writeHeader(0x50, s.size());
      out_.append(s);
      return;
    }
    if (!toUtf16(s, utf16_)) throw CodingError(Kind::invalidValue, {}, "text is not valid UTF-8");
    writeHeader(0x60, utf16_.size());
    for (const std::uint16_t u : utf16_) writeBE(u, 2);
  }

  void writeObject(const Object& o) {
    if (o.keyText) return writeString(*o.keyText);
    const Value& v = *o.value;
    switch (v.type()) {
      case Value::Type::null:
        return writeString("$null");
      case Value::Type::boolean:
        return out_.push_back(*v.ifBoolean() ? 0x09 : 0x08);
      case Value::Type::integer:
        return writeInt(*v.ifInteger());
      case Value::Type::unsignedInteger:
        return writeUnsigned(*v.ifUnsignedInteger());
      case Value::Type::real:
        return writeReal(0x23, *v.ifReal());
      case Value::Type::date:
        return writeReal(0x33, v.ifDate()->timeIntervalSinceReferenceDate());
      case Value::Type::string:
        return writeString(*v.ifString());
      case Value::Type::data:
        writeHeader(0x40, v.ifData()->size());
        out_.append(*v.ifData());
        return;
      case Value::Type::uid: {
        const std::uint64_t u = v.ifUid()->value;
        const std::size_t n = u < 0x100 ? 1 : u < 0x10000 ? 2 : u < 0x100000000 ? 4 : 8;
        out_.push_back(static_cast<std::uint8_t>(0x80 | (n - 1)));
        return writeBE(u, n);
      }
      case Value::Type::array:
      case Value::Type::dictionary: {
        const bool isArray = v.type() == Value::Type::array;
        writeHeader(isArray ? 0xA0 : 0xD0, isArray ? o.childCount : o.childCount / 2);
        for (std::uint32_t i = 0; i < o.childCount; ++i) writeBE(children_[o.firstChild + i], refSize_);
        return;
      }
    }
  }

  std::vector<Object> objects_;
  std::vector<std::uint32_t> children_;
  std::unordered_map<std::string_view, std::uint32_t> strings_;
  std::vector<std::uint16_t> utf16_;
  std::uint64_t references_ = 0;  // every reference so far: one byte of the file at least
  std::uint64_t repeated_ = 0;    // bytes of text the reader builds again for shared strings
  std::size_t refSize_ = 1;
  Data out_;
};
}  // namespace

Data writeBinaryPropertyList(const Value& root) { return BinaryWriter().write(root); }

}  // namespace kp::coding_detail
