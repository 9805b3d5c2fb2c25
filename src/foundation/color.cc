// Colour texts to kp::Color and back. The reader works on the text in place, with no
// allocation, so that styling code can call it per element.
#include "kp/foundation/color.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

namespace kp {
namespace {

struct NamedColor {
  std::string_view name;
  std::uint32_t rgb;
};

// The CSS named colours, sorted by name for the binary search.
constexpr std::array<NamedColor, 148> kNamedColors{{
    {"aliceblue", 0xf0f8ff},
    {"antiquewhite", 0xfaebd7},
    {"aqua", 0x00ffff},
    {"aquamarine", 0x7fffd4},
    {"azure", 0xf0ffff},
    {"beige", 0xf5f5dc},
    {"bisque", 0xffe4c4},
    {"black", 0x000000},
    {"blanchedalmond", 0xffebcd},
    {"blue", 0x0000ff},
    {"blueviolet", 0x8a2be2},
    {"brown", 0xa52a2a},
    {"burlywood", 0xdeb887},
    {"cadetblue", 0x5f9ea0},
    {"chartreuse", 0x7fff00},
    {"chocolate", 0xd2691e},
    {"coral", 0xff7f50},
    {"cornflowerblue", 0x6495ed},
    {"cornsilk", 0xfff8dc},
    {"crimson", 0xdc143c},
    {"cyan", 0x00ffff},
    {"darkblue", 0x00008b},
    {"darkcyan", 0x008b8b},
    {"darkgoldenrod", 0xb8860b},
    {"darkgray", 0xa9a9a9},
    {"darkgreen", 0x006400},
    {"darkgrey", 0xa9a9a9},
    {"darkkhaki", 0xbdb76b},
    {"darkmagenta", 0x8b008b},
    {"darkolivegreen", 0x556b2f},
    {"darkorange", 0xff8c00},
    {"darkorchid", 0x9932cc},
    {"darkred", 0x8b0000},
    {"darksalmon", 0xe9967a},
    {"darkseagreen", 0x8fbc8f},
    {"darkslateblue", 0x483d8b},
    {"darkslategray", 0x2f4f4f},
    {"darkslategrey", 0x2f4f4f},
    {"darkturquoise", 0x00ced1},
    {"darkviolet", 0x9400d3},
    {"deeppink", 0xff1493},
    {"deepskyblue", 0x00bfff},
    {"dimgray", 0x696969},
    {"dimgrey", 0x696969},
    {"dodgerblue", 0x1e90ff},
    {"firebrick", 0xb22222},
    {"floralwhite", 0xfffaf0},
    {"forestgreen", 0x228b22},
    {"fuchsia", 0xff00ff},
    {"gainsboro", 0xdcdcdc},
    {"ghostwhite", 0xf8f8ff},
    {"gold", 0xffd700},
    {"goldenrod", 0xdaa520},
    {"gray", 0x808080},
    {"green", 0x008000},
    {"greenyellow", 0xadff2f},
    {"grey", 0x808080},
    {"honeydew", 0xf0fff0},
    {"hotpink", 0xff69b4},
    {"indianred", 0xcd5c5c},
    {"indigo", 0x4b0082},
    {"ivory", 0xfffff0},
    {"khaki", 0xf0e68c},
    {"lavender", 0xe6e6fa},
    {"lavenderblush", 0xfff0f5},
    {"lawngreen", 0x7cfc00},
    {"lemonchiffon", 0xfffacd},
    {"lightblue", 0xadd8e6},
    {"lightcoral", 0xf08080},
    {"lightcyan", 0xe0ffff},
    {"lightgoldenrodyellow", 0xfafad2},
    {"lightgray", 0xd3d3d3},
    {"lightgreen", 0x90ee90},
    {"lightgrey", 0xd3d3d3},
    {"lightpink", 0xffb6c1},
    {"lightsalmon", 0xffa07a},
    {"lightseagreen", 0x20b2aa},
    {"lightskyblue", 0x87cefa},
    {"lightslategray", 0x778899},
    {"lightslategrey", 0x778899},
    {"lightsteelblue", 0xb0c4de},
    {"lightyellow", 0xffffe0},
    {"lime", 0x00ff00},
    {"limegreen", 0x32cd32},
    {"linen", 0xfaf0e6},
    {"magenta", 0xff00ff},
    {"maroon", 0x800000},
    {"mediumaquamarine", 0x66cdaa},
    {"mediumblue", 0x0000cd},
    {"mediumorchid", 0xba55d3},
    {"mediumpurple", 0x9370db},
    {"mediumseagreen", 0x3cb371},
    {"mediumslateblue", 0x7b68ee},
    {"mediumspringgreen", 0x00fa9a},
    {"mediumturquoise", 0x48d1cc},
    {"mediumvioletred", 0xc71585},
    {"midnightblue", 0x191970},
    {"mintcream", 0xf5fffa},
    {"mistyrose", 0xffe4e1},
    {"moccasin", 0xffe4b5},
    {"navajowhite", 0xffdead},
    {"navy", 0x000080},
    {"oldlace", 0xfdf5e6},
    {"olive", 0x808000},
    {"olivedrab", 0x6b8e23},
    {"orange", 0xffa500},
    {"orangered", 0xff4500},
    {"orchid", 0xda70d6},
    {"palegoldenrod", 0xeee8aa},
    {"palegreen", 0x98fb98},
    {"paleturquoise", 0xafeeee},
    {"palevioletred", 0xdb7093},
    {"papayawhip", 0xffefd5},
    {"peachpuff", 0xffdab9},
    {"peru", 0xcd853f},
    {"pink", 0xffc0cb},
    {"plum", 0xdda0dd},
    {"powderblue", 0xb0e0e6},
    {"purple", 0x800080},
    {"rebeccapurple", 0x663399},
    {"red", 0xff0000},
    {"rosybrown", 0xbc8f8f},
    {"royalblue", 0x4169e1},
    {"saddlebrown", 0x8b4513},
    {"salmon", 0xfa8072},
    {"sandybrown", 0xf4a460},
    {"seagreen", 0x2e8b57},
    {"seashell", 0xfff5ee},
    {"sienna", 0xa0522d},
    {"silver", 0xc0c0c0},
    {"skyblue", 0x87ceeb},
    {"slateblue", 0x6a5acd},
    {"slategray", 0x708090},
    {"slategrey", 0x708090},
    {"snow", 0xfffafa},
    {"springgreen", 0x00ff7f},
    {"steelblue", 0x4682b4},
    {"tan", 0xd2b48c},
    {"teal", 0x008080},
    {"thistle", 0xd8bfd8},
    {"tomato", 0xff6347},
    {"turquoise", 0x40e0d0},
    {"violet", 0xee82ee},
    {"wheat", 0xf5deb3},
    {"white", 0xffffff},
    {"whitesmoke", 0xf5f5f5},
    {"yellow", 0xffff00},
    {"yellowgreen", 0x9acd32},
}};
static_assert(std::is_sorted(kNamedColors.begin(), kNamedColors.end(),
                             [](const NamedColor& a, const NamedColor& b) { return a.name < b.name; }));
constexpr std::size_t kLongestName = 20;  // "lightgoldenrodyellow"

constexpr bool isSpace(char c) noexcept { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f'; }
constexpr bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }
constexpr char asciiLower(char c) noexcept { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; }

std::string_view trimSpaces(std::string_view text) noexcept {
  while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
  return text;
}

int hexDigit(char c) noexcept {
  if (c >= '0' && c <= '9') return c - '0';
  c = asciiLower(c);
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

std::optional<Color> fromHex(std::string_view digits) noexcept {
  const std::size_t n = digits.size();
  if (n != 3 && n != 4 && n != 6 && n != 8) return std::nullopt;
  std::array<int, 8> values{};
  for (std::size_t i = 0; i < n; ++i) {
    values[i] = hexDigit(digits[i]);
    if (values[i] < 0) return std::nullopt;
  }
  const auto channel = [&](std::size_t i) -> std::uint8_t {
    // One digit stands for itself twice: "#f80" is "#ff8800".
    if (n <= 4) return static_cast<std::uint8_t>(values[i] * 17);
    return static_cast<std::uint8_t>(values[2 * i] * 16 + values[2 * i + 1]);
  };
  const bool hasAlpha = n == 4 || n == 8;
  return Color{channel(0), channel(1), channel(2), hasAlpha ? channel(3) : std::uint8_t{255}};
}

std::optional<Color> fromName(std::string_view name) noexcept {
  if (name.size() > kLongestName) return std::nullopt;
  std::array<char, kLongestName> buffer{};
  std::transform(name.begin(), name.end(), buffer.begin(), asciiLower);
  const std::string_view lower(buffer.data(), name.size());
  if (lower == "transparent") return Color{0, 0, 0, 0};
  const auto found = std::lower_bound(kNamedColors.begin(), kNamedColors.end(), lower,
                                      [](const NamedColor& entry, std::string_view key) { return entry.name < key; });
  if (found == kNamedColors.end() || found->name != lower) return std::nullopt;
  return Color{static_cast<std::uint8_t>(found->rgb >> 16), static_cast<std::uint8_t>(found->rgb >> 8),
               static_cast<std::uint8_t>(found->rgb), 255};
}

struct Number {
  double value;
  bool percent;
};

// Reads the arguments of rgb() and rgba(): numbers as CSS writes them, separators and spaces.
class ArgumentScanner {
 public:
  explicit ArgumentScanner(std::string_view text) noexcept : text_(text) {}

  void skipSpaces() noexcept {
    while (at_ < text_.size() && isSpace(text_[at_])) ++at_;
  }
  // Consumes `c` (after any spaces) when it comes next.
  bool take(char c) noexcept {
    skipSpaces();
    if (at_ < text_.size() && text_[at_] == c) {
      ++at_;
      return true;
    }
    return false;
  }
  bool atEnd() noexcept {
    skipSpaces();
    return at_ == text_.size();
  }
  // [+-]? (digits [. digits] | . digits) ([eE] [+-]? digits)? %?
  //
  // Read in one pass. A number of at most 15 significant digits whose power of ten lies within
  // 10^±22 (every number a colour text needs) is the exact double of its digits multiplied or
  // divided by an exact power of ten, which rounds once, as from_chars would; anything else
  // goes to from_chars.
  std::optional<Number> number() noexcept {
    static constexpr double kPowers[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                                         1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
    skipSpaces();
    const std::size_t n = text_.size();
    const std::size_t start = at_;
    std::size_t i = at_;
    const bool negative = i < n && text_[i] == '-';
    if (i < n && (text_[i] == '+' || text_[i] == '-')) ++i;
    const std::size_t mantissa = i;  // from_chars takes no "+", so it starts here or at the "-"
    std::uint64_t digits = 0;
    int significant = 0;
    int scale = 0;
    const auto take = [&](bool fraction) {
      const std::size_t from = i;
      for (; i < n && isDigit(text_[i]); ++i) {
        significant += digits != 0 || text_[i] != '0';
        if (significant <= 15) {
          digits = digits * 10 + static_cast<std::uint64_t>(text_[i] - '0');
          scale -= fraction;
        } else {
          scale += !fraction;  // a digit past the fifteenth; from_chars will read this one
        }
      }
      return i > from;
    };
    bool any = take(false);
    if (i < n && text_[i] == '.') {
      ++i;
      if (!take(true)) return std::nullopt;  // a point needs digits after it
      any = true;
    }
    if (!any) return std::nullopt;
    if (i < n && (text_[i] == 'e' || text_[i] == 'E')) {
      std::size_t e = i + 1;
      const bool negativeExponent = e < n && text_[e] == '-';
      if (e < n && (text_[e] == '+' || text_[e] == '-')) ++e;
      int exponent = 0;
      std::size_t d = e;
      for (; d < n && isDigit(text_[d]); ++d) exponent = std::min(exponent * 10 + (text_[d] - '0'), 10000);
      if (d > e) {  // an "e" without digits is not part of the number
        i = d;
        scale += negativeExponent ? -exponent : exponent;
      }
    }
    double value = 0;
    if (significant <= 15 && scale >= -22 && scale <= 22) {
      value = static_cast<double>(digits);
      value = scale < 0 ? value / kPowers[-scale] : value * kPowers[scale];
      if (negative) value = -value;
    } else {
      const char* first = text_.data() + (negative ? start : mantissa);
      const auto [stop, error] = std::from_chars(first, text_.data() + i, value);
      if (error != std::errc() || stop != text_.data() + i) return std::nullopt;
    }
    at_ = i;
    const bool percent = at_ < n && text_[at_] == '%';
    if (percent) ++at_;
    return Number{value, percent};
  }

 private:
  std::string_view text_;
  std::size_t at_ = 0;
};

// Rounds half up; exact, as the fraction of a number below 2^52 is.
std::uint8_t toByte(double scaled) noexcept {
  const double clamped = std::clamp(scaled, 0.0, 255.0);
  const int whole = static_cast<int>(clamped);
  return static_cast<std::uint8_t>(whole + (clamped - whole >= 0.5));
}
std::uint8_t channelByte(const Number& n) noexcept { return toByte(n.percent ? n.value * 255.0 / 100.0 : n.value); }
std::uint8_t alphaByte(const Number& n) noexcept { return toByte((n.percent ? n.value / 100.0 : n.value) * 255.0); }

std::optional<Color> fromFunction(std::string_view name, std::string_view arguments) noexcept {
  const auto is = [&](std::string_view expected) {
    return name.size() == expected.size() &&
           std::equal(name.begin(), name.end(), expected.begin(), [](char a, char b) { return asciiLower(a) == b; });
  };
  if (!is("rgb") && !is("rgba")) return std::nullopt;
  ArgumentScanner scan(arguments);
  std::array<Number, 3> channels{};
  std::optional<Number> alpha;
  if (auto first = scan.number()) {
    channels[0] = *first;
  } else {
    return std::nullopt;
  }
  const bool commas = scan.take(',');
  for (std::size_t i = 1; i < 3; ++i) {
    if (i == 2 && commas && !scan.take(',')) return std::nullopt;
    auto channel = scan.number();
    if (!channel) return std::nullopt;
    channels[i] = *channel;
  }
  if (scan.take(commas ? ',' : '/')) {
    alpha = scan.number();
    if (!alpha) return std::nullopt;
  }
  if (!scan.atEnd()) return std::nullopt;
  // The comma form takes three numbers or three percentages, not a mixture.
  if (commas && (channels[0].percent != channels[1].percent || channels[1].percent != channels[2].percent)) {
    return std::nullopt;
  }
  return Color{channelByte(channels[0]), channelByte(channels[1]), channelByte(channels[2]),
               alpha ? alphaByte(*alpha) : std::uint8_t{255}};
}

}  // namespace

std::optional<Color> Color::parse(std::string_view text) noexcept {
  text = trimSpaces(text);
  if (text.empty()) return std::nullopt;
  if (text.front() == '#') return fromHex(text.substr(1));
  if (const std::size_t open = text.find('('); open != std::string_view::npos) {
    if (text.back() != ')') return std::nullopt;
    return fromFunction(text.substr(0, open), text.substr(open + 1, text.size() - open - 2));
  }
  return fromName(text);
}

std::string Color::hexString(HexAlpha withAlpha) const {
  constexpr char kDigits[] = "0123456789abcdef";
  const bool alphaToo = withAlpha == HexAlpha::always || (withAlpha == HexAlpha::whenTranslucent && alpha != 255);
  std::string out(alphaToo ? 9 : 7, '#');
  const std::uint8_t channels[4] = {red, green, blue, alpha};
  for (std::size_t i = 0; i < (alphaToo ? 4u : 3u); ++i) {
    out[1 + 2 * i] = kDigits[channels[i] >> 4];
    out[2 + 2 * i] = kDigits[channels[i] & 0x0f];
  }
  return out;
}

}  // namespace kp
