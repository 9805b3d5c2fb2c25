// The session layer against real servers on 127.0.0.1: callbacks and their order, redirects,
// cancellation, timeouts, transport errors, downloads, and a delegate slower than its server.
#include "kp/request/url_session.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <limits>
#include <thread>

#include "session_recorder.h"
#include "support/temp_dir.h"
#include "support/test_servers.h"
#include "support/wait.h"

namespace kp {
namespace {

using namespace std::chrono_literals;
using test::Events;
using test::eventually;
using test::Recorder;
using test::requestFor;

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
    s.Get(R"(/loop/(\d+))", [](const httplib::Request& q, httplib::Response& r) {
      r.set_redirect("/loop/" + std::to_string(std::stoi(q.matches[1]) + 1), 302);
    });
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

  // A server that redirects for ever: 16 hops are followed, the 17th redirect is the error.
  auto looping = std::make_shared<Recorder>();
  auto s3 = session(looping);
  auto endless = s3->dataTask(requestFor(server.url("/loop/0")));
  endless->resume();
  ASSERT_TRUE(looping->waitForCompletions(1));
  Events hops;
  for (int i = 1; i <= 16; ++i) hops.push_back("redirect 302 GET /loop/" + std::to_string(i));
  hops.push_back("complete " + std::to_string(static_cast<int>(UrlError::httpTooManyRedirects)));
  EXPECT_EQ(looping->events(), hops);
  EXPECT_EQ(endless->currentRequest().url.path(), "/loop/16");
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
  ASSERT_TRUE(eventually([&] { return !recorder->body().empty(); }));
  task->cancel();
  ASSERT_TRUE(recorder->waitForCompletions(1));
  EXPECT_EQ(recorder->events().back(), "complete -999");
  EXPECT_TRUE(eventually([&] { return slow.clientsGone() == 1; }));

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
  EXPECT_TRUE(eventually([&] { return s->delegate() == nullptr; }));
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
  EXPECT_TRUE(eventually([&] { return !std::filesystem::exists(recorder->temporaryFile()); }));
}

constexpr std::int64_t kMiB = 1 << 20;

// Serves one body as fast as the client takes it, and counts the bytes it got rid of.
class FastServer {
 public:
  explicit FastServer(std::size_t size) : body_(size, '\0') {
    // Every byte tells its offset (modulo a prime), so pieces out of order show.
    for (std::size_t i = 0; i < size; ++i) body_[i] = static_cast<char>(i % 251);
  }
  [[nodiscard]] const std::string& body() const { return body_; }
  [[nodiscard]] std::string url() const { return raw_.url("/"); }
  [[nodiscard]] std::size_t sent() const { return sent_.load(); }

 private:
  std::string body_;
  std::atomic<std::size_t> sent_{0};
  test::RawServer raw_{[this](const test::RawServer::Writer& write) {
    if (!write("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body_.size()) + "\r\n\r\n")) return;
    for (std::size_t at = 0; at < body_.size(); at += 64 << 10) {
      if (!write(body_.substr(at, 64 << 10))) return;
      sent_ += std::min<std::size_t>(64 << 10, body_.size() - at);
    }
  }};
};

// A delegate slower than its server: the transfer waits while more than 8 MiB is on its way to
// the delegate and goes on once less than 2 MiB is, so memory stays bounded and every byte
// arrives, in order.
TEST(SessionFlowTest, ASlowDelegateHoldsBackAFastServer) {
  FastServer server(24 * kMiB);
  auto recorder = std::make_shared<Recorder>();
  recorder->perKiB = 64us;  // 16 MB/s, far slower than loopback
  auto s = UrlSession::make(UrlSessionConfiguration::defaultConfiguration(), recorder);
  s->dataTask(requestFor(server.url(), 30))->resume();
  ASSERT_TRUE(recorder->waitForCompletions(1, 60s));
  EXPECT_EQ(recorder->events(), (Events{"response 200 " + std::to_string(24 * kMiB), "complete ok"}));
  EXPECT_TRUE(recorder->body() == server.body());

  const auto waiting = recorder->waiting();
  EXPECT_LE(*std::max_element(waiting.begin(), waiting.end()), 8 * kMiB + 256 * 1024);  // one read beyond at most
  // Filled up, drained below 2 MiB before anything more came, and filled up again.
  const auto full = std::find_if(waiting.begin(), waiting.end(), [](auto w) { return w > 7 * kMiB; });
  ASSERT_NE(full, waiting.end()) << "the server never got ahead of the delegate";
  const auto drained = std::find_if(full, waiting.end(), [](auto w) { return w < 4 * kMiB; });
  ASSERT_NE(drained, waiting.end()) << "the transfer went on before the delegate caught up";
  const auto refilled = std::find_if(drained, waiting.end(), [](auto w) { return w > 7 * kMiB; });
  ASSERT_NE(refilled, waiting.end());
  EXPECT_LE(*std::min_element(full, refilled), 2 * kMiB);
}

// While the delegate decides about the response, at most 1 MiB of body waits in the session and
// the rest stays with the server; once allowed, every byte arrives, in order.
TEST(SessionFlowTest, TheBodyHeldWhileTheDelegateDecidesIsBounded) {
  FastServer server(64 * kMiB);
  auto recorder = std::make_shared<Recorder>();
  recorder->holdAnswer = true;
  auto s = UrlSession::make(UrlSessionConfiguration::defaultConfiguration(), recorder);
  s->dataTask(requestFor(server.url(), 30))->resume();
  auto answer = recorder->heldAnswer();
  ASSERT_TRUE(answer);
  // The server stalls once the buffers between it and the session are full.
  std::size_t settled = 0;
  for (int i = 0; i < 50 && (i < 2 || server.sent() != settled); ++i) {
    settled = server.sent();
    std::this_thread::sleep_for(200ms);
  }
  EXPECT_LT(settled, 48 * kMiB);
  answer(ResponseDisposition::allow);
  ASSERT_TRUE(recorder->waitForCompletions(1, 60s));
  EXPECT_EQ(recorder->events(), (Events{"response 200 " + std::to_string(64 * kMiB), "complete ok"}));
  EXPECT_TRUE(recorder->body() == server.body());
  EXPECT_LE(recorder->largestPiece(), 1u << 20);  // what was held arrives as one piece
}

}  // namespace
}  // namespace kp
