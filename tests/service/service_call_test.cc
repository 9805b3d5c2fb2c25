// Service calls end to end: the facades' requests run through their executors against the
// local weather service over HTTP and HTTPS (typed and untyped forecasts, the cache,
// revalidation, client info, refusals), and against servers that misbehave.
#include <gtest/gtest.h>
#include <zlib.h>

#include <future>
#include <mutex>

#include "forecast_model.h"
#include "kp/cache/cache_controller.h"
#include "kp/request/request_ticket.h"
#include "kp/service/client_info_web_service.h"
#include "kp/service/encryption.h"
#include "kp/service/tarvix_web_service.h"
#include "local_service_test.h"
#include "support/cache_home.h"
#include "support/test_servers.h"
#include "support/wait.h"
#include "weather_service.h"

namespace kp {
namespace {

using namespace std::chrono_literals;
using weather::Forecast;

constexpr std::string_view kUserAgent = "ServiceCallTest/1.0";

using test::eventuallyOnMain;

class ServiceCallTest : public test::LocalServiceTest {
 protected:
  [[nodiscard]] UrlSessionConfiguration sessionConfiguration() const override {
    auto configuration = UrlSessionConfiguration::defaultConfiguration();
    configuration.httpAdditionalHeaders["User-Agent"] = std::string(kUserAgent);
    return configuration;
  }

  // A facade on the local service with the forecast's keys and the test session.
  template <class Facade>
  Facade facade() const {
    Facade facade(service_->baseUrl());
    facade.urlSession = session_;
    facade.encryptionDetails.bodyEncryptionKey = std::string(kClientInfoBodyEncryptionKey);
    facade.encryptionDetails.responseDecryptionKey = std::string(kClientInfoResponseDecryptionKey);
    return facade;
  }
};

template <class Request>
void locate(Request& request, const std::string& latitude, const std::string& longitude) {
  request.httpConfig()->addQuery(latitude, "latitude");
  request.httpConfig()->addQuery(longitude, "longitude");
}

TEST_P(ServiceCallTest, TypedForecastsDecodeEveryHourAndDayAndFailuresCarryTheServicesText) {
  const auto service = facade<DecodableTarvixWebService>();
  auto request = service.createRequest<Forecast>("forecast");
  locate(*request, "-33.87", "151.21");
  const auto result = request->executeSynchronously();
  ASSERT_TRUE(result);
  const auto outcome = result->asResult();
  ASSERT_TRUE(outcome.value()) << outcome.error()->localizedDescription();
  const Forecast& forecast = *outcome.value();
  EXPECT_EQ(forecast.location.latitude, -33.87);
  ASSERT_EQ(forecast.hourly.size(), 48u);
  ASSERT_EQ(forecast.daily.size(), 7u);
  EXPECT_EQ(forecast.current.time, result->contentInfo.remoteCreatedAt);
  EXPECT_EQ(forecast.hourly[47].time, forecast.current.time.addingTimeInterval(47 * 3600.0));
  EXPECT_EQ(result->contentInfo.formatVersion, 1);
  EXPECT_EQ(result->contentInfo.expiryInterval, 3600.0);
  ASSERT_TRUE(result->httpResponse);
  EXPECT_EQ(result->httpResponse->statusCode, 200);
  // The coordinates may travel in the sealed body instead, as a form or as JSON.
  auto form = service.createRequest<Forecast>("forecast");
  form->httpConfig()->addBody("-33.87", "latitude");
  form->httpConfig()->addBody("151.21", "longitude");
  auto json = service.createRequestWithContent<Forecast>(
      "forecast", weather::ForecastLocation{.latitude = -33.87, .longitude = 151.21});
  for (const auto& sent : {form, json}) {
    const auto located = sent->executeSynchronously();
    ASSERT_TRUE(located && located->asResult().value());
    EXPECT_EQ(located->asResult().value()->location.longitude, 151.21);
  }

  // Understood but without content: the envelope's "meta"/"code" fails the call, and the
  // ticket fails with it.
  auto offGlobe = service.createRequest<Forecast>("forecast");
  locate(*offGlobe, "91", "0");
  std::optional<DecodableTarvixServiceResult<Forecast>> delivered;
  const auto ticket = offGlobe->execute([&](const DecodableTarvixServiceResult<Forecast>& r) { delivered = r; });
  ASSERT_TRUE(eventuallyOnMain([&] { return delivered.has_value(); }));
  ASSERT_TRUE(delivered->error);
  EXPECT_EQ(delivered->error->code(), 422);
  EXPECT_NE(delivered->error->localizedDescription().find("latitude 91"), std::string::npos);
  EXPECT_TRUE(ticket->failed());
  EXPECT_EQ(ticket->error(), delivered->error);
}

TEST_P(ServiceCallTest, ASecondCallIsServedFromTheCacheWithTheArchivedContentInfo) {
  const auto service = facade<TarvixWebService>();
  auto forecastRequest = [&service] {
    auto request = service.createRequestFor("forecast");
    locate(*request, "52.37", "4.90");
    request->generateCacheKey();
    return request;
  };
  auto first = forecastRequest();
  const std::string key = *first->cacheConfig()->key;
  CacheController::sharedInstance()->removeCacheItem(key);

  std::shared_ptr<TarvixServiceRequestResult> network;
  const auto ticket = first->execute([&](const std::shared_ptr<TarvixServiceRequestResult>& r) { network = r; });
  ASSERT_TRUE(eventuallyOnMain([&] { return network != nullptr; }));
  ASSERT_TRUE(network->isSuccess()) << network->error->localizedDescription();
  EXPECT_TRUE(ticket->isFinished() && ticket->isSuccess());
  EXPECT_FALSE(network->fromCache());
  ASSERT_TRUE(network->dataAsJson());
  EXPECT_EQ((*network->dataAsJson())["hourly"].size(), 48u);
  EXPECT_EQ(network->contentInfo->expiryInterval, 3600.0);
  // The result is stored in the background after its completion.
  ASSERT_TRUE(eventuallyOnMain([&] { return CacheController::sharedInstance()->getCacheItem(key) != nullptr; }));

  const auto cached = forecastRequest()->executeSynchronously();
  ASSERT_TRUE(cached);
  EXPECT_TRUE(cached->fromCache());
  ASSERT_TRUE(cached->dataAsJson());
  EXPECT_EQ(*cached->dataAsJson(), *network->dataAsJson());
  // The content info is the one archived with the first answer, its arrival time included.
  ASSERT_TRUE(cached->contentInfo);
  EXPECT_EQ(*cached->contentInfo, *network->contentInfo);
  EXPECT_EQ(cached->response->etag(), network->response->etag());

  // Revalidation: 304, no payload, the content info refreshed from the headers.
  auto conditional = service.createRequestFor("forecast");
  conditional->httpConfig()->queryParameters = first->httpConfig()->queryParameters;
  conditional->httpConfig()->etag = network->response->etag();
  const auto revalidated = conditional->executeSynchronously();
  ASSERT_TRUE(revalidated && revalidated->isSuccess());
  EXPECT_EQ(revalidated->response->statusCode, 304);
  EXPECT_TRUE(revalidated->contentIsNotModified);
  EXPECT_FALSE(revalidated->data.has_value());
  EXPECT_EQ(revalidated->contentInfo->remoteCreatedAt, network->contentInfo->remoteCreatedAt);
  EXPECT_GE(revalidated->contentInfo->localCreatedAt, network->contentInfo->localCreatedAt);
  CacheController::sharedInstance()->removeCacheItem(key);
}

TEST_P(ServiceCallTest, ClientInfoAndRefusals) {
  ClientInfoWebService clientInfo(service_->baseUrl());
  clientInfo.urlSession = session_;
  std::mutex mutex;
  std::optional<std::pair<std::optional<ClientBasicInfo>, ErrorPtr>> answer;
  const auto ticket = clientInfo.getBasicInfo([&](std::optional<ClientBasicInfo> info, ErrorPtr error) {
    std::lock_guard lock(mutex);
    answer.emplace(std::move(info), std::move(error));
  });
  ASSERT_TRUE(ticket);
  ASSERT_TRUE(eventuallyOnMain([&] {
    std::lock_guard lock(mutex);
    return answer.has_value();
  }));
  EXPECT_FALSE(answer->second);
  EXPECT_EQ(answer->first, (ClientBasicInfo{.ip = "127.0.0.1", .userAgent = std::string(kUserAgent)}));
  if (GetParam()) {
    // The sealed URL names its authority "host:PORT"; the certificate is checked against the
    // server the caller meant, and that is the server a pinning delegate is asked about.
    const auto port = Url::parse(service_->baseUrl())->port();
    std::lock_guard lock(router_->mutex);
    EXPECT_EQ(router_->challengedHosts, std::set<std::string>{"127.0.0.1:" + std::to_string(*port)});
  }

  // A query the service cannot open, and a method it does not know: HTTP status errors.
  auto wrongKey = facade<TarvixWebService>();
  wrongKey.encryptionDetails.queryStringEncryptionKey = "not the service's key";
  auto sealedWrong = wrongKey.createRequestFor("forecast");
  locate(*sealedWrong, "1", "2");
  const auto refused = sealedWrong->executeSynchronously();
  ASSERT_TRUE(refused && refused->error);
  EXPECT_EQ(refused->error->localizedDescription(), "Request failed with status code: 400.");
  const auto unknown = facade<TarvixWebService>().createRequestFor("snowfall")->executeSynchronously();
  ASSERT_TRUE(unknown && unknown->error);
  EXPECT_EQ(unknown->response->statusCode, 404);

  // Plain under skipcrypt, with the untyped envelope's own failure: "success" false, whose
  // error carries the message and no code.
  auto plain = facade<TarvixWebService>();
  plain.encryptionDetails.skipEncryptionAndDecryption = true;
  auto offGlobe = plain.createRequestFor("forecast");
  locate(*offGlobe, "0", "181");
  const auto failed = offGlobe->executeSynchronously();
  ASSERT_TRUE(failed && failed->error);
  EXPECT_NE(failed->error->localizedDescription().find("longitude 181"), std::string::npos);
  EXPECT_EQ(failed->error->code(), 0);
}

INSTANTIATE_TEST_SUITE_P(Transports, ServiceCallTest, ::testing::Values(false, true),
                         test::LocalServiceTest::transportName);

// A gzip stream of `mebibytes` MiB of zeros: about a thousandth of that on the wire.
std::string gzipOfZeros(std::size_t mebibytes) {
  z_stream stream{};
  EXPECT_EQ(deflateInit2(&stream, 9, Z_DEFLATED, 15 + 16, 9, Z_DEFAULT_STRATEGY), Z_OK);
  std::vector<Bytef> zeros(1 << 20);
  std::string out(mebibytes * 2048 + 1024, '\0');
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  for (std::size_t i = 0; i < mebibytes; ++i) {
    stream.next_in = zeros.data();
    stream.avail_in = static_cast<uInt>(zeros.size());
    deflate(&stream, Z_NO_FLUSH);
  }
  EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return out;
}

// Answers what each path asks for. (How the envelopes of odd answers are opened is tested
// without a transport.)
void hostileAnswer(const std::string& request, const test::RawServer::Writer& write) {
  if (request.find(" /not-modified") != std::string::npos) {
    // The length is that of the body the answer does not repeat.
    write("HTTP/1.1 304 Not Modified\r\nContent-Length: 1000000000000\r\n\r\n");
  } else if (request.find(" /endless") != std::string::npos) {
    // Bounded, so that a client that keeps reading still ends the test.
    const std::string chunk(64 << 10, ' ');
    if (!write("HTTP/1.1 200 OK\r\n\r\n")) return;
    for (int i = 0; i < 2048 && write(chunk); ++i) {
    }
  } else if (request.find(" /announced") != std::string::npos) {
    write("HTTP/1.1 200 OK\r\nContent-Length: 1000000000000\r\n\r\n{");
  } else if (request.find(" /inflating") != std::string::npos) {
    static const std::string bomb = gzipOfZeros(160);
    write("HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nContent-Length: " + std::to_string(bomb.size()) + "\r\n\r\n" +
          bomb);
  }
}

TEST(ServiceCallFaults, MisbehavingServersEndInResultsOrClearErrors) {
  test::RawServer server(hostileAnswer);
  TarvixWebService untyped(server.url(""));
  untyped.encryptionDetails.responseDecryptionKey = std::string(kClientInfoResponseDecryptionKey);

  // A 304 that announces the length of the body it does not repeat ends at once, not modified.
  const auto bare = untyped.createRequestFor("not-modified")->executeSynchronously();
  ASSERT_TRUE(bare && bare->isSuccess());
  EXPECT_TRUE(bare->contentIsNotModified);

  // A body beyond the handler's limit ends the call with an error, whether it streams on, its
  // length is announced up front or a small compressed body inflates past it, instead of
  // filling memory.
  for (const char* method : {"endless", "announced", "inflating"}) {
    auto oversized = untyped.createRequestFor(method);
    std::dynamic_pointer_cast<HttpRequestHandler>(oversized->handler())->maximumReceivedDataLength = 1 << 20;
    const auto refused = oversized->executeSynchronously();
    ASSERT_TRUE(refused && refused->error) << method;
    EXPECT_EQ(refused->error->code(), static_cast<std::int64_t>(UrlError::dataLengthExceedsMaximum)) << method;
    EXPECT_FALSE(refused->data.has_value()) << method;
  }

  // A redirect to another server goes there, although the sealed request connects to its
  // own server under another name.
  test::RawServer elsewhere([](const test::RawServer::Writer& write) {
    const std::string body = R"({"data": "elsewhere"})";
    write("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
  });
  test::RawServer redirecting([&elsewhere](const std::string& request, const test::RawServer::Writer& write) {
    const std::string body = R"({"data": "here"})";
    if (request.find(" /moved") == std::string::npos) {
      write("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
    } else {
      write("HTTP/1.1 302 Found\r\nLocation: " + elsewhere.url("/there") + "\r\nContent-Length: 0\r\n\r\n");
    }
  });
  const auto redirected = TarvixWebService(redirecting.url("")).createRequestFor("moved")->executeSynchronously();
  ASSERT_TRUE(redirected && redirected->dataAsJson());
  EXPECT_EQ(redirected->dataAsJson()->stringValue(), "elsewhere");

  // Client info from a closed port: the transport's error, unchanged, and no info.
  ClientInfoWebService clientInfo("http://127.0.0.1:" + std::to_string(test::closedPort()));
  std::mutex mutex;
  std::optional<std::pair<std::optional<ClientBasicInfo>, ErrorPtr>> answer;
  (void)clientInfo.getBasicInfo([&](std::optional<ClientBasicInfo> info, ErrorPtr error) {
    std::lock_guard lock(mutex);
    answer.emplace(std::move(info), std::move(error));
  });
  ASSERT_TRUE(eventuallyOnMain([&] {
    std::lock_guard lock(mutex);
    return answer.has_value();
  }));
  EXPECT_FALSE(answer->first);
  ASSERT_TRUE(answer->second);
  EXPECT_EQ(answer->second->code(), static_cast<std::int64_t>(UrlError::cannotConnectToHost));
}

}  // namespace
}  // namespace kp
