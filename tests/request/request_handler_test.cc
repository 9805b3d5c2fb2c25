// HttpRequestHandler against real servers: results, status errors, progress, cancellation, its
// answers to TLS trust challenges, cookies, custom and shared sessions.
#include "kp/request/request_handler.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>

#include "kp/request/request_errors.h"
#include "support/test_servers.h"
#include "support/wait.h"

namespace kp {
namespace {

using namespace std::chrono_literals;

// Runs one request through a handler and collects what comes back.
struct Transfer {
  std::shared_ptr<HttpRequest> request;
  std::shared_ptr<HttpRequestHandler> handler = std::make_shared<HttpRequestHandler>();
  std::mutex mutex;
  std::vector<std::shared_ptr<HttpRequestResult>> results;
  std::vector<float> progress;

  explicit Transfer(const std::string& url, bool withProgress = false) : request(HttpRequest::make(*Url::parse(url))) {
    request->httpConfig()->timeoutInterval = 10;
    if (withProgress) request->setProgressUpdateHandler([this](float f) { progress.push_back(f); });
  }
  void start() {
    ASSERT_EQ(handler->canHandle(request), nullptr);
    handler->handle(request, [this](const std::shared_ptr<RequestResult>& result) {
      std::lock_guard lock(mutex);
      results.push_back(std::dynamic_pointer_cast<HttpRequestResult>(result));
    });
  }
  // Drains the main queue until a result came (or `limit` passed); then a little longer so
  // that late duplicates would show.
  std::shared_ptr<HttpRequestResult> wait(std::chrono::milliseconds limit = 10s) {
    (void)test::eventuallyOnMain([this] { return count() != 0; }, limit);
    MainQueue::shared()->runFor(50ms);
    std::lock_guard lock(mutex);
    return results.empty() ? nullptr : results.front();
  }
  std::size_t count() {
    std::lock_guard lock(mutex);
    return results.size();
  }
};

std::string body(const HttpRequestResult& result) {
  const Data* data = std::any_cast<Data>(&result.data);
  return data ? data->toString() : "<none>";
}

class HandlerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto& s = server.server();
    s.Get("/ok", [](const httplib::Request&, httplib::Response& r) {
      r.set_header("Set-Cookie", "session=abc; Path=/; HttpOnly");
      r.set_header("ETag", "\"v1\"");
      r.set_content(std::string(200000, 'a'), "application/octet-stream");
    });
    s.Get("/chunked", [](const httplib::Request&, httplib::Response& r) {
      r.set_chunked_content_provider("application/octet-stream", [](size_t, httplib::DataSink& sink) {
        sink.write("0123456789", 10);
        sink.done();
        return true;
      });
    });
    s.Get("/compressible",
          [](const httplib::Request&, httplib::Response& r) { r.set_content(std::string(300000, 'z'), "text/plain"); });
    s.Get("/status/(\\d+)", [](const httplib::Request& q, httplib::Response& r) {
      r.status = std::stoi(q.matches[1]);
      r.set_content("error page", "text/plain");
    });
    s.Get("/n/(\\d+)", [](const httplib::Request& q, httplib::Response& r) {
      r.set_content("body " + std::string(q.matches[1]), "text/plain");
    });
    server.start();
  }
  test::TestServer server;
};

TEST_F(HandlerTest, SuccessfulTransferBuildsTheResult) {
  Transfer run(server.url("/ok"), true);
  run.start();
  auto result = run.wait();
  ASSERT_TRUE(result);
  EXPECT_EQ(run.count(), 1u);
  EXPECT_TRUE(result->isSuccess());
  EXPECT_EQ(body(*result), std::string(200000, 'a'));
  ASSERT_TRUE(result->response);
  EXPECT_EQ(result->response->statusCode, 200);
  EXPECT_EQ(result->response->etag(), "\"v1\"");
  ASSERT_TRUE(result->response->getCookieByName("session"));
  EXPECT_TRUE(result->response->getCookieByName("session")->isHTTPOnly());
  ASSERT_FALSE(run.progress.empty());
  EXPECT_FLOAT_EQ(run.progress.back(), 1.0f);
  EXPECT_TRUE(std::is_sorted(run.progress.begin(), run.progress.end()));

  // Without a length no progress is reported.
  Transfer chunked(server.url("/chunked"), true);
  chunked.start();
  ASSERT_TRUE(chunked.wait());
  EXPECT_EQ(body(*chunked.results[0]), "0123456789");
  EXPECT_TRUE(chunked.progress.empty());
}

TEST_F(HandlerTest, ProgressNeverExceedsOneWhenMoreArrivesThanAnnounced) {
  // The compressed length is announced; the decoded body is far longer.
  Transfer run(server.url("/compressible"), true);
  run.request->httpConfig()->setHeader("gzip", "Accept-Encoding");
  run.start();
  auto result = run.wait();
  ASSERT_TRUE(result);
  EXPECT_EQ(body(*result).size(), 300000u);
  ASSERT_FALSE(run.progress.empty());
  for (float f : run.progress) EXPECT_LE(f, 1.0f);
  EXPECT_FLOAT_EQ(run.progress.back(), 1.0f);
}

TEST_F(HandlerTest, StatusCodesOfFourHundredAndAboveEndInTheStatusError) {
  for (int status : {404, 500}) {
    Transfer run(server.url("/status/" + std::to_string(status)));
    run.start();
    auto result = run.wait();
    ASSERT_TRUE(result) << status;
    EXPECT_EQ(run.count(), 1u);
    ASSERT_TRUE(result->error);
    EXPECT_EQ(result->error->domain(), "KPRequest");
    EXPECT_EQ(result->error->code(), 400);
    EXPECT_EQ(result->error->localizedDescription(),
              "Request failed with status code: " + std::to_string(status) + ".");
    EXPECT_FALSE(result->data.has_value());
  }
}

// A cancelled transfer stops and closes its connection, and delivers nothing.
TEST(HandlerCancelTest, CancellationIsSilentAndStopsTheTransfer) {
  std::atomic<bool> streaming{false};
  test::RawServer slow([&](const test::RawServer::Writer& write) {
    if (!write("HTTP/1.1 200 OK\r\nContent-Length: 50000000\r\n\r\n")) return;
    for (int i = 0; i < 500 && write(std::string(1000, 's')); ++i) {
      streaming = true;
      std::this_thread::sleep_for(10ms);
    }
  });
  Transfer cancelled(slow.url("/"), true);
  cancelled.start();
  ASSERT_TRUE(test::eventually([&] { return streaming.load(); }));
  MainQueue::shared()->runFor(50ms);
  cancelled.handler->cancel();
  EXPECT_TRUE(cancelled.handler->cancelledFlag->isCancelled());
  EXPECT_EQ(cancelled.wait(1s), nullptr);
  EXPECT_TRUE(test::eventually([&] { return slow.clientsGone() == 1; }));
}

TEST(HandlerChallengeTest, AnswersFollowTheRequestSettings) {
  auto request = HttpRequest::make(*Url::parse("https://127.0.0.1/"));
  auto handler = std::make_shared<HttpRequestHandler>();
  handler->request = request;
  auto session = UrlSession::make(UrlSessionConfiguration::defaultConfiguration(), nullptr);
  auto task = session->dataTask(UrlRequest(request->url()));
  auto trust = std::make_shared<const ServerTrust>("127.0.0.1", 443, std::vector<Data>{}, false, "self-signed");
  UrlAuthenticationChallenge challenge{
      {"127.0.0.1", 443, "https", std::string(UrlProtectionSpace::kAuthenticationMethodServerTrust), trust}, 0};
  std::vector<std::pair<int, bool>> answers;
  auto record = [&](AuthChallengeDisposition d, std::shared_ptr<const UrlCredential> c) {
    answers.emplace_back(static_cast<int>(d), c && c->serverTrust() == trust);
  };

  handler->didReceiveChallenge(*session, *task, challenge, record);
  request->httpConfig()->acceptUntrustedSSLCertificate = true;
  handler->didReceiveChallenge(*session, *task, challenge, record);
  challenge.previousFailureCount = 1;
  handler->didReceiveChallenge(*session, *task, challenge, record);
  challenge.protectionSpace.authenticationMethod = "NSURLAuthenticationMethodHTTPBasic";
  challenge.previousFailureCount = 0;
  handler->didReceiveChallenge(*session, *task, challenge, record);
  EXPECT_EQ(answers, (std::vector<std::pair<int, bool>>{{1, false}, {2, true}, {2, false}, {2, true}, {1, false}}));
}

// A request without a configuration is handled as one with the default configuration, which
// accepts no untrusted certificate.
TEST(HandlerTlsTest, ARequestWithoutConfigurationGetsTheDefaultOne) {
  test::SelfSignedCertificate certificate;
  test::TestServer server(&certificate);
  server.server().Get("/", [](const httplib::Request&, httplib::Response& r) { r.set_content("tls", "text/plain"); });
  server.start();
  Transfer unconfigured(server.url("/"));
  unconfigured.request->setHttpConfig(nullptr);
  unconfigured.start();
  auto result = unconfigured.wait();
  ASSERT_TRUE(result);
  EXPECT_EQ(result->error->code(), -1202);
}

// Cookies from fields spelled differently all arrive, each whole although the session joins
// repeated fields and an expiry holds a comma.
TEST(HandlerHeaderTest, EveryCookieArrivesWhateverItsFieldsSpelling) {
  test::RawServer raw([](const test::RawServer::Writer& write) {
    write(
        "HTTP/1.1 200 OK\r\n"
        "set-cookie: a=1; Path=/\r\n"
        "Set-Cookie: b=2; Expires=Wed, 21 Oct 2037 07:28:00 GMT\r\n"
        "SET-COOKIE: c=3\r\n"
        "content-length: 2\r\n\r\n{}");
  });
  Transfer run(raw.url("/"));
  run.start();
  auto result = run.wait();
  ASSERT_TRUE(result);
  ASSERT_TRUE(result->isSuccess());
  const auto& response = *result->response;
  ASSERT_EQ(response.cookies.size(), 3u);
  EXPECT_EQ(response.getCookieByName("b")->value(), "2");
  EXPECT_EQ(response.getCookieByName("b")->expiresDate(), Date::fromTimeIntervalSince1970(2139722880));
  EXPECT_EQ(response.getCookieByName("c")->value(), "3");
}

// Receives the callbacks of a custom session instead of the handler.
class Bystander : public UrlSessionDelegate {
 public:
  void didComplete(UrlSession&, UrlSessionTask&, const ErrorPtr& error) override {
    std::lock_guard lock(mutex);
    completed = true;
    failed = error != nullptr;
  }
  std::mutex mutex;
  bool completed = false;
  bool failed = true;
};

TEST_F(HandlerTest, CustomSessionWithAnotherDelegateCompletesAtOnceAndStillTransfers) {
  auto bystander = std::make_shared<Bystander>();
  Transfer run(server.url("/n/1"));
  run.request->setUrlSession(UrlSession::make(UrlSessionConfiguration::defaultConfiguration(), bystander));
  run.start();
  ASSERT_EQ(run.count(), 1u);
  EXPECT_FALSE(run.results[0]->response);
  EXPECT_FALSE(run.results[0]->data.has_value());
  EXPECT_TRUE(test::eventually([&] {
    std::lock_guard lock(bystander->mutex);
    return bystander->completed;
  }));
  {
    std::lock_guard lock(bystander->mutex);
    EXPECT_FALSE(bystander->failed);
  }
  EXPECT_TRUE(run.handler->usingCustomURLSession);

  // That early completion may wait for another thread that uses the handler (here a cancel,
  // which takes the handler's lock). The handling runs on a thread of its own, so that a
  // handler that kept its lock meanwhile fails this test by the deadline instead of hanging.
  auto waiting = std::make_shared<Transfer>(server.url("/n/2"));
  waiting->request->setUrlSession(UrlSession::make(UrlSessionConfiguration::defaultConfiguration(), bystander));
  ASSERT_EQ(waiting->handler->canHandle(waiting->request), nullptr);
  auto handled = std::make_shared<std::promise<void>>();
  auto done = handled->get_future();
  std::thread([waiting, handled] {
    waiting->handler->handle(waiting->request, [waiting](const std::shared_ptr<RequestResult>&) {
      std::thread([waiting] { waiting->handler->cancel(); }).join();
    });
    handled->set_value();
  }).detach();
  EXPECT_EQ(done.wait_for(10s), std::future_status::ready);
}

TEST_F(HandlerTest, ManyTransfersShareOneSession) {
  constexpr int kCount = 40;
  std::vector<std::unique_ptr<Transfer>> runs;
  for (int i = 0; i < kCount; ++i) runs.push_back(std::make_unique<Transfer>(server.url("/n/" + std::to_string(i))));
  runs[0]->handler->useSharedURLSession = true;
  runs[0]->start();
  const auto shared = runs[0]->request->urlSession();
  ASSERT_TRUE(shared);
  for (int i = 1; i < kCount; ++i) {
    runs[i]->request->setUrlSession(shared);
    runs[i]->start();
  }
  for (int i = 0; i < kCount; ++i) {
    auto result = runs[i]->wait();
    ASSERT_TRUE(result) << i;
    EXPECT_EQ(body(*result), "body " + std::to_string(i))
        << (result->error ? result->error->localizedDescription() + " " + std::to_string(result->error->code()) : "");
    EXPECT_EQ(runs[i]->count(), 1u);
  }
  auto router = std::dynamic_pointer_cast<HttpRequestURLSessionDelegateHandler>(shared->delegate());
  ASSERT_TRUE(router);
  EXPECT_EQ(router->handler(runs[0]->handler->urlSessionTask->taskIdentifier()), nullptr);
}

TEST(HandlerProtocolTest, RejectsRequestsThatAreNotHttpRequests) {
  // A request that only has what every request has.
  struct Other : RequestType {
    const std::shared_ptr<RequestHandlerInterface>& handler() const override { return handler_; }
    void setHandler(std::shared_ptr<RequestHandlerInterface> h) override { handler_ = std::move(h); }
    const std::shared_ptr<RequestQueueInterface>& queue() const override { return queue_; }
    void setQueue(std::shared_ptr<RequestQueueInterface> q) override { queue_ = std::move(q); }
    RequestPriority priority() const override { return RequestPriority::normal; }
    void setPriority(RequestPriority) override {}
    void handleCompletion(const std::shared_ptr<RequestResult>&) override {}
    std::shared_ptr<RequestHandlerInterface> handler_;
    std::shared_ptr<RequestQueueInterface> queue_;
  };
  auto handler = std::make_shared<HttpRequestHandler>();
  EXPECT_EQ(handler->canHandle(std::make_shared<Other>()), RequestErrors::invalidRequestProtocolError());
  auto request = HttpRequest::make(*Url::parse("http://127.0.0.1/x"));
  EXPECT_EQ(handler->canHandle(request), nullptr);
  EXPECT_EQ(handler->urlRequest->url.absoluteString(), "http://127.0.0.1/x");
  EXPECT_TRUE(std::dynamic_pointer_cast<HttpRequestHandler>(request->handler()));
}

}  // namespace
}  // namespace kp
