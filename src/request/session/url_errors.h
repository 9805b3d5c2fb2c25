// How libcurl's results become errors of the URL-loading domain. Internal to the session
// layer; not installed.
//
// Thread safety: pure functions.
#pragma once

#include <curl/curl.h>

#include "kp/request/url_session.h"

namespace kp::internal {

// The URL-loading code for a failed transfer: `osErrno` is the transfer's last OS error,
// `httpScheme` whether the URL was http or https.
[[nodiscard]] UrlError urlErrorOf(CURLcode code, long osErrno, bool httpScheme) noexcept;

}  // namespace kp::internal
