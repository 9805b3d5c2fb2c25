// Property lists in both formats: binary ones through our own reader and writer
// (coding/binary_property_list.h), XML through libplist, with the nesting checked before it
// parses, since libplist recurses.
#include "kp/coding/property_list.h"

#include <plist/plist.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "coding/binary_property_list.h"
#include "platform/utf8.h"
#include "tarvix/assertion_coordinator.h"

namespace kp {

namespace {

using Kind = CodingError::Kind;
using coding_detail::propertyListCorrupted;

// ---- XML through libplist ----

struct PlistFree {
  void operator()(plist_t p) const { plist_free(p); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

// libplist keeps one 64-bit integer kind and tells negative values from those above INT64_MAX
// only by a width it sets when it parses; its API can neither set nor read that width. So such
// a node is made by parsing its text, and told apart by the text libplist writes for it.
plist_t unsignedNode(std::uint64_t u) {
  const std::string xml = "<plist><integer>" + std::to_string(u) + "</integer></plist>";
  plist_t node = nullptr;
  plist_from_xml(xml.data(), static_cast<std::uint32_t>(xml.size()), &node);
  return node ? node : plist_new_uint(u);
}

bool isNegative(plist_t node) {
  PlistPtr holder(plist_new_array());
  plist_array_append_item(holder.get(), plist_copy(node));
  char* xml = nullptr;
  std::uint32_t length = 0;
  plist_to_xml(holder.get(), &xml, &length);
  if (!xml) return true;
  const bool negative = std::string_view(xml, length).find("<integer>-") != std::string_view::npos;
  plist_to_xml_free(xml);
  return negative;
}

plist_t toPlist(const Value& v) {
  switch (v.type()) {
    case Value::Type::null:
      return plist_new_string("$null");
    case Value::Type::boolean:
      return plist_new_bool(*v.ifBoolean() ? 1 : 0);
    case Value::Type::integer:
      return plist_new_uint(static_cast<std::uint64_t>(*v.ifInteger()));
    case Value::Type::unsignedInteger:
      return unsignedNode(*v.ifUnsignedInteger());
    case Value::Type::real:
      return plist_new_real(*v.ifReal());
    case Value::Type::string: {
      if (!internal::isValidUtf8(*v.ifString())) throw CodingError(Kind::invalidValue, {}, "text is not valid UTF-8");
      return plist_new_string(v.ifString()->c_str());
    }
    case Value::Type::data: {
      const Data& d = *v.ifData();
      return plist_new_data(reinterpret_cast<const char*>(d.data()), d.size());
    }
    case Value::Type::date: {
      const double t = v.ifDate()->timeIntervalSinceReferenceDate();
      const double sec = std::floor(t);
      return plist_new_date(static_cast<std::int32_t>(sec), static_cast<std::int32_t>(std::lround((t - sec) * 1e6)));
    }
    case Value::Type::uid:
      return plist_new_uid(v.ifUid()->value);
    case Value::Type::array: {
      PlistPtr a(plist_new_array());
      for (const Value& e : *v.ifArray()) plist_array_append_item(a.get(), toPlist(e));
      return a.release();
    }
    case Value::Type::dictionary: {
      PlistPtr d(plist_new_dict());
      for (const auto& [k, e] : *v.ifDictionary()) plist_dict_set_item(d.get(), k.c_str(), toPlist(e));
      return d.release();
    }
  }
  return plist_new_string("$null");
}

Value fromPlist(plist_t p, std::size_t depth) {
  if (depth > kMaxPropertyListDepth) propertyListCorrupted("nesting too deep");
  switch (plist_get_node_type(p)) {
    case PLIST_BOOLEAN: {
      std::uint8_t b = 0;
      plist_get_bool_val(p, &b);
      return b != 0;
    }
    case PLIST_UINT: {
      std::uint64_t u = 0;
      plist_get_uint_val(p, &u);
      if (u <= static_cast<std::uint64_t>(INT64_MAX) || isNegative(p)) return static_cast<std::int64_t>(u);
      return u;
    }
    case PLIST_REAL: {
      double d = 0;
      plist_get_real_val(p, &d);
      return d;
    }
    case PLIST_STRING:
    case PLIST_KEY: {
      std::uint64_t n = 0;
      const char* s = plist_get_string_ptr(p, &n);
      return std::string(s ? s : "", s ? n : 0);
    }
    case PLIST_DATA: {
      std::uint64_t n = 0;
      const char* d = plist_get_data_ptr(p, &n);
      return Data(d, d ? n : 0);
    }
    case PLIST_DATE: {
      std::int32_t sec = 0, usec = 0;
      plist_get_date_val(p, &sec, &usec);
      return Date::fromTimeIntervalSinceReferenceDate(sec + usec / 1e6);
    }
    case PLIST_UID: {
      std::uint64_t u = 0;
      plist_get_uid_val(p, &u);
      return Uid{u};
    }
    case PLIST_ARRAY: {
      Value::Array items;
      const std::uint32_t n = plist_array_get_size(p);
      items.reserve(n);
      for (std::uint32_t i = 0; i < n; ++i) items.push_back(fromPlist(plist_array_get_item(p, i), depth + 1));
      return items;
    }
    case PLIST_DICT: {
      Value::Dictionary entries;
      plist_dict_iter it = nullptr;
      plist_dict_new_iter(p, &it);
      for (;;) {
        char* key = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(p, it, &key, &item);
        if (!item) {
          std::free(key);
          break;
        }
        std::string k(key ? key : "");
        std::free(key);
        entries.emplace_back(std::move(k), fromPlist(item, depth + 1));
      }
      std::free(it);
      // XML has no element for an object reference; archives write one as a dictionary whose only
      // key is "CF$UID", and a reader takes it back as the reference (libplist keeps the dictionary).
      if (entries.size() == 1 && entries.front().first == "CF$UID") {
        const Value& index = entries.front().second;
        if (const auto* u = index.ifUnsignedInteger()) return Uid{*u};
        if (const auto* i = index.ifInteger(); i && *i >= 0) return Uid{static_cast<std::uint64_t>(*i)};
      }
      return entries;
    }
    default:
      propertyListCorrupted("unsupported property-list node");
  }
}

// Rejects XML whose array/dict nesting exceeds the limit before libplist (which recurses) sees it.
void checkXmlNesting(std::string_view xml) {
  std::size_t depth = 0;
  for (std::size_t i = xml.find('<'); i != std::string_view::npos; i = xml.find('<', i + 1)) {
    const std::string_view rest = xml.substr(i + 1);
    const std::size_t close = rest.find('>');
    if (close == std::string_view::npos) return;
    const bool selfClosing = close > 0 && rest[close - 1] == '/';
    if (rest.starts_with("/array") || rest.starts_with("/dict")) {
      if (depth > 0) --depth;
    } else if ((rest.starts_with("array") || rest.starts_with("dict")) && !selfClosing) {
      if (++depth > kMaxPropertyListDepth) propertyListCorrupted("nesting too deep");
    }
  }
}

}  // namespace

Data writePropertyList(const Value& value, PropertyListFormat format) {
  if (format == PropertyListFormat::binary) return coding_detail::writeBinaryPropertyList(value);
  PlistPtr root(toPlist(value));
  char* xml = nullptr;
  std::uint32_t length = 0;
  plist_to_xml(root.get(), &xml, &length);
  if (!xml) throw CodingError(Kind::invalidValue, {}, "could not write XML property list");
  Data out(xml, length);
  plist_to_xml_free(xml);
  return out;
}

Value readPropertyList(std::span<const std::uint8_t> bytes, PropertyListFormat* format) {
  if (coding_detail::isBinaryPropertyList(bytes)) {
    if (format) *format = PropertyListFormat::binary;
    return coding_detail::readBinaryPropertyList(bytes);
  }
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  if (text.find("<plist") == std::string_view::npos || bytes.size() > 0xFFFFFFFFu) {
    propertyListCorrupted("not a property list");
  }
  checkXmlNesting(text);
  plist_t raw = nullptr;
  plist_from_xml(text.data(), static_cast<std::uint32_t>(text.size()), &raw);
  if (!raw) propertyListCorrupted("malformed XML property list");
  PlistPtr root(raw);
  if (format) *format = PropertyListFormat::xml;
  return fromPlist(root.get(), 0);
}

namespace coding_detail {

void reportEncodingFailure(const std::exception& error) {
  tarvix::AssertionCoordinator::assertionFailure(std::string("Failed to encode: ") + error.what(), __FILE__, __LINE__);
}

ErrorPtr toError(const std::exception& error) {
  if (const auto* coding = dynamic_cast<const CodingError*>(&error)) return coding->toError();
  return Error::make(std::string(CodingError::kDomain), -1, std::string(error.what()));
}

}  // namespace coding_detail

}  // namespace kp
