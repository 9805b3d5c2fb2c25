// The text helpers on real-world text: Turkish and German case, Greek final sigma, flags,
// family emoji, Hangul, Devanagari and Arabic, and on empty, huge and malformed input.
#include "kp/foundation/text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace {

using namespace std::string_literals;

TEST(TextCase, MapsAndComparesByTheRulesOfTheLocale) {
  EXPECT_EQ(kp::uppercased("istanbul", "tr"), "İSTANBUL");
  EXPECT_EQ(kp::uppercased("istanbul", "tr-TR"), "İSTANBUL");
  EXPECT_EQ(kp::uppercased("istanbul"), "ISTANBUL");
  EXPECT_EQ(kp::lowercased("DİYARBAKIR", "tr"), "diyarbakır");
  EXPECT_EQ(kp::lowercased("DİYARBAKIR"), "di̇yarbakir");  // neutral rules keep the dot as a mark
  EXPECT_EQ(kp::uppercased("Straße", "de"), "STRASSE");
  EXPECT_EQ(kp::lowercased("ΟΔΥΣΣΕΥΣ"), "οδυσσευς");  // final sigma at the end of the word
  EXPECT_EQ(kp::capitalized("élan vital ijssel", "nl"), "Élan Vital IJssel");
  // Bytes that are not UTF-8 pass through untouched.
  EXPECT_EQ(kp::uppercased("a\xff"
                           "b\xe2\x82"),
            "A\xff"
            "B\xe2\x82");
  EXPECT_EQ(kp::lowercased(""), "");

  EXPECT_TRUE(kp::equalsIgnoringCase("Straße", "STRASSE"));
  EXPECT_TRUE(kp::equalsIgnoringCase("ISTANBUL", "istanbul"));
  EXPECT_FALSE(kp::equalsIgnoringCase("ISTANBUL", "istanbul", "tr"));
  EXPECT_TRUE(kp::equalsIgnoringCase("ISTANBUL", "ıstanbul", "tr"));
  EXPECT_TRUE(kp::equalsIgnoringCase("İstanbul", "istanbul", "az"));
  EXPECT_FALSE(kp::equalsIgnoringCase("abc", "abcd"));
  // ASCII-only and Unicode comparisons order alike.
  EXPECT_TRUE(kp::compareIgnoringCase("apple", "Banana") < 0);
  EXPECT_TRUE(kp::compareIgnoringCase("apple é", "Banana é") < 0);
  EXPECT_TRUE(kp::compareIgnoringCase("Zebra", "apple_") > 0);
  EXPECT_TRUE(kp::compareIgnoringCase("Zebra ü", "apple_ ü") > 0);
  EXPECT_TRUE(kp::compareIgnoringCase("ab", "ABC") < 0);
}

TEST(TextCharacters, CountsAndCutsUserPerceivedCharacters) {
  EXPECT_EQ(kp::characterCount(""), 0u);
  EXPECT_EQ(kp::characterCount("🇨🇭🇯🇵"), 2u);
  EXPECT_EQ(kp::characterCount("👨‍👩‍👧‍👦"), 1u);
  EXPECT_EQ(kp::characterCount("👍🏽"), 1u);
  EXPECT_EQ(kp::characterCount("한국어"), 3u);
  EXPECT_EQ(kp::characterCount("\u1112\u1161\u11ab"), 1u);  // 한 as conjoining jamo
  EXPECT_EQ(kp::characterCount("नमस्ते"), 3u);
  EXPECT_EQ(kp::characterCount("مرحبا"), 5u);
  EXPECT_EQ(kp::characterCount("e\u0301\u0323"), 1u);
  EXPECT_EQ(kp::characterCount("a\xff\xfe"
                               "b"),
            4u);  // each ill-formed byte counts once

  EXPECT_EQ(kp::truncated("Grüße aus 🇨🇭 und 👨‍👩‍👧", 12), "Grüße aus 🇨🇭…");
  EXPECT_EQ(kp::truncated("ab👨‍👩‍👧‍👦cd", 4), "ab👨‍👩‍👧‍👦…");
  EXPECT_EQ(kp::truncated("ab👨‍👩‍👧‍👦cd", 5), "ab👨‍👩‍👧‍👦cd");
  EXPECT_EQ(kp::truncated("שלום עולם", 6), "שלום…");  // the space before the cut goes
  EXPECT_EQ(kp::truncated("नमस्ते दुनिया", 3), "नम…");
  EXPECT_EQ(kp::truncated("e\u0301e\u0301e\u0301", 2), "e\u0301…");
  EXPECT_EQ(kp::truncated("abcdef", 2, "..."), "ab");  // an ellipsis that does not fit is left out
  EXPECT_EQ(kp::truncated("abcdef", 4, "..."), "a...");
  EXPECT_EQ(kp::truncated("abc", 0), "");
  EXPECT_EQ(kp::truncated("", 3), "");
  EXPECT_EQ(kp::truncated("ab\xff\xff\xff", 3), "ab…");

  // Huge text: only the head is looked at.
  const std::string huge(64u << 20, 'x');
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(kp::truncated(huge, 4), "xxx…");
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  std::string flags;
  for (int i = 0; i < 100000; ++i) flags += "🇨🇭";
  EXPECT_EQ(kp::characterCount(flags), 100000u);
}

TEST(TextTrimAndSplit, TrimsUnicodeWhiteSpaceAndSplitsAtEverySeparator) {
  EXPECT_EQ(kp::trimmed("\u00a0\t hi there \n\u3000"), "hi there");
  EXPECT_EQ(kp::trimmed(" \u2028 "), "");
  EXPECT_EQ(kp::trimmed(""), "");
  EXPECT_EQ(kp::trimmed("  x \xff "), "x \xff");
  EXPECT_EQ(kp::trimmed("\x80 x"), "\x80 x");

  using Pieces = std::vector<std::string_view>;
  EXPECT_EQ(kp::split(",a,,b,", ","), (Pieces{"", "a", "", "b", ""}));
  EXPECT_EQ(kp::split(",a,,b,", ",", kp::SplitOptions::omitEmpty), (Pieces{"a", "b"}));
  EXPECT_EQ(kp::split("", ","), (Pieces{""}));
  EXPECT_EQ(kp::split("", ",", kp::SplitOptions::omitEmpty), Pieces{});
  EXPECT_EQ(kp::split("a::b:c", "::"), (Pieces{"a", "b:c"}));
  EXPECT_EQ(kp::split("a,b", ""), (Pieces{"a,b"}));
  EXPECT_EQ(kp::join(kp::split("x • y • z", " • "), "/"), "x/y/z");
  EXPECT_EQ(kp::join(std::vector<std::string>{}, ","), "");
}

TEST(TextNumbers, ReadsWholeNumbersInTheCForm) {
  EXPECT_EQ(kp::readNumber<int>("42"), 42);
  EXPECT_EQ(kp::readNumber<int>("+42"), 42);
  EXPECT_EQ(kp::readNumber<int>("-42"), -42);
  EXPECT_EQ(kp::readNumber<std::int64_t>("-9223372036854775808"), INT64_MIN);
  EXPECT_EQ(kp::readNumber<double>("-.5e1"), -5.0);
  EXPECT_EQ(kp::readNumber<double>("+1E3"), 1000.0);
  for (const char* bad : {"", "+", "-", "+-1", " 1", "1 ", "1,5", "0x10", "2147483648", "1e3", "١٢"}) {
    EXPECT_EQ(kp::readNumber<int>(bad), std::nullopt) << bad;
  }
  for (const char* bad : {"1,5", "inf", "-inf", "nan", "infinity", "1e999", "1.5.", ". 5", "-"}) {
    EXPECT_EQ(kp::readNumber<double>(bad), std::nullopt) << bad;
  }
  EXPECT_EQ(kp::readNumber<std::uint8_t>("256"), std::nullopt);
  EXPECT_EQ(kp::readNumber<unsigned>("-1"), std::nullopt);
}

TEST(TextForms, HexBase64AndPercentEncodingRoundTripAndRefuseMalformedText) {
  std::vector<std::uint8_t> all(256);
  for (int i = 0; i < 256; ++i) all[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(i);
  EXPECT_EQ(kp::hexDecoded(kp::hexEncoded(all))->bytes().size(), 256u);
  EXPECT_TRUE(std::ranges::equal(kp::hexDecoded(kp::hexEncoded(all, kp::LetterCase::upper))->bytes(), all));
  EXPECT_EQ(kp::hexEncoded(std::vector<std::uint8_t>{0xab, 0x01}, kp::LetterCase::upper), "AB01");
  for (const char* bad : {"a", "abc", "zz", "0x12", "12 "}) EXPECT_FALSE(kp::hexDecoded(bad)) << bad;
  EXPECT_EQ(kp::hexDecoded("")->size(), 0u);

  EXPECT_EQ(kp::base64EncodedString("Grüße"), "R3LDvMOfZQ==");
  EXPECT_EQ(kp::base64DecodedString("R3LDvMOfZQ=="), "Grüße");
  EXPECT_EQ(kp::base64DecodedString("/w=="), std::nullopt);  // 0xff is not text
  EXPECT_EQ(kp::base64DecodedString("R3L"), std::nullopt);

  EXPECT_EQ(kp::addingPercentEncoding("a b/ü~", kp::ByteSet::urlUnreserved()), "a%20b%2F%C3%BC~");
  EXPECT_EQ(kp::removingPercentEncoding("a%20b%2f%C3%BC~"), "a b/ü~");
  for (const char* bad : {"%", "%4", "%zz", "%C3", "100%"}) {
    EXPECT_EQ(kp::removingPercentEncoding(bad), std::nullopt) << bad;
  }
}

}  // namespace
