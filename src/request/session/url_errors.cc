// The errors of the URL-loading domain: the platform's descriptions, and the mapping from
// libcurl's results and the OS error to the platform's codes.
#include "request/session/url_errors.h"

#include <cerrno>

namespace kp {

namespace {

const char* descriptionOf(UrlError code) {
  switch (code) {
    case UrlError::cancelled:
      return "cancelled";
    case UrlError::badURL:
      return "unsupported URL";
    case UrlError::timedOut:
      return "The request timed out.";
    case UrlError::unsupportedURL:
      return "unsupported URL";
    case UrlError::cannotFindHost:
      return "A server with the specified hostname could not be found.";
    case UrlError::cannotConnectToHost:
      return "Could not connect to the server.";
    case UrlError::networkConnectionLost:
      return "The network connection was lost.";
    case UrlError::dnsLookupFailed:
      return "A server with the specified hostname could not be found.";
    case UrlError::httpTooManyRedirects:
      return "too many HTTP redirects";
    case UrlError::resourceUnavailable:
      return "The requested resource couldn’t be retrieved.";
    case UrlError::notConnectedToInternet:
      return "The Internet connection appears to be offline.";
    case UrlError::badServerResponse:
      return "The server returned a bad response.";
    case UrlError::cannotDecodeContentData:
      return "cannot decode raw data";
    case UrlError::cannotParseResponse:
      return "cannot parse response";
    case UrlError::dataLengthExceedsMaximum:
      return "resource exceeds maximum size";
    case UrlError::secureConnectionFailed:
      return "An SSL error has occurred and a secure connection to the server cannot be made.";
    case UrlError::serverCertificateUntrusted:
      return "The certificate for this server is invalid.";
    case UrlError::cannotCreateFile:
      return "cannot create file";
    case UrlError::cannotWriteToFile:
      return "cannot write to file";
    case UrlError::unknown:
      break;
  }
  return "An unknown error occurred.";
}

ErrorPtr urlError(UrlError code, std::string description, const std::optional<Url>& failingUrl, ErrorPtr underlying) {
  Error::UserInfo info{{std::string(Error::kLocalizedDescriptionKey), std::move(description)}};
  if (failingUrl) info.emplace(std::string(Error::kFailingURLStringKey), failingUrl->absoluteString());
  return Error::make(std::string(Error::kURLErrorDomain), static_cast<std::int64_t>(code), std::move(info),
                     std::move(underlying));
}

}  // namespace

namespace internal {

UrlError urlErrorOf(CURLcode code, long osErrno, bool httpScheme) noexcept {
  switch (code) {
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return UrlError::cannotFindHost;
    case CURLE_COULDNT_CONNECT:
      if (osErrno == ENETUNREACH || osErrno == ENETDOWN) return UrlError::notConnectedToInternet;
      return UrlError::cannotConnectToHost;
    case CURLE_OPERATION_TIMEDOUT:
      return UrlError::timedOut;
    case CURLE_URL_MALFORMAT:
      return UrlError::badURL;
    case CURLE_UNSUPPORTED_PROTOCOL:
      return httpScheme ? UrlError::badServerResponse : UrlError::unsupportedURL;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_SHUTDOWN_FAILED:
      return UrlError::secureConnectionFailed;
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
      return UrlError::serverCertificateUntrusted;
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      return UrlError::networkConnectionLost;
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_HTTP3:
#if LIBCURL_VERSION_NUM >= 0x080600
    // Later libcurl's name for a response beyond its limits, such as an endless header line.
    case CURLE_TOO_LARGE:
#endif
      return UrlError::badServerResponse;
    case CURLE_BAD_CONTENT_ENCODING:
      return UrlError::cannotDecodeContentData;
    case CURLE_TOO_MANY_REDIRECTS:
      return UrlError::httpTooManyRedirects;
    case CURLE_FILESIZE_EXCEEDED:
      return UrlError::dataLengthExceedsMaximum;
    case CURLE_WRITE_ERROR:
      return UrlError::cannotWriteToFile;
    case CURLE_ABORTED_BY_CALLBACK:
      return UrlError::cancelled;
    default:
      return UrlError::unknown;
  }
}

ErrorPtr makeUrlError(UrlError code, const Url& failingUrl, std::string description) {
  return urlError(code, std::move(description), failingUrl, nullptr);
}

}  // namespace internal

ErrorPtr makeUrlError(UrlError code, const std::optional<Url>& failingUrl, ErrorPtr underlying) {
  return urlError(code, descriptionOf(code), failingUrl, std::move(underlying));
}

}  // namespace kp
