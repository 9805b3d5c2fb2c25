// Colour texts: every accepted form, the CSS values that differ from the X11 names of the same
// spelling, clamping and rounding, and the near misses that must read as nothing.
#include "kp/foundation/color.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <random>
#include <string>

namespace {

using kp::Color;

TEST(ColorText, ReadsHexFunctionalAndNamedForms) {
  EXPECT_EQ(Color::parse("#f80"), (Color{0xff, 0x88, 0x00, 0xff}));
  EXPECT_EQ(Color::parse("#F80C"), (Color{0xff, 0x88, 0x00, 0xcc}));
  EXPECT_EQ(Color::parse(" #Ff8800\n"), (Color{0xff, 0x88, 0x00, 0xff}));
  EXPECT_EQ(Color::parse("#ff880080"), (Color{0xff, 0x88, 0x00, 0x80}));

  EXPECT_EQ(Color::parse("rgb(255, 128, 0)"), (Color{255, 128, 0, 255}));
  EXPECT_EQ(Color::parse("RGBA(100%,50%,0%,0.5)"), (Color{255, 128, 0, 128}));
  EXPECT_EQ(Color::parse("rgb(255 128 0 / 50%)"), (Color{255, 128, 0, 128}));
  EXPECT_EQ(Color::parse("rgba( 0 0 0 )"), (Color{0, 0, 0, 255}));
  EXPECT_EQ(Color::parse("rgb(100% 0 .5e2%)"), (Color{255, 0, 128, 255}));  // mixing is fine without commas
  // Out-of-range channels and alphas are clamped, fractions rounded.
  EXPECT_EQ(Color::parse("rgba(300, -20, 127.5, 2)"), (Color{255, 0, 128, 255}));
  EXPECT_EQ(Color::parse("rgb(2.55e2 +0 -0 / -1)"), (Color{255, 0, 0, 0}));

  EXPECT_EQ(Color::parse("RebeccaPurple"), (Color{0x66, 0x33, 0x99, 0xff}));
  EXPECT_EQ(Color::parse("transparent"), (Color{0, 0, 0, 0}));
  EXPECT_EQ(Color::parse("aliceblue"), (Color{0xf0, 0xf8, 0xff, 0xff}));
  EXPECT_EQ(Color::parse("yellowgreen"), (Color{0x9a, 0xcd, 0x32, 0xff}));
  // Where CSS and X11 disagree, CSS wins.
  EXPECT_EQ(Color::parse("gray"), (Color{0x80, 0x80, 0x80, 0xff}));
  EXPECT_EQ(Color::parse("GREY"), Color::parse("gray"));
  EXPECT_EQ(Color::parse("green"), (Color{0x00, 0x80, 0x00, 0xff}));
  EXPECT_EQ(Color::parse("maroon"), (Color{0x80, 0x00, 0x00, 0xff}));
  EXPECT_EQ(Color::parse("purple"), (Color{0x80, 0x00, 0x80, 0xff}));
  EXPECT_EQ(kp::colorFromString("lightgoldenrodyellow"), (Color{0xfa, 0xfa, 0xd2, 0xff}));
}

TEST(ColorText, NearMissesReadAsNothing) {
  // clang-format off
  const char* const nearMisses[] = {
      "", "   ", "#", "#ff888", "#ff88000", "#ff8800ff0", "#ggg", "ff8800", "# fff", "#fff #fff", "rgb()", "rgb(1,2)",
      "rgb(1,2,3,4,5)", "rgb(1 2 3, 4)", "rgb(1, 2 3)", "rgb(1,2,3", "rgb(,1,2,3)", "rgb(1.,2,3)", "rgb(100%, 0, 0)",
      "rgb(1 2 3 /)", "rgb(1 2 3 / 4 5)", "rgb(inf,0,0)", "rgb(nan,0,0)", "rgb(1e999,0,0)", "rgb(0x10,0,0)",
      "rgb (1,2,3)", "rgb(1,2,3))", "hsl(0, 0%, 0%)", "rgb(1%%,2,3)", "notacolour", "red blue",
      "lightgoldenrodyellowx", "transparent!", "\xff\xfe", "rgb(\xff)",
  };
  // clang-format on
  for (const char* bad : nearMisses) {
    EXPECT_EQ(Color::parse(bad), std::nullopt) << bad;
  }
  EXPECT_EQ(Color::parse(std::string(1 << 20, 'a')), std::nullopt);
  EXPECT_EQ(Color::parse("rgb(" + std::string(1 << 20, '1') + ",0,0)"), std::nullopt);
}

TEST(ColorText, ChannelNumbersRoundAsTheirExactDecimalValue) {
  // Decimals near the rounding points, in every spelling the reader takes a shortcut for.
  std::mt19937 random(3);
  for (int i = 0; i < 20000; ++i) {
    const int whole = static_cast<int>(random() % 256);
    const std::string fraction = std::to_string(random() % 100000);
    const int exponent = static_cast<int>(random() % 5) - 2;
    const std::string mantissa = std::to_string(whole) + "." + fraction;
    const std::string text = mantissa + (exponent != 0 ? "e" + std::to_string(exponent) : "");
    double exact = 0;
    std::from_chars(text.data(), text.data() + text.size(), exact);
    const double clamped = std::min(exact, 255.0);
    const auto expected = static_cast<std::uint8_t>(std::floor(clamped) + (clamped - std::floor(clamped) >= 0.5));
    ASSERT_EQ(Color::parse("rgb(" + text + " 0 0)")->red, expected) << text;
  }
}

TEST(ColorText, HexTextReadsBackAsTheSameColour) {
  const Color c{0x12, 0xab, 0xff, 0x80};
  EXPECT_EQ(c.hexString(), "#12abff80");
  EXPECT_EQ(c.hexString(Color::HexAlpha::never), "#12abff");
  EXPECT_EQ((Color{1, 2, 3, 255}).hexString(), "#010203");
  EXPECT_EQ((Color{1, 2, 3, 255}).hexString(Color::HexAlpha::always), "#010203ff");
  std::mt19937 random(7);
  for (int i = 0; i < 1000; ++i) {
    const auto word = random();
    const Color color{static_cast<std::uint8_t>(word), static_cast<std::uint8_t>(word >> 8),
                      static_cast<std::uint8_t>(word >> 16), static_cast<std::uint8_t>(word >> 24)};
    EXPECT_EQ(Color::parse(color.hexString()), color);
  }
}

}  // namespace
