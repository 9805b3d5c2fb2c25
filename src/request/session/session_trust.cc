// The server-trust decision, made inside the TLS handshake: OpenSSL's verification callback
// runs on the driver thread, verifies the chain and host name, asks the delegate and waits
// for its answer (or the task's cancellation, or its timeout). TLS session resumption is off,
// so every TLS connection meets this question.
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <condition_variable>

#include "request/session/session_state.h"
#include "request/session/url_errors.h"

namespace kp {

namespace {

using internal::Clock;

// The answer to a trust challenge as the driver thread waits for it.
struct TrustAnswer {
  Mutex mutex;
  std::condition_variable changed;
  std::optional<internal::TrustDecision> answer GUARDED_BY(mutex);
};

std::string withoutBrackets(std::string host) {
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  return host;
}

int portOf(const Url& url) {
  if (url.port()) return *url.port();
  return internal::equalsIgnoringCase(url.scheme(), "https") ? 443 : 80;
}

}  // namespace

CURLcode UrlSession::Impl::onSslContext(CURL*, void* context, void* user) {
  SSL_CTX_set_cert_verify_callback(static_cast<SSL_CTX*>(context), &Impl::onVerify, user);
  return CURLE_OK;
}

int UrlSession::Impl::onVerify(X509_STORE_CTX* context, void* user) {
  auto& t = *static_cast<UrlSessionTask::Impl*>(user);
  auto session = sessionOf(t);
  // A sealed service URL's authority resolves nowhere; the certificate must be for the server
  // the connection really goes to.
  const auto* target = connectTargetOf(t.current());
  const std::string host = withoutBrackets(target ? target->host : t.current().url.host());
  const int port = target ? target->port : portOf(t.current().url);
  X509_VERIFY_PARAM* param = X509_STORE_CTX_get0_param(context);
  if (X509_VERIFY_PARAM_set1_ip_asc(param, host.c_str()) != 1) {
    X509_VERIFY_PARAM_set1_host(param, host.c_str(), host.size());
  }
  const bool trusted = X509_verify_cert(context) == 1;
  const int verifyError = X509_STORE_CTX_get_error(context);
  std::vector<Data> certificates;
  if (STACK_OF(X509)* chain = X509_STORE_CTX_get0_untrusted(context)) {
    for (int i = 0; i < sk_X509_num(chain); ++i) {
      unsigned char* der = nullptr;
      const int length = i2d_X509(sk_X509_value(chain, i), &der);
      if (length > 0) certificates.emplace_back(der, static_cast<size_t>(length));
      OPENSSL_free(der);
    }
  }
  auto trust = std::make_shared<const ServerTrust>(host, port, std::move(certificates), trusted,
                                                   trusted ? "" : X509_verify_cert_error_string(verifyError));
  auto answer = session ? session->askTrust(t, trust) : std::nullopt;
  t.lastActivity = Clock::now();
  if (!answer) {
    t.trustCancelled = true;
    return 0;
  }
  const auto [disposition, credential] = *answer;
  if (disposition == AuthChallengeDisposition::cancelAuthenticationChallenge) {
    t.trustCancelled = true;
    return 0;
  }
  if (disposition == AuthChallengeDisposition::useCredential && credential && credential->serverTrust() == trust) {
    X509_STORE_CTX_set_error(context, X509_V_OK);
    return 1;
  }
  if (trusted) return 1;
  t.trustError = makeUrlError(UrlError::serverCertificateUntrusted, t.current().url,
                              Error::make("OpenSSL", verifyError, trust->failureReason()));
  return 0;
}

std::optional<internal::TrustDecision> UrlSession::Impl::askTrust(UrlSessionTask::Impl& t,
                                                                  const std::shared_ptr<const ServerTrust>& trust) {
  auto it = running.find(t.id);
  if (it == running.end()) return std::nullopt;
  auto task = it->second;
  UrlAuthenticationChallenge challenge;
  challenge.protectionSpace = {trust->host(), trust->port(), "https",
                               std::string(UrlProtectionSpace::kAuthenticationMethodServerTrust), trust};
  auto box = std::make_shared<TrustAnswer>();
  const bool delivered = deliver([task, challenge, box](UrlSession& s, UrlSessionDelegate& d) {
    d.didReceiveChallenge(s, *task, challenge,
                          [box](AuthChallengeDisposition disposition, std::shared_ptr<const UrlCredential> credential) {
                            MutexLock lock(box->mutex);
                            if (box->answer) return;
                            box->answer.emplace(disposition, std::move(credential));
                            box->changed.notify_all();
                          });
  });
  if (!delivered) return std::pair{AuthChallengeDisposition::performDefaultHandling, nullptr};
  const auto deadline =
      Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(t.timeout));
  MutexLock lock(box->mutex);
  while (!box->answer) {
    if (t.cancelRequested.load()) return std::nullopt;
    if (Clock::now() >= deadline) {
      t.timedOut = true;
      return std::nullopt;
    }
    (void)lock.waitUntil(box->changed, Clock::now() + std::chrono::milliseconds(20));
  }
  return box->answer;
}

}  // namespace kp
