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

class KP_EXPORT RequestErrors {
 public:
  static constexpr std::string_view domain = "KPRequest";

  [[nodiscard]] static const ErrorPtr& invalidRequestProtocolError();
  [[nodiscard]] static const ErrorPtr& invalidUrlError();
  [[nodiscard]] static const ErrorPtr& couldNotCreateUrlRequestError();
  [[nodiscard]] static ErrorPtr statusCodeErrorWith(int statusCode);
  [[nodiscard]] static const ErrorPtr& invalidFileTargetPathError();
  [[nodiscard]] static const ErrorPtr& noConnectionError();
  [[nodiscard]] static const ErrorPtr& alreadyExecutedError();
  [[nodiscard]] static const ErrorPtr& incompleteRequestError();
  [[nodiscard]] static const ErrorPtr& invalidResponseError();
  [[nodiscard]] static ErrorPtr errorWith(std::string message);
  [[nodiscard]] static ErrorPtr errorWith(std::string message, std::int64_t code);

  RequestErrors() = delete;
};

}  // namespace kp
