// kp::LogFormat<Args...>: a printf-style format text checked against its arguments when the
// program is compiled, together with the caller's source position; kp::LogArg: one argument
// with its type erased, as the formatter receives it.
//
// Directives: "%" [flags -+ #0] [width | *] [.precision | .*] [length hh h l ll q j z t L]
// conversion, with conversions d i u o x X c (integers), f F e E g G a A (floating point),
// s (text), p (pointers), @ (any argument, written as its description) and %% for a percent
// sign. The argument's own type decides how a value is read, so a length modifier never
// makes a value wrong; hh and h still narrow as printf does. Widths and precisions above 4096
// are refused. %n and positional arguments ("%1$d") are not supported.
//
// Arguments: integers, enumerations and bool; floating point; text (const char*, char arrays,
// std::string, std::string_view; a null pointer writes "(null)"); other pointers; and, for
// %@ only, any value with a description() member returning text, and std::optional or
// std::shared_ptr of those ("(null)" when empty).
//
// A literal format that does not fit its arguments does not compile: the error names one of
// logFormatArgumentDoesNotFitItsDirective, logFormatHasTooFewArguments,
// logFormatHasTooManyArguments or logFormatHasAnUnsupportedDirective. A format known only at
// run time (runtimeLogFormat()) is checked while it is written instead: a directive without a
// fitting argument is written as it stands, and so is anything the formatter does not know,
// such as a lone "%" at the end.
//
// Thread safety: values; LogArg refers to the caller's argument, valid during the call.
//
// Example:
//   void report(kp::LogFormat<int, std::string> format, int count, std::string name);
//   report("loaded %d items from %s", 3, "cache");     // checked at compile time
//   report("loaded %s items", 3, "cache");             // does not compile
#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "kp/platform/export.h"
#include "tarvix/source_location.h"

namespace kp {

// A source position given explicitly, or taken from a tarvix::SourceLocation.
struct KP_EXPORT LogSource {
  // The place `where` names.
  constexpr LogSource(tarvix::SourceLocation where) noexcept  // NOLINT: implicit on purpose
      : filename(where.file_name()), line(where.line()), function(where.function_name()) {}
  // The place the caller names.
  constexpr LogSource(std::string_view file, int lineNumber, std::string_view functionSignature) noexcept
      : filename(file), line(lineNumber), function(functionSignature) {}

  std::string_view filename;  // the source path
  int line;                   // the line
  std::string_view function;  // the function name or signature
};

// One argument of a log entry, its type erased; the log formats it only when the entry passes.
class KP_EXPORT LogArg {
 public:
  // What the argument holds.
  enum class Kind : std::uint8_t { signedInteger, unsignedInteger, floating, text, pointer, object };
  // Appends an object's description to `out`, as %@ writes it.
  using Describe = void (*)(const void* value, std::string& out);

  // A signed integer of a type `bytes` wide.
  [[nodiscard]] static constexpr LogArg signedInteger(long long value, std::uint8_t bytes) noexcept {
    LogArg arg(Kind::signedInteger, bytes);
    arg.value_.i = value;
    return arg;
  }
  // An unsigned integer of a type `bytes` wide.
  [[nodiscard]] static constexpr LogArg unsignedInteger(unsigned long long value, std::uint8_t bytes) noexcept {
    LogArg arg(Kind::unsignedInteger, bytes);
    arg.value_.u = value;
    return arg;
  }
  // A floating-point number.
  [[nodiscard]] static constexpr LogArg floating(double value) noexcept {
    LogArg arg(Kind::floating, 8);
    arg.value_.d = value;
    return arg;
  }
  // A null `data` stands for a null C string.
  [[nodiscard]] static constexpr LogArg text(const char* data, std::size_t size) noexcept {
    LogArg arg(Kind::text, 0);
    arg.value_.text = {data, size};
    return arg;
  }
  // A pointer, written as an address.
  [[nodiscard]] static constexpr LogArg pointer(const void* value) noexcept {
    LogArg arg(Kind::pointer, sizeof(void*));
    arg.value_.p = value;
    return arg;
  }
  // An object that `describe` writes.
  [[nodiscard]] static constexpr LogArg object(const void* value, Describe describe) noexcept {
    LogArg arg(Kind::object, 0);
    arg.value_.object = {value, describe};
    return arg;
  }

  [[nodiscard]] constexpr Kind kind() const noexcept { return kind_; }  // what it holds
  // The width in bytes of the caller's integer type.
  [[nodiscard]] constexpr std::uint8_t bytes() const noexcept { return bytes_; }
  // The value. REQUIRES: kind() is signedInteger.
  [[nodiscard]] constexpr long long signedValue() const noexcept { return value_.i; }
  // The value. REQUIRES: kind() is unsignedInteger.
  [[nodiscard]] constexpr unsigned long long unsignedValue() const noexcept { return value_.u; }
  // The value. REQUIRES: kind() is floating.
  [[nodiscard]] constexpr double floatingValue() const noexcept { return value_.d; }
  // The value. REQUIRES: kind() is pointer.
  [[nodiscard]] constexpr const void* pointerValue() const noexcept { return value_.p; }
  // REQUIRES: kind() is text. Null for a null C string.
  [[nodiscard]] constexpr const char* textData() const noexcept { return value_.text.data; }
  [[nodiscard]] constexpr std::size_t textSize() const noexcept { return value_.text.size; }  // REQUIRES: text
  // Appends the argument as %@ writes it.
  void describe(std::string& out) const;

 private:
  struct Text {
    const char* data;
    std::size_t size;
  };
  struct Object {
    const void* value;
    Describe describe;
  };
  union Value {
    long long i;
    unsigned long long u;
    double d;
    const void* p;
    Text text;
    Object object;
  };
  constexpr LogArg(Kind kind, std::uint8_t bytes) noexcept : kind_(kind), bytes_(bytes), value_{.i = 0} {}
  Kind kind_;
  std::uint8_t bytes_;
  Value value_;
};

namespace internal {

template <class T>
concept Described = requires(const T& value) {
  { value.description() } -> std::convertible_to<std::string_view>;
};
template <class T>
concept TextLike = std::convertible_to<const T&, std::string_view> && !std::is_pointer_v<std::decay_t<T>>;

template <class T>
struct IsOptionalOrShared : std::false_type {};
template <class T>
struct IsOptionalOrShared<std::optional<T>> : std::true_type {};
template <class T>
struct IsOptionalOrShared<std::shared_ptr<T>> : std::true_type {};

template <class T>
[[nodiscard]] LogArg makeLogArg(const T& value) noexcept;

template <class T>
void describeValue(const void* value, std::string& out) {
  const T& v = *static_cast<const T*>(value);
  if constexpr (IsOptionalOrShared<T>::value) {
    if (!v) {
      out.append("(null)");
    } else {
      makeLogArg(*v).describe(out);
    }
  } else {
    const auto& text = v.description();  // may be a temporary std::string: keep it alive
    out.append(std::string_view(text));
  }
}

template <class T>
[[nodiscard]] LogArg makeLogArg(const T& value) noexcept {
  using D = std::decay_t<T>;
  if constexpr (std::is_same_v<D, bool>) {
    return LogArg::signedInteger(value ? 1 : 0, 1);
  } else if constexpr (std::is_enum_v<D>) {
    return makeLogArg(static_cast<std::underlying_type_t<D>>(value));
  } else if constexpr (std::is_integral_v<D> && std::is_signed_v<D>) {
    return LogArg::signedInteger(value, sizeof(D));
  } else if constexpr (std::is_integral_v<D>) {
    return LogArg::unsignedInteger(value, sizeof(D));
  } else if constexpr (std::is_floating_point_v<D>) {
    return LogArg::floating(static_cast<double>(value));
  } else if constexpr (std::is_array_v<std::remove_cvref_t<T>>) {
    const std::string_view text(value);
    return LogArg::text(text.data(), text.size());
  } else if constexpr (std::is_same_v<D, const char*> || std::is_same_v<D, char*>) {
    return value ? LogArg::text(value, std::char_traits<char>::length(value)) : LogArg::text(nullptr, 0);
  } else if constexpr (TextLike<T>) {
    const std::string_view text(value);
    return LogArg::text(text.data(), text.size());
  } else if constexpr (std::is_same_v<D, std::nullptr_t>) {
    return LogArg::pointer(nullptr);
  } else if constexpr (std::is_pointer_v<D>) {
    return LogArg::pointer(const_cast<const void*>(static_cast<const volatile void*>(value)));
  } else {
    static_assert(Described<T> || IsOptionalOrShared<T>::value,
                  "a log argument is a number, text, a pointer, or a value with description()");
    return LogArg::object(&value, &describeValue<T>);
  }
}

template <class T>
[[nodiscard]] consteval LogArg::Kind logArgKind() {
  using D = std::remove_cvref_t<T>;
  if constexpr (std::is_same_v<D, bool>) {
    return LogArg::Kind::signedInteger;
  } else if constexpr (std::is_enum_v<D>) {
    return logArgKind<std::underlying_type_t<D>>();
  } else if constexpr (std::is_integral_v<D>) {
    return std::is_signed_v<D> ? LogArg::Kind::signedInteger : LogArg::Kind::unsignedInteger;
  } else if constexpr (std::is_floating_point_v<D>) {
    return LogArg::Kind::floating;
  } else if constexpr (std::is_same_v<std::decay_t<D>, const char*> || std::is_same_v<std::decay_t<D>, char*> ||
                       TextLike<D>) {
    return LogArg::Kind::text;
  } else if constexpr (std::is_same_v<D, std::nullptr_t> || std::is_pointer_v<std::decay_t<D>>) {
    return LogArg::Kind::pointer;
  } else {
    return LogArg::Kind::object;
  }
}

// One directive of a format, as read from its "%".
struct KP_EXPORT PrintfDirective {
  enum class Length : std::uint8_t { none, hh, h, l, ll, j, z, t, L, q };
  // What the directive consumes; invalid covers unknown conversions, %n and a format that
  // ends inside the directive.
  enum class Class : std::uint8_t { percent, integer, floating, text, pointer, object, invalid };

  std::size_t begin = 0;  // at the "%"
  std::size_t end = 0;    // one past the conversion
  bool minus = false, plus = false, space = false, hash = false, zero = false;
  bool widthFromArgument = false, precisionFromArgument = false;
  int width = -1;
  int precision = -1;
  Length length = Length::none;
  char conversion = 0;
  Class kind = Class::invalid;
};

inline constexpr int kMaxPrintfWidth = 4096;

// REQUIRES: format[begin] == '%'.
[[nodiscard]] constexpr PrintfDirective parsePrintfDirective(std::string_view format, std::size_t begin) noexcept {
  PrintfDirective d;
  d.begin = begin;
  std::size_t i = begin + 1;
  auto at = [&](std::size_t k) { return k < format.size() ? format[k] : '\0'; };
  for (bool more = true; more; ++i) {
    switch (at(i)) {
      case '-':
        d.minus = true;
        break;
      case '+':
        d.plus = true;
        break;
      case ' ':
        d.space = true;
        break;
      case '#':
        d.hash = true;
        break;
      case '0':
        d.zero = true;
        break;
      default:
        more = false;
        --i;
        break;
    }
  }
  auto number = [&](int& out) {
    int value = 0;
    bool tooLarge = false;
    while (at(i) >= '0' && at(i) <= '9') {
      value = value * 10 + (at(i) - '0');
      if (value > kMaxPrintfWidth) {
        tooLarge = true;
        value = kMaxPrintfWidth;
      }
      ++i;
    }
    out = value;
    return !tooLarge;
  };
  bool valid = true;
  if (at(i) == '*') {
    d.widthFromArgument = true;
    ++i;
  } else if (at(i) >= '1' && at(i) <= '9') {
    valid = number(d.width) && valid;
    if (at(i) == '$') valid = false;  // positional arguments
  }
  if (at(i) == '.') {
    ++i;
    if (at(i) == '*') {
      d.precisionFromArgument = true;
      ++i;
    } else {
      valid = number(d.precision) && valid;
    }
  }
  using L = PrintfDirective::Length;
  switch (at(i)) {
    case 'h':
      d.length = at(i + 1) == 'h' ? L::hh : L::h;
      i += d.length == L::hh ? 2 : 1;
      break;
    case 'l':
      d.length = at(i + 1) == 'l' ? L::ll : L::l;
      i += d.length == L::ll ? 2 : 1;
      break;
    case 'j':
      d.length = L::j;
      ++i;
      break;
    case 'z':
      d.length = L::z;
      ++i;
      break;
    case 't':
      d.length = L::t;
      ++i;
      break;
    case 'L':
      d.length = L::L;
      ++i;
      break;
    case 'q':
      d.length = L::q;
      ++i;
      break;
    default:
      break;
  }
  d.conversion = at(i);
  d.end = i < format.size() ? i + 1 : format.size();
  using C = PrintfDirective::Class;
  switch (d.conversion) {
    case '%':
      d.kind = C::percent;
      break;
    case 'd':
    case 'i':
    case 'u':
    case 'o':
    case 'x':
    case 'X':
    case 'c':
      d.kind = C::integer;
      break;
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
      d.kind = C::floating;
      break;
    case 's':
      d.kind = C::text;
      break;
    case 'p':
      d.kind = C::pointer;
      break;
    case '@':
      d.kind = C::object;
      break;
    default:
      d.kind = C::invalid;
      break;
  }
  if (!valid) d.kind = C::invalid;
  return d;
}

// Whether an argument of `kind` fits a directive of class `directive`.
[[nodiscard]] constexpr bool fits(PrintfDirective::Class directive, LogArg::Kind kind) noexcept {
  using C = PrintfDirective::Class;
  using K = LogArg::Kind;
  switch (directive) {
    case C::integer:
      return kind == K::signedInteger || kind == K::unsignedInteger;
    case C::floating:
      return kind == K::floating;
    case C::text:
      return kind == K::text;
    case C::pointer:
      return kind == K::pointer || kind == K::text;
    case C::object:
      return true;
    default:
      return false;
  }
}

// Not constexpr: reaching one of these during compile-time checking is the compile error.
KP_EXPORT void logFormatArgumentDoesNotFitItsDirective();
KP_EXPORT void logFormatHasTooFewArguments();
KP_EXPORT void logFormatHasTooManyArguments();
KP_EXPORT void logFormatHasAnUnsupportedDirective();

template <class... Args>
consteval void checkLogFormat(std::string_view format) {
  constexpr std::array<LogArg::Kind, sizeof...(Args)> kinds{logArgKind<Args>()...};
  std::size_t next = 0;
  auto take = [&](PrintfDirective::Class directive) {
    if (next >= kinds.size()) logFormatHasTooFewArguments();
    if (!fits(directive, kinds[next])) logFormatArgumentDoesNotFitItsDirective();
    ++next;
  };
  for (std::size_t i = format.find('%'); i != std::string_view::npos; i = format.find('%', i)) {
    const PrintfDirective d = parsePrintfDirective(format, i);
    i = d.end;
    if (d.kind == PrintfDirective::Class::percent) continue;
    if (d.kind == PrintfDirective::Class::invalid) logFormatHasAnUnsupportedDirective();
    if (d.widthFromArgument) take(PrintfDirective::Class::integer);
    if (d.precisionFromArgument) take(PrintfDirective::Class::integer);
    take(d.kind);
  }
  if (next != kinds.size()) logFormatHasTooManyArguments();
}

}  // namespace internal

// A format text known only at run time; see runtimeLogFormat().
struct KP_EXPORT RuntimeLogFormat {
  std::string_view text;  // the format
};
// Marks `text` as a format checked only when it is used, for formats made at run time.
[[nodiscard]] constexpr RuntimeLogFormat runtimeLogFormat(std::string_view text) noexcept { return {text}; }

// A format text for arguments of types Args, with the place it was written. A literal is
// checked against the arguments when compiled (see the top of this file).
template <class... Args>
class BasicLogFormat {
 public:
  // A literal format, from the calling place; checked when compiled.
  template <class S>
  requires std::convertible_to<const S&, std::string_view>
  consteval BasicLogFormat(const S& text,  // NOLINT: implicit, so that a literal is a format
                           tarvix::SourceLocation where = tarvix::SourceLocation::current())
      : text_(text), source_(where) {
    internal::checkLogFormat<Args...>(text_);
  }
  // A literal format, from the place the caller names; checked when compiled.
  template <class S>
  requires std::convertible_to<const S&, std::string_view>
  consteval BasicLogFormat(const S& text, LogSource source) : text_(text), source_(source) {
    internal::checkLogFormat<Args...>(text_);
  }
  // A run-time format, from the calling place.
  BasicLogFormat(RuntimeLogFormat text,  // NOLINT: implicit
                 tarvix::SourceLocation where = tarvix::SourceLocation::current()) noexcept
      : text_(text.text), source_(where) {}
  // A run-time format, from the place the caller names.
  BasicLogFormat(RuntimeLogFormat text, LogSource source) noexcept : text_(text.text), source_(source) {}

  [[nodiscard]] constexpr std::string_view text() const noexcept { return text_; }      // the format
  [[nodiscard]] constexpr const LogSource& source() const noexcept { return source_; }  // where it was written

 private:
  std::string_view text_;
  LogSource source_;
};

// The format parameter of a function taking Args...: its arguments deduce Args, the format
// does not.
template <class... Args>
using LogFormat = BasicLogFormat<std::type_identity_t<Args>...>;

// Appends `format` with `args` substituted, as described above.
KP_EXPORT void appendLogFormatted(std::string& out, std::string_view format, const LogArg* args, std::size_t count);

}  // namespace kp
