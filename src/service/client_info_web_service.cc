// The client-info service: its "basicInfo" request and the reading of its answer.
#include "kp/service/client_info_web_service.h"

#include "kp/service/tarvix_web_service.h"

#ifndef KP_CLIENT_INFO_BASE_URL
#error "the build names the client-info endpoint (KP_CLIENT_INFO_BASE_URL)"
#endif

namespace kp {
namespace {

std::optional<std::string> textAt(const JsonValue& payload, std::string_view section, std::string_view key) {
  if (auto text = payload[section][key].stringValue()) return std::string(*text);
  return std::nullopt;
}

}  // namespace

ClientBasicInfo ClientInfoResponseReader::readClientBasicInfo(const JsonValue& dictionary) {
  return {.ip = textAt(dictionary, "network", "ip"), .userAgent = textAt(dictionary, "device", "userAgent")};
}

ClientInfoWebService::ClientInfoWebService() : ClientInfoWebService(std::string(defaultBaseUrl())) {}

ClientInfoWebService::ClientInfoWebService(std::string url) : baseUrl(std::move(url)) {}

std::string_view ClientInfoWebService::defaultBaseUrl() noexcept { return KP_CLIENT_INFO_BASE_URL; }

std::shared_ptr<TarvixServiceRequest> ClientInfoWebService::makeBasicInfoRequest() const {
  TarvixWebService service(baseUrl);
  service.encryptionDetails.bodyEncryptionKey = std::string(kClientInfoBodyEncryptionKey);
  service.encryptionDetails.responseDecryptionKey = std::string(kClientInfoResponseDecryptionKey);
  service.urlSession = urlSession;
  auto request = service.createRequestFor("basicInfo");
  if (request) request->httpConfig()->timeoutInterval = timeoutInterval;
  return request;
}

std::shared_ptr<RequestTicketType> ClientInfoWebService::getBasicInfo(Completion completion) const {
  auto request = makeBasicInfoRequest();
  if (!request) return nullptr;
  // The payload becomes client info as the call completes; an answer without a payload
  // object gives none, and no error of its own.
  return request->execute(
      [completion = std::move(completion)](const std::shared_ptr<TarvixServiceRequestResult>& result) {
        if (!completion) return;
        const JsonValue* payload = result->dataAsJson();
        std::optional<ClientBasicInfo> info;
        if (payload && payload->type() == JsonValue::Type::object)
          info = ClientInfoResponseReader::readClientBasicInfo(*payload);
        completion(std::move(info), result->error);
      });
}

}  // namespace kp
