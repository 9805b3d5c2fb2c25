// Content info: derived expiry, the content headers, and the coded and archived forms.
#include "kp/service/tarvix_service_content_info.h"

#include <charconv>
#include <cmath>
#include <limits>

#include "request/header_text.h"

namespace kp {
namespace {

const ArchiveRegistration<TarvixServiceContentInfo> registration{
    std::string(TarvixServiceContentInfo::kArchiveClassName)};

// A leading "+" is allowed where the number itself may not carry one (from_chars refuses it),
// but not before another sign.
std::string_view withoutPlus(std::string_view text) {
  if (text.size() > 1 && text.front() == '+' && text[1] != '-' && text[1] != '+') text.remove_prefix(1);
  return text;
}

std::optional<std::int64_t> parseInteger(std::string_view text) {
  text = withoutPlus(text);
  std::int64_t value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
  return value;
}

// Infinity and NaN are refused: neither is a time a cache could act on.
std::optional<double> parseSeconds(std::string_view text) {
  text = withoutPlus(text);
  double value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || text.empty() || !std::isfinite(value)) {
    return std::nullopt;
  }
  return value;
}

const std::string* header(const std::map<std::string, std::string>& fields, std::string_view name) {
  if (auto it = fields.find(std::string(name)); it != fields.end()) return &it->second;
  if (auto it = fields.find(internal::asciiLowercased(name)); it != fields.end()) return &it->second;
  return nullptr;
}

// A number object of an archive as an integer: integers, and reals with an integral value.
std::optional<std::int64_t> archivedInteger(const ArchiveValue& value) {
  if (const auto* integer = value.get<std::int64_t>()) return *integer;
  if (const auto* real = value.get<double>()) {
    if (std::isfinite(*real) && std::trunc(*real) == *real && std::fabs(*real) < 9.2e18) {
      return static_cast<std::int64_t>(*real);
    }
  }
  return std::nullopt;
}

std::optional<double> archivedReal(const ArchiveValue& value) {
  if (const auto* real = value.get<double>()) {
    if (std::isfinite(*real)) return *real;
    return std::nullopt;
  }
  if (const auto* integer = value.get<std::int64_t>()) return static_cast<double>(*integer);
  return std::nullopt;
}

}  // namespace

std::optional<Date> TarvixServiceContentInfo::remoteExpiresAt() const {
  if (!remoteCreatedAt || !expiryInterval) return std::nullopt;
  return remoteCreatedAt->addingTimeInterval(*expiryInterval);
}

std::optional<Date> TarvixServiceContentInfo::localExpiresAt() const {
  if (!expiryInterval) return std::nullopt;
  return localCreatedAt.addingTimeInterval(*expiryInterval);
}

bool TarvixServiceContentInfo::isRemoteExpired(Date now) const {
  const auto expiry = remoteExpiresAt();
  return expiry && now > *expiry;
}

bool TarvixServiceContentInfo::isLocalExpired(Date now) const {
  const auto expiry = localExpiresAt();
  return expiry && now > *expiry;
}

void TarvixServiceContentInfo::applyContentHeaders(const std::map<std::string, std::string>& headerFields) {
  if (const auto* text = header(headerFields, kTarvixContentFormatHeader)) {
    if (auto value = parseInteger(*text)) formatVersion = value;
  }
  if (const auto* text = header(headerFields, kTarvixContentMaxAgeHeader)) {
    if (auto value = parseSeconds(*text)) expiryInterval = value;
  }
  if (const auto* text = header(headerFields, kTarvixContentCreatedHeader)) {
    if (auto value = parseSeconds(*text)) remoteCreatedAt = Date::fromTimeIntervalSince1970(*value);
  }
}

void TarvixServiceContentInfo::encode(Encoder& encoder) const {
  auto keyed = encoder.keyed();
  keyed.encode(kFormatVersionKey, formatVersion);
  keyed.encode(kExpiryIntervalKey, expiryInterval);
  keyed.encode(kCreatedTimestampKey, remoteCreatedAt);
  keyed.encode(kLocalCreatedAtKey, localCreatedAt);
}

TarvixServiceContentInfo TarvixServiceContentInfo::decode(const Decoder& decoder) {
  const auto keyed = decoder.keyed();
  TarvixServiceContentInfo info;
  info.formatVersion = keyed.decode<std::optional<std::int64_t>>(kFormatVersionKey);
  info.expiryInterval = keyed.decode<std::optional<double>>(kExpiryIntervalKey);
  info.remoteCreatedAt = keyed.decode<std::optional<Date>>(kCreatedTimestampKey);
  if (auto local = keyed.decode<std::optional<Date>>(kLocalCreatedAtKey)) info.localCreatedAt = *local;
  return info;
}

void TarvixServiceContentInfo::encode(ArchiveEncoder& coder) const {
  coder.encodeInt64(kArchiveKeyVersion, kArchiveVersion);
  coder.encodeObject(kArchiveKeyFormatVersion, formatVersion ? ArchiveValue(*formatVersion) : ArchiveValue());
  coder.encodeObject(kArchiveKeyExpiryInterval, expiryInterval ? ArchiveValue(*expiryInterval) : ArchiveValue());
  if (remoteCreatedAt) coder.encodeObject(kArchiveKeyRemoteCreatedAt, ArchiveValue(*remoteCreatedAt));
  coder.encodeObject(kArchiveKeyLocalCreatedAt, ArchiveValue(localCreatedAt));
}

std::shared_ptr<TarvixServiceContentInfo> TarvixServiceContentInfo::decode(ArchiveDecoder& coder) {
  auto info = std::make_shared<TarvixServiceContentInfo>();
  if (auto value = coder.decodeObject(kArchiveKeyFormatVersion)) {
    info->formatVersion = archivedInteger(*value);
    if (!info->formatVersion) coder.fail("the format version is not an integer");
  }
  if (auto value = coder.decodeObject(kArchiveKeyExpiryInterval)) {
    info->expiryInterval = archivedReal(*value);
    if (!info->expiryInterval) coder.fail("the expiry interval is not a finite number");
  }
  if (auto value = coder.decodeObject(kArchiveKeyRemoteCreatedAt)) {
    const auto* date = value->get<Date>();
    if (!date) coder.fail("the remote creation time is not a date");
    info->remoteCreatedAt = *date;
  }
  if (auto value = coder.decodeObject(kArchiveKeyLocalCreatedAt)) {
    const auto* date = value->get<Date>();
    if (!date) coder.fail("the local creation time is not a date");
    info->localCreatedAt = *date;
  }
  return info;
}

bool TarvixServiceContentInfo::isEqual(const Archivable& other) const {
  const auto* info = dynamic_cast<const TarvixServiceContentInfo*>(&other);
  return info != nullptr && *info == *this;
}

}  // namespace kp
