// The session layer against real servers on 127.0.0.1: callbacks and their order, redirects,
// cancellation, timeouts, transport errors, TLS trust decisions, downloads and bad responses.
#include "kp/request/url_session.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <condition_variable>
#include <fstream>
#include <limits>
#include <mutex>
#include <utility>

#include "kp/request/http_response.h"
#include "support/temp_dir.h"
#include "support/test_servers.h"

namespace kp {
namespace {

using namespace std::chrono_literals;

// Records every callback as a line of text; answers as configured.
class Recorder : public UrlSessionDelegate {
 public:
  ResponseDisposition disposition = ResponseDisposition::allow;
  std::optional<AuthChallengeDisposition> trustAnswer;  // nothing: default handling
  bool credentialFromTrust = false;
  std::filesystem::path keepDownloadAt;
  // Keeps the response answer for the test to give (heldAnswer) instead of answering.
  bool holdAnswer = false;

  void didReceiveResponse(UrlSession& s, UrlSessionDataTask&, const std::shared_ptr<const HttpUrlResponse>& response,
                          ResponseDispositionHandler completion) override {
    onDelegateQueue(s);
    add("response " + std::to_string(response->statusCode()) + " " + std::to_string(response->expectedContentLength()));
    if (!holdAnswer) return completion(disposition);
    std::lock_guard lock(mutex_);
    held_ = std::move(completion);
    changed_.notify_all();
  }
  // Hands the kept answer over (it holds the session, which holds this delegate).
  ResponseDispositionHandler heldAnswer() {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, 10s, [&] { return held_ != nullptr; });
    return std::exchange(held_, nullptr);
  }
  void didReceiveData(UrlSession& s, UrlSessionDataTask&, const Data& data) override {
    onDelegateQueue(s);
    std::lock_guard lock(mutex_);
    body_.append(data);
  }
  void willPerformHttpRedirection(UrlSession& s, UrlSessionTask&,
                                  const std::shared_ptr<const HttpUrlResponse>& response, UrlRequest next,
                                  RedirectionHandler completion) override {
    onDelegateQueue(s);
    add("redirect " + std::to_string(response->statusCode()) + " " + next.httpMethod + " " + next.url.path());
    completion(std::move(next));
  }
  void didReceiveChallenge(UrlSession& s, UrlSessionTask&, const UrlAuthenticationChallenge& challenge,
                           ChallengeHandler completion) override {
    onDelegateQueue(s);
    const auto& space = challenge.protectionSpace;
    add(std::string("challenge ") + (space.serverTrust->evaluatesAsTrusted() ? "trusted" : "untrusted"));
    if (!trustAnswer) return completion(AuthChallengeDisposition::performDefaultHandling, nullptr);
    completion(*trustAnswer, credentialFromTrust ? UrlCredential::make(space.serverTrust) : nullptr);
  }
  void didWriteData(UrlSession& s, UrlSessionDownloadTask&, std::int64_t written, std::int64_t total,
                    std::int64_t expected) override {
    onDelegateQueue(s);
    std::lock_guard lock(mutex_);
    EXPECT_GT(written, 0);
    EXPECT_LE(total, expected < 0 ? total : expected);
    progressTotal_ = total;
  }
  void didFinishDownloading(UrlSession& s, UrlSessionDownloadTask&, const std::filesystem::path& location) override {
    onDelegateQueue(s);
    add("downloaded");
    std::filesystem::copy_file(location, keepDownloadAt);
    std::lock_guard lock(mutex_);
    temporaryFile_ = location;
  }
  void didComplete(UrlSession& s, UrlSessionTask&, const ErrorPtr& error) override {
    onDelegateQueue(s);
    add(error ? "complete " + std::to_string(error->code()) : std::string("complete ok"));
    std::lock_guard lock(mutex_);
    bodyAtCompletion_ = body_.toString();
    ++completions_;
    changed_.notify_all();
  }
  void didBecomeInvalid(UrlSession& s, const ErrorPtr&) override {
    onDelegateQueue(s);
    add("invalid");
    std::lock_guard lock(mutex_);
    invalid_ = true;
    changed_.notify_all();
  }

  bool waitForCompletions(int count, Duration limit = 10s) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return completions_ >= count; });
  }
  bool waitForInvalid() {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, 10s, [&] { return invalid_; });
  }
  std::vector<std::string> events() {
    std::lock_guard lock(mutex_);
    return events_;
  }
  std::string body() {
    std::lock_guard lock(mutex_);
    return body_.toString();
  }
  // What the delegate had received when the (last) completion came.
  std::string bodyAtCompletion() {
    std::lock_guard lock(mutex_);
    return bodyAtCompletion_;
  }
  std::int64_t progressTotal() {
    std::lock_guard lock(mutex_);
    return progressTotal_;
  }
  std::filesystem::path temporaryFile() {
    std::lock_guard lock(mutex_);
    return temporaryFile_;
  }

 private:
  // Callbacks run as items of the delegate queue, whichever thread runs them.
  static void onDelegateQueue(UrlSession& s) { EXPECT_TRUE(s.delegateQueue()->isCurrent()); }
  void add(std::string event) {
    std::lock_guard lock(mutex_);
    events_.push_back(std::move(event));
  }
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> events_;
  Data body_;
  std::string bodyAtCompletion_;
  int completions_ = 0;
  bool invalid_ = false;
  std::int64_t progressTotal_ = 0;
  std::filesystem::path temporaryFile_;
  ResponseDispositionHandler held_;
};

using Events = std::vector<std::string>;

UrlRequest requestFor(const std::string& url, TimeInterval timeout = 10) {
  UrlRequest request(*Url::parse(url));
  request.timeoutInterval = timeout;
  // Lengths in the expectations are those of the plain bodies.
  request.setValue("identity", "Accept-Encoding");
  return request;
}

class SessionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto& s = server.server();
    s.Get("/hello", [](const httplib::Request&, httplib::Response& r) { r.set_content("hello world", "text/plain"); });
    s.Get("/chunked", [](const httplib::Request&, httplib::Response& r) {
      r.set_chunked_content_provider("text/plain", [](size_t, httplib::DataSink& sink) {
        // The pieces reach the session apart: the last one comes with the end of the transfer.
        sink.write("abc", 3);
        std::this_thread::sleep_for(50ms);
        sink.write("def", 3);
        sink.done();
        return true;
      });
    });
    s.Get("/missing", [](const httplib::Request&, httplib::Response& r) {
      r.status = 404;
      r.set_content("not here", "text/plain");
    });
    s.Get("/r1", [](const httplib::Request&, httplib::Response& r) { r.set_redirect("/r2", 302); });
    s.Get("/r2", [](const httplib::Request&, httplib::Response& r) { r.set_redirect("r3", 301); });
    s.Get("/r3", [](const httplib::Request&, httplib::Response& r) { r.set_content("landed", "text/plain"); });
    s.Post("/see-other", [](const httplib::Request&, httplib::Response& r) { r.set_redirect("/r3", 303); });
    s.Get("/sleep", [](const httplib::Request&, httplib::Response& r) {
      std::this_thread::sleep_for(1500ms);
      r.set_content("late", "text/plain");
    });
    s.Get("/pause", [](const httplib::Request&, httplib::Response& r) {
      std::this_thread::sleep_for(300ms);
      r.set_content("paused", "text/plain");
    });
    s.Get("/big", [](const httplib::Request&, httplib::Response& r) {
      r.set_content(std::string(3 << 20, 'x'), "application/octet-stream");
    });
    server.start();
  }

  std::shared_ptr<UrlSession> session(const std::shared_ptr<Recorder>& recorder) {
    return UrlSession::make(UrlSessionConfiguration::defaultConfiguration(), recorder);
  }

  test::TestServer server;
};

TEST_F(SessionTest, DataTasksReportResponseDataAndCompletionInOrder) {
  auto recorder = std::make_shared<Recorder>();
  auto s = session(recorder);
  auto task = s->dataTask(requestFor(server.url("/hello")));
  EXPECT_EQ(task->state(), UrlSessionTaskState::suspended);
  task->resume();
  ASSERT_TRUE(recorder->waitForCompletions(1));
  EXPECT_EQ(recorder->events(), (Events{"response 200 11", "complete ok"}));
  EXPECT_EQ(recorder->body(), "hello world");
  EXPECT_EQ(task->state(), UrlSessionTaskState::completed);
  EXPECT_EQ(task->response()->value("content-type"), "text/plain");
  EXPECT_EQ(task->response()->allHeaderFields().at("Content-Type"), "text/plain");

  auto chunked = std::make_shared<Recorder>();
  auto s2 = session(chunked);
  auto second = s2->dataTask(requestFor(server.url("/chunked")));
  second->resume();
  ASSERT_TRUE(chunked->waitForCompletions(1));
  EXPECT_EQ(chunked->events(), (Events{"response 200 -1", "complete ok"}));
  EXPECT_EQ(chunked->bodyAtCompletion(), "abcdef");
  EXPECT_NE(task->taskIdentifier(), 0u);
}

TEST_F(SessionTest, CancelDispositionEndsTheTaskWithoutLoadingTheBody) {
  auto recorder = std::make_shared<Recorder>();
  recorder->disposition = ResponseDisposition::cancel;
  auto s = session(recorder);
  s->dataTask(requestFor(server.url("/missing")))->resume();
  ASSERT_TRUE(recorder->waitForCompletions(1));
  EXPECT_EQ(recorder->events(), (Events{"response 404 8", "complete -999"}));
  EXPECT_EQ(recorder->body(), "");
}

// The transfer ends while the delegate still holds its answer: nothing arrives unasked, a late
// answer from another thread goes on in order, and a cancel before the answer wins.
TEST_F(SessionTest, ALateResponseAnswerKeepsTheOrderAndLosesToACancel) {
  auto recorder = std::make_shared<Recorder>();
  recorder->holdAnswer = true;
  auto s = session(recorder);
  auto task = s->dataTask(requestFor(server.url("/hello")));
  task->resume();
  auto answer = recorder->heldAnswer();
  ASSERT_TRUE(answer);
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(recorder->events(), (Events{"response 200 11"}));
  EXPECT_EQ(task->state(), UrlSessionTaskState::running);
  EXPECT_EQ(task->countOfBytesReceived(), 0);
  std::thread([answer] { answer(ResponseDisposition::allow); }).join();
  ASSERT_TRUE(recorder->waitForCompletions(1));
  EXPECT_EQ(recorder->events(), (Events{"response 200 11", "complete ok"}));
  EXPECT_EQ(recorder->body(), "hello world");
  EXPECT_EQ(task->countOfBytesReceived(), 11);

  auto cancelled = std::make_shared<Recorder>();
  cancelled->holdAnswer = true;
  auto s2 = session(cancelled);
  auto second = s2->dataTask(requestFor(server.url("/hello")));
  second->resume();
  auto late = cancelled->heldAnswer();
  ASSERT_TRUE(late);
  std::this_thread::sleep_for(100ms);
  second->cancel();
  ASSERT_TRUE(cancelled->waitForCompletions(1));
  late(ResponseDisposition::allow);
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(cancelled->events(), (Events{"response 200 11", "complete -999"}));
  EXPECT_EQ(cancelled->body(), "");
  EXPECT_EQ(second->error()->code(), static_cast<std::int64_t>(UrlError::cancelled));
}

TEST_F(SessionTest, RedirectsAreReportedHopByHop) {
  auto recorder = std::make_shared<Recorder>();
  auto s = session(recorder);
  auto task = s->dataTask(requestFor(server.url("/r1")));
  task->resume();
  ASSERT_TRUE(recorder->waitForCompletions(1));
  EXPECT_EQ(recorder->events(),
            (Events{"redirect 302 GET /r2", "redirect 301 GET /r3", "response 200 6", "complete ok"}));
  EXPECT_EQ(recorder->body(), "landed");
  EXPECT_EQ(task->currentRequest().url.path(), "/r3");

  // 303 turns a POST into a GET without body.
  auto post = std::make_shared<Recorder>();
  auto s2 = session(post);
  auto request = requestFor(server.url("/see-other"));
  request.httpMethod = "POST";
  request.httpBody = Data::fromString("x=1");
  s2->dataTask(request)->resume();
  ASSERT_TRUE(post->waitForCompletions(1));
  EXPECT_EQ(post->events(), (Events{"redirect 303 GET /r3", "response 200 6", "complete ok"}));
}

TEST_F(SessionTest, TransportErrorsCarryTheUrlLoadingCodes) {
  struct Case {
    std::string url;
    TimeInterval timeout;
    std::int64_t code;
  };
  const Case cases[] = {
      {server.url("/sleep"), 0.3, -1001},
      {"http://127.0.0.1:" + std::to_string(test::closedPort()) + "/", 5, -1004},
      {"http://no-such-host.invalid/", 10, -1003},
      {"ftp://127.0.0.1/file", 5, -1002},
  };
  for (const auto& c : cases) {
    auto recorder = std::make_shared<Recorder>();
    auto s = session(recorder);
    const auto started = std::chrono::steady_clock::now();
    auto task = s->dataTask(requestFor(c.url, c.timeout));
    task->resume();
    ASSERT_TRUE(recorder->waitForCompletions(1)) << c.url;
    EXPECT_EQ(recorder->events(), (Events{"complete " + std::to_string(c.code)})) << c.url;
    ASSERT_TRUE(task->error());
    EXPECT_EQ(task->error()->domain(), "NSURLErrorDomain");
    EXPECT_EQ(task->error()->userInfoValue(Error::kFailingURLStringKey), c.url);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 5s) << c.url;
  }
}

// Timeouts too large for the clock's arithmetic mean no limit, not an instant one.
TEST_F(SessionTest, HugeTimeoutsMeanNoLimit) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  for (double timeout : {1e10, 1e300, kInfinity}) {
    auto recorder = std::make_shared<Recorder>();
    auto s = session(recorder);
    s->dataTask(requestFor(server.url("/pause"), timeout))->resume();
    ASSERT_TRUE(recorder->waitForCompletions(1)) << timeout;
    EXPECT_EQ(recorder->events(), (Events{"response 200 6", "complete ok"})) << timeout;
  }
  // The session's default, used when the request sets none.
  auto configuration = UrlSessionConfiguration::defaultConfiguration();
  configuration.timeoutIntervalForRequest = kInfinity;
  auto recorder = std::make_shared<Recorder>();
  auto s = UrlSession::make(configuration, recorder);
  s->dataTask(requestFor(server.url("/pause"), 0))->resume();
  ASSERT_TRUE(recorder->waitForCompletions(1));
  EXPECT_EQ(recorder->events(), (Events{"response 200 6", "complete ok"}));

  // The wait for the delegate's trust answer is bounded by the same timeout.
  test::SelfSignedCertificate certificate;
  test::TestServer secure(&certificate);
  secure.server().Get("/", [](const httplib::Request&, httplib::Response& r) { r.set_content("tls", "text/plain"); });
  secure.start();
  auto trusting = std::make_shared<Recorder>();
  trusting->trustAnswer = AuthChallengeDisposition::useCredential;
  trusting->credentialFromTrust = true;
  auto s2 = session(trusting);
  s2->dataTask(requestFor(secure.url("/"), kInfinity))->resume();
  ASSERT_TRUE(trusting->waitForCompletions(1));
  EXPECT_EQ(trusting->events(), (Events{"challenge untrusted", "response 200 3", "complete ok"}));
}

TEST_F(SessionTest, CancelStopsASlowBodyAndClosesTheConnection) {
  std::atomic<bool> firstSent{false};
  test::RawServer slow([&](const test::RawServer::Writer& write) {
    if (!write("HTTP/1.1 200 OK\r\nContent-Length: 100000000\r\n\r\n")) return;
    for (int i = 0; i < 400; ++i) {
      if (!write(std::string(1000, 'x'))) return;
      firstSent = true;
      std::this_thread::sleep_for(10ms);
    }
  });
  auto recorder = std::make_shared<Recorder>();
  auto s = session(recorder);
  auto task = s->dataTask(requestFor(slow.url("/")));
  task->resume();
  for (int i = 0; i < 500 && recorder->body().empty(); ++i) std::this_thread::sleep_for(5ms);
  ASSERT_FALSE(recorder->body().empty());
  task->cancel();
  ASSERT_TRUE(recorder->waitForCompletions(1));
  EXPECT_EQ(recorder->events().back(), "complete -999");
  for (int i = 0; i < 400 && slow.clientsGone() == 0; ++i) std::this_thread::sleep_for(5ms);
  EXPECT_EQ(slow.clientsGone(), 1);

  // A task cancelled before it ran completes with the same code.
  auto unstarted = s->dataTask(requestFor(server.url("/hello")));
  unstarted->cancel();
  ASSERT_TRUE(recorder->waitForCompletions(2));
  EXPECT_EQ(recorder->events().back(), "complete -999");
}

TEST_F(SessionTest, InvalidationCancelsAndReleasesTheDelegate) {
  auto recorder = std::make_shared<Recorder>();
  auto s = session(recorder);
  s->dataTask(requestFor(server.url("/sleep")))->resume();
  s->invalidateAndCancel();
  ASSERT_TRUE(recorder->waitForInvalid());
  EXPECT_EQ(recorder->events(), (Events{"complete -999", "invalid"}));
  for (int i = 0; i < 200 && s->delegate(); ++i) std::this_thread::sleep_for(5ms);
  EXPECT_EQ(s->delegate(), nullptr);
  EXPECT_EQ(s->dataTask(requestFor(server.url("/hello"))), nullptr);

  auto finishing = std::make_shared<Recorder>();
  auto s2 = session(finishing);
  s2->dataTask(requestFor(server.url("/hello")))->resume();
  s2->finishTasksAndInvalidate();
  ASSERT_TRUE(finishing->waitForInvalid());
  EXPECT_EQ(finishing->events(), (Events{"response 200 11", "complete ok", "invalid"}));
}

TEST_F(SessionTest, DownloadTasksWriteTheBodyToATemporaryFile) {
  test::TempDir dir;
  auto recorder = std::make_shared<Recorder>();
  recorder->keepDownloadAt = dir.path() / "copy";
  auto s = session(recorder);
  s->downloadTask(requestFor(server.url("/big")))->resume();
  ASSERT_TRUE(recorder->waitForCompletions(1));
  EXPECT_EQ(recorder->events(), (Events{"downloaded", "complete ok"}));
  EXPECT_EQ(std::filesystem::file_size(recorder->keepDownloadAt), 3u << 20);
  EXPECT_EQ(recorder->progressTotal(), 3 << 20);
  for (int i = 0; i < 200 && std::filesystem::exists(recorder->temporaryFile()); ++i) std::this_thread::sleep_for(5ms);
  EXPECT_FALSE(std::filesystem::exists(recorder->temporaryFile()));
}

TEST(SessionTlsTest, TheTrustAnswerDecidesVerification) {
  test::SelfSignedCertificate certificate;
  test::TestServer server(&certificate);
  server.server().Get("/",
                      [](const httplib::Request&, httplib::Response& r) { r.set_content("secret", "text/plain"); });
  server.start();
  struct Case {
    std::optional<AuthChallengeDisposition> answer;
    bool credential;
    Events expected;
  };
  const Case cases[] = {
      {std::nullopt, false, {"challenge untrusted", "complete -1202"}},
      {AuthChallengeDisposition::useCredential, true, {"challenge untrusted", "response 200 6", "complete ok"}},
      {AuthChallengeDisposition::cancelAuthenticationChallenge, true, {"challenge untrusted", "complete -999"}},
      {AuthChallengeDisposition::useCredential, false, {"challenge untrusted", "complete -1202"}},
  };
  for (const auto& c : cases) {
    auto recorder = std::make_shared<Recorder>();
    recorder->trustAnswer = c.answer;
    recorder->credentialFromTrust = c.credential;
    auto s = UrlSession::make(UrlSessionConfiguration::defaultConfiguration(), recorder);
    s->dataTask(requestFor(server.url("/")))->resume();
    ASSERT_TRUE(recorder->waitForCompletions(1));
    EXPECT_EQ(recorder->events(), c.expected);
    EXPECT_EQ(recorder->body(), c.expected.size() == 3 ? "secret" : "");
  }
}

TEST(SessionBadResponseTest, BrokenServersEndInClearErrors) {
  struct Case {
    const char* name;
    std::function<void(const test::RawServer::Writer&)> answer;
    std::int64_t code;
  };
  const Case cases[] = {
      {"malformed status line", [](auto& w) { w("HTTP/1.1 abc\r\n\r\n"); }, -1011},
      {"garbage", [](auto& w) { w("hello there\r\n\r\n"); }, -1011},
      {"header block over 100 KiB",
       [](auto& w) {
         w("HTTP/1.1 200 OK\r\n");
         for (int i = 0; i < 200; ++i) w("X-Filler-" + std::to_string(i) + ": " + std::string(1000, 'y') + "\r\n");
         w("\r\n");
       },
       -1011},
      {"one header line over 100 KiB",
       [](auto& w) { w("HTTP/1.1 200 OK\r\nX-Long: " + std::string(200 * 1024, 'y') + "\r\n\r\n"); }, -1011},
      {"two different lengths",
       [](auto& w) { w("HTTP/1.1 200 OK\r\nContent-Length: 5\r\nContent-Length: 10\r\n\r\n0123456789"); }, -1011},
      {"closed mid-body", [](auto& w) { w("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\nshort"); }, -1005},
      {"nothing at all", [](auto&) {}, -1005},
  };
  for (const auto& c : cases) {
    test::RawServer raw(c.answer);
    auto recorder = std::make_shared<Recorder>();
    auto s = UrlSession::make(UrlSessionConfiguration::defaultConfiguration(), recorder);
    auto task = s->dataTask(requestFor(raw.url("/"), 5));
    task->resume();
    ASSERT_TRUE(recorder->waitForCompletions(1)) << c.name;
    ASSERT_TRUE(task->error()) << c.name;
    EXPECT_EQ(task->error()->code(), c.code)
        << c.name << ": " << task->error()->underlyingError()->localizedDescription();
  }
}

}  // namespace
}  // namespace kp

namespace kp {
namespace {

// The same length stated twice is that length.
TEST(SessionBadResponseTest, BodyBeyondTheAnnouncedLengthIsCutOff) {
  test::RawServer raw([](const test::RawServer::Writer& write) {
    write("HTTP/1.1 200 OK\r\nContent-Length: 10\r\ncontent-length: 10\r\n\r\n" + std::string(1 << 20, 'm'));
  });
  auto recorder = std::make_shared<Recorder>();
  auto s = UrlSession::make(UrlSessionConfiguration::defaultConfiguration(), recorder);
  s->dataTask(requestFor(raw.url("/"), 5))->resume();
  ASSERT_TRUE(recorder->waitForCompletions(1));
  EXPECT_EQ(recorder->events(), (Events{"response 200 10", "complete ok"}));
  EXPECT_EQ(recorder->body(), std::string(10, 'm'));
}

}  // namespace
}  // namespace kp

namespace kp {
namespace {

// Runs one request on a session of its own, ended after it, as a handler does by default;
// returns the recorded events.
Events transferOnPrivateSession(const std::string& url, std::optional<AuthChallengeDisposition> trust = {}) {
  auto recorder = std::make_shared<Recorder>();
  recorder->trustAnswer = trust;
  recorder->credentialFromTrust = trust.has_value();
  auto s = UrlSession::make(UrlSessionConfiguration::defaultConfiguration(), recorder);
  s->dataTask(requestFor(url))->resume();
  s->finishTasksAndInvalidate();
  EXPECT_TRUE(recorder->waitForInvalid());
  return recorder->events();
}

TEST(SessionConnectionTest, PlainConnectionsServeLaterSessionsButTlsConnectionsNever) {
  // The port each request came from tells the connections apart.
  std::mutex mutex;
  std::vector<int> ports;
  auto recordPort = [&](const httplib::Request& q, httplib::Response& r) {
    std::lock_guard lock(mutex);
    ports.push_back(q.remote_port);
    r.set_content("ok", "text/plain");
  };
  auto portsSeen = [&] {
    std::lock_guard lock(mutex);
    return std::exchange(ports, {});
  };

  test::TestServer plain;
  plain.server().Get("/", recordPort);
  plain.server().set_keep_alive_timeout(1);
  plain.start();
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(transferOnPrivateSession(plain.url("/")), (Events{"response 200 2", "complete ok", "invalid"}));
  }
  auto seen = portsSeen();
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[0], seen[1]);
  EXPECT_EQ(seen[1], seen[2]);
  // The server drops the idle connection; the next session must not fail on it.
  std::this_thread::sleep_for(1500ms);
  EXPECT_EQ(transferOnPrivateSession(plain.url("/")), (Events{"response 200 2", "complete ok", "invalid"}));
  ASSERT_EQ(portsSeen().size(), 1u);

  // Each session's delegate decides about its own TLS connection: one that accepted an
  // untrusted certificate leaves nothing that spares the next one the question.
  test::SelfSignedCertificate certificate;
  test::TestServer secure(&certificate);
  secure.server().Get("/", recordPort);
  secure.start();
  EXPECT_EQ(transferOnPrivateSession(secure.url("/"), AuthChallengeDisposition::useCredential),
            (Events{"challenge untrusted", "response 200 2", "complete ok", "invalid"}));
  EXPECT_EQ(transferOnPrivateSession(secure.url("/")), (Events{"challenge untrusted", "complete -1202", "invalid"}));
  EXPECT_EQ(transferOnPrivateSession(secure.url("/"), AuthChallengeDisposition::useCredential),
            (Events{"challenge untrusted", "response 200 2", "complete ok", "invalid"}));
  seen = portsSeen();
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_NE(seen[0], seen[1]);
}

}  // namespace
}  // namespace kp

namespace kp {
namespace {

// A body set on a GET goes out with it, as the caller asked (and as the request's cache key
// says); a HEAD cannot carry one and is refused without being sent. Without a body nothing
// announces one.
TEST(SessionRequestTest, AGetSendsItsBodyAndAHeadWithABodyIsRefused) {
  std::mutex mutex;
  std::vector<std::string> received;
  test::RawServer raw([&](const std::string& request, const test::RawServer::Writer& write) {
    {
      std::lock_guard lock(mutex);
      received.push_back(request);
    }
    write(request.starts_with("HEAD") ? "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n"
                                      : "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello");
  });
  auto lastReceived = [&] {
    std::lock_guard lock(mutex);
    return received.empty() ? std::string() : received.back();
  };
  struct Case {
    const char* method;
    std::optional<std::string> body;
    Events events;
    const char* sentBody;  // null: nothing sent
  };
  const Case cases[] = {
      {"GET", "q=1", {"response 200 5", "complete ok"}, "q=1"},
      {"GET", std::nullopt, {"response 200 5", "complete ok"}, ""},
      {"HEAD", std::nullopt, {"response 200 5", "complete ok"}, ""},
      {"HEAD", "q=1", {"complete -1103"}, nullptr},
  };
  for (const auto& c : cases) {
    const std::string before = lastReceived();
    auto recorder = std::make_shared<Recorder>();
    auto s = UrlSession::make(UrlSessionConfiguration::defaultConfiguration(), recorder);
    auto request = requestFor(raw.url("/q"), 5);
    request.httpMethod = c.method;
    if (c.body) request.httpBody = Data::fromString(*c.body);
    auto task = s->dataTask(request);
    task->resume();
    ASSERT_TRUE(recorder->waitForCompletions(1)) << c.method;
    EXPECT_EQ(recorder->events(), c.events) << c.method;
    if (!c.sentBody) {
      EXPECT_EQ(task->error()->localizedDescription(), "A HEAD request cannot carry a body.");
      EXPECT_EQ(lastReceived(), before);
      continue;
    }
    const std::string sent = lastReceived();
    EXPECT_TRUE(sent.starts_with(std::string(c.method) + " /q HTTP/1.1\r\n")) << sent;
    EXPECT_TRUE(sent.ends_with(std::string("\r\n\r\n") + c.sentBody)) << sent;
    EXPECT_EQ(sent.find("Content-Length") != std::string::npos, c.body.has_value()) << sent;
  }
}

// Servers spell header names as they like, and HTTP/2 sends them all in lower case; the
// delegate sees one spelling per name, so that exact lookups find what the server sent.
TEST(SessionHeaderTest, NamesTakeOneSpellingWhateverTheServerWrote) {
  test::RawServer raw([](const test::RawServer::Writer& write) {
    write(
        "HTTP/1.1 200 OK\r\n"
        "content-type: text/plain\r\n"
        "etag: \"v7\"\r\n"
        "www-authenticate: Basic realm=\"x\"\r\n"
        "x-forecast-RUN: a\r\n"
        "X-Forecast-Run: b\r\n"
        "Content-Length: 2\r\n\r\nok");
  });
  auto recorder = std::make_shared<Recorder>();
  auto s = UrlSession::make(UrlSessionConfiguration::defaultConfiguration(), recorder);
  auto task = s->dataTask(requestFor(raw.url("/"), 5));
  task->resume();
  ASSERT_TRUE(recorder->waitForCompletions(1));
  ASSERT_TRUE(task->response());
  EXPECT_EQ(task->response()->allHeaderFields(), (std::map<std::string, std::string>{
                                                     {"Content-Length", "2"},
                                                     {"Content-Type", "text/plain"},
                                                     {"ETag", "\"v7\""},
                                                     {"WWW-Authenticate", "Basic realm=\"x\""},
                                                     {"X-Forecast-Run", "a, b"},
                                                 }));
  EXPECT_EQ(task->response()->headerFields().size(), 6u);
  EXPECT_EQ(task->response()->value("x-forecast-run"), "a, b");

  if (!test::Http2Server::binary()) GTEST_SKIP() << "nghttpd is missing (Debian package nghttp2-server)";
  test::TempDir folder;
  std::ofstream(folder.path() / "forecast.json") << R"({"t":21})";
  test::SelfSignedCertificate certificate;
  test::Http2Server http2(folder.path(), certificate);
  auto overHttp2 = std::make_shared<Recorder>();
  overHttp2->trustAnswer = AuthChallengeDisposition::useCredential;
  overHttp2->credentialFromTrust = true;
  auto s2 = UrlSession::make(UrlSessionConfiguration::defaultConfiguration(), overHttp2);
  auto task2 = s2->dataTask(requestFor(http2.url("/forecast.json")));
  task2->resume();
  ASSERT_TRUE(overHttp2->waitForCompletions(1));
  EXPECT_EQ(overHttp2->events(), (Events{"challenge untrusted", "response 200 8", "complete ok"}));
  EXPECT_EQ(overHttp2->body(), R"({"t":21})");
  HttpResponse response;
  response.headers = task2->response()->allHeaderFields();
  EXPECT_EQ(response.contentType(), "application/json");
  EXPECT_TRUE(response.lastModifiedDate());
  EXPECT_TRUE(response.sentDate());
  EXPECT_EQ(response.headers.count("Content-Length"), 1u);
}

}  // namespace
}  // namespace kp
