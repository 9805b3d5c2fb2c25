// kp::TarvixServiceContentInfo: how fresh a service answer is. The server declares the
// payload's format version, how long the content stays valid and when it made the content;
// the record adds when the device received it. Callers judge staleness by the device clock
// (isLocalExpired) or by the server's (isRemoteExpired).
//
// The server sends these facts in the content headers "Tarvix-Content-Format" (a decimal
// integer), "Tarvix-Content-Max-Age" (seconds) and "Tarvix-Content-Created" (seconds since
// 1970), and in the envelope under "meta" / "contentInfo". applyContentHeaders() reads the
// headers; each is looked up in exactly that spelling, then in lower case (as HTTP/2 sends
// it). A header that is absent, empty or not a finite number leaves its field as it was.
//
// The record is archived as "KPTarvixServiceContentInfo" ("version" 1, "formatVersionObjC",
// "expiryIntervalObjC", "remoteCreatedAt" when known, "localCreatedAt"), so that cached
// results keep it, and codes with the keys "formatVersion", "expiryInterval",
// "createdTimestamp" and "localCreatedAt" (dates as the coder's date strategy says; every key
// may be missing, a missing local time is the decoding moment).
//
// Thread safety: a plain value; not locked.
//
// Example:
//   kp::TarvixServiceContentInfo info;              // localCreatedAt = now
//   info.applyContentHeaders(*result->response);   // Tarvix-Content-Max-Age: 3600 ...
//   if (info.isLocalExpired()) reload();
//   std::optional<kp::Date> due = info.remoteExpiresAt();
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kp/coding/coding.h"
#include "kp/coding/keyed_archiver.h"
#include "kp/platform/date.h"
#include "kp/platform/export.h"
#include "kp/request/http_response.h"

namespace kp {

// The content headers, in the spelling servers send over HTTP/1.1.
inline constexpr std::string_view kTarvixContentFormatHeader = "Tarvix-Content-Format";
inline constexpr std::string_view kTarvixContentMaxAgeHeader =
    "Tarvix-Content-Max-Age";  // see kTarvixContentFormatHeader
inline constexpr std::string_view kTarvixContentCreatedHeader =
    "Tarvix-Content-Created";  // see kTarvixContentFormatHeader

class KP_EXPORT TarvixServiceContentInfo final : public Archivable {
 public:
  static constexpr std::string_view kArchiveClassName = "KPTarvixServiceContentInfo";  // the archived class
  static constexpr std::int64_t kArchiveVersion = 1;  // the "version" the archived form carries
  // Keys of the archived form.
  static constexpr std::string_view kArchiveKeyVersion = "version";
  static constexpr std::string_view kArchiveKeyFormatVersion = "formatVersionObjC";    // see kArchiveKeyVersion
  static constexpr std::string_view kArchiveKeyExpiryInterval = "expiryIntervalObjC";  // see kArchiveKeyVersion
  static constexpr std::string_view kArchiveKeyRemoteCreatedAt = "remoteCreatedAt";    // see kArchiveKeyVersion
  static constexpr std::string_view kArchiveKeyLocalCreatedAt = "localCreatedAt";      // see kArchiveKeyVersion
  // Keys of the coded form (and of "meta" / "contentInfo" in the envelope).
  static constexpr std::string_view kFormatVersionKey = "formatVersion";
  static constexpr std::string_view kExpiryIntervalKey = "expiryInterval";      // see kFormatVersionKey
  static constexpr std::string_view kCreatedTimestampKey = "createdTimestamp";  // see kFormatVersionKey
  static constexpr std::string_view kLocalCreatedAtKey = "localCreatedAt";      // see kFormatVersionKey
  // The archived form may be read back with the class checked (secure coding).
  static constexpr bool supportsSecureCoding = true;

  // Made now, with nothing known about the content.
  TarvixServiceContentInfo() = default;

  std::optional<std::int64_t> formatVersion;   // the payload's format version, as the server says
  std::optional<TimeInterval> expiryInterval;  // seconds the content stays valid
  std::optional<Date> remoteCreatedAt;         // when the server made the content
  Date localCreatedAt = Date::now();           // when the device received it

  // remoteCreatedAt + expiryInterval, when both are known.
  [[nodiscard]] std::optional<Date> remoteExpiresAt() const;
  // localCreatedAt + expiryInterval, when the interval is known.
  [[nodiscard]] std::optional<Date> localExpiresAt() const;
  // True exactly when the expiry is known and `now` is later; an open-ended record never
  // expires.
  [[nodiscard]] bool isRemoteExpired(Date now = Date::now()) const;
  // The same by localExpiresAt().
  [[nodiscard]] bool isLocalExpired(Date now = Date::now()) const;

  // Sets the fields whose content header is present and parses; the headers are looked up in
  // their exact spelling first, then in lower case.
  void applyContentHeaders(const std::map<std::string, std::string>& headerFields);
  // The same, from the response's header fields.
  void applyContentHeaders(const HttpResponseType& response) { applyContentHeaders(response.headerFields()); }

  // The coded form (see the file comment).
  void encode(Encoder& encoder) const;
  // Reads back the coded form; every key may be missing.
  [[nodiscard]] static TarvixServiceContentInfo decode(const Decoder& decoder);

  // The archived form (see the file comment).
  [[nodiscard]] std::string archiveClassName() const override { return std::string(kArchiveClassName); }
  // Writes the archived form.
  void encode(ArchiveEncoder& coder) const override;
  // Reads back the archived form.
  [[nodiscard]] static std::shared_ptr<TarvixServiceContentInfo> decode(ArchiveDecoder& coder);
  // Equal fields.
  [[nodiscard]] bool isEqual(const Archivable& other) const override;

  // Equal fields.
  friend bool operator==(const TarvixServiceContentInfo& a, const TarvixServiceContentInfo& b) {
    return a.formatVersion == b.formatVersion && a.expiryInterval == b.expiryInterval &&
           a.remoteCreatedAt == b.remoteCreatedAt && a.localCreatedAt == b.localCreatedAt;
  }
};

}  // namespace kp
