// Base64 written by hand for the options the library needs: encoding writes straight into
// the output buffer, and the one decoder takes four characters at a time where it can,
// leaving the per-character path for what its options skip or forgive.
#include "kp/crypto/base64.h"

#include <algorithm>
#include <array>

namespace kp {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t kPad = 64;
constexpr std::uint8_t kWhitespace = 65;
constexpr std::uint8_t kUnknown = 255;

constexpr std::array<std::uint8_t, 256> makeDecodeTable() {
  std::array<std::uint8_t, 256> table{};
  for (auto& v : table) v = kUnknown;
  for (std::uint8_t i = 0; i < 64; ++i) table[static_cast<unsigned char>(kAlphabet[i])] = i;
  table['='] = kPad;
  for (const char c : {' ', '\t', '\r', '\n'}) table[static_cast<unsigned char>(c)] = kWhitespace;
  return table;
}
constexpr auto kDecodeTable = makeDecodeTable();

std::size_t encodedLength(std::size_t count, bool lines) {
  const std::size_t chars = (count + 2) / 3 * 4;
  if (!lines || chars == 0) return chars;
  return chars + (chars - 1) / 64 * 2;
}

// Writes the encoding of `in` to `out`, which has exactly encodedLength() bytes.
void encodeInto(std::span<const std::uint8_t> in, char* out, bool lines) {
  const std::uint8_t* p = in.data();
  std::size_t left = in.size();
  // A line of 64 characters holds 48 input bytes.
  const std::size_t lineBytes = lines ? 48 : left;
  while (left > 0) {
    std::size_t take = std::min(lineBytes, left);
    left -= take;
    for (; take >= 3; take -= 3, p += 3) {
      const std::uint32_t v = (std::uint32_t{p[0]} << 16) | (std::uint32_t{p[1]} << 8) | p[2];
      out[0] = kAlphabet[v >> 18];
      out[1] = kAlphabet[(v >> 12) & 63];
      out[2] = kAlphabet[(v >> 6) & 63];
      out[3] = kAlphabet[v & 63];
      out += 4;
    }
    if (take > 0) {  // only on the last line
      const std::uint32_t v = (std::uint32_t{p[0]} << 16) | (take == 2 ? std::uint32_t{p[1]} << 8 : 0);
      out[0] = kAlphabet[v >> 18];
      out[1] = kAlphabet[(v >> 12) & 63];
      out[2] = take == 2 ? kAlphabet[(v >> 6) & 63] : '=';
      out[3] = '=';
      out += 4;
    }
    if (lines && left > 0) {
      out[0] = '\r';
      out[1] = '\n';
      out += 2;
    }
  }
}

bool hasOption(Base64EncodingOptions options, Base64EncodingOptions option) {
  return (static_cast<unsigned>(options) & static_cast<unsigned>(option)) != 0;
}
bool hasOption(Base64DecodingOptions options, Base64DecodingOptions option) {
  return (static_cast<unsigned>(options) & static_cast<unsigned>(option)) != 0;
}

}  // namespace

std::string base64Encode(std::span<const std::uint8_t> bytes, Base64EncodingOptions options) {
  const bool lines = hasOption(options, Base64EncodingOptions::lineLength64Characters);
  std::string out(encodedLength(bytes.size(), lines), '\0');
  encodeInto(bytes, out.data(), lines);
  return out;
}

Data base64EncodedData(std::span<const std::uint8_t> bytes, Base64EncodingOptions options) {
  const bool lines = hasOption(options, Base64EncodingOptions::lineLength64Characters);
  Data out = Data::zeros(encodedLength(bytes.size(), lines));
  encodeInto(bytes, reinterpret_cast<char*>(out.data()), lines);
  return out;
}

std::optional<Data> base64Decode(std::string_view text, Base64DecodingOptions options) {
  const bool ignoreUnknown = hasOption(options, Base64DecodingOptions::ignoreUnknownCharacters);
  const bool ignoreWhitespace = ignoreUnknown || hasOption(options, Base64DecodingOptions::ignoreWhitespace);
  const bool paddingMayBeShort = hasOption(options, Base64DecodingOptions::allowMissingPadding);
  Data out = Data::zeros(text.size() / 4 * 3 + 3);
  std::uint8_t* o = out.data();
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* const end = p + text.size();
  std::uint32_t acc = 0;
  unsigned pending = 0;  // alphabet characters in `acc`
  std::size_t padding = 0;
  while (p < end) {
    // Fast path: four alphabet characters at a quantum boundary.
    if (pending == 0 && padding == 0) {
      while (end - p >= 4) {
        const std::uint32_t a = kDecodeTable[p[0]], b = kDecodeTable[p[1]], c = kDecodeTable[p[2]],
                            d = kDecodeTable[p[3]];
        if ((a | b | c | d) >= 64) break;
        const std::uint32_t v = (a << 18) | (b << 12) | (c << 6) | d;
        o[0] = static_cast<std::uint8_t>(v >> 16);
        o[1] = static_cast<std::uint8_t>(v >> 8);
        o[2] = static_cast<std::uint8_t>(v);
        o += 3;
        p += 4;
      }
      if (p == end) break;
    }
    const std::uint8_t v = kDecodeTable[*p++];
    if (v < 64) {
      if (padding > 0) return std::nullopt;  // data after padding
      acc = (acc << 6) | v;
      if (++pending == 4) {
        o[0] = static_cast<std::uint8_t>(acc >> 16);
        o[1] = static_cast<std::uint8_t>(acc >> 8);
        o[2] = static_cast<std::uint8_t>(acc);
        o += 3;
        acc = 0;
        pending = 0;
      }
    } else if (v == kPad) {
      ++padding;
    } else if (!(v == kWhitespace ? ignoreWhitespace : ignoreUnknown)) {
      return std::nullopt;
    }
  }
  // The padding completes the last group: two characters (one byte) take two, three
  // characters (two bytes) take one; a lone character carries no whole byte.
  const std::size_t needed = pending == 0 ? 0 : 4 - pending;
  if (pending == 1 || padding > needed || (padding < needed && !paddingMayBeShort)) return std::nullopt;
  if (pending == 2) {
    *o++ = static_cast<std::uint8_t>(acc >> 4);
  } else if (pending == 3) {
    *o++ = static_cast<std::uint8_t>(acc >> 10);
    *o++ = static_cast<std::uint8_t>(acc >> 2);
  }
  out.resize(static_cast<std::size_t>(o - out.data()));
  return out;
}

}  // namespace kp
