// The request load and its bookkeeping (request_load.h).
#include "request_load.h"

#include <array>
#include <mutex>
#include <thread>

#include "forecast_model.h"
#include "kp/platform/dispatch.h"
#include "kp/request/data_request.h"
#include "kp/request/execution_queues.h"
#include "kp/request/json_request.h"
#include "kp/request/request_errors.h"
#include "kp/request/request_executor.h"
#include "kp/request/request_queue.h"
#include "kp/request/request_ticket.h"
#include "kp/service/tarvix_web_service.h"

namespace kp::soak {
namespace {

enum class Kind { service, decodable, json, data };
constexpr std::array<const char*, 4> kKindNames = {"service", "decodable", "json", "data"};

// Places on the service's grid of 0.01 degrees, so that a forecast names exactly the place
// that was asked for; few enough that the cache answers some requests.
constexpr std::array<const char*, 12> kLatitudes = {"52.37", "-33.87", "40.71", "35.68", "-22.91", "64.13",
                                                    "1.35",  "48.85",  "-1.29", "55.75", "19.43",  "-41.29"};
constexpr std::array<const char*, 3> kLongitudes = {"4.9", "151.21", "-74.01"};

// Bodies beyond this are refused; the service's oversized answers go past it.
constexpr std::int64_t kMaximumBody = 4 << 20;
// Requests a thread has under way at most.
constexpr std::size_t kOutstanding = 24;

// How one request ended, as its completion saw it.
struct Outcome {
  bool success = false;
  bool fromCache = false;
  std::optional<double> latitude;  // of the forecast it carried
  bool hasPayload = false;
  std::string failure;
};

struct Record {
  Kind kind = Kind::service;
  std::string latitude;
  std::string route;  // which queue, cache or not, synchronous or not
  std::atomic<int> completions{0};
  std::atomic<bool> ticketCancel{false};
  std::atomic<bool> queueCancel{false};
  std::mutex mutex;
  std::shared_ptr<RequestTicketType> ticket;  // GUARDED_BY(mutex)
  Outcome outcome;                            // GUARDED_BY(mutex)
  // The starting thread's alone.
  std::shared_ptr<RequestType> request;
  std::shared_ptr<RequestQueueInterface> queue;
  std::optional<Clock::time_point> endedAt;

  [[nodiscard]] bool ended() const { return completions.load() > 0 || ticketCancel.load() || queueCancel.load(); }
};

std::string stateName(RequestTicketState state) {
  switch (state) {
    case RequestTicketState::idle:
      return "idle";
    case RequestTicketState::invalid:
      return "invalid";
    case RequestTicketState::failed:
      return "failed";
    case RequestTicketState::cancelled:
      return "cancelled";
    case RequestTicketState::finished:
      return "finished";
  }
  return "unknown";
}

// The name under which a failure is counted.
std::string failureKind(const ErrorPtr& error, const HttpResponse* response) {
  if (!error) return "none";
  if (error->domain() == RequestErrors::domain &&
      error->code() == static_cast<std::int64_t>(RequestErrorCode::statusCode)) {
    return "http-" + (response && response->statusCode ? std::to_string(*response->statusCode) : std::string("?"));
  }
  if (error->domain() == Error::kURLErrorDomain) {
    switch (error->code()) {
      case -1001:
        return "timed-out";
      case -1004:
        return "cannot-connect";
      case -1005:
        return "connection-lost";
      case -1011:
        return "bad-server-response";
      case -1017:
        return "cannot-parse-response";
      case -1103:
        return "too-large";
      default:
        return "url" + std::to_string(error->code());
    }
  }
  // The service's failure envelope, or an answer that does not decode.
  if (error->domain() == RequestErrors::domain) return "service-or-decoding-" + std::to_string(error->code());
  return error->domain() + " " + std::to_string(error->code());
}

std::optional<double> latitudeIn(const JsonValue& forecast) { return forecast["location"]["latitude"].doubleValue(); }

template <class Result>
Outcome outcomeOf(const Result& result, const JsonValue* forecast) {
  Outcome out;
  out.success = result.isSuccess();
  out.fromCache = result.fromCache();
  out.failure = failureKind(result.error, result.response.get());
  if (forecast) {
    out.hasPayload = true;
    out.latitude = latitudeIn(*forecast);
  }
  return out;
}

}  // namespace

struct RequestLoad::Shared : std::enable_shared_from_this<RequestLoad::Shared> {
  Shared(std::string url, std::uint64_t randomSeed, Breaches& b, Ledger& l)
      : baseUrl(std::move(url)),
        seed(randomSeed),
        breaches(b),
        ledger(l),
        service(baseUrl),
        sharedService(baseUrl),
        decodable(baseUrl) {
    for (auto* facade : {&service.encryptionDetails, &sharedService.encryptionDetails, &decodable.encryptionDetails}) {
      facade->bodyEncryptionKey = std::string(kClientInfoBodyEncryptionKey);
      facade->responseDecryptionKey = std::string(kClientInfoResponseDecryptionKey);
    }
    sharedService.urlSession = session;
    queues[0]->setMaxConcurrentRequests(6);
    queues[1]->setMaxConcurrentRequests(2);
  }

  void complete(const std::shared_ptr<Record>& record, Outcome outcome) {
    {
      std::lock_guard lock(record->mutex);
      record->outcome = std::move(outcome);
    }
    if (record->completions.fetch_add(1) == 1) breaches.add("request completed twice", describe(*record));
  }

  std::string describe(Record& record) {
    std::lock_guard lock(record.mutex);
    const Outcome& o = record.outcome;
    return std::string(kKindNames[static_cast<int>(record.kind)]) + " at " + record.latitude + " via " + record.route +
           ": ticket " + (record.ticket ? stateName(record.ticket->state()) : "none") + ", completions " +
           std::to_string(record.completions.load()) + (record.ticketCancel ? ", ticket cancelled" : "") +
           (record.queueCancel ? ", cancelled on its queue" : "") +
           (record.completions.load() > 0 ? (o.success ? ", succeeded" : ", failed: " + o.failure) : "");
  }

  // Checks a request that has ended (or never will) and counts it.
  void evaluate(Record& record, bool final) {
    // The request holds its completion, which holds the record.
    record.request.reset();
    record.queue.reset();
    std::unique_lock lock(record.mutex);
    const int completions = record.completions.load();
    const auto state = record.ticket ? record.ticket->state() : RequestTicketState::idle;
    const Outcome outcome = record.outcome;
    lock.unlock();
    const std::string kind = kKindNames[static_cast<int>(record.kind)];
    if (completions == 0) {
      if (record.ticketCancel && state == RequestTicketState::cancelled) {
        ledger.add("requests cancelled by ticket");
      } else if (record.queueCancel) {
        ledger.add("requests cancelled on their queue");
      } else if (final) {
        breaches.add("request never completed", describe(record));
      }
      return;
    }
    ledger.add("requests completed");
    if (state == RequestTicketState::cancelled) {
      breaches.add("completion of a cancelled ticket", describe(record));
    }
    if (outcome.success) {
      if (state != RequestTicketState::finished && state != RequestTicketState::cancelled) {
        breaches.add("ticket disagrees with result", describe(record));
      }
      ledger.add("requests succeeded");
      if (outcome.fromCache) ledger.add("requests answered from the cache");
      if (!outcome.hasPayload) {
        // The plain kinds keep what the service sent, a failure envelope or garbage among it,
        // and the cache hands that out again: only answers from the network meet a fault.
        ledger.add(outcome.fromCache ? "answered from the cache without payload"
                                     : "succeeded without payload: " + kind);
      } else if (outcome.latitude != std::stod(record.latitude)) {
        breaches.add("wrong payload", describe(record) + ", forecast for latitude " +
                                          (outcome.latitude ? std::to_string(*outcome.latitude) : "none"));
      }
    } else {
      if (state != RequestTicketState::failed && state != RequestTicketState::cancelled) {
        breaches.add("ticket disagrees with result", describe(record));
      }
      ledger.add("failed: " + outcome.failure);
    }
  }

  const std::string baseUrl;
  const std::uint64_t seed;
  Breaches& breaches;
  Ledger& ledger;
  std::shared_ptr<UrlSession> session = UrlSession::make(UrlSessionConfiguration::defaultConfiguration(),
                                                         std::make_shared<HttpRequestURLSessionDelegateHandler>());
  TarvixWebService service;
  TarvixWebService sharedService;
  DecodableTarvixWebService decodable;
  std::array<std::shared_ptr<RequestQueue>, 2> queues = {RequestQueue::make(), RequestQueue::make()};
  std::atomic<bool> stopping{false};
  std::mutex leftoverMutex;
  std::vector<std::shared_ptr<Record>> leftover;  // GUARDED_BY(leftoverMutex)
};

RequestLoad::RequestLoad(std::string baseUrl, std::uint64_t seed, Breaches& breaches, Ledger& ledger)
    : shared_(std::make_shared<Shared>(std::move(baseUrl), seed, breaches, ledger)) {}

RequestLoad::~RequestLoad() {
  stopStarting();
  shared_->session->finishTasksAndInvalidate();
}

void RequestLoad::start(unsigned threads) {
  for (unsigned i = 0; i < threads; ++i) threads_.emplace_back([this, i] { run(i); });
}

void RequestLoad::stopStarting() {
  shared_->stopping = true;
  for (auto& thread : threads_) thread.join();
  threads_.clear();
}

void RequestLoad::settle(Clock::duration timeout) {
  auto& s = *shared_;
  const auto end = Clock::now() + timeout;
  std::vector<std::shared_ptr<Record>> open;
  {
    std::lock_guard lock(s.leftoverMutex);
    open.swap(s.leftover);
  }
  while (!open.empty()) {
    MainQueue::shared()->runFor(20ms);
    const bool final = Clock::now() >= end;
    std::erase_if(open, [&](const std::shared_ptr<Record>& record) {
      if (!record->ended() && !final) return false;
      s.evaluate(*record, true);
      return true;
    });
  }
}

namespace {

// What a starting thread keeps: its own random numbers, queue and requests under way.
struct Starter {
  Random random;
  std::shared_ptr<RequestQueue> privateQueue = RequestQueue::make();
  std::vector<std::shared_ptr<Record>> outstanding;
};

// Hands `request` to its route, with `completion` (taking the kind's result) reporting to
// `record`.
template <class Request, class Completion>
void launch(RequestLoad::Shared& s, Starter& starter, const std::shared_ptr<Request>& request,
            const std::shared_ptr<Record>& record, Completion completion, bool synchronous) {
  if (auto handler = std::dynamic_pointer_cast<HttpRequestHandler>(request->handler())) {
    handler->maximumReceivedDataLength = kMaximumBody;
  }
  if (starter.random.chance(0.5)) request->setCompletionDispatchQueue(nullptr);  // on the completing thread
  request->setPriority(static_cast<RequestPriority>(starter.random.below(3)));
  if constexpr (requires { request->executeSynchronously() == nullptr; }) {
    if (synchronous) {
      // The call takes the place of the completion: its result is what a completion would get.
      record->route += ", synchronous";
      const auto result = request->executeSynchronously();
      {
        std::lock_guard lock(record->mutex);
        record->ticket = request->executor()->ticket();
      }
      if (result) {
        completion(result);
      } else {
        s.breaches.add("synchronous execution returned nothing", s.describe(*record));
      }
      s.evaluate(*record, true);
      return;
    }
  }
  record->request = request;
  switch (starter.random.below(4)) {
    case 0:
    case 1: {
      const auto index = starter.random.below(2);
      record->queue = s.queues[index];
      record->route += ", shared queue " + std::to_string(index);
      break;
    }
    case 2:
      record->queue = starter.privateQueue;
      record->route += ", private queue";
      break;
    default:
      record->route += ", direct";
      break;
  }
  if (record->queue)
    request->setQueue(record->queue);
  else
    record->queue = request->queue();
  auto ticket = request->execute(std::move(completion));
  std::lock_guard lock(record->mutex);
  record->ticket = std::move(ticket);
}

// Half of the cacheable requests look in the cache first, for a short while.
template <class Request>
void maybeCache(Starter& starter, Request& request, Record& record, bool toFile) {
  if (!starter.random.chance(0.5)) {
    record.route = "no cache";
    return;
  }
  request.generateCacheKey();
  auto& config = *request.cacheConfig();
  config.maximumAge = 2.0 + static_cast<double>(starter.random.below(28));
  if (toFile) {
    config.itemType = CacheItemType::rawDataToFile;
    if (starter.random.chance(0.5)) config.group = "requests";
  }
  record.route = toFile ? "cached in a file" : "cached";
}

void startOne(RequestLoad::Shared& s, Starter& starter) {
  auto record = std::make_shared<Record>();
  record->kind = static_cast<Kind>(starter.random.below(4));
  record->latitude = kLatitudes[starter.random.below(kLatitudes.size())];
  const std::string longitude = kLongitudes[starter.random.below(kLongitudes.size())];
  const bool synchronous = record->kind != Kind::decodable && starter.random.chance(0.05);
  const std::string plain =
      s.baseUrl + "/forecast?latitude=" + record->latitude + "&longitude=" + longitude + "&skipcrypt=1";
  const bool shared = starter.random.chance(0.5);
  // Completions hold the bookkeeping, which a late one (a breach) may still need.
  auto load = s.shared_from_this();
  switch (record->kind) {
    case Kind::service: {
      auto request = (shared ? s.sharedService : s.service).createRequestFor("forecast");
      request->httpConfig()->addQuery(record->latitude, "latitude");
      request->httpConfig()->addQuery(longitude, "longitude");
      maybeCache(starter, *request, *record, false);
      record->route += shared ? ", shared session" : ", own session";
      launch(
          s, starter, request, record,
          TarvixServiceRequest::CompletionHandler([load, record](const std::shared_ptr<TarvixServiceRequestResult>& r) {
            load->complete(record, outcomeOf(*r, r->dataAsJson()));
          }),
          synchronous);
      break;
    }
    case Kind::decodable: {
      auto request = s.decodable.createRequest<weather::Forecast>("forecast");
      request->httpConfig()->addQuery(record->latitude, "latitude");
      request->httpConfig()->addQuery(longitude, "longitude");
      record->route = "no cache";
      using Result = DecodableTarvixServiceResult<weather::Forecast>;
      launch(
          s, starter, request, record,
          [load, record](const Result& r) {
            Outcome out;
            out.success = r.error == nullptr;
            out.failure = failureKind(r.error, r.httpResponse.get());
            out.hasPayload = r.data.has_value();
            if (r.data) out.latitude = r.data->location.latitude;
            load->complete(record, std::move(out));
          },
          false);
      break;
    }
    case Kind::json: {
      auto request = JsonRequest::make(*Url::parse(plain));
      maybeCache(starter, *request, *record, false);
      launch(s, starter, request, record,
             JsonRequest::CompletionHandler([load, record](const std::shared_ptr<JsonRequestResult>& r) {
               const JsonValue* envelope = r->dataAsJson();
               const auto data = envelope ? std::optional<JsonValue>((*envelope)["data"]) : std::nullopt;
               load->complete(record, outcomeOf(*r, data && !data->isNull() ? &*data : nullptr));
             }),
             synchronous);
      break;
    }
    case Kind::data: {
      auto request = DataRequest::make(*Url::parse(plain));
      maybeCache(starter, *request, *record, true);
      launch(s, starter, request, record,
             DataRequest::CompletionHandler([load, record](const std::shared_ptr<DataRequestResult>& r) {
               const Data* bytes = r->dataAsData();
               const auto envelope = bytes ? JsonValue::parse(bytes->view()) : std::nullopt;
               const auto data = envelope ? std::optional<JsonValue>((*envelope)["data"]) : std::nullopt;
               load->complete(record, outcomeOf(*r, data && !data->isNull() ? &*data : nullptr));
             }),
             synchronous);
      break;
    }
  }
  s.ledger.add("requests started");
  s.ledger.add("requests started: " + std::string(kKindNames[static_cast<int>(record->kind)]));
  if (!synchronous) starter.outstanding.push_back(std::move(record));
}

// Cancels one request under way: through its ticket, or on its queue.
void cancelOne(RequestLoad::Shared& s, Starter& starter) {
  if (starter.outstanding.empty()) return;
  auto& record = starter.outstanding[starter.random.below(starter.outstanding.size())];
  if (record->ended()) return;
  if (starter.random.chance(0.7)) {
    std::shared_ptr<RequestTicketType> ticket;
    {
      std::lock_guard lock(record->mutex);
      ticket = record->ticket;
    }
    record->ticketCancel = true;
    if (ticket) ticket->cancel();
    s.ledger.add("ticket cancels");
  } else {
    record->queueCancel = true;
    record->queue->cancelRequest(record->request);
    s.ledger.add("queue cancels");
  }
}

}  // namespace

void RequestLoad::run(unsigned index) {
  auto& s = *shared_;
  Starter starter{Random(s.seed * 7919 + index)};
  while (!s.stopping.load()) {
    const auto now = Clock::now();
    std::erase_if(starter.outstanding, [&](const std::shared_ptr<Record>& record) {
      if (!record->ended()) return false;
      if (!record->endedAt) record->endedAt = now;
      // A while after it ended, so that a second completion would have shown.
      if (now - *record->endedAt < 1s) return false;
      s.evaluate(*record, false);
      return true;
    });
    if (starter.random.chance(0.08)) cancelOne(s, starter);
    if (starter.random.chance(0.002)) {
      // Everything on the private queue goes at once.
      for (auto& record : starter.outstanding) {
        if (record->queue == starter.privateQueue && !record->ended()) record->queueCancel = true;
      }
      starter.privateQueue->cancelAll();
      s.ledger.add("queue cancel-alls");
    }
    if (starter.outstanding.size() >= kOutstanding) {
      std::this_thread::sleep_for(2ms);
      continue;
    }
    startOne(s, starter);
    std::this_thread::sleep_for(std::chrono::microseconds(starter.random.below(8000)));
  }
  std::lock_guard lock(s.leftoverMutex);
  for (auto& record : starter.outstanding) s.leftover.push_back(std::move(record));
}

}  // namespace kp::soak
