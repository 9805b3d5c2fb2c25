// One hop of a transfer on libcurl: the easy handle's set-up from the request, and the
// callbacks libcurl makes on the driver thread for the response head, the body and progress.
#include <atomic>
#include <random>

#include "request/session/session_state.h"
#include "request/session/url_errors.h"

namespace kp {

namespace {

using internal::Clock;

// Easy handles a session keeps for later transfers.
constexpr std::size_t kSpareHandles = 4;
constexpr long kReceiveBufferSize = 256 * 1024;

void freeLists(UrlSessionTask::Impl& t) {
  curl_slist_free_all(t.headerList);
  t.headerList = nullptr;
  curl_slist_free_all(t.connectTo);
  t.connectTo = nullptr;
}

// Options that every transfer shares, set once per easy handle: the handle keeps them from
// transfer to transfer (and from session to session, with its transport).
CURL* makeEasyHandle() {
  CURL* e = curl_easy_init();
  if (e == nullptr) return nullptr;
  curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(e, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(e, CURLOPT_ACCEPT_ENCODING, "");
  curl_easy_setopt(e, CURLOPT_BUFFERSIZE, kReceiveBufferSize);
  curl_easy_setopt(e, CURLOPT_SHARE, internal::DnsShare::instance().handle());
  curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, &UrlSession::Impl::onHeader);
  curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, &UrlSession::Impl::onWrite);
  curl_easy_setopt(e, CURLOPT_XFERINFOFUNCTION, &UrlSession::Impl::onProgress);
  curl_easy_setopt(e, CURLOPT_NOPROGRESS, 0L);
  // Verification is decided in the handshake by the trust challenge (host name included).
  curl_easy_setopt(e, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(e, CURLOPT_SSL_VERIFYHOST, 0L);
  curl_easy_setopt(e, CURLOPT_SSL_SESSIONID_CACHE, 0L);
  curl_easy_setopt(e, CURLOPT_SSL_CTX_FUNCTION, &UrlSession::Impl::onSslContext);
  return e;
}

// What one transfer of a handle leaves behind that the next must not inherit: the pointers
// into the task that ran, and its method and body.
void forgetTransfer(CURL* e) {
  for (CURLoption option : {CURLOPT_PRIVATE, CURLOPT_ERRORBUFFER, CURLOPT_HEADERDATA, CURLOPT_WRITEDATA,
                            CURLOPT_XFERINFODATA, CURLOPT_SSL_CTX_DATA, CURLOPT_HTTPHEADER, CURLOPT_CONNECT_TO}) {
    curl_easy_setopt(e, option, nullptr);
  }
  curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(-1));
  curl_easy_setopt(e, CURLOPT_POSTFIELDS, nullptr);
  curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, nullptr);
  // Last: the method is a plain GET again, with no body to send and a body to read.
  curl_easy_setopt(e, CURLOPT_HTTPGET, 1L);
}

}  // namespace

void UrlSession::Impl::configure(UrlSessionTask::Impl& t) {
  if (t.easy == nullptr && !transport.spareHandles.empty()) {
    t.easy = transport.spareHandles.back();
    transport.spareHandles.pop_back();
  } else if (t.easy == nullptr) {
    t.easy = makeEasyHandle();
  } else {
    // The next hop of a redirect, on the same handle.
    forgetTransfer(t.easy);
  }
  freeLists(t);
  t.head.reset();
  t.hopResponse.reset();
  t.doneCode.reset();
  t.lastDownloaded = t.lastUploaded = 0;
  t.begun = false;
  t.errorBuffer[0] = '\0';

  CURL* e = t.easy;
  const UrlRequest& r = t.current();
  if (internal::equalsIgnoringCase(r.url.scheme(), "https")) carriedTls = true;
  curl_easy_setopt(e, CURLOPT_URL, r.url.absoluteString().c_str());
  curl_easy_setopt(e, CURLOPT_PRIVATE, &t);
  curl_easy_setopt(e, CURLOPT_ERRORBUFFER, t.errorBuffer);
  // Within a 32-bit long: a connection attempt that outlasts 24 days has no limit in practice.
  curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(std::min(t.timeout * 1000.0, 2147483647.0)));
  curl_easy_setopt(e, CURLOPT_HEADERDATA, &t);
  curl_easy_setopt(e, CURLOPT_WRITEDATA, &t);
  curl_easy_setopt(e, CURLOPT_XFERINFODATA, &t);
  curl_easy_setopt(e, CURLOPT_SSL_CTX_DATA, &t);

  const std::string& method = r.httpMethod;
  if (r.httpBody) {
    t.body = *r.httpBody;
  } else {
    t.body = Data();
  }
  // A GET sends the body it carries: the caller set it, and the request's cache key counts
  // it. (A HEAD with a body never gets here; see beginHop.)
  if (method == "GET" && !r.httpBody) {
    curl_easy_setopt(e, CURLOPT_HTTPGET, 1L);
  } else if (method == "HEAD") {
    curl_easy_setopt(e, CURLOPT_NOBODY, 1L);
  } else {
    if (method != "POST") curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, method.c_str());
    if (r.httpBody || method == "POST") {
      curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(t.body.size()));
      curl_easy_setopt(e, CURLOPT_POSTFIELDS, t.body.empty() ? "" : reinterpret_cast<const char*>(t.body.data()));
    }
  }

  curl_slist* list = nullptr;
  for (const auto& [name, value] : configuration.httpAdditionalHeaders) {
    if (!r.value(name)) list = curl_slist_append(list, (name + ": " + value).c_str());
  }
  for (const auto& [name, value] : r.allHTTPHeaderFields()) {
    // "Name;" sends a field with an empty value.
    list = curl_slist_append(list, (value.empty() ? name + ";" : name + ": " + value).c_str());
  }
  if (auto cookies = cookieField(r)) list = curl_slist_append(list, cookies->c_str());
  // Only a body can make libcurl ask the server to continue first; without one, the empty
  // field would cost every request a list entry and a look through it.
  if (r.httpBody || method != "GET") list = curl_slist_append(list, "Expect:");
  t.headerList = list;
  curl_easy_setopt(e, CURLOPT_HTTPHEADER, list);

  // libcurl matches the URL's host and port against the entry.
  if (const auto* target = connectTargetOf(r)) {
    const std::string entry =
        r.url.host() + ":" + std::to_string(*r.url.port()) + ":" + target->host + ":" + std::to_string(target->port);
    t.connectTo = curl_slist_append(nullptr, entry.c_str());
    curl_easy_setopt(e, CURLOPT_CONNECT_TO, t.connectTo);
  }
}

// MARK: - Head

size_t UrlSession::Impl::onHeader(char* buffer, size_t size, size_t count, void* user) {
  auto& t = *static_cast<UrlSessionTask::Impl*>(user);
  const size_t length = size * count;
  t.lastActivity = Clock::now();
  switch (t.head.feed(std::string_view(buffer, length))) {
    case internal::ResponseHeadParser::Step::more:
      return length;
    case internal::ResponseHeadParser::Step::complete:
      if (auto session = sessionOf(t)) session->headComplete(t);
      return length;
    case internal::ResponseHeadParser::Step::tooLarge:
    case internal::ResponseHeadParser::Step::malformed:
      t.badHead = true;
      return 0;
  }
  return 0;
}

void UrlSession::Impl::headComplete(UrlSessionTask::Impl& t) {
  auto response = std::make_shared<const HttpUrlResponse>(t.current().url, t.head.statusCode(), t.head.takeFields());
  t.hopResponse = response;
  // Before the redirect below: its target sends what this hop set.
  keepCookies(t.current(), *response);
  {
    MutexLock lock(t.mutex);
    t.response = response;
    t.expected = response->expectedContentLength();
  }
  const int status = response->statusCode();
  const bool redirect = status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
  if (redirect) {
    if (auto location = response->value("Location")) {
      // Servers send raw UTF-8 and spaces here too; they are encoded as in any URL typed.
      auto reference = Url::parseEncodingInvalidCharacters(internal::trimSpaces(*location));
      auto target = reference ? reference->resolvedAgainst(t.current().url) : std::nullopt;
      if (target) {
        UrlRequest next = t.current();
        next.url = *target;
        // The connect target stands for the first URL's authority only: a redirect to another
        // authority connects where its own URL says.
        if (next.url.host() != t.current().url.host() || next.url.port() != t.current().url.port()) {
          next.connectTo.reset();
        }
        const bool toGet = (status == 303 && next.httpMethod != "HEAD") ||
                           ((status == 301 || status == 302) && next.httpMethod == "POST");
        if (toGet) {
          next.httpMethod = "GET";
          next.httpBody.reset();
          next.setValue(std::nullopt, "Content-Type");
          next.setValue(std::nullopt, "Content-Length");
        }
        t.redirectRequest = std::move(next);
        return;
      }
    }
  }
  if (t.download) return;
  // Asked at the end of this pass: a small body often ends in the same pass, and then the
  // response, its body and the completion go to the delegate queue together.
  t.awaitingDisposition = true;
  t.dispositionDeferred = true;
  deferredHeads.push_back(running.at(t.id));
}

// MARK: - Body

size_t UrlSession::Impl::onWrite(char* bytes, size_t size, size_t count, void* user) {
  auto& t = *static_cast<UrlSessionTask::Impl*>(user);
  const size_t length = size * count;
  t.lastActivity = Clock::now();
  if (t.redirectRequest) {
    const size_t room = internal::kMaximumHeldBody - std::min(internal::kMaximumHeldBody, t.heldBody.size());
    t.heldBody.append(bytes, std::min(room, length));
    return length;
  }
  if (t.awaitingDisposition) {
    // Small bodies wait in memory so that the transfer can end meanwhile; larger ones pause.
    if (!t.paused && t.heldBody.size() + length <= internal::kMaximumHeldBody) {
      t.heldBody.append(bytes, length);
      return length;
    }
    t.paused = true;
    return CURL_WRITEFUNC_PAUSE;
  }
  auto session = sessionOf(t);
  if (!session) return 0;
  auto it = session->running.find(t.id);
  if (it == session->running.end()) return 0;
  if (!t.download && t.pendingBytes.load() >= internal::kMaximumPendingBytes) {
    t.backpressured.store(true);
    // The delegate may have caught up in between; it only wakes us when it sees the flag.
    if (t.pendingBytes.load() >= internal::kMaximumPendingBytes || !t.backpressured.exchange(false)) {
      t.paused = true;
      return CURL_WRITEFUNC_PAUSE;
    }
  }
  return session->consumeBody(it->second, bytes, length) ? length : 0;
}

// Hands a piece of body on: to the delegate (data tasks) or to the file (downloads).
bool UrlSession::Impl::consumeBody(const TaskPtr& task, const void* bytes, size_t length) {
  auto& t = task->impl();
  if (length == 0) return true;
  {
    MutexLock lock(t.mutex);
    t.received += static_cast<std::int64_t>(length);
  }
  if (t.download) {
    if (std::fwrite(bytes, 1, length, t.file) != length) return false;
    t.writtenBytes += static_cast<std::int64_t>(length);
    t.unreportedBytes += static_cast<std::int64_t>(length);
    if (!t.progressPosted.exchange(true)) {
      const std::int64_t expected = t.hopResponse ? t.hopResponse->expectedContentLength() : -1;
      deliver([task, expected](UrlSession& s, UrlSessionDelegate& d) {
        auto& ti = task->impl();
        ti.progressPosted.store(false);
        const std::int64_t bytesWritten = ti.unreportedBytes.exchange(0);
        if (bytesWritten == 0) return;
        d.didWriteData(s, static_cast<UrlSessionDownloadTask&>(*task), bytesWritten, ti.writtenBytes.load(), expected);
      });
    }
    return true;
  }
  // Gathered until the end of the driver's pass: a body that ends in the same pass reaches the
  // delegate with the completion, in one job.
  t.pendingBytes += static_cast<std::int64_t>(length);
  if (t.passBody.empty()) gatheredBodies.push_back(task);
  t.passBody.append(bytes, length);
  if (t.passBody.size() >= internal::kMaximumGatheredBody) handOnBody(task);
  return true;
}

// The body gathered in this pass goes to the delegate queue's own thread, so that its
// handling overlaps with receiving the rest.
void UrlSession::Impl::handOnBody(const TaskPtr& task) {
  auto& t = task->impl();
  if (t.passBody.empty()) return;
  deliver(bodyDelivery(task, std::exchange(t.passBody, Data())), false);
}

void UrlSession::Impl::handOnGatheredBodies() {
  handedBodies.swap(gatheredBodies);
  for (auto& task : handedBodies) handOnBody(task);
  handedBodies.clear();
}

UrlSession::Impl::Delivery UrlSession::Impl::bodyDelivery(const TaskPtr& task, Data chunk) {
  const auto size = static_cast<std::int64_t>(chunk.size());
  return [self = shared_from_this(), task, chunk = std::move(chunk), size](UrlSession& s, UrlSessionDelegate& d) {
    d.didReceiveData(s, static_cast<UrlSessionDataTask&>(*task), chunk);
    auto& ti = task->impl();
    if (ti.pendingBytes.fetch_sub(size) - size <= internal::kResumePendingBytes && ti.backpressured.exchange(false)) {
      self->post([self, task] { self->unpause(task); });
    }
  };
}

int UrlSession::Impl::onProgress(void* user, curl_off_t, curl_off_t downloaded, curl_off_t, curl_off_t uploaded) {
  auto& t = *static_cast<UrlSessionTask::Impl*>(user);
  if (!t.begun) {
    t.begun = true;
    t.lastActivity = Clock::now();
  }
  if (downloaded != t.lastDownloaded || uploaded != t.lastUploaded) {
    t.lastDownloaded = downloaded;
    t.lastUploaded = uploaded;
    t.lastActivity = Clock::now();
  }
  return 0;
}

// MARK: - Outcome and clean-up

ErrorPtr UrlSession::Impl::errorFor(UrlSessionTask::Impl& t, CURLcode code) {
  if (t.cancelRequested.load() || t.trustCancelled) {
    return makeUrlError(t.timedOut ? UrlError::timedOut : UrlError::cancelled, t.current().url);
  }
  if (t.trustError) return t.trustError;
  if (t.timedOut) return makeUrlError(UrlError::timedOut, t.current().url);
  // libcurl before 8.6 reports a head line beyond its limit (100 KiB) as running out of
  // memory: with the head still incomplete, that is the server's fault.
  if (t.badHead || (code == CURLE_OUT_OF_MEMORY && !t.hopResponse)) {
    return makeUrlError(UrlError::badServerResponse, t.current().url);
  }
  // While a transfer is paused, libcurl keeps what the rest of the current read inflates to
  // and gives up at 64 MiB: a compressed body that swells so far is as much beyond any limit
  // as an endless plain one.
  if (code == CURLE_OUT_OF_MEMORY && t.hopResponse && t.hopResponse->value("Content-Encoding")) {
    return makeUrlError(UrlError::dataLengthExceedsMaximum, t.current().url);
  }
  if (code == CURLE_OK) return nullptr;
  long osErrno = 0;
  if (t.easy) curl_easy_getinfo(t.easy, CURLINFO_OS_ERRNO, &osErrno);
  const std::string detail = t.errorBuffer[0] ? t.errorBuffer : curl_easy_strerror(code);
  return makeUrlError(internal::urlErrorOf(code, osErrno, internal::isHttpScheme(t.current().url)), t.current().url,
                      Error::make("libcurl", code, detail));
}

void UrlSession::Impl::releaseTransfer(UrlSessionTask::Impl& t) {
  if (t.easy) {
    if (transport.spareHandles.size() < kSpareHandles) {
      forgetTransfer(t.easy);
      transport.spareHandles.push_back(t.easy);
    } else {
      curl_easy_cleanup(t.easy);
    }
    t.easy = nullptr;
  }
  freeLists(t);
  t.body = Data();
}

void UrlSession::Impl::detach(UrlSessionTask::Impl& t) {
  if (t.inMulti) {
    curl_multi_remove_handle(transport.multi, t.easy);
    t.inMulti = false;
  }
}

bool UrlSession::Impl::openDownloadFile(UrlSessionTask::Impl& t) {
  std::error_code ec;
  const auto folder = std::filesystem::temp_directory_path(ec);
  if (ec) return false;
  static std::atomic<std::uint64_t> counter{0};
  std::random_device random;
  for (int attempt = 0; attempt < 8; ++attempt) {
    const auto name = "kp-download-" + std::to_string(random()) + "-" + std::to_string(++counter) + ".tmp";
    t.filePath = folder / name;
    t.file = std::fopen(t.filePath.c_str(), "wbx");
    if (t.file) return true;
  }
  t.filePath.clear();
  return false;
}

}  // namespace kp
