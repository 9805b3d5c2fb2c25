// The environment's defaults, and locales from identifiers.
#include "kp/localization/localization.h"

#include <unicode/numberformatter.h>

#include <algorithm>

#include "localization/icu_support.h"
#include "platform/env.h"
#include "platform/no_destructor.h"

namespace kp {

std::string currentLocaleIdentifier() { return platform::Env::current().localeIdentifier(); }

std::string currentTimeZoneName() { return platform::Env::current().timeZoneName(); }

namespace internal {
namespace {

// Identifiers are short; anything longer or holding other characters is not one.
constexpr std::size_t kMaximumIdentifierLength = 96;

std::string cleanIdentifier(std::string_view identifier) {
  if (identifier.empty()) return currentLocaleIdentifier();
  std::string id(identifier.substr(0, identifier.find('.')));
  // POSIX modifiers ("@euro", "@latin") are no ICU keywords; ICU's ("@rg=gbzzzz") have '='.
  if (const auto at = id.find('@'); at != std::string::npos && id.find('=', at) == std::string::npos) id.erase(at);
  if (id == "C" || id == "POSIX") return "en_US_POSIX";
  const bool plain = std::all_of(id.begin(), id.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
           c == '@' || c == '=' || c == ';';
  });
  if (!plain || id.size() > kMaximumIdentifierLength) return "und";
  return id;
}

}  // namespace

icu::Locale localeFor(std::string_view identifier) {
  const std::string id = cleanIdentifier(identifier);
  icu::Locale locale(id.c_str());
  if (locale.isBogus()) return icu::Locale::getRoot();
  return locale;
}

std::string localeKey(std::string_view identifier) { return localeFor(identifier).getName(); }

std::string utf8(const icu::UnicodeString& text) {
  std::string out;
  text.toUTF8String(out);
  return out;
}

void appendUtf8(std::string& out, const icu::UnicodeString& text) { text.toUTF8String(out); }

std::string integerText(std::string_view locale, long long value) {
  using Numbers = icu::number::LocalizedNumberFormatter;
  static NoDestructor<SharedCache<Numbers>> cache;
  const std::string key = localeKey(locale);
  const auto numbers = cache->get(key, [&] {
    return std::make_shared<const Numbers>(icu::number::NumberFormatter::withLocale(localeFor(locale)));
  });
  UErrorCode status = U_ZERO_ERROR;
  const auto formatted = numbers->formatInt(value, status);
  const auto text = formatted.toString(status);
  return U_SUCCESS(status) ? utf8(text) : std::to_string(value);
}

std::string substitute(std::string text, std::string_view number) {
  if (const auto at = text.find("{0}"); at != std::string::npos) text.replace(at, 3, number);
  return text;
}

}  // namespace internal
}  // namespace kp
