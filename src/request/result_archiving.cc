// Archived forms of responses and results, so that the cache can keep them.
#include <typeinfo>

#include "kp/request/http_response.h"
#include "kp/request/request_result.h"

namespace kp {
namespace {

const ArchiveRegistration<HttpResponse> responseRegistration{std::string(HttpResponse::kArchiveClassName)};
const ArchiveRegistration<RequestResult> resultRegistration{std::string(RequestResult::kArchiveClassName)};
const ArchiveRegistration<HttpRequestResult> httpResultRegistration{std::string(HttpRequestResult::kArchiveClassName),
                                                                    {std::string(RequestResult::kArchiveClassName)}};

// The payload types that have an archived form, as their archive value.
template <class... T>
std::optional<ArchiveValue> firstOf(const std::any& data) {
  std::optional<ArchiveValue> out;
  auto tryType = [&]<class U>() {
    if (!out && data.type() == typeid(U)) out = ArchiveValue(std::any_cast<const U&>(data));
  };
  (tryType.template operator()<T>(), ...);
  return out;
}

// Plain values come back as their own C++ types; collections and objects as archive values.
std::any payloadOf(const ArchiveValue& value) {
  if (const auto* data = value.get<Data>()) return *data;
  if (const auto* text = value.get<std::string>()) return *text;
  if (const auto* integer = value.get<std::int64_t>()) return *integer;
  if (const auto* real = value.get<double>()) return *real;
  if (const auto* flag = value.get<bool>()) return *flag;
  if (const auto* date = value.get<Date>()) return *date;
  if (const auto* url = value.get<Url>()) return *url;
  if (const auto* object = value.get<ArchivablePtr>()) return *object;
  return value;
}

}  // namespace

void HttpResponse::encode(ArchiveEncoder& coder) const {
  if (statusCode) coder.encodeObject(kArchiveKeyStatusCode, ArchiveValue(std::int64_t{*statusCode}));
  ArchiveValue::Dictionary fields;
  for (const auto& [name, value] : headers) fields.emplace(name, ArchiveValue(value));
  coder.encodeObject(kArchiveKeyHeaders, ArchiveValue(std::move(fields)));
  ArchiveValue::Array hops;
  for (const auto& url : redirects) hops.emplace_back(url);
  coder.encodeObject(kArchiveKeyRedirects, ArchiveValue(std::move(hops)));
}

std::shared_ptr<HttpResponse> HttpResponse::decode(ArchiveDecoder& coder) {
  auto response = std::make_shared<HttpResponse>();
  if (auto status = coder.decodeObject(kArchiveKeyStatusCode)) {
    const auto* number = status->get<std::int64_t>();
    if (!number || *number < INT32_MIN || *number > INT32_MAX) coder.fail("the status code is not a number");
    response->statusCode = static_cast<int>(*number);
  }
  if (auto fields = coder.decodeObject(kArchiveKeyHeaders)) {
    const auto* dictionary = fields->get<ArchiveValue::Dictionary>();
    if (!dictionary) coder.fail("the headers are not a dictionary");
    for (const auto& [name, value] : *dictionary) {
      const auto* text = value.get<std::string>();
      if (!text) coder.fail("a header value is not text");
      response->headers.emplace(name, *text);
    }
  }
  if (auto hops = coder.decodeObject(kArchiveKeyRedirects)) {
    const auto* list = hops->get<ArchiveValue::Array>();
    if (!list) coder.fail("the redirects are not a list");
    for (const auto& hop : *list) {
      const auto* url = hop.get<Url>();
      if (!url) coder.fail("a redirect is not a URL");
      response->redirects.push_back(*url);
    }
  }
  return response;
}

bool HttpResponse::isEqual(const Archivable& other) const {
  const auto* response = dynamic_cast<const HttpResponse*>(&other);
  return response && response->statusCode == statusCode && response->headers == headers &&
         response->redirects == redirects;
}

std::optional<ArchiveValue> RequestResult::archivableData() const {
  if (!data.has_value()) return std::nullopt;
  if (data.type() == typeid(ArchiveValue)) return std::any_cast<const ArchiveValue&>(data);
  if (data.type() == typeid(ArchivablePtr)) return ArchiveValue(std::any_cast<const ArchivablePtr&>(data));
  return firstOf<Data, std::string, std::int64_t, int, double, bool, Date, Url>(data);
}

std::optional<ArchiveValue> RequestResult::cachePayload(CacheItemType) const { return archivableData(); }

void RequestResult::restorePayload(const ArchiveValue& payload) { data = payloadOf(payload); }

void RequestResult::encode(ArchiveEncoder& coder) const {
  // A payload without an archived form is left out; error and response still survive.
  if (auto payload = cachePayload(CacheItemType::serialized); payload && !payload->isNull()) {
    coder.encodeObject(kArchiveKeyData, *payload);
  }
  if (error) coder.encodeObject(kArchiveKeyError, ArchiveValue(error));
}

void RequestResult::decodeInto(RequestResult& result, ArchiveDecoder& coder) {
  if (auto payload = coder.decodeObject(kArchiveKeyData)) result.restorePayload(*payload);
  if (auto stored = coder.decodeObject(kArchiveKeyError)) {
    const auto* error = stored->get<ErrorPtr>();
    if (!error) coder.fail("the error is not an error");
    result.error = *error;
  }
}

std::shared_ptr<RequestResult> RequestResult::decode(ArchiveDecoder& coder) {
  auto result = std::make_shared<RequestResult>();
  decodeInto(*result, coder);
  return result;
}

void HttpRequestResult::encode(ArchiveEncoder& coder) const {
  RequestResult::encode(coder);
  if (response)
    coder.encodeObject(kArchiveKeyResponse, ArchiveValue(std::static_pointer_cast<const Archivable>(response)));
}

void HttpRequestResult::decodeInto(HttpRequestResult& result, ArchiveDecoder& coder) {
  RequestResult::decodeInto(result, coder);
  if (auto stored = coder.decodeObject(kArchiveKeyResponse)) {
    auto response = stored->object<HttpResponse>();
    if (!response) coder.fail("the response is not a response");
    result.response = std::make_shared<HttpResponse>(*response);
  }
}

std::shared_ptr<HttpRequestResult> HttpRequestResult::decode(ArchiveDecoder& coder) {
  auto result = std::make_shared<HttpRequestResult>();
  decodeInto(*result, coder);
  return result;
}

}  // namespace kp
