// The session at the edges of HTTP against real servers on 127.0.0.1: TLS trust decisions,
// broken responses, which connections are reused, what a request sends, and how header names
// are spelled.
#include <gtest/gtest.h>
#include <httplib.h>

#include <fstream>
#include <mutex>

#include "kp/request/http_response.h"
#include "session_recorder.h"
#include "support/temp_dir.h"
#include "support/test_servers.h"

namespace kp {
namespace {

using namespace std::chrono_literals;
using test::Events;
using test::Recorder;
using test::requestFor;

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
  // In this order, each request runs on the easy handle of the one before (see below): none
  // may inherit its method or body.
  const Case cases[] = {
      {"GET", "q=1", {"response 200 5", "complete ok"}, "q=1"},
      {"GET", std::nullopt, {"response 200 5", "complete ok"}, ""},
      {"HEAD", std::nullopt, {"response 200 5", "complete ok"}, ""},
      {"GET", std::nullopt, {"response 200 5", "complete ok"}, ""},
      {"PUT", "p=2", {"response 200 5", "complete ok"}, "p=2"},
      {"GET", std::nullopt, {"response 200 5", "complete ok"}, ""},
      {"POST", "r=3", {"response 200 5", "complete ok"}, "r=3"},
      {"DELETE", std::nullopt, {"response 200 5", "complete ok"}, ""},
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
    // An ended session hands its connection and easy handle to the next one.
    s->finishTasksAndInvalidate();
    ASSERT_TRUE(recorder->waitForInvalid());
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
