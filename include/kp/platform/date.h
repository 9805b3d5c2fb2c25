// kp::Date: a point in time with sub-second precision, stored as seconds since
// 1970-01-01T00:00:00Z (the platform's date value). TimeInterval is a span in seconds.
//
// Thread safety: a value type; safe to copy between threads.
//
// Example:
//   kp::Date expiry = kp::Date::now().addingTimeInterval(3600);
//   if (kp::Date::now() > expiry) { ... }
//   std::string text = expiry.iso8601();   // "2026-11-23T10:00:00Z"
#pragma once

#include <chrono>
#include <compare>
#include <optional>
#include <string>
#include <string_view>

#include "kp/platform/export.h"

namespace kp {

// A span of time in seconds.
using TimeInterval = double;

// A point in time (see the top of this file).
class KP_EXPORT Date {
 public:
  // Seconds between 1970-01-01 and the reference date 2001-01-01 (both UTC).
  static constexpr TimeInterval kTimeIntervalBetween1970AndReferenceDate = 978307200.0;

  constexpr Date() = default;  // 1970-01-01T00:00:00Z
  // The system clock's time now.
  [[nodiscard]] static Date now();
  // `seconds` after 1970-01-01T00:00:00Z.
  [[nodiscard]] static constexpr Date fromTimeIntervalSince1970(TimeInterval seconds) { return Date(seconds); }
  // `seconds` after the reference date 2001-01-01T00:00:00Z.
  [[nodiscard]] static constexpr Date fromTimeIntervalSinceReferenceDate(TimeInterval seconds) {
    return Date(seconds + kTimeIntervalBetween1970AndReferenceDate);
  }
  // The same point as `point`.
  [[nodiscard]] static Date fromTimePoint(std::chrono::system_clock::time_point point);
  // The platform's distant past, 0001-01-01 in the Julian calendar: earlier than any date met.
  [[nodiscard]] static constexpr Date distantPast() { return Date(-62135769600.0); }
  // The platform's distant future, 4001-01-01T00:00:00Z: later than any date met.
  [[nodiscard]] static constexpr Date distantFuture() { return Date(64092211200.0); }

  // Seconds since 1970-01-01T00:00:00Z; negative before it.
  [[nodiscard]] constexpr TimeInterval timeIntervalSince1970() const { return seconds_; }
  // Seconds since the reference date 2001-01-01T00:00:00Z; negative before it.
  [[nodiscard]] constexpr TimeInterval timeIntervalSinceReferenceDate() const {
    return seconds_ - kTimeIntervalBetween1970AndReferenceDate;
  }
  // Seconds from `other` to this date; negative when `other` is later.
  [[nodiscard]] constexpr TimeInterval timeIntervalSince(Date other) const { return seconds_ - other.seconds_; }
  // Seconds from now to this date; negative for a past date.
  [[nodiscard]] TimeInterval timeIntervalSinceNow() const { return seconds_ - now().seconds_; }
  // The date `seconds` later (earlier when negative).
  [[nodiscard]] constexpr Date addingTimeInterval(TimeInterval seconds) const { return Date(seconds_ + seconds); }
  // The same point as a system-clock time point.
  [[nodiscard]] std::chrono::system_clock::time_point timePoint() const;

  // "yyyy-MM-dd'T'HH:mm:ss'Z'" in UTC, with ".SSS" milliseconds when `fractional`.
  [[nodiscard]] std::string iso8601(bool fractional = false) const;
  // Reads the forms iso8601() writes, and offsets such as "+02:00"; nothing for other text.
  [[nodiscard]] static std::optional<Date> fromIso8601(std::string_view text);

  friend constexpr bool operator==(Date, Date) = default;   // the same point
  friend constexpr auto operator<=>(Date, Date) = default;  // earlier is less

 private:
  constexpr explicit Date(TimeInterval seconds) : seconds_(seconds) {}
  TimeInterval seconds_ = 0;
};

}  // namespace kp
