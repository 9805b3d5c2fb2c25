// How libcurl's results become errors of the URL-loading domain. Internal to the session
// layer; not installed.
//
// Thread safety: pure functions.
#pragma once

#include <curl/curl.h>

#include <string>

#include "kp/request/url_session.h"

namespace kp::internal {

// The URL-loading code for a failed transfer: `osErrno` is the transfer's last OS error,
// `httpScheme` whether the URL was http or https.
[[nodiscard]] UrlError urlErrorOf(CURLcode code, long osErrno, bool httpScheme) noexcept;

// As kp::makeUrlError, with a description that says more than the code's usual one.
[[nodiscard]] ErrorPtr makeUrlError(UrlError code, const Url& failingUrl, std::string description);

}  // namespace kp::internal
