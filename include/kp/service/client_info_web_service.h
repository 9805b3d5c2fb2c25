// kp::ClientInfoWebService asks the client-info service what the network sees of this
// device: its public address and the user agent it is known by. kp::ClientInfoResponseReader
// reads that answer into a kp::ClientBasicInfo.
//
// The call is the "basicInfo" method of a kp::TarvixWebService at baseUrl, sealed with the
// default query key and the client-info body and response keys, with a timeout of
// timeoutInterval seconds. The default base URL is a build setting (the CMake cache variable
// KP_CLIENT_INFO_BASE_URL), by default the local weather service of `kpcore serve --port 8470`.
//
// Thread safety: configure on one thread; getBasicInfo() may then be called from any thread.
// The completion runs on the main queue.
//
// Example:
//   kp::ClientInfoWebService clientInfo("https://info.example.com");
//   auto ticket = clientInfo.getBasicInfo([](std::optional<kp::ClientBasicInfo> info, kp::ErrorPtr error) {
//     if (info && info->ip) std::cout << *info->ip << "\n";
//   });
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kp/coding/json.h"
#include "kp/platform/date.h"
#include "kp/platform/error.h"
#include "kp/platform/export.h"
#include "kp/request/request_ticket.h"
#include "kp/request/url_session.h"
#include "kp/service/tarvix_service_request.h"

namespace kp {

// How the service sees this client.
struct KP_EXPORT ClientBasicInfo {
  std::optional<std::string> ip;         // the address the service saw the call come from
  std::optional<std::string> userAgent;  // the user agent the call carried

  // Equal when both fields are.
  friend bool operator==(const ClientBasicInfo&, const ClientBasicInfo&) = default;
};

// Reads the client info out of the service's answer.
class KP_EXPORT ClientInfoResponseReader {
 public:
  ClientInfoResponseReader() = delete;
  // "network"/"ip" and "device"/"userAgent" of the answer's payload; missing or mistyped
  // values stay absent, so any value gives an answer.
  [[nodiscard]] static ClientBasicInfo readClientBasicInfo(const JsonValue& dictionary);
};

class KP_EXPORT ClientInfoWebService {
 public:
  // The client info, when the answer carried a payload object; the error of a failed call.
  using Completion = std::function<void(std::optional<ClientBasicInfo> info, ErrorPtr error)>;

  // At the build's default endpoint.
  ClientInfoWebService();
  // REQUIRES: `baseUrl` is an absolute URL.
  explicit ClientInfoWebService(std::string baseUrl);

  // The build's default endpoint.
  [[nodiscard]] static std::string_view defaultBaseUrl() noexcept;

  std::string baseUrl;                 // the service's base URL
  TimeInterval timeoutInterval = 5.0;  // seconds the call may stay idle
  // The session the call runs on (see TarvixWebService); none gives it a session of its own.
  std::shared_ptr<UrlSession> urlSession;

  // Sends "basicInfo"; `completion` receives the client info, or the call's error unchanged.
  // Nothing (and no call) when baseUrl does not form a URL. The ticket can cancel the call.
  std::shared_ptr<RequestTicketType> getBasicInfo(Completion completion) const;

  // The "basicInfo" request as getBasicInfo() sends it; nothing when baseUrl does not form a URL.
  [[nodiscard]] std::shared_ptr<TarvixServiceRequest> makeBasicInfoRequest() const;
};

}  // namespace kp
