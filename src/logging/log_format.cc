// printf-style formatting over type-erased arguments. The common plain directives are written
// directly; anything with flags, width or precision goes to snprintf with a directive rebuilt
// for the argument's actual type, so no value is ever read as a type it is not.
#include "kp/logging/log_format.h"

#include <array>
#include <charconv>
#include <cstdio>

namespace kp {
namespace {

using Directive = internal::PrintfDirective;

void appendChars(std::string& out, const char* first, const char* last) { out.append(first, last); }

// Integers as printf reads them: narrowed by hh and h, and unsigned conversions of a negative
// value seen in the width of the caller's type (so -1 as an int is ffffffff under %x).
struct IntegerValue {
  bool negative = false;
  unsigned long long magnitude = 0;
};

IntegerValue integerValue(const LogArg& arg, const Directive& d) {
  const bool isSigned = d.conversion == 'd' || d.conversion == 'i';
  unsigned bytes = arg.bytes();
  if (d.length == Directive::Length::hh) bytes = 1;
  if (d.length == Directive::Length::h) bytes = 2;
  const unsigned long long mask = bytes >= 8 ? ~0ull : (1ull << (bytes * 8)) - 1;
  unsigned long long bits = arg.kind() == LogArg::Kind::signedInteger
                                ? static_cast<unsigned long long>(arg.signedValue())
                                : arg.unsignedValue();
  bits &= mask;
  IntegerValue v;
  if (isSigned && arg.kind() == LogArg::Kind::signedInteger && bytes < 8 && (bits >> (bytes * 8 - 1)) != 0) {
    v.negative = true;
    v.magnitude = (~bits & mask) + 1;
  } else if (isSigned && arg.kind() == LogArg::Kind::signedInteger && bytes >= 8 && arg.signedValue() < 0) {
    v.negative = true;
    v.magnitude = 0ull - bits;
  } else {
    v.magnitude = bits;
  }
  return v;
}

bool plain(const Directive& d) {
  return !d.minus && !d.plus && !d.space && !d.hash && !d.zero && d.width < 0 && d.precision < 0 &&
         !d.widthFromArgument && !d.precisionFromArgument;
}

// Rebuilds the directive for snprintf with the width and precision resolved and the length
// modifier that matches `length` ("ll" for 64-bit integers, "" for doubles).
std::string snprintfDirective(const Directive& d, int width, int precision, std::string_view length) {
  std::string format = "%";
  if (d.minus) format.push_back('-');
  if (d.plus) format.push_back('+');
  if (d.space) format.push_back(' ');
  if (d.hash) format.push_back('#');
  if (d.zero) format.push_back('0');
  if (width >= 0) format.append(std::to_string(width));
  if (precision >= 0) {
    format.push_back('.');
    format.append(std::to_string(precision));
  }
  format.append(length);
  format.push_back(d.conversion);
  return format;
}

template <class T>
void appendSnprintf(std::string& out, const std::string& format, T value) {
  std::array<char, 128> small{};
  const int needed = std::snprintf(small.data(), small.size(), format.c_str(), value);
  if (needed < 0) return;
  if (static_cast<std::size_t>(needed) < small.size()) {
    out.append(small.data(), static_cast<std::size_t>(needed));
    return;
  }
  const std::size_t at = out.size();
  out.resize(at + static_cast<std::size_t>(needed) + 1);
  std::snprintf(out.data() + at, static_cast<std::size_t>(needed) + 1, format.c_str(), value);
  out.resize(at + static_cast<std::size_t>(needed));
}

// Text padded to `width` and cut to `precision` bytes, never inside a UTF-8 sequence.
void appendPadded(std::string& out, std::string_view text, int width, int precision, bool left) {
  if (precision >= 0 && text.size() > static_cast<std::size_t>(precision)) {
    std::size_t cut = static_cast<std::size_t>(precision);
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
    text = text.substr(0, cut);
  }
  const std::size_t pad = width > 0 && text.size() < static_cast<std::size_t>(width) ? width - text.size() : 0;
  if (!left) out.append(pad, ' ');
  out.append(text);
  if (left) out.append(pad, ' ');
}

void appendInteger(std::string& out, const LogArg& arg, const Directive& d, int width, int precision) {
  const IntegerValue v = integerValue(arg, d);
  if (d.conversion == 'c') {
    const char c = static_cast<char>(v.magnitude & 0xFF);
    appendPadded(out, std::string_view(&c, 1), width, -1, d.minus);
    return;
  }
  if (plain(d) || (width < 0 && precision < 0 && !d.plus && !d.space && !d.hash)) {
    int base = 10;
    if (d.conversion == 'o') base = 8;
    if (d.conversion == 'x' || d.conversion == 'X') base = 16;
    std::array<char, 32> digits{};
    auto [end, ec] = std::to_chars(digits.data(), digits.data() + digits.size(), v.magnitude, base);
    (void)ec;
    if (d.conversion == 'X') {
      for (char* p = digits.data(); p != end; ++p) {
        if (*p >= 'a' && *p <= 'f') *p = static_cast<char>(*p - 'a' + 'A');
      }
    }
    if (v.negative) out.push_back('-');
    appendChars(out, digits.data(), end);
    return;
  }
  Directive rebuilt = d;
  if ((d.conversion == 'd' || d.conversion == 'i') && !v.negative && v.magnitude > 0x7FFFFFFFFFFFFFFFull) {
    rebuilt.conversion = 'u';  // an unsigned value beyond the signed range stays positive
  }
  const std::string format = snprintfDirective(rebuilt, width, precision, "ll");
  if (v.negative) {
    appendSnprintf(out, format, -static_cast<long long>(v.magnitude - 1) - 1);
  } else if (rebuilt.conversion == 'd' || rebuilt.conversion == 'i') {
    appendSnprintf(out, format, static_cast<long long>(v.magnitude));
  } else {
    appendSnprintf(out, format, v.magnitude);
  }
}

void appendFloating(std::string& out, double value, const Directive& d, int width, int precision) {
  if ((d.conversion == 'f') && plain(d)) {
    std::array<char, 512> digits{};
    auto [end, ec] = std::to_chars(digits.data(), digits.data() + digits.size(), value, std::chars_format::fixed, 6);
    if (ec == std::errc()) {
      appendChars(out, digits.data(), end);
      return;
    }
  }
  appendSnprintf(out, snprintfDirective(d, width, precision, ""), value);
}

void appendPointer(std::string& out, const void* value, int width, bool left) {
  std::array<char, 24> digits{'0', 'x'};
  auto [end, ec] =
      std::to_chars(digits.data() + 2, digits.data() + digits.size(), reinterpret_cast<std::uintptr_t>(value), 16);
  (void)ec;
  appendPadded(out, std::string_view(digits.data(), static_cast<std::size_t>(end - digits.data())), width, -1, left);
}

}  // namespace

void LogArg::describe(std::string& out) const {
  switch (kind_) {
    case Kind::signedInteger:
    case Kind::unsignedInteger: {
      std::array<char, 24> digits{};
      auto [end, ec] = kind_ == Kind::signedInteger
                           ? std::to_chars(digits.data(), digits.data() + digits.size(), value_.i)
                           : std::to_chars(digits.data(), digits.data() + digits.size(), value_.u);
      (void)ec;
      appendChars(out, digits.data(), end);
      break;
    }
    case Kind::floating: {
      std::array<char, 32> digits{};
      auto [end, ec] = std::to_chars(digits.data(), digits.data() + digits.size(), value_.d);
      (void)ec;
      appendChars(out, digits.data(), end);
      break;
    }
    case Kind::text:
      if (value_.text.data) {
        out.append(value_.text.data, value_.text.size);
      } else {
        out.append("(null)");
      }
      break;
    case Kind::pointer:
      appendPointer(out, value_.p, -1, false);
      break;
    case Kind::object:
      value_.object.describe(value_.object.value, out);
      break;
  }
}

void appendLogFormatted(std::string& out, std::string_view format, const LogArg* args, std::size_t count) {
  std::size_t next = 0;
  std::size_t i = 0;
  std::string described;
  while (i < format.size()) {
    const std::size_t percent = format.find('%', i);
    if (percent == std::string_view::npos) {
      out.append(format.substr(i));
      break;
    }
    out.append(format.substr(i, percent - i));
    const Directive d = internal::parsePrintfDirective(format, percent);
    i = d.end;
    const std::string_view asWritten = format.substr(d.begin, d.end - d.begin);
    if (d.kind == Directive::Class::percent) {
      out.push_back('%');
      continue;
    }
    if (d.kind == Directive::Class::invalid) {
      out.append(asWritten);
      continue;
    }
    // Width and precision from arguments, then the value; anything missing or unfitting
    // leaves the directive as written.
    int width = d.width;
    int precision = d.precision;
    bool minus = d.minus;
    bool usable = true;
    auto starArgument = [&](int& into) {
      if (next >= count || !internal::fits(Directive::Class::integer, args[next].kind())) {
        usable = false;
        if (next < count) ++next;
        return;
      }
      const LogArg& arg = args[next++];
      long long value = arg.kind() == LogArg::Kind::signedInteger
                            ? arg.signedValue()
                            : static_cast<long long>(arg.unsignedValue() & 0x7FFFFFFF);
      if (value < -internal::kMaxPrintfWidth || value > internal::kMaxPrintfWidth) {
        usable = false;
        return;
      }
      into = static_cast<int>(value);
    };
    if (d.widthFromArgument) {
      starArgument(width);
      if (width < 0) {  // a negative width from an argument means left-justified
        minus = true;
        width = -width;
      }
    }
    if (d.precisionFromArgument) {
      starArgument(precision);
      if (precision < 0) precision = -1;  // a negative precision is taken as none
    }
    if (!usable || next >= count || !internal::fits(d.kind, args[next].kind())) {
      if (next < count && usable) ++next;
      out.append(asWritten);
      continue;
    }
    const LogArg& arg = args[next++];
    Directive resolved = d;
    resolved.minus = minus;
    switch (d.kind) {
      case Directive::Class::integer:
        appendInteger(out, arg, resolved, width, precision);
        break;
      case Directive::Class::floating:
        appendFloating(out, arg.floatingValue(), resolved, width, precision);
        break;
      case Directive::Class::text:
        appendPadded(out, arg.textData() ? std::string_view(arg.textData(), arg.textSize()) : "(null)", width,
                     precision, minus);
        break;
      case Directive::Class::pointer:
        appendPointer(out, arg.kind() == LogArg::Kind::text ? arg.textData() : arg.pointerValue(), width, minus);
        break;
      case Directive::Class::object:
        described.clear();
        arg.describe(described);
        appendPadded(out, described, width, precision, minus);
        break;
      default:
        out.append(asWritten);
        break;
    }
  }
}

}  // namespace kp
