// What both directions of a coding run share: the run's user info, how dates are written
// where a format has none, the failure a run throws (with the coding path of the value that
// failed), and kp::Coding<T>, the point where a type says how it is written and read. The
// encoders and decoders are in encoder.h and decoder.h; kp/coding/coding.h brings all of it.
//
// Thread safety: a CodingError is an immutable value; the rest are types and declarations.
#pragma once

#include <any>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

#include "kp/coding/value.h"
#include "kp/platform/error.h"
#include "kp/platform/export.h"

namespace kp {

// Extra information handed to every encoder and decoder of one coding run, by key.
using UserInfo = std::map<std::string, std::any, std::less<>>;

// How dates are read from and written to formats without a native date (JSON).
enum class DateStrategy {
  secondsSinceReferenceDate,  // a number of seconds since 2001-01-01 (the platform default)
  secondsSince1970,
  millisecondsSince1970,
  iso8601,  // text as kp::Date::iso8601 writes it
};

// A failure of an encoding or decoding run, with the path of the value that failed.
class KP_EXPORT CodingError : public std::runtime_error {
 public:
  // What failed: a value of another type, a null or missing value, damaged input, or a value
  // the format cannot hold.
  enum class Kind { typeMismatch, valueNotFound, keyNotFound, dataCorrupted, invalidValue };
  static constexpr std::string_view kDomain = "KPCoding";  // the domain of toError()

  // The failure `kind` at `codingPath`, with `reason`.
  CodingError(Kind kind, std::string codingPath, std::string reason);

  [[nodiscard]] Kind kind() const noexcept { return kind_; }  // what failed
  // Dotted path to the failing value, such as "items[3].name"; empty for the top level.
  [[nodiscard]] const std::string& codingPath() const noexcept { return path_; }
  [[nodiscard]] const std::string& reason() const noexcept { return reason_; }  // why, in words
  // The same failure as a platform error (domain kDomain, code = the kind's number).
  [[nodiscard]] ErrorPtr toError() const;

 private:
  Kind kind_;
  std::string path_;
  std::string reason_;
};

template <class T, class Enable = void>
struct Coding;

namespace coding_detail {

// One step of a coding path; frames live on the stack of the containers that made them.
struct KP_EXPORT PathFrame {
  const PathFrame* parent = nullptr;
  std::string_view key;
  std::size_t index = 0;
  enum : std::uint8_t { none, byKey, byIndex } kind = none;
};
KP_EXPORT std::string formatPath(const PathFrame* frame);
[[noreturn]] KP_EXPORT void fail(CodingError::Kind kind, const PathFrame* frame, std::string reason);
[[noreturn]] KP_EXPORT void typeMismatch(const PathFrame* frame, std::string_view expected, const Value& found);

struct KP_EXPORT EncodingContext {
  const UserInfo* userInfo;
};
struct KP_EXPORT DecodingContext {
  const UserInfo* userInfo;
  DateStrategy dates;
};

template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {};

}  // namespace coding_detail

}  // namespace kp
