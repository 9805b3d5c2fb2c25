// kp::TarvixWebServiceParameters: the device and application facts that every web-service
// call carries as query parameters, so that the server can shape its answer (language,
// units, time zone, app version).
//
// A new record takes its values from kp::ApplicationInfo::current(): the identifier and
// version of the application, the platform (the system name in lower case: "linux" here,
// "ios" for a host that says it runs iOS), the device kind from the idiom, the system version
// and machine model, the display scale, locale, time zone, currency and preferred languages.
// Where the host set no idiom or system version, kp::DeviceInformation gives them: the
// device kind's name ("laptop", "desktop", "vm"; "iphone" and "ipad" for a handset and a
// tablet) and the operating system's version ("12"; "unknown" when os-release does not say).
// A record made from a given ApplicationInfo holds that record's facts alone. Empty facts
// become absent values, which travel as empty parameters. A host whose server expects other
// texts sets them in kp::ApplicationInfo or on the record.
//
// Thread safety: a plain value.
//
// Example:
//   kp::TarvixWebServiceParameters parameters;      // from the application information
//   parameters.consent = true;
//   request->httpConfig()->addQuery(parameters.queryParameters());
//   // appId=...&appVersion=...&platform=linux&device=desktop&...&displayScale=1.0&consent=1
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kp/device/device_kind.h"
#include "kp/platform/application_info.h"
#include "kp/platform/export.h"
#include "kp/request/http_request_parameter.h"

namespace kp {

// The common query parameters of every service call: what the application and device are.
struct KP_EXPORT TarvixWebServiceParameters {
  // From ApplicationInfo::current() and, for what it leaves unset, DeviceInformation::shared().
  TarvixWebServiceParameters();
  // From `info` and, for what it leaves unset, DeviceInformation::shared().
  explicit TarvixWebServiceParameters(const ApplicationInfo& info);

  std::optional<std::string> appId;                            // the application identifier
  std::optional<std::string> appVersion;                       // its version
  std::optional<std::string> platform;                         // "linux"
  std::optional<std::string> device;                           // the device kind, "desktop"
  std::optional<std::string> systemVersion;                    // the operating system's version
  std::optional<std::string> machineIdentifier;                // the machine type, "x86_64"
  double displayScale = 1.0;                                   // device pixels per point
  std::optional<std::string> locale;                           // "en_US"
  std::optional<std::string> timeZoneName;                     // "Europe/Berlin"
  std::optional<std::string> currencyCode;                     // "EUR"
  std::optional<std::vector<std::string>> preferredLanguages;  // "en-US", ...
  std::optional<bool> consent;                                 // the user's consent, when asked

  // In the order servers read them: appId, appVersion, platform, device, machineIdentifier,
  // systemVersion, locale, currencyCode, timeZone, preferredLanguages (joined by ","),
  // displayScale (shortest decimal text, "2.0"), and consent ("1" or "0") only when set.
  [[nodiscard]] std::vector<HttpRequestParameter> queryParameters() const;

  // Equal fields.
  friend bool operator==(const TarvixWebServiceParameters&, const TarvixWebServiceParameters&) = default;
};

// The device kind servers know for an idiom: "iphone", "ipad", "tv", "carplay", "mac",
// "vision", and "desktop" for a machine that has not named its idiom.
[[nodiscard]] KP_EXPORT std::string_view deviceKindName(UserInterfaceIdiom idiom) noexcept;
// The device kind servers know for a kind of machine: a phone's and a tablet's idiom names,
// "desktop" for an unknown machine, else the chassis word ("laptop", "server", "vm" ...).
[[nodiscard]] KP_EXPORT std::string_view deviceKindName(DeviceKind kind) noexcept;

// The shortest decimal text that reads back as `value`, with ".0" on whole numbers ("2.0",
// "1.5", "1e+20").
[[nodiscard]] KP_EXPORT std::string shortestDecimalText(double value);

}  // namespace kp
