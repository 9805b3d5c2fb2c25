// Running requests: executors and tickets, the cache step, the three queues, and
// cancelling at every stage, against loopback servers that count what they receive.
#include <gtest/gtest.h>

#include <thread>

#include "execution_support.h"
#include "kp/cache/cache_controller.h"
#include "kp/request/execution_queues.h"
#include "kp/request/request_errors.h"
#include "kp/request/request_executor.h"
#include "kp/request/request_handler.h"
#include "kp/request/request_queue.h"

namespace kp {
namespace {

using namespace std::chrono_literals;
using test::Completions;
using test::CountingServer;
using test::eventually;

std::string body(const HttpRequestResultType& result) {
  const Data* data = std::any_cast<Data>(&result.data);
  return data ? data->toString() : "<none>";
}

class ExecutionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server.server().Get("/status/(\\d+)", [this](const httplib::Request& q, httplib::Response& r) {
      ++hits;
      r.status = std::stoi(q.matches[1]);
    });
    server.server().Get("/counted/([^/]+)", [this](const httplib::Request& q, httplib::Response& r) {
      ++hits;
      r.set_header("ETag", "\"" + std::string(q.matches[1]) + "\"");
      r.set_content("counted " + std::string(q.matches[1]), "text/plain");
    });
    server.start();
  }

  std::shared_ptr<HttpRequest> request(const std::string& path) {
    auto made = HttpRequest::make(*Url::parse(server.url(path)));
    made->httpConfig()->timeoutInterval = 10;
    return made;
  }

  CountingServer server;
  std::atomic<int> hits{0};
};

TEST_F(ExecutionTest, ARequestRunsOnceAndCompletesOnTheMainQueueWhileItIsDrained) {
  auto run = request("/item/once");
  Completions<HttpRequestResultType> done;
  auto ticket = run->execute(done.handler());
  auto again = run->execute([](const std::shared_ptr<HttpRequestResultType>&) { ADD_FAILURE() << "second callback"; });
  EXPECT_NE(again, ticket);
  EXPECT_TRUE(again->failed());
  EXPECT_TRUE(again->isFinished());
  EXPECT_EQ(again->error(), RequestErrors::alreadyExecutedError());

  // The completion waits for the host to drain the main queue, and runs there.
  ASSERT_TRUE(server.waitForArrivals(1));
  EXPECT_FALSE(done.waitFor(1, 300ms));
  ASSERT_TRUE(done.drainFor(1));
  EXPECT_TRUE(done.allOnMainThread());
  EXPECT_EQ(body(*done.at(0)), "item once");
  EXPECT_EQ(ticket->state(), RequestTicketState::finished);
  MainQueue::shared()->runFor(50ms);
  EXPECT_EQ(done.size(), 1u);
  EXPECT_EQ(server.arrivals().size(), 1u);

  // A failed transfer fails the ticket with the result's error.
  auto missing = request("/status/404");
  missing->setCompletionDispatchQueue(nullptr);
  Completions<HttpRequestResultType> failed;
  auto failedTicket = missing->execute(failed.handler());
  ASSERT_TRUE(failed.waitFor(1));
  EXPECT_EQ(failedTicket->state(), RequestTicketState::failed);
  EXPECT_EQ(failedTicket->error()->localizedDescription(), "Request failed with status code: 404.");
  EXPECT_FALSE(failed.allOnMainThread());
}

TEST_F(ExecutionTest, ARequestItsHandlerRefusesFailsWithoutSendingOrCompleting) {
  struct Refusing : HttpRequestHandler {
    ErrorPtr canHandle(const std::shared_ptr<RequestType>&) override { return RequestErrors::invalidUrlError(); }
  };
  auto run = request("/item/refused");
  run->setHandler(std::make_shared<Refusing>());
  auto ticket = run->execute([](const std::shared_ptr<HttpRequestResultType>&) { ADD_FAILURE() << "completed"; });
  EXPECT_EQ(ticket->state(), RequestTicketState::failed);
  EXPECT_EQ(ticket->error(), RequestErrors::invalidUrlError());
  MainQueue::shared()->runFor(100ms);
  EXPECT_TRUE(server.arrivals().empty());
}

TEST_F(ExecutionTest, TheCacheAnswersHitsAndKeepsOnlyFreshSuccesses) {
  auto cache = CacheController::sharedInstance();
  auto first = request("/counted/a");
  first->generateCacheKey();
  first->cacheConfig()->maximumAge = 600;
  first->cacheConfig()->group = "tests";
  first->setCompletionDispatchQueue(nullptr);
  Completions<HttpRequestResultType> fetched;
  (void)first->execute(fetched.handler());
  ASSERT_TRUE(fetched.waitFor(1));
  EXPECT_FALSE(fetched.at(0)->fromCache());
  const std::string key = *first->cacheConfig()->key;
  ASSERT_TRUE(eventually([&] { return cache->getCacheItem(key) != nullptr; }));
  cache->waitForBackgroundWork();
  const auto stored = cache->getCacheItem(key);
  EXPECT_EQ(stored->configuration.groupName, "tests");
  EXPECT_TRUE(stored->configuration.retainInBackStore);

  // The hit sends nothing and comes back as stored, with the entry's expiry.
  auto second = request("/counted/a");
  second->generateCacheKey();
  second->cacheConfig()->forceSynchronousLoad = true;
  second->setCompletionDispatchQueue(nullptr);
  Completions<HttpRequestResultType> hit;
  auto ticket = second->execute(hit.handler());
  ASSERT_EQ(hit.size(), 1u);  // synchronous load: completed before execute() returned
  EXPECT_EQ(ticket->state(), RequestTicketState::finished);
  const auto& result = *hit.at(0);
  EXPECT_TRUE(result.fromCache());
  EXPECT_EQ(*result.cacheExpirationDate, stored->creationDate().addingTimeInterval(600));
  EXPECT_EQ(body(result), "counted a");
  EXPECT_EQ(result.responseObject()->etag(), "\"a\"");
  EXPECT_TRUE(second->executor()->loadedFromCache());
  EXPECT_EQ(hits.load(), 1);
  // ...and is not written back.
  cache->waitForBackgroundWork();
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(cache->getCacheItem(key)->creationDate(), stored->creationDate());

  // Failures are never kept, and an empty key is looked up but never saved.
  const auto entriesBefore = cache->listEntries().size();
  for (const std::string path : {"/status/500", "/counted/b"}) {
    auto uncached = request(path);
    uncached->cacheConfig()->key = path == "/counted/b" ? "" : path;
    uncached->cacheConfig()->forceSynchronousLoad = true;
    uncached->setCompletionDispatchQueue(nullptr);
    Completions<HttpRequestResultType> done;
    (void)uncached->execute(done.handler());
    ASSERT_TRUE(done.waitFor(1)) << path;
    EXPECT_FALSE(done.at(0)->fromCache());
  }
  EXPECT_EQ(hits.load(), 3);
  cache->waitForBackgroundWork();
  EXPECT_EQ(cache->getCacheItem("/status/500"), nullptr);
  EXPECT_EQ(cache->listEntries().size(), entriesBefore);
}

TEST_F(ExecutionTest, CancellingAtEachStageEndsQuietly) {
  // Before the cache step runs (the pool is kept busy until then): nothing is sent.
  {
    std::mutex mutex;
    std::condition_variable released;
    bool release = false;
    std::atomic<int> blocked{0};
    std::atomic<int> finished{0};
    constexpr int kBlockers = 8;
    for (int i = 0; i < kBlockers; ++i) {
      globalQueue()->async([&] {
        ++blocked;
        std::unique_lock lock(mutex);
        released.wait(lock, [&] { return release; });
        --blocked;
        ++finished;
      });
    }
    ASSERT_TRUE(eventually([&] { return blocked.load() >= 2; }));
    auto run = request("/item/before-cache");
    run->generateCacheKey();
    auto ticket = run->execute([](const std::shared_ptr<HttpRequestResultType>&) { ADD_FAILURE(); });
    ticket->cancel();
    EXPECT_EQ(ticket->state(), RequestTicketState::cancelled);
    {
      std::lock_guard lock(mutex);
      release = true;
    }
    released.notify_all();
    // Every blocker must have run before this scope's locals go: the ones still queued touch them.
    ASSERT_TRUE(eventually([&] { return finished.load() == kBlockers; }));
  }
  // While running on the direct queue: the transfer stops, nothing completes, and the
  // request is let go.
  std::weak_ptr<HttpRequest> released;
  {
    server.close();
    auto run = request("/item/running");
    released = run;
    auto ticket = run->execute([](const std::shared_ptr<HttpRequestResultType>&) { ADD_FAILURE(); });
    ASSERT_TRUE(server.waitForArrivals(1));
    ticket->cancel();
    EXPECT_EQ(ticket->state(), RequestTicketState::cancelled);
    ticket->cancel();
    EXPECT_EQ(ticket->state(), RequestTicketState::cancelled);
  }
  EXPECT_TRUE(eventually([&] { return released.expired(); }));
  // A success already on its way, past the point where its queue could stop it, when the
  // cancel comes: the cancel stands and nothing completes.
  {
    struct Holding : RequestQueueInterface {
      void addRequest(const std::shared_ptr<RequestType>& added) override { held = added; }
      void cancelRequest(const std::shared_ptr<RequestType>&) override {}
      void cancelAll() override {}
      std::int64_t maxConcurrentRequests() const override { return 1; }
      void setMaxConcurrentRequests(std::int64_t) override {}
      std::shared_ptr<RequestType> held;
    };
    auto queue = std::make_shared<Holding>();
    auto run = request("/item/late");
    run->setQueue(queue);
    run->setCompletionDispatchQueue(nullptr);
    auto ticket = run->execute([](const std::shared_ptr<HttpRequestResultType>&) { ADD_FAILURE(); });
    ASSERT_TRUE(queue->held);
    ticket->cancel();
    queue->held->handleCompletion(std::make_shared<HttpRequestResult>());
    EXPECT_EQ(ticket->state(), RequestTicketState::cancelled);
    queue->held.reset();  // the request holds its queue
  }
  server.open();
  // After completion: the ticket stays finished.
  auto done = request("/item/done");
  done->setCompletionDispatchQueue(nullptr);
  Completions<HttpRequestResultType> completions;
  auto ticket = done->execute(completions.handler());
  ASSERT_TRUE(completions.waitFor(1));
  ticket->cancel();
  EXPECT_EQ(ticket->state(), RequestTicketState::finished);

  MainQueue::shared()->runFor(200ms);
  EXPECT_EQ(server.arrivals(), (std::vector<std::string>{"running", "done"}));
}

TEST_F(ExecutionTest, TheQueueRunsTwoAtATimeAndStartsWaitingRequestsByPriority) {
  // Notes whether a handler was ever started on the main thread.
  struct Watched : HttpRequestHandler {
    explicit Watched(std::atomic<int>& count) : onMain(count) {}
    void handle(const std::shared_ptr<RequestType>& r, RequestHandlerCompletion completion) override {
      if (isMainThread()) ++onMain;
      HttpRequestHandler::handle(r, std::move(completion));
    }
    std::atomic<int>& onMain;
  };
  std::atomic<int> startedOnMain{0};
  auto queue = RequestQueue::make();
  EXPECT_EQ(queue->maxConcurrentRequests(), 2);
  Completions<HttpRequestResultType> done;
  std::vector<std::shared_ptr<RequestTicketType>> tickets;
  auto add = [&](const std::string& name, int priority) {
    auto run = request("/item/" + name);
    run->setHandler(std::make_shared<Watched>(startedOnMain));
    run->setQueue(queue);
    run->setPriority(static_cast<RequestPriority>(priority));
    run->setCompletionDispatchQueue(nullptr);
    tickets.push_back(run->execute(done.handler()));
  };
  server.close();
  add("first", 1);
  ASSERT_TRUE(server.waitForArrivals(1));
  add("second", 0);
  ASSERT_TRUE(server.waitForArrivals(2));
  add("third", 1);
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(server.arrivals().size(), 2u);
  EXPECT_EQ(queue->numberOfRequestsInQueue(), 3u);
  // One at a time from here, so that the order of arrival is the order of starts.
  queue->setMaxConcurrentRequests(1);
  add("low", 0);
  add("normal", 1);
  add("high", 2);
  add("seven", 7);
  add("high2", 2);
  add("normal2", 1);
  server.open();
  ASSERT_TRUE(done.waitFor(9));
  EXPECT_EQ(server.maxInFlight(), 2);
  EXPECT_EQ(server.arrivals(), (std::vector<std::string>{"first", "second", "high", "high2", "third", "normal", "seven",
                                                         "normal2", "low"}));
  EXPECT_TRUE(eventually([&] { return queue->numberOfRequestsInQueue() == 0; }));
  for (const auto& ticket : tickets) EXPECT_EQ(ticket->state(), RequestTicketState::finished);
  EXPECT_EQ(startedOnMain.load(), 0);
}

TEST_F(ExecutionTest, CancellingQueuedAndRunningRequestsFreesTheirPlaces) {
  auto queue = RequestQueue::make();
  server.close();
  std::vector<std::shared_ptr<HttpRequest>> runs;
  std::vector<std::shared_ptr<RequestTicketType>> tickets;
  Completions<HttpRequestResultType> done;
  for (const char* name : {"a", "b", "c", "d"}) {
    auto run = request(std::string("/item/") + name);
    run->setQueue(queue);
    run->setCompletionDispatchQueue(nullptr);
    tickets.push_back(run->execute(done.handler()));
    runs.push_back(run);
    if (runs.size() <= 2) {
      ASSERT_TRUE(server.waitForArrivals(runs.size()));
    }
  }
  tickets[2]->cancel();  // waiting: never reaches the server
  tickets[0]->cancel();  // running: its place goes to the next one
  EXPECT_EQ(tickets[2]->state(), RequestTicketState::cancelled);
  EXPECT_EQ(tickets[0]->state(), RequestTicketState::cancelled);
  ASSERT_TRUE(server.waitForArrivals(3));
  server.open();
  ASSERT_TRUE(done.waitFor(2));
  MainQueue::shared()->runFor(200ms);
  EXPECT_EQ(done.size(), 2u);
  EXPECT_EQ(server.arrivals(), (std::vector<std::string>{"a", "b", "d"}));
  EXPECT_EQ(tickets[1]->state(), RequestTicketState::finished);
  EXPECT_EQ(tickets[3]->state(), RequestTicketState::finished);
  EXPECT_TRUE(eventually([&] { return queue->numberOfRequestsInQueue() == 0; }));

  // cancelAll() stops everything, running or waiting.
  server.close();
  Completions<HttpRequestResultType> never;
  for (const char* name : {"e", "f", "g"}) {
    auto run = request(std::string("/item/") + name);
    run->setQueue(queue);
    (void)run->execute(never.handler());
  }
  ASSERT_TRUE(server.waitForArrivals(5));
  queue->cancelAll();
  EXPECT_EQ(queue->numberOfRequestsInQueue(), 0u);
  server.open();
  MainQueue::shared()->runFor(300ms);
  EXPECT_EQ(never.size(), 0u);
}

TEST_F(ExecutionTest, ThousandsOfQueuedRequestsKeepTheirOrderAndBound) {
  constexpr int kCount = 1000;
  auto queue = RequestQueue::make();
  queue->setMaxConcurrentRequests(0);  // hold them all until every one is queued
  auto router = std::make_shared<HttpRequestURLSessionDelegateHandler>();
  auto session = UrlSession::make(UrlSessionConfiguration::defaultConfiguration(), router);
  Completions<HttpRequestResultType> done;
  std::vector<std::string> expected[3];
  for (int i = 0; i < kCount; ++i) {
    const int priority = (i * 7) % 3;
    const std::string name = std::to_string(i);
    auto run = request("/item/" + name);
    run->setQueue(queue);
    run->setUrlSession(session);
    run->setPriority(static_cast<RequestPriority>(priority));
    run->setCompletionDispatchQueue(nullptr);
    (void)run->execute(done.handler());
    expected[2 - priority].push_back(name);
  }
  EXPECT_EQ(queue->numberOfRequestsInQueue(), static_cast<std::size_t>(kCount));
  queue->setMaxConcurrentRequests(2);
  ASSERT_TRUE(done.waitFor(kCount, 60s));
  session->invalidateAndCancel();
  std::vector<std::string> order;
  for (const auto& part : expected) order.insert(order.end(), part.begin(), part.end());
  const auto arrivals = server.arrivals();
  ASSERT_EQ(arrivals.size(), order.size());
  // Two run at once: a request starts only after all but one of those before it have
  // finished, so nothing reaches the server more than one place early (a slow one may be
  // overtaken by many).
  std::map<std::string, std::size_t> place;
  for (std::size_t i = 0; i < order.size(); ++i) place[order[i]] = i;
  for (std::size_t i = 0; i < arrivals.size(); ++i) {
    ASSERT_LE(place.at(arrivals[i]), i + 1) << "position " << i << ": " << arrivals[i];
  }
  auto sorted = arrivals;
  std::sort(sorted.begin(), sorted.end());
  EXPECT_EQ(std::unique(sorted.begin(), sorted.end()), sorted.end());
  EXPECT_LE(server.maxInFlight(), 2);
  EXPECT_TRUE(eventually([&] { return queue->numberOfRequestsInQueue() == 0; }));
}

TEST_F(ExecutionTest, AHandlerThatNeverAnswersIsEndedByTheTransferTimeout) {
  server.close();
  auto queue = RequestQueue::make();
  Completions<HttpRequestResultType> done;
  for (const char* name : {"stuck1", "stuck2", "after"}) {
    auto run = request(std::string("/item/") + name);
    run->httpConfig()->timeoutInterval = std::string(name) == "after" ? 10 : 0.5;
    run->setQueue(queue);
    run->setCompletionDispatchQueue(nullptr);
    (void)run->execute(done.handler());
  }
  ASSERT_TRUE(done.waitFor(2));
  for (std::size_t i = 0; i < 2; ++i) EXPECT_EQ(done.at(i)->error->code(), -1001);
  ASSERT_TRUE(server.waitForArrivals(3));
  server.open();
  ASSERT_TRUE(done.waitFor(3));
  EXPECT_EQ(body(*done.at(2)), "item after");
}

TEST_F(ExecutionTest, ExecuteSynchronouslyBlocksItsThreadUntilTheResultIsThere) {
  std::shared_ptr<HttpRequestResultType> result;
  RequestTicketState state = RequestTicketState::idle;
  std::thread caller([&] {
    auto run = request("/counted/sync");
    run->generateCacheKey();  // looked up on this thread whatever the cache config says
    run->setCompletionHandler([&](const std::shared_ptr<HttpRequestResultType>&) { ADD_FAILURE() << "replaced"; });
    result = run->executeSynchronously();
    state = run->executor()->ticket()->state();
    EXPECT_EQ(run->executeSynchronously(), nullptr);  // executed before
  });
  caller.join();
  ASSERT_TRUE(result);
  EXPECT_EQ(body(*result), "counted sync");
  EXPECT_EQ(state, RequestTicketState::finished);

  // A transfer that ends without a result (the certificate answer cancels it) releases the
  // caller with nothing instead of blocking it for ever.
  test::SelfSignedCertificate certificate;
  test::TestServer tls(&certificate);
  tls.server().Get("/x", [](const httplib::Request&, httplib::Response& r) { r.set_content("x", "text/plain"); });
  tls.start();
  auto untrusted = HttpRequest::make(*Url::parse(tls.url("/x")));
  untrusted->httpConfig()->acceptUntrustedSSLCertificate = true;
  std::thread other([&] { EXPECT_EQ(untrusted->executeSynchronously(), nullptr); });
  other.join();
}

}  // namespace
}  // namespace kp
