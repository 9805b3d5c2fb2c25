// The encrypted wire request and the decrypted body of decodable requests.
#include "kp/request/decodable_data_request.h"

#include "crypto/service_payload.h"
#include "kp/request/url_request_factory.h"

namespace kp::internal {

namespace {
std::string_view keyOrNone(const std::optional<std::string>& key) { return key ? std::string_view(*key) : ""; }
}  // namespace

void prepareEncryptedUrlRequest(HttpRequestHandler& handler, const HttpRequestType& request,
                                const std::optional<std::string>& queryKey, const std::optional<std::string>& bodyKey) {
  if (keyOrNone(queryKey).empty() && keyOrNone(bodyKey).empty()) return;  // the plain request stands
  handler.urlRequest = UrlRequestFactory::createUrlRequest(request, queryKey, bodyKey);
}

std::optional<Data> decodableBody(const std::optional<Data>& received,
                                  const std::optional<std::string>& decryptionKey) {
  if (!received) return std::nullopt;
  if (keyOrNone(decryptionKey).empty()) return received;
  return openedData(received->bytes(), *decryptionKey);
}

}  // namespace kp::internal
