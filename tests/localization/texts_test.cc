// Interval texts and compass points: the locale's data with its plural rules and digits, and
// the host's gettext catalogues, made here with msgfmt, taking precedence.
#include <gtest/gtest.h>

#include <fstream>

#include "kp/localization/compass.h"
#include "kp/localization/relative_time.h"
#include "support/process.h"
#include "support/temp_dir.h"

namespace {

using kp::Date;
using kp::RelativeTimeFormatter;

const Date kNow = Date::fromTimeIntervalSince1970(1711848600);

std::string ago(const RelativeTimeFormatter& formatter, double seconds) {
  return formatter.string(kNow.addingTimeInterval(-seconds), kNow);
}

TEST(RelativeTime, ThresholdsChooseTheUnit) {
  const RelativeTimeFormatter en("en_US", kp::TextWidth::long_, nullptr);
  const std::pair<double, const char*> cases[] = {
      {0, "now"},
      {44, "now"},
      {-44, "now"},
      {45, "1 minute ago"},
      {44 * 60, "44 minutes ago"},
      {45 * 60, "1 hour ago"},
      {-3 * 3600, "in 3 hours"},
      {21.4 * 3600, "21 hours ago"},
      {22 * 3600, "yesterday"},
      {-30 * 3600, "tomorrow"},
      {36 * 3600, "2 days ago"},
      {-25 * 86400, "in 25 days"},
      {26 * 86400, "1 month ago"},
      {319 * 86400, "10 months ago"},
      {320 * 86400, "1 year ago"},
      {-3 * 365.2425 * 86400, "in 3 years"},
  };
  for (const auto& [seconds, text] : cases) EXPECT_EQ(ago(en, seconds), text) << seconds;
  EXPECT_EQ(ago(RelativeTimeFormatter("en_US", kp::TextWidth::short_, nullptr), 3 * 3600), "3 hr. ago");
  EXPECT_EQ(ago(en, std::numeric_limits<double>::quiet_NaN()), "");
  EXPECT_EQ(ago(en, 1e300), "");
}

TEST(RelativeTime, PluralRulesAndDigitsOfTheLocale) {
  const RelativeTimeFormatter ru("ru_RU", kp::TextWidth::long_, nullptr);
  EXPECT_EQ(ago(ru, 1 * 3600), "1 час назад");
  EXPECT_EQ(ago(ru, 3 * 3600), "3 часа назад");
  EXPECT_EQ(ago(ru, 5 * 3600), "5 часов назад");
  EXPECT_EQ(ago(ru, 21 * 3600), "21 час назад");
  EXPECT_EQ(ago(ru, -2 * 60), "через 2 минуты");
  const RelativeTimeFormatter pl("pl_PL", kp::TextWidth::long_, nullptr);
  EXPECT_EQ(ago(pl, 1 * 3600), "1 godzinę temu");
  EXPECT_EQ(ago(pl, 2 * 3600), "2 godziny temu");
  EXPECT_EQ(ago(pl, 5 * 3600), "5 godzin temu");
  EXPECT_EQ(ago(pl, 12 * 3600), "12 godzin temu");
  EXPECT_EQ(ago(pl, 22 * 86400), "22 dni temu");
  EXPECT_EQ(ago(pl, 30 * 3600), "wczoraj");
  const RelativeTimeFormatter ar("ar_EG", kp::TextWidth::long_, nullptr);
  EXPECT_EQ(ago(ar, 3 * 3600), "قبل ٣ ساعات");
  // An unknown locale falls back as ICU does (to the process's default locale); text that is
  // no locale identifier is the root locale.
  EXPECT_NE(ago(RelativeTimeFormatter("xx_YY", kp::TextWidth::long_, nullptr), 3 * 3600), "");
  EXPECT_EQ(ago(RelativeTimeFormatter("\xff/../de", kp::TextWidth::long_, nullptr), 3 * 3600), "-3 h");
}

TEST(Compass, PointsAndEnglishNames) {
  using kp::CompassPoints;
  EXPECT_EQ(kp::compassPoint(106, CompassPoints::sixteen), 5);
  EXPECT_EQ(kp::compassPoint(106, CompassPoints::eight), 2);
  EXPECT_EQ(kp::compassPoint(348.74, CompassPoints::sixteen), 15);
  EXPECT_EQ(kp::compassPoint(348.75, CompassPoints::sixteen), 0);
  EXPECT_EQ(kp::compassPoint(-90, CompassPoints::sixteen), 12);
  EXPECT_EQ(kp::compassPoint(765, CompassPoints::eight), 1);
  EXPECT_FALSE(kp::compassPoint(std::numeric_limits<double>::infinity(), CompassPoints::eight));
  const kp::CompassFormatter sixteen("de_DE", CompassPoints::sixteen, kp::TextWidth::short_, nullptr);
  EXPECT_EQ(sixteen.string(106), "ESE");
  EXPECT_EQ(sixteen.string(std::numeric_limits<double>::quiet_NaN()), "");
  EXPECT_EQ(kp::CompassFormatter("en", CompassPoints::eight, kp::TextWidth::long_, nullptr).string(315), "northwest");
}

// Catalogues as a host installs them: `<folder>/<locale>/LC_MESSAGES/weather.mo`.
class HostStrings : public ::testing::Test {
 protected:
  void SetUp() override {
    if (kp::test::runCommand("command -v msgfmt >/dev/null").status != 0) GTEST_SKIP() << "msgfmt is not installed";
    const char* russianPlurals =
        "\"Plural-Forms: nplurals=3; plural=(n%10==1 && n%100!=11 ? 0 : n%10>=2 && n%10<=4 && "
        "(n%100<10 || n%100>=20) ? 1 : 2);\\n\"\n";
    write("first/ru/LC_MESSAGES", russianPlurals,
          "msgid \"now\"\nmsgstr \"только что\"\n"
          "msgid \"{0} hour ago\"\nmsgid_plural \"{0} hours ago\"\n"
          "msgstr[0] \"{0} час тому\"\nmsgstr[1] \"{0} часа тому\"\nmsgstr[2] \"{0} часов тому\"\n"
          "msgctxt \"compass point\"\nmsgid \"NNE\"\nmsgstr \"ССВ\"\n");
    // A second folder's catalogue is not asked while the first folder holds one.
    write("second/ru/LC_MESSAGES", russianPlurals, "msgid \"yesterday\"\nmsgstr \"вчера днём\"\n");
    // The region's catalogue comes before the language's.
    write("first/pt_BR/LC_MESSAGES", "", "msgid \"now\"\nmsgstr \"agora mesmo\"\n");
    write("first/pt/LC_MESSAGES", "", "msgid \"now\"\nmsgstr \"já\"\n");
    // A damaged catalogue counts as absent.
    std::filesystem::create_directories(dir_.path() / "first/de/LC_MESSAGES");
    std::ofstream(dir_.path() / "first/de/LC_MESSAGES/weather.mo") << "\xde\x12\x04\x95garbage";
    strings_ = std::make_shared<kp::LocalizedStrings>(
        "weather", std::vector<std::filesystem::path>{dir_.path() / "first", dir_.path() / "second"});
  }

  void write(const std::string& folder, const char* header, const char* entries) {
    const auto path = dir_.path() / folder;
    std::filesystem::create_directories(path);
    std::ofstream(path / "weather.po") << "msgid \"\"\nmsgstr \"\"\n\"Content-Type: text/plain; charset=UTF-8\\n\"\n"
                                       << header << "\n"
                                       << entries;
    const auto made = kp::test::runCommand("msgfmt -o " + kp::test::shellQuote((path / "weather.mo").string()) + " " +
                                           kp::test::shellQuote((path / "weather.po").string()) + " 2>&1");
    ASSERT_EQ(made.status, 0) << made.output;
  }

  kp::test::TempDir dir_;
  std::shared_ptr<kp::LocalizedStrings> strings_;
};

TEST_F(HostStrings, TakePrecedenceOverTheLocaleDataWhereTheyHoldAText) {
  const RelativeTimeFormatter ru("ru_RU", kp::TextWidth::long_, strings_);
  EXPECT_EQ(ago(ru, 10), "только что");
  EXPECT_EQ(ago(ru, 1 * 3600), "1 час тому");
  EXPECT_EQ(ago(ru, 3 * 3600), "3 часа тому");
  EXPECT_EQ(ago(ru, 11 * 3600), "11 часов тому");
  EXPECT_EQ(ago(ru, 5 * 60), "5 минут назад");  // not in the catalogue: the locale's data
  EXPECT_EQ(ago(ru, 30 * 3600), "вчера");       // only the second folder has it
  EXPECT_EQ(kp::CompassFormatter("ru_RU", kp::CompassPoints::sixteen, kp::TextWidth::short_, strings_).string(20),
            "ССВ");
  EXPECT_EQ(kp::CompassFormatter("ru_RU", kp::CompassPoints::sixteen, kp::TextWidth::short_, strings_).string(45),
            "NE");

  EXPECT_EQ(ago(RelativeTimeFormatter("pt_BR", kp::TextWidth::long_, strings_), 0), "agora mesmo");
  EXPECT_EQ(ago(RelativeTimeFormatter("pt_PT", kp::TextWidth::long_, strings_), 0), "já");
  EXPECT_EQ(ago(RelativeTimeFormatter("de_DE", kp::TextWidth::long_, strings_), 0), "jetzt");
  EXPECT_EQ(strings_->text("ru_RU", "NNE"), std::nullopt);  // its context is "compass point"
  EXPECT_EQ(strings_->pluralText("ru_RU", "{0} hour ago", 1'000'000'000'022LL), "{0} часа тому");
}

}  // namespace
