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

// What every finished request hands back: the payload, the error and, for a cached result,
// its expiry.
class KP_EXPORT RequestResult : public Archivable {
 public:
  // The class name of the archived form.
  static constexpr std::string_view kArchiveClassName = "KPRequestResult";
  // Keys of the archived form. "_data" is written only for archivable payloads;
  // cacheExpirationDate is not archived.
  static constexpr std::string_view kArchiveKeyData = "_data";
  static constexpr std::string_view kArchiveKeyError = "_error";  // see kArchiveKeyData
  // The archived form may be read back with the class checked (secure coding).
  static constexpr bool supportsSecureCoding = true;

  // Tag of the copy constructors that leave the payload out.
  struct WithoutData {};

  RequestResult() = default;
  // A copy of `other` without its payload.
  RequestResult(const RequestResult& other, WithoutData)
      : error(other.error), cacheExpirationDate(other.cacheExpirationDate) {}
  virtual ~RequestResult() = default;

  // The payload; its type depends on the kind of request (kp::Data for plain requests).
  std::any data;
  ErrorPtr error;  // why the request failed; null on success
  // Set only for results that came from the cache.
  std::optional<Date> cacheExpirationDate;

  // True when there is an error, whatever the payload.
  [[nodiscard]] bool failed() const noexcept { return error != nullptr; }
  // True when there is no error.
  [[nodiscard]] bool isSuccess() const noexcept { return error == nullptr; }
  // True for a result that came from the cache.
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
  // Writes the archived form described at archiveClassName().
  void encode(ArchiveEncoder& coder) const override;
  // Reads back what encode() wrote.
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

  // A copy; the payload is copied as std::any copies it.
  RequestResult(const RequestResult&) = default;
  // Takes `other`'s fields, the payload included.
  RequestResult& operator=(const RequestResult&) = default;

 protected:
  // Reads what RequestResult::encode wrote into `result`.
  static void decodeInto(RequestResult& result, ArchiveDecoder& coder);
};

// The name the request protocol uses for RequestResult.
using RequestResultType = RequestResult;

// What the host and the service layer see of an HTTP result.
class KP_EXPORT HttpRequestResultType : public RequestResult {
 public:
  // The constructors of RequestResult.
  using RequestResult::RequestResult;
  // The HTTP response; null when no answer arrived.
  [[nodiscard]] virtual std::shared_ptr<HttpResponse> responseObject() const = 0;
  // True exactly when the error has code 600 (no connection).
  [[nodiscard]] bool noConnection() const noexcept { return error && error->code() == 600; }

 protected:
  HttpRequestResultType() = default;
  // A copy, for the copies of the derived results.
  HttpRequestResultType(const HttpRequestResultType&) = default;
  // Takes `other`'s fields, for the derived results.
  HttpRequestResultType& operator=(const HttpRequestResultType&) = default;
};

// The result of an HTTP request: what RequestResult holds, and the response.
class KP_EXPORT HttpRequestResult : public HttpRequestResultType {
 public:
  static constexpr std::string_view kArchiveKeyResponse = "_response";          // the response's archive key
  static constexpr std::string_view kArchiveClassName = "KPHttpRequestResult";  // the archived class name

  HttpRequestResult() = default;
  // A copy that shares the response with `other`.
  HttpRequestResult(const HttpRequestResult&) = default;
  // Takes `other`'s fields; the response is then shared.
  HttpRequestResult& operator=(const HttpRequestResult&) = default;
  // The copy shares nothing mutable with `other`: the response is copied too.
  HttpRequestResult(const HttpRequestResult& other, WithoutData tag)
      : HttpRequestResultType(other, tag),
        response(other.response ? std::make_shared<HttpResponse>(*other.response) : nullptr) {}

  std::shared_ptr<HttpResponse> response;  // null when no answer arrived

  // `response`.
  [[nodiscard]] std::shared_ptr<HttpResponse> responseObject() const override { return response; }
  // A copy without the payload, with a copy of the response.
  [[nodiscard]] std::shared_ptr<RequestResult> copyWithoutData() const override {
    return std::make_shared<HttpRequestResult>(*this, WithoutData{});
  }

  // Archived as "KPHttpRequestResult": what RequestResult writes, and the response.
  [[nodiscard]] std::string archiveClassName() const override { return std::string(kArchiveClassName); }
  // Writes the archived form described at archiveClassName().
  void encode(ArchiveEncoder& coder) const override;
  // Reads back what encode() wrote.
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
  // A `Self` without the payload, with a copy of the response.
  [[nodiscard]] std::shared_ptr<RequestResult> copyWithoutData() const override {
    auto out = std::make_shared<Self>();
    static_cast<HttpRequestResult&>(*out) = HttpRequestResult(*this, WithoutData{});
    return out;
  }
  // Self::kArchiveClassName.
  [[nodiscard]] std::string archiveClassName() const override { return std::string(Self::kArchiveClassName); }
  // Reads back what HttpRequestResult::encode() wrote, into a `Self`.
  [[nodiscard]] static std::shared_ptr<Self> decode(ArchiveDecoder& coder) {
    auto result = std::make_shared<Self>();
    decodeInto(*result, coder);
    return result;
  }
};

}  // namespace kp
