// Service requests without a transport: opening envelopes (untyped and typed), the result's
// archived form, what the facades put into a request, and reading client info.
#include <gtest/gtest.h>

#include <limits>

#include "forecast_model.h"
#include "kp/foundation/json.h"
#include "kp/request/url_request_factory.h"
#include "kp/service/client_info_web_service.h"
#include "kp/service/encryption.h"
#include "kp/service/tarvix_web_service.h"
#include "support/service_payload.h"

namespace kp {
namespace {

const std::string kKey(kClientInfoResponseDecryptionKey);

std::shared_ptr<HttpResponse> responseWith(int status, std::map<std::string, std::string> headers = {}) {
  auto response = std::make_shared<HttpResponse>();
  response->statusCode = status;
  response->headers = std::move(headers);
  return response;
}

std::string sealed(const std::string& json, const std::string& key = kKey) { return *aes256EncryptString(json, key); }

// One answer as a service request's handler meets it once the transfer is over.
struct Answer {
  std::shared_ptr<TarvixServiceRequest> request = TarvixServiceRequest::make(*Url::parse("https://h/forecast"));
  std::shared_ptr<TarvixServiceRequestHandler> handler = std::make_shared<TarvixServiceRequestHandler>();

  explicit Answer(const std::optional<std::string>& body, std::map<std::string, std::string> headers = {},
                  int status = 200) {
    handler->request = request;
    if (body) handler->receivedData = Data::fromString(*body);
    handler->result->response = responseWith(status, std::move(headers));
  }
  [[nodiscard]] std::optional<JsonValue> open() {
    std::any payload = handler->processReceivedData();
    if (!payload.has_value()) return std::nullopt;
    return std::any_cast<JsonValue>(payload);
  }
  [[nodiscard]] const TarvixServiceRequestResult& result() const { return *handler->tarvixServiceRequestResult; }
};

TEST(ServiceEnvelope, FailuresReportedInsideSuccessfulAnswersBecomeErrors) {
  const struct {
    std::string body;
    std::string text;
    std::int64_t code;
  } cases[] = {
      {R"({"success": false})", "Service failed for unknown reasons.", 0},
      {R"({"success": false, "message": ""})", "Service failed for unknown reasons.", 0},
      {R"({"success": false, "message": 7, "meta": {"statusCode": 200}, "data": 1})",
       "Service failed for unknown reasons.", 0},
      {R"({"success": false, "message": "Try later"})", "Try later", 0},
      {R"({"meta": {"statusCode": 404, "message": "gone"}})", "gone", 404},
      {R"({"success": true, "meta": {"statusCode": 503.0, "message": ["x"]}, "data": 1})",
       "Service failed for unknown reasons.", 503},
      {R"({"meta": {"statusCode": 1e300}})", "Service failed for unknown reasons.", INT64_MAX},
  };
  for (const auto& c : cases) {
    Answer answer(c.body);
    EXPECT_FALSE(answer.open()) << c.body;
    ASSERT_TRUE(answer.result().error) << c.body;
    EXPECT_EQ(answer.result().error->localizedDescription(), c.text) << c.body;
    EXPECT_EQ(answer.result().error->code(), c.code) << c.body;
  }
  // Neither a boolean "success" nor a number "statusCode": not a failure.
  Answer odd(R"({"success": "false", "meta": {"statusCode": "500"}, "data": "ok"})");
  EXPECT_EQ(odd.open(), JsonValue("ok"));
  EXPECT_FALSE(odd.result().error);
}

TEST(ServiceEnvelope, PayloadAndFreshnessComeFromTheEnvelopeThenTheHeaders) {
  // Without "meta" the payload comes back and the content info is left alone, headers too.
  Answer plain(R"({"success": true, "data": 5})", {{"Tarvix-Content-Max-Age", "60"}});
  const TarvixServiceContentInfo untouched = *plain.result().contentInfo;
  EXPECT_EQ(plain.open(), JsonValue(5));
  EXPECT_EQ(*plain.result().contentInfo, untouched);

  // The headers win over the envelope; lower-case spellings count, garbage does not.
  Answer both(
      R"({"meta": {"statusCode": 200, "contentInfo": {"expiryInterval": 60, "formatVersion": 2,
          "createdTimestamp": 1700000000}}, "data": {"t": 1}})",
      {{"Tarvix-Content-Max-Age", "120"}, {"tarvix-content-format", "3"}, {"Tarvix-Content-Created", "soon"}});
  EXPECT_EQ((*both.open())["t"], JsonValue(1));
  EXPECT_EQ(both.result().contentInfo->expiryInterval, 120.0);
  EXPECT_EQ(both.result().contentInfo->formatVersion, 3);
  EXPECT_EQ(both.result().contentInfo->remoteCreatedAt, Date::fromTimeIntervalSince1970(1700000000));

  // Values of the wrong type are skipped one by one.
  Answer mistyped(R"({"meta": {"contentInfo": {"formatVersion": 1.5, "expiryInterval": "60",
                       "createdTimestamp": 1700000000}}, "data": [1]})");
  EXPECT_EQ(mistyped.open(), JsonValue::array({1}));
  EXPECT_FALSE(mistyped.result().contentInfo->formatVersion);
  EXPECT_FALSE(mistyped.result().contentInfo->expiryInterval);
  EXPECT_TRUE(mistyped.result().contentInfo->remoteCreatedAt);
  // Numbers beyond a double's range are no times either, as in the headers.
  Answer endless(R"({"meta": {"contentInfo": {"expiryInterval": 1e999, "createdTimestamp": -1e999}}, "data": 1})");
  EXPECT_EQ(endless.open(), JsonValue(1));
  EXPECT_FALSE(endless.result().contentInfo->expiryInterval);
  EXPECT_FALSE(endless.result().contentInfo->remoteCreatedAt);

  // A "meta" that is not an object counts as none; null data is no payload.
  EXPECT_EQ(Answer(R"({"meta": [404], "data": "x"})").open(), JsonValue("x"));
  EXPECT_FALSE(Answer(R"({"meta": {}, "data": null})").open());
}

TEST(ServiceEnvelope, BodiesThatAreNoEnvelopeGiveNothingAndNoError) {
  for (const std::optional<std::string>& body :
       {std::optional<std::string>(), std::optional<std::string>(""), std::optional<std::string>("garbage"),
        std::optional<std::string>("[1, 2]"), std::optional<std::string>("\"text\""),
        std::optional<std::string>("{\"data\": 1")}) {
    Answer answer(body);
    EXPECT_FALSE(answer.open()) << body.value_or("<none>");
    EXPECT_FALSE(answer.result().error);
  }
  // With a response key, ciphertext opens (what else opens is the cipher's test).
  Answer keyed(sealed(R"({"data": "sealed"})"));
  keyed.request->responseBodyDecryptionKey = kKey;
  EXPECT_EQ(keyed.open(), JsonValue("sealed"));
}

TEST(ServiceEnvelope, NotModifiedRawBodiesAndPostProcessing) {
  // 304: no payload, headers applied, marked not modified; a 304 without headers still is.
  Answer notModified(std::nullopt, {{"Tarvix-Content-Max-Age", "900"}}, 304);
  EXPECT_FALSE(notModified.open());
  EXPECT_TRUE(notModified.result().contentIsNotModified);
  EXPECT_EQ(notModified.result().contentInfo->expiryInterval, 900.0);
  Answer bare(std::nullopt, {}, 304);
  EXPECT_FALSE(bare.open());
  EXPECT_TRUE(bare.result().contentIsNotModified);

  // Skipping parsing hands back the bytes, even with a response key.
  const std::string ciphertext = sealed(R"({"data": 1})");
  Answer raw(ciphertext);
  raw.request->skipResponseParsing = true;
  raw.request->responseBodyDecryptionKey = kKey;
  EXPECT_EQ(std::any_cast<Data>(raw.handler->processReceivedData()).toString(), ciphertext);

  // The post-processing sees payload and content info; its answer replaces the payload, none too.
  Answer processed(R"({"meta": {"contentInfo": {"formatVersion": 4}}, "data": {"n": 2}})");
  processed.request->tarvixServiceProcessReceivedDataHandler =
      [](const std::optional<JsonValue>& payload, const std::shared_ptr<HttpResponseType>& response,
         const std::shared_ptr<TarvixServiceContentInfo>& info,
         const std::shared_ptr<CancelledFlag>& cancelled) -> std::optional<JsonValue> {
    EXPECT_TRUE(response && !cancelled->isCancelled());
    info->expiryInterval = 5;
    return JsonValue(*(*payload)["n"].intValue() * 10 + *info->formatVersion);
  };
  EXPECT_EQ(processed.open(), JsonValue(24));
  EXPECT_EQ(processed.result().contentInfo->expiryInterval, 5.0);
  processed = Answer(R"({"data": {"n": 2}, "meta": {}})");
  processed.request->tarvixServiceProcessReceivedDataHandler = [](auto&&...) { return std::optional<JsonValue>(); };
  EXPECT_FALSE(processed.open());
}

TEST(ServiceResult, ArchiveKeepsPayloadContentInfoAndTheNotModifiedMark) {
  TarvixServiceRequestResult result;
  result.data = *JsonValue::parse(R"({"hourly": [{"t": 1.5, "c": "rain"}, null], "ok": true, "n": -3})");
  result.response = responseWith(200, {{"Tarvix-Content-Format", "1"}});
  result.contentInfo->expiryInterval = 3600;
  result.contentInfo->formatVersion = 2;
  result.contentInfo->remoteCreatedAt = Date::fromTimeIntervalSince1970(1700000000);
  result.contentIsNotModified = true;

  const auto archive = KeyedArchiver::archivedData(ArchiveValue(std::make_shared<TarvixServiceRequestResult>(result)));
  ASSERT_TRUE(archive);
  // Read back as the cache reads the result it keeps beside an entry.
  const auto unarchived = KeyedUnarchiver::safeUnarchivedObject(*archive);
  ASSERT_TRUE(unarchived);
  const auto back = unarchived->object<TarvixServiceRequestResult>();
  ASSERT_TRUE(back);
  EXPECT_EQ(*back->contentInfo, *result.contentInfo);
  EXPECT_TRUE(back->contentIsNotModified);
  EXPECT_EQ(back->response->headers, result.response->headers);
  ASSERT_TRUE(back->dataAsJson());
  EXPECT_EQ(*back->dataAsJson(), *result.dataAsJson());

  // The copy stored beside a cache entry shares nothing with the original.
  auto copy = std::dynamic_pointer_cast<TarvixServiceRequestResult>(result.copy());
  copy->contentInfo->expiryInterval = 1;
  EXPECT_EQ(result.contentInfo->expiryInterval, 3600.0);

  // A raw body stays bytes through the archive, even when it reads as JSON; a content info
  // without any of its facts keeps none.
  result.data = Data::fromString("[1]");
  result.contentInfo = std::make_shared<TarvixServiceContentInfo>();
  const auto raw = KeyedUnarchiver::safeUnarchivedObject(
      *KeyedArchiver::archivedData(ArchiveValue(std::make_shared<TarvixServiceRequestResult>(result))));
  const auto rawBack = raw->object<TarvixServiceRequestResult>();
  EXPECT_FALSE(rawBack->dataAsJson());
  EXPECT_EQ(std::any_cast<Data>(rawBack->data).toString(), "[1]");
  EXPECT_EQ(*rawBack->contentInfo, *result.contentInfo);
}

ApplicationInfo fixedInfo() {
  ApplicationInfo info;
  info.identifier = "com.example.weather";
  info.version = "5.2";
  info.systemName = "Linux";
  info.preferredLanguages = {"nl-NL", "en"};
  return info;
}

TEST(WebServiceFacade, MethodUrlsCommonParametersAndKeys) {
  TarvixWebService service("https://h/api/");
  EXPECT_EQ(service.createUrl("forecast")->absoluteString(), "https://h/api/forecast");
  service.version = "";
  EXPECT_EQ(service.createUrl("forecast")->absoluteString(), "https://h/api/forecast");
  service.version = "v2";
  EXPECT_EQ(service.createUrl("forecast")->absoluteString(), "https://h/api/v2/forecast");
  // Written as people write them: a space or a letter outside ASCII is encoded.
  EXPECT_EQ(service.createUrl("two w\xc3\xb6rds")->absoluteString(), "https://h/api/v2/two%20w%C3%B6rds");
  EXPECT_FALSE(TarvixWebService("not a url").createRequestFor("forecast"));

  service.requestParameters = TarvixWebServiceParameters(fixedInfo());
  service.encryptionDetails.bodyEncryptionKey = "body key";
  service.encryptionDetails.responseDecryptionKey = "response key";
  auto request = service.createRequestFor("forecast", Data::fromString(R"({"days": 7})"));
  ASSERT_TRUE(request);
  request->httpConfig()->addQuery("52.37", "latitude");
  EXPECT_EQ(request->httpConfig()->method, HttpRequestMethod::post);
  EXPECT_EQ(request->responseBodyDecryptionKey, "response key");

  // The whole query, common parameters first and the method's own after them, travels sealed.
  ASSERT_EQ(request->handler()->canHandle(request), nullptr);
  const auto& wire = *std::dynamic_pointer_cast<HttpRequestHandler>(request->handler())->urlRequest;
  const std::string prefix = "https://h/api/v2/forecast?data=";
  ASSERT_EQ(wire.url.absoluteString().rfind(prefix, 0), 0u) << wire.url.absoluteString();
  const std::string query =
      test::openEncodedValue(wire.url.absoluteString().substr(prefix.size()), *request->requestQueryEncryptionKey);
  EXPECT_EQ(query.rfind("appId=com.example.weather&appVersion=5.2&platform=linux&", 0), 0u) << query;
  EXPECT_NE(query.find("&preferredLanguages=nl-NL,en&displayScale=1.0&latitude=52.37"), std::string::npos) << query;
  EXPECT_EQ(query.find("consent"), std::string::npos);
  EXPECT_EQ(wire.value("Content-Type"), "application/json");
  EXPECT_EQ(TarvixServiceEncryptionHelper::decryptRawData(wire.httpBody->bytes(), "body key")->toString(),
            R"({"days": 7})");

  // Skipping encryption: no keys at all, and the service is told so in the plain query.
  service.encryptionDetails.skipEncryptionAndDecryption = true;
  auto plain = service.createRequestFor("forecast");
  EXPECT_FALSE(plain->requestQueryEncryptionKey || plain->requestBodyEncryptionKey || plain->responseBodyDecryptionKey);
  const auto& parameters = plain->httpConfig()->queryParameters;
  EXPECT_EQ(parameters.back().name(), "skipcrypt");
  EXPECT_EQ(parameters.back().value(), "1");
  EXPECT_FALSE(plain->httpConfig()->bodyData);
}

TEST(WebServiceFacade, SessionsContentTypesAndEncodedContent) {
  DecodableTarvixWebService service("http://127.0.0.1:8470");
  auto own = service.createRequest<weather::Forecast>("forecast");
  EXPECT_FALSE(own->urlSession());

  // A facade's session goes to each request, and its handler no longer makes its own.
  service.urlSession = UrlSession::make({}, std::make_shared<HttpRequestURLSessionDelegateHandler>());
  auto shared = service.createRequest<weather::Forecast>("upload", Data::fromString("--b--"),
                                                         MimeContentType::multipartFormData("b0und"));
  EXPECT_EQ(shared->urlSession(), service.urlSession);
  EXPECT_EQ(shared->httpConfig()->headers.at("Content-Type"), "multipart/form-data; boundary=\"b0und\"");
  EXPECT_EQ(shared->httpConfig()->bodyData->toString(), "--b--");
  TarvixWebService untyped("http://127.0.0.1:8470");
  untyped.urlSession = service.urlSession;
  auto request = untyped.createRequestFor("basicInfo");
  EXPECT_FALSE(std::dynamic_pointer_cast<HttpRequestHandler>(request->handler())->useSharedURLSession);
  EXPECT_EQ(request->urlSession(), service.urlSession);

  // Content is sent as JSON with dates as seconds since 1970.
  weather::ForecastLocation place{.latitude = 52.37, .longitude = 4.9};
  auto located = service.createRequestWithContent<weather::Forecast>("forecast", place);
  EXPECT_EQ(objectFromJSONData(*located->httpConfig()->bodyData),
            JsonValue::object({{"latitude", 52.37}, {"longitude", 4.9}}));
  weather::HourlyForecast hour;
  hour.time = Date::fromTimeIntervalSince1970(1700000000);
  const auto sent = objectFromJSONData(*service.createRequestWithContent<int>("x", hour)->httpConfig()->bodyData);
  EXPECT_EQ((*sent)["time"].doubleValue(), 1700000000.0);
  // Content is optional: none gives a request without body (not "null"); content that cannot
  // be encoded gives no request at all, and nothing is thrown.
  auto bodiless = service.createRequestWithContent<int>("x", std::optional<weather::ForecastLocation>());
  ASSERT_TRUE(bodiless);
  EXPECT_FALSE(bodiless->httpConfig()->bodyData);
  EXPECT_FALSE(service.createRequestWithContent<int>("x", std::nullopt)->httpConfig()->bodyData);
  EXPECT_EQ(
      objectFromJSONData(*service.createRequestWithContent<int>("x", std::optional(place))->httpConfig()->bodyData),
      JsonValue::object({{"latitude", 52.37}, {"longitude", 4.9}}));
  place.latitude = std::numeric_limits<double>::infinity();
  EXPECT_EQ(service.createRequestWithContent<int>("x", place), nullptr);
  EXPECT_EQ(service.createRequestWithContent<int>("x", std::optional(place)), nullptr);
  service.urlSession->invalidateAndCancel();
}

// A typed answer as the decodable handler meets it.
template <class T>
DecodableTarvixServiceResult<T> decodeAnswer(const std::optional<std::string>& body,
                                             const std::optional<std::string>& key = std::nullopt, int status = 200,
                                             std::map<std::string, std::string> headers = {}) {
  auto request = DecodableTarvixServiceRequest<T>::make(*Url::parse("https://h/m"));
  request->responseBodyDecryptionKey = key;
  auto handler = std::dynamic_pointer_cast<DecodableTarvixServiceRequestHandler<T>>(request->handler());
  handler->request = request;
  if (body) handler->receivedData = Data::fromString(*body);
  handler->result->response = responseWith(status, std::move(headers));
  handler->result->data = handler->processReceivedData();
  return DecodableTarvixServiceResult<T>::from(*handler->result);
}

TEST(DecodableEnvelope, TheStatusLivesUnderCodeAndFailuresSayWhy) {
  // "statusCode" means nothing here; the payload decodes.
  auto typed = decodeAnswer<weather::ForecastLocation>(
      R"({"meta": {"statusCode": 500, "contentInfo": {"expiryInterval": 60, "createdTimestamp": 1700000000}},
          "data": {"latitude": 1, "longitude": 2.5}})");
  ASSERT_TRUE(typed.asResult().value()) << typed.error->localizedDescription();
  EXPECT_EQ(typed.asResult().value()->longitude, 2.5);
  EXPECT_EQ(typed.contentInfo.expiryInterval, 60.0);
  EXPECT_EQ(typed.contentInfo.remoteCreatedAt, Date::fromTimeIntervalSince1970(1700000000));
  ASSERT_TRUE(typed.httpResponse);
  EXPECT_EQ(typed.httpResponse->statusCode, 200);

  const std::string exception =
      "Service failed for unknown reasons, could not retrieve error message due to exception: ";
  const struct {
    std::string meta;
    std::string text;
  } failures[] = {
      {R"({"code": 500, "message": ""})", "Service failed for unknown reasons."},
      {R"({"code": 422.0, "message": "Latitude 91 is off the globe"})", "Latitude 91 is off the globe"},
      {R"({"code": 500})", exception + "meta.message: key not found"},
      {R"({"code": 500, "message": 12})", exception + "meta.message: "},
  };
  for (const auto& f : failures) {
    auto failed = decodeAnswer<int>(R"({"meta": )" + f.meta + R"(, "data": 1})");
    ASSERT_TRUE(failed.error) << f.meta;
    EXPECT_EQ(failed.error->localizedDescription().substr(0, f.text.size()), f.text) << f.meta;
    EXPECT_EQ(failed.asResult().error(), failed.error);
    EXPECT_FALSE(failed.data);
  }
  // A "code" that is not an integer is no failure, and no "meta" at all is none either.
  EXPECT_EQ(*decodeAnswer<int>(R"({"meta": {"code": "500"}, "data": 3})").asResult().value(), 3);
  EXPECT_EQ(*decodeAnswer<int>(R"({"data": 4})").asResult().value(), 4);
}

TEST(DecodableEnvelope, BodiesThatDoNotOpenOrDecode) {
  // Ciphertext opens with the key; anything else under a key gives no data, and no error.
  const auto opened = decodeAnswer<int>(sealed(R"({"meta": {"code": 200}, "data": 9})"), kKey);
  EXPECT_EQ(*opened.asResult().value(), 9);
  for (const std::string& body : {std::string(R"({"data": 9})"), sealed(R"({"data": 9})", "other"), std::string()}) {
    const auto closed = decodeAnswer<int>(body, kKey);
    EXPECT_FALSE(closed.data || closed.error);
    EXPECT_EQ(closed.asResult().error()->localizedDescription(), "No data available.");
    EXPECT_EQ(closed.asResult().error()->domain(), CustomError::kDomain);
  }
  // Decoding failures name the path that failed.
  const struct {
    std::string body;
    std::string_view path;
  } broken[] = {
      {"not json", ""},
      {"[1]", ""},
      {R"({"meta": 5})", "meta"},
      {R"({"meta": {"contentInfo": {"expiryInterval": "soon"}}})", "meta.contentInfo.expiryInterval"},
      {R"({"data": {"location": {"latitude": "north"}}})", "data.location.latitude"},
      {R"({"data": {"location": {"latitude": 1, "longitude": 2}, "current": {}}})", "data.current"},
  };
  for (const auto& b : broken) {
    const auto failed = decodeAnswer<weather::Forecast>(b.body);
    ASSERT_TRUE(failed.error) << b.body;
    EXPECT_EQ(failed.error->domain(), CodingError::kDomain) << b.body;
    EXPECT_NE(failed.error->localizedDescription().find(b.path), std::string::npos)
        << b.body << ": " << failed.error->localizedDescription();
  }
  // 304: the content info comes from the headers; there is no data.
  const auto notModified = decodeAnswer<int>(std::nullopt, kKey, 304, {{"Tarvix-Content-Max-Age", "30"}});
  EXPECT_EQ(notModified.contentInfo.expiryInterval, 30.0);
  EXPECT_FALSE(notModified.data || notModified.error);
}

TEST(ClientInfo, ReadsWhatIsThere) {
  const auto partial = ClientInfoResponseReader::readClientBasicInfo(
      *JsonValue::parse(R"({"network": {"ip": "203.0.113.7"}, "device": {}})"));
  EXPECT_EQ(partial, (ClientBasicInfo{.ip = "203.0.113.7", .userAgent = std::nullopt}));
  for (const char* payload : {"[1]", "5", R"({"network": "x", "device": {"userAgent": 5}})"}) {
    EXPECT_EQ(ClientInfoResponseReader::readClientBasicInfo(*JsonValue::parse(payload)), ClientBasicInfo{});
  }
}

}  // namespace
}  // namespace kp
