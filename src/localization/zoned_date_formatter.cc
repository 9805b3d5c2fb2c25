// Localized date texts: a skeleton turned into the locale's pattern by ICU's pattern
// generator, written by ICU's date formatter in the zone.
#include "kp/localization/zoned_date_formatter.h"

#include <unicode/dtptngen.h>
#include <unicode/smpdtfmt.h>

#include "kp/localization/localization.h"
#include "localization/icu_support.h"

namespace kp {

class ZonedDateFormatter::Impl {
 public:
  Impl(std::unique_ptr<icu::SimpleDateFormat> format, std::string pattern)
      : format_(std::move(format)), pattern_(std::move(pattern)) {}

  [[nodiscard]] const std::string& pattern() const noexcept { return pattern_; }

  void append(std::string& out, Date date) const {
    if (!internal::isDate(date)) return;
    icu::UnicodeString text;
    {
      std::lock_guard lock(mutex_);  // formatting moves the formatter's calendar
      format_->format(std::floor(date.timeIntervalSince1970() * 1000.0), text);
    }
    internal::appendUtf8(out, text);
  }

 private:
  mutable std::mutex mutex_;
  std::unique_ptr<icu::SimpleDateFormat> format_;
  std::string pattern_;
};

Result<ZonedDateFormatter> ZonedDateFormatter::make(std::string_view skeleton, std::string_view zone,
                                                    std::string_view locale) {
  auto calendar = ZonedCalendar::make(zone, locale);
  if (!calendar.value()) return Result<ZonedDateFormatter>::failure(calendar.error());
  return make(skeleton, *calendar.value(), locale);
}

Result<ZonedDateFormatter> ZonedDateFormatter::make(std::string_view skeleton, const ZonedCalendar& calendar,
                                                    std::string_view locale) {
  auto invalid = [&] {
    return Result<ZonedDateFormatter>::failure(Error::make(std::string(LocalizationError::kDomain),
                                                           LocalizationError::kInvalidSkeleton,
                                                           "Not a date skeleton: \"" + std::string(skeleton) + "\""));
  };
  if (skeleton.empty() || skeleton.size() > 64) return invalid();
  const icu::Locale where = internal::localeFor(locale);
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::DateTimePatternGenerator> generator(
      icu::DateTimePatternGenerator::createInstance(where, status));
  if (U_FAILURE(status)) return invalid();
  const icu::UnicodeString pattern = generator->getBestPattern(
      icu::UnicodeString::fromUTF8(icu::StringPiece(skeleton.data(), skeleton.size())), status);
  if (U_FAILURE(status) || pattern.isEmpty()) return invalid();
  auto format = std::make_unique<icu::SimpleDateFormat>(pattern, where, status);
  if (U_FAILURE(status)) return invalid();
  format->adoptTimeZone(internal::ZonedCalendarAccess::impl(calendar).zone().release());
  return Result<ZonedDateFormatter>::success(
      ZonedDateFormatter(std::make_shared<Impl>(std::move(format), internal::utf8(pattern))));
}

const std::string& ZonedDateFormatter::pattern() const noexcept { return impl_->pattern(); }

std::string ZonedDateFormatter::string(Date date) const {
  std::string out;
  impl_->append(out, date);
  return out;
}

void ZonedDateFormatter::append(std::string& out, Date date) const { impl_->append(out, date); }

}  // namespace kp
