// The common query parameters of web-service calls.
#include "kp/service/tarvix_web_service_parameters.h"

#include <array>
#include <charconv>

#include "kp/device/device_information.h"
#include "request/header_text.h"

namespace kp {
namespace {

std::optional<std::string> nonEmpty(const std::string& text) {
  if (text.empty()) return std::nullopt;
  return text;
}

}  // namespace

std::string_view deviceKindName(UserInterfaceIdiom idiom) noexcept {
  switch (idiom) {
    case UserInterfaceIdiom::phone:
      return "iphone";
    case UserInterfaceIdiom::pad:
      return "ipad";
    case UserInterfaceIdiom::tv:
      return "tv";
    case UserInterfaceIdiom::carPlay:
      return "carplay";
    case UserInterfaceIdiom::mac:
      return "mac";
    case UserInterfaceIdiom::vision:
      return "vision";
    case UserInterfaceIdiom::unspecified:
      break;
  }
  return "desktop";
}

std::string shortestDecimalText(double value) {
  std::array<char, 32> digits{};
  const auto [end, ec] = std::to_chars(digits.data(), digits.data() + digits.size(), value);
  std::string text(digits.data(), ec == std::errc() ? end : digits.data());
  if (text.find_first_of(".eEn") == std::string::npos) text += ".0";  // "n": inf and nan
  return text;
}

std::string_view deviceKindName(DeviceKind kind) noexcept {
  switch (kind) {
    case DeviceKind::phone:
      return deviceKindName(UserInterfaceIdiom::phone);
    case DeviceKind::tablet:
      return deviceKindName(UserInterfaceIdiom::pad);
    case DeviceKind::unknown:
      return deviceKindName(UserInterfaceIdiom::unspecified);
    default:
      return chassisName(kind);
  }
}

TarvixWebServiceParameters::TarvixWebServiceParameters() : TarvixWebServiceParameters(ApplicationInfo::current()) {
  // What the host left unsaid, the device information knows.
  const auto info = ApplicationInfo::current();
  const auto facts = DeviceInformation::shared().facts();
  if (info.idiom == UserInterfaceIdiom::unspecified) device = std::string(deviceKindName(facts->kind));
  if (info.systemVersion.empty()) systemVersion = facts->operatingSystem.versionText;
}

TarvixWebServiceParameters::TarvixWebServiceParameters(const ApplicationInfo& info)
    : appId(nonEmpty(info.identifier.value_or(""))),
      appVersion(nonEmpty(info.version)),
      platform(nonEmpty(internal::asciiLowercased(info.systemName))),
      device(std::string(deviceKindName(info.idiom))),
      systemVersion(nonEmpty(info.systemVersion)),
      machineIdentifier(nonEmpty(info.deviceModel)),
      displayScale(info.screenScale),
      locale(nonEmpty(info.localeIdentifier)),
      timeZoneName(nonEmpty(info.timeZone)),
      currencyCode(nonEmpty(info.currencyCode)),
      preferredLanguages(info.preferredLanguages.empty() ? std::nullopt : std::optional(info.preferredLanguages)) {}

std::vector<HttpRequestParameter> TarvixWebServiceParameters::queryParameters() const {
  std::optional<std::string> languages;
  if (preferredLanguages) {
    languages.emplace();
    for (const auto& language : *preferredLanguages) {
      if (!languages->empty()) *languages += ',';
      *languages += language;
    }
  }
  std::vector<HttpRequestParameter> list{
      {"appId", appId},
      {"appVersion", appVersion},
      {"platform", platform},
      {"device", device},
      {"machineIdentifier", machineIdentifier},
      {"systemVersion", systemVersion},
      {"locale", locale},
      {"currencyCode", currencyCode},
      {"timeZone", timeZoneName},
      {"preferredLanguages", std::move(languages)},
      {"displayScale", shortestDecimalText(displayScale)},
  };
  if (consent) list.emplace_back("consent", *consent ? "1" : "0");
  return list;
}

}  // namespace kp
