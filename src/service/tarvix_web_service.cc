// The web-service facades: method URLs and the request set-up both share.
#include "kp/service/tarvix_web_service.h"

#include "kp/logging/tarvix_logger.h"

namespace kp {
namespace {

std::string withoutTrailingSlashes(std::string url) {
  while (url.ends_with('/') && !url.ends_with("//")) url.pop_back();
  return url;
}

}  // namespace

namespace internal {

std::optional<Url> WebServiceSettings::createUrl(std::string_view method) const {
  std::string text = baseUrl;
  text += '/';
  if (version && !version->empty()) {
    text += *version;
    text += '/';
  }
  text += method;
  // A method or version written with spaces or letters outside ASCII is encoded, as a base URL
  // naming its host in Unicode is converted.
  auto url = Url::parseEncodingInvalidCharacters(text);
  if (!url || !url->isAbsolute()) return std::nullopt;
  return url;
}

void WebServiceSettings::prepare(BasicHttpRequest& request, EncryptionRequestType& keys,
                                 std::optional<Data> content) const {
  HttpRequestConfig& config = *request.httpConfig();
  config.addQuery(requestParameters.queryParameters());
  if (encryptionDetails.skipEncryptionAndDecryption) {
    config.addQuery("1", "skipcrypt");
  } else {
    keys.requestQueryEncryptionKey = encryptionDetails.queryStringEncryptionKey;
    keys.requestBodyEncryptionKey = encryptionDetails.bodyEncryptionKey;
    keys.responseBodyDecryptionKey = encryptionDetails.responseDecryptionKey;
  }
  config.bodyData = std::move(content);
  if (urlSession) {
    // The request's own handler would otherwise hand it a session of its own.
    if (auto handler = std::dynamic_pointer_cast<HttpRequestHandler>(request.handler())) {
      handler->useSharedURLSession = false;
    }
    request.setUrlSession(urlSession);
  }
}

}  // namespace internal

TarvixWebService::TarvixWebService(std::string url) { baseUrl = withoutTrailingSlashes(std::move(url)); }

std::shared_ptr<TarvixServiceRequest> TarvixWebService::createRequestFor(std::string_view method,
                                                                         std::optional<Data> content) const {
  auto url = createUrl(method);
  if (!url) return nullptr;
  auto request = TarvixServiceRequest::make(std::move(*url));
  prepare(*request, *request, std::move(content));
  return request;
}

DecodableTarvixWebService::DecodableTarvixWebService(std::string url) {
  baseUrl = withoutTrailingSlashes(std::move(url));
}

std::optional<Data> DecodableTarvixWebService::encodeContent(std::string_view method,
                                                             const std::function<Data()>& encode) {
  std::string reason;
  try {
    return encode();
  } catch (const std::exception& error) {
    reason = error.what();
  } catch (...) {
    reason = "unknown exception";
  }
  TarvixLoggers::CL()->error("No request for method \"" + std::string(method) +
                             "\": its content cannot be encoded as JSON (" + reason + ")");
  return std::nullopt;
}

}  // namespace kp
