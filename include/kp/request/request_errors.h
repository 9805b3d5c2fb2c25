// kp::RequestErrors: the errors of the request toolkit, in the domain "KPRequest". The fixed
// errors are made once and the same object is returned every time. The status-code error
// always has code 400; the real status is only in its text.
//
// Thread safety: every member may be called from any thread.
//
// Example:
//   kp::RequestErrors::statusCodeErrorWith(500)->localizedDescription();
//       // "Request failed with status code: 500."
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "kp/platform/error.h"
#include "kp/platform/export.h"

namespace kp {

// The codes of the request errors, in RequestErrors::domain.
enum class RequestErrorCode : std::int64_t {
  generic = 0,
  invalidRequestProtocol = 100,
  invalidUrl = 200,
  couldNotCreateUrlRequest = 300,
  statusCode = 400,
  invalidFileTargetPath = 500,
  noConnection = 600,
  alreadyExecuted = 700,
  incompleteRequest = 800,
  invalidResponse = 900,
};

// The errors of the request layer; each fixed one is the same object every time.
class KP_EXPORT RequestErrors {
 public:
  static constexpr std::string_view domain = "KPRequest";  // the errors' domain

  // A handler was given a request of a kind it cannot run.
  [[nodiscard]] static const ErrorPtr& invalidRequestProtocolError();
  // The request's URL is not usable.
  [[nodiscard]] static const ErrorPtr& invalidUrlError();
  // No wire request could be made from the request.
  [[nodiscard]] static const ErrorPtr& couldNotCreateUrlRequestError();
  // "Request failed with status code: N." for an answer of 400 or above.
  [[nodiscard]] static ErrorPtr statusCodeErrorWith(int statusCode);
  // A file request's target path is not usable.
  [[nodiscard]] static const ErrorPtr& invalidFileTargetPathError();
  // The device is offline (code 600, see HttpRequestResultType::noConnection()).
  [[nodiscard]] static const ErrorPtr& noConnectionError();
  // The request was executed before.
  [[nodiscard]] static const ErrorPtr& alreadyExecutedError();
  // The request has no handler or no queue.
  [[nodiscard]] static const ErrorPtr& incompleteRequestError();
  // No response, or one that is not valid.
  [[nodiscard]] static const ErrorPtr& invalidResponseError();
  // An error with `message` and code 0 (generic).
  [[nodiscard]] static ErrorPtr errorWith(std::string message);
  // An error with `message` and `code`.
  [[nodiscard]] static ErrorPtr errorWith(std::string message, std::int64_t code);

  RequestErrors() = delete;
};

}  // namespace kp
