// The results a finished request hands back: RequestResult (payload, error, cache expiry)
// and HttpRequestResult (adds the HTTP response). Typed results derive from
// HttpRequestResult and only add typed views of the payload.
//
// A result with an error has failed, even when it also carries data.
//
// Thread safety: not locked; a result is filled on one thread and then handed over.
//
// Example:
//   auto result = std::make_shared<kp::HttpRequestResult>();
//   result->error = kp::RequestErrors::noConnectionError();
//   result->noConnection();   // true
#pragma once

#include <any>
#include <memory>
#include <optional>
#include <string_view>

#include "kp/coding/keyed_archiver.h"
#include "kp/platform/date.h"
#include "kp/platform/error.h"
#include "kp/request/http_response.h"

namespace kp {

class RequestResult : public Archivable {
 public:
  static constexpr std::string_view kArchiveClassName = "KPRequestResult";
  // Keys of the archived form. "_data" is written only for archivable payloads;
  // cacheExpirationDate is not archived.
  static constexpr std::string_view kArchiveKeyData = "_data";
  static constexpr std::string_view kArchiveKeyError = "_error";
  static constexpr bool supportsSecureCoding = true;

  RequestResult() = default;
  virtual ~RequestResult() = default;

  // The payload; its type depends on the kind of request (kp::Data for plain requests).
  std::any data;
  ErrorPtr error;
  // Set only for results that came from the cache.
  std::optional<Date> cacheExpirationDate;

  [[nodiscard]] bool failed() const noexcept { return error != nullptr; }
  [[nodiscard]] bool isSuccess() const noexcept { return error == nullptr; }
  [[nodiscard]] bool fromCache() const noexcept { return cacheExpirationDate.has_value(); }

  // A new result of the same class with the same values.
  [[nodiscard]] virtual std::shared_ptr<RequestResult> copy() const { return std::make_shared<RequestResult>(*this); }

  // Archived as "KPRequestResult": the error, and the payload when it is archivable (a byte
  // buffer, text, number, date, URL, parsed JSON, kp::ArchiveValue or archivable object).
  [[nodiscard]] std::string archiveClassName() const override { return std::string(kArchiveClassName); }
  void encode(ArchiveEncoder& coder) const override;
  [[nodiscard]] static std::shared_ptr<RequestResult> decode(ArchiveDecoder& coder);
  // The payload as an archive value, when it is archivable.
  [[nodiscard]] std::optional<ArchiveValue> archivableData() const;

  RequestResult(const RequestResult&) = default;
  RequestResult& operator=(const RequestResult&) = default;

 protected:
  // Reads what RequestResult::encode wrote into `result`.
  static void decodeInto(RequestResult& result, ArchiveDecoder& coder);
};

using RequestResultType = RequestResult;

// What the host and the service layer see of an HTTP result.
class HttpRequestResultType : public RequestResult {
 public:
  [[nodiscard]] virtual std::shared_ptr<HttpResponse> responseObject() const = 0;
  // True exactly when the error has code 600 (no connection).
  [[nodiscard]] bool noConnection() const noexcept { return error && error->code() == 600; }

 protected:
  HttpRequestResultType() = default;
  HttpRequestResultType(const HttpRequestResultType&) = default;
  HttpRequestResultType& operator=(const HttpRequestResultType&) = default;
};

class HttpRequestResult : public HttpRequestResultType {
 public:
  static constexpr std::string_view kArchiveKeyResponse = "_response";
  static constexpr std::string_view kArchiveClassName = "KPHttpRequestResult";

  HttpRequestResult() = default;
  HttpRequestResult(const HttpRequestResult&) = default;
  HttpRequestResult& operator=(const HttpRequestResult&) = default;

  std::shared_ptr<HttpResponse> response;

  [[nodiscard]] std::shared_ptr<HttpResponse> responseObject() const override { return response; }
  // The copy shares nothing mutable with this result: the response is copied too.
  [[nodiscard]] std::shared_ptr<RequestResult> copy() const override {
    auto out = std::make_shared<HttpRequestResult>(*this);
    if (response) out->response = std::make_shared<HttpResponse>(*response);
    return out;
  }

  // Archived as "KPHttpRequestResult": what RequestResult writes, and the response.
  [[nodiscard]] std::string archiveClassName() const override { return std::string(kArchiveClassName); }
  void encode(ArchiveEncoder& coder) const override;
  [[nodiscard]] static std::shared_ptr<HttpRequestResult> decode(ArchiveDecoder& coder);

 protected:
  // Reads what HttpRequestResult::encode wrote into `result`; typed results reuse it.
  static void decodeInto(HttpRequestResult& result, ArchiveDecoder& coder);
};

}  // namespace kp
