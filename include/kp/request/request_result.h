// The results a finished request hands back: RequestResult (payload, error, cache expiry)
// and HttpRequestResult (adds the HTTP response). Typed results derive from
// HttpRequestResult through TypedRequestResult and only add typed views of the payload and
// the form in which the cache keeps it.
//
// A result with an error has failed, even when it also carries data.
//
// Thread safety: not locked; a result is filled on one thread and then handed over. Once
// handed to a completion it is only read (the cache may be reading it meanwhile).
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

#include "kp/cache/cacheable.h"
#include "kp/coding/keyed_archiver.h"
#include "kp/platform/date.h"
#include "kp/platform/error.h"
#include "kp/platform/export.h"
#include "kp/request/http_response.h"

namespace kp {

class KP_EXPORT RequestResult : public Archivable {
 public:
  static constexpr std::string_view kArchiveClassName = "KPRequestResult";
  // Keys of the archived form. "_data" is written only for archivable payloads;
  // cacheExpirationDate is not archived.
  static constexpr std::string_view kArchiveKeyData = "_data";
  static constexpr std::string_view kArchiveKeyError = "_error";
  static constexpr bool supportsSecureCoding = true;

  // Tag of the copy constructors that leave the payload out.
  struct WithoutData {};

  RequestResult() = default;
  RequestResult(const RequestResult& other, WithoutData)
      : error(other.error), cacheExpirationDate(other.cacheExpirationDate) {}
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
  [[nodiscard]] virtual std::shared_ptr<RequestResult> copy() const {
    auto out = copyWithoutData();
    out->data = data;
    return out;
  }
  // The same, without the payload (which may be large).
  [[nodiscard]] virtual std::shared_ptr<RequestResult> copyWithoutData() const {
    return std::make_shared<RequestResult>(*this, WithoutData{});
  }

  // Archived as "KPRequestResult": the error, and the payload when it is archivable (its
  // cachePayload() for a serialized entry).
  [[nodiscard]] std::string archiveClassName() const override { return std::string(kArchiveClassName); }
  void encode(ArchiveEncoder& coder) const override;
  [[nodiscard]] static std::shared_ptr<RequestResult> decode(ArchiveDecoder& coder);
  // The payload as an archive value, when it is archivable (a byte buffer, text, number,
  // date, URL, kp::ArchiveValue or archivable object).
  [[nodiscard]] std::optional<ArchiveValue> archivableData() const;

  // The payload in the form the cache keeps for an entry of `type`; nothing when there is no
  // payload or it has no such form. Plain results keep archivableData().
  [[nodiscard]] virtual std::optional<ArchiveValue> cachePayload(CacheItemType type) const;
  // Takes back a payload that cachePayload() gave: plain values become their C++ types
  // (kp::Data, std::string, numbers, kp::Date, kp::Url), objects stay archive values.
  virtual void restorePayload(const ArchiveValue& payload);

  RequestResult(const RequestResult&) = default;
  RequestResult& operator=(const RequestResult&) = default;

 protected:
  // Reads what RequestResult::encode wrote into `result`.
  static void decodeInto(RequestResult& result, ArchiveDecoder& coder);
};

using RequestResultType = RequestResult;

// What the host and the service layer see of an HTTP result.
class KP_EXPORT HttpRequestResultType : public RequestResult {
 public:
  using RequestResult::RequestResult;
  [[nodiscard]] virtual std::shared_ptr<HttpResponse> responseObject() const = 0;
  // True exactly when the error has code 600 (no connection).
  [[nodiscard]] bool noConnection() const noexcept { return error && error->code() == 600; }

 protected:
  HttpRequestResultType() = default;
  HttpRequestResultType(const HttpRequestResultType&) = default;
  HttpRequestResultType& operator=(const HttpRequestResultType&) = default;
};

class KP_EXPORT HttpRequestResult : public HttpRequestResultType {
 public:
  static constexpr std::string_view kArchiveKeyResponse = "_response";
  static constexpr std::string_view kArchiveClassName = "KPHttpRequestResult";

  HttpRequestResult() = default;
  HttpRequestResult(const HttpRequestResult&) = default;
  HttpRequestResult& operator=(const HttpRequestResult&) = default;
  // The copy shares nothing mutable with `other`: the response is copied too.
  HttpRequestResult(const HttpRequestResult& other, WithoutData tag)
      : HttpRequestResultType(other, tag),
        response(other.response ? std::make_shared<HttpResponse>(*other.response) : nullptr) {}

  std::shared_ptr<HttpResponse> response;

  [[nodiscard]] std::shared_ptr<HttpResponse> responseObject() const override { return response; }
  [[nodiscard]] std::shared_ptr<RequestResult> copyWithoutData() const override {
    return std::make_shared<HttpRequestResult>(*this, WithoutData{});
  }

  // Archived as "KPHttpRequestResult": what RequestResult writes, and the response.
  [[nodiscard]] std::string archiveClassName() const override { return std::string(kArchiveClassName); }
  void encode(ArchiveEncoder& coder) const override;
  [[nodiscard]] static std::shared_ptr<HttpRequestResult> decode(ArchiveDecoder& coder);

 protected:
  // Reads what HttpRequestResult::encode wrote into `result`; typed results reuse it.
  static void decodeInto(HttpRequestResult& result, ArchiveDecoder& coder);
};

// The common part of the typed results: copies of the right class, the archive class name,
// and reading back what HttpRequestResult writes. `Self` names its archive class in
// kArchiveClassName and registers Self::decode under it.
template <class Self>
class KP_EXPORT TypedRequestResult : public HttpRequestResult {
 public:
  [[nodiscard]] std::shared_ptr<RequestResult> copyWithoutData() const override {
    auto out = std::make_shared<Self>();
    static_cast<HttpRequestResult&>(*out) = HttpRequestResult(*this, WithoutData{});
    return out;
  }
  [[nodiscard]] std::string archiveClassName() const override { return std::string(Self::kArchiveClassName); }
  [[nodiscard]] static std::shared_ptr<Self> decode(ArchiveDecoder& coder) {
    auto result = std::make_shared<Self>();
    decodeInto(*result, coder);
    return result;
  }
};

}  // namespace kp
