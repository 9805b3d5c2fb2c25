// Parameter strings, URL building, the wire request and the cache key.
#include <gtest/gtest.h>

#include "kp/coding/json.h"
#include "kp/coding/property_list.h"
#include "kp/request/http_request.h"
#include "kp/request/url_request_factory.h"
#include "kp/service/encryption.h"
#include "support/service_payload.h"

namespace kp {
namespace {

const std::string kKey = "Hn4Xk9PzR2wLq7TbM5vC8dJs1YgF6uAe";

std::shared_ptr<HttpRequest> requestFor(std::string_view url) { return HttpRequest::make(*Url::parse(url)); }

TEST(ParameterString, JoinsEncodesAndSkips) {
  using P = HttpRequestParameter;
  EXPECT_EQ(P::makeParameterString({}), "");
  const std::vector<P> list{{"", "lost"}, {"a", " &=/\xc3\xa9"}, {"b", std::nullopt}, {"n&m", "1"}};
  EXPECT_EQ(P::makeParameterString(list), "a=%20%26%3D%2F\xc3\xa9&b=&n&m=1");
  EXPECT_EQ(P::makeParameterString(list, false), "a= &=/\xc3\xa9&b=&n&m=1");
  EXPECT_EQ(P::makeParameterString(std::vector<P>{{"", "x"}}), "");
  EXPECT_NE(P("a", std::nullopt), P("a", ""));
  EXPECT_NE(std::hash<P>{}(P("a", std::nullopt)), std::hash<P>{}(P("a", "")));
}

TEST(HttpRequestParameter, CodedFormOmitsAnAbsentValue) {
  const std::vector<HttpRequestParameter> list{{"q", "a b"}, {"flag", std::nullopt}};
  kp::JsonEncoder json;
  EXPECT_EQ(json.encode(list).toString(), R"([{"name":"q","value":"a b"},{"name":"flag"}])");
  auto stored = kp::encodePropertyListData(list);
  ASSERT_TRUE(stored);
  EXPECT_EQ(kp::decodePropertyListData<std::vector<HttpRequestParameter>>(*stored), list);
  try {
    (void)kp::JsonDecoder().decode<HttpRequestParameter>(R"({"value":"x"})");
    ADD_FAILURE() << "a parameter without a name decoded";
  } catch (const kp::CodingError& error) {
    EXPECT_NE(std::string(error.what()).find("name"), std::string::npos) << error.what();
  }
}

TEST(UrlRequestFactory, AppendsQueryParameters) {
  using P = HttpRequestParameter;
  const Url url = *Url::parse("https://h/p");
  EXPECT_EQ(UrlRequestFactory::append({}, url), url);
  EXPECT_EQ(UrlRequestFactory::append(std::vector<P>{{"a", "1 2"}}, url).absoluteString(), "https://h/p?a=1%202");
  const Url withQuery = *Url::parse("https://h/p?x=1");
  EXPECT_EQ(UrlRequestFactory::append(std::vector<P>{{"a", "1"}}, withQuery).absoluteString(), "https://h/p?x=1&a=1");
  // Only empty names: a bare separator is left.
  EXPECT_EQ(UrlRequestFactory::append(std::vector<P>{{"", "1"}}, url).absoluteString(), "https://h/p?");
  EXPECT_EQ(UrlRequestFactory::append(std::vector<P>{{"", "1"}}, withQuery).absoluteString(), "https://h/p?x=1&");
}

// The query-value encoding leaves these characters alone; the URL must still carry them.
TEST(UrlRequestFactory, CharactersOutsideTheEncodingSetReachWireQueryAndCacheKey) {
  auto cityRequest = [](std::string_view city) {
    auto request = requestFor("https://h/v1/weather");
    request->httpConfig()->addQuery(std::string(city), "city");
    request->httpConfig()->addQuery("a|b^c`d\\e", "x");
    request->generateCacheKey();
    return request;
  };
  auto munich = cityRequest("M\xc3\xbcnchen");
  const std::string wireQuery = "city=M%C3%BCnchen&x=a%7Cb%5Ec%60d%5Ce";
  EXPECT_EQ(UrlRequestFactory::createUrlRequest(*munich).url.absoluteString(), "https://h/v1/weather?" + wireQuery);
  EXPECT_EQ(munich->cacheConfig()->key, "https://h/v1/weather?" + wireQuery);
  EXPECT_NE(cityRequest("Z\xc3\xbcrich")->cacheConfig()->key, munich->cacheConfig()->key);

  const std::string sealed = UrlRequestFactory::createUrlRequest(*munich, kKey, std::nullopt).url.absoluteString();
  const std::string prefix = "https://h/v1/weather?data=";
  ASSERT_EQ(sealed.rfind(prefix, 0), 0u) << sealed;
  EXPECT_EQ(kp::test::openEncodedValue(sealed.substr(prefix.size()), kKey), "city=M\xc3\xbcnchen&x=a|b^c`d\\e");
}

TEST(UrlRequestFactory, PlainWireRequest) {
  auto request = requestFor("https://h/v1/now");
  auto& config = *request->httpConfig();
  config.addQuery("52.5", "lat");
  config.method = HttpRequestMethod::put;
  config.timeoutInterval = 3.5;
  config.setHeader("text/plain", "Accept");
  config.setHeader("stale", "if-none-match");
  config.etag = "\"v7\"";
  const UrlRequest wire = UrlRequestFactory::createUrlRequest(*request);
  EXPECT_EQ(wire.url.absoluteString(), "https://h/v1/now?lat=52.5");
  EXPECT_EQ(wire.httpMethod, "PUT");
  EXPECT_EQ(wire.timeoutInterval, 3.5);
  EXPECT_EQ(wire.allHTTPHeaderFields().size(), 2u);  // no header added besides the caller's
  EXPECT_EQ(wire.value("accept"), "text/plain");
  EXPECT_EQ(wire.value("If-None-Match"), "\"v7\"");
  EXPECT_FALSE(wire.httpBody);

  config.etag = "";
  EXPECT_EQ(UrlRequestFactory::createUrlRequest(*request).value("If-None-Match"), "stale");
  config.headers.clear();
  EXPECT_FALSE(UrlRequestFactory::createUrlRequest(*request).value("If-None-Match"));
  // An empty key means plain.
  EXPECT_EQ(UrlRequestFactory::createUrlRequest(*request, "", "").url.absoluteString(), "https://h/v1/now?lat=52.5");
}

TEST(UrlRequestFactory, BodyRules) {
  auto request = requestFor("https://h/p");
  auto& config = *request->httpConfig();
  config.bodyData = Data{0x00, 0x01, 0xff};
  EXPECT_EQ(UrlRequestFactory::createUrlRequest(*request).httpBody, config.bodyData);
  const auto sealed = UrlRequestFactory::createUrlRequest(*request, std::nullopt, kKey).httpBody;
  ASSERT_TRUE(sealed);
  EXPECT_EQ(TarvixServiceEncryptionHelper::decryptRawData(sealed->bytes(), kKey), config.bodyData);
  EXPECT_FALSE(UrlRequestFactory::createUrlRequest(*request, std::nullopt, std::string(33, 'k')).httpBody);

  // Parameters win over data.
  config.addBody("1 2", "a");
  config.addBody(std::nullopt, "b");
  EXPECT_EQ(UrlRequestFactory::createUrlRequest(*request).httpBody, Data::fromString("a=1%202&b="));
  const std::string body = UrlRequestFactory::createUrlRequest(*request, std::nullopt, kKey).httpBody->toString();
  ASSERT_EQ(body.rfind("data=", 0), 0u);
  EXPECT_EQ(kp::test::openEncodedValue(body.substr(5), kKey), "a=1%202&b=");
}

TEST(UrlRequestFactory, EncryptedQuery) {
  auto request = requestFor("https://h:8443/p");
  request->httpConfig()->addQuery("1 2", "a");
  request->httpConfig()->addQuery("x", "b");
  const UrlRequest wire = UrlRequestFactory::createUrlRequest(*request, kKey, std::nullopt);
  const std::string prefix = "https://host:8443/p?data=";
  ASSERT_EQ(wire.url.absoluteString().rfind(prefix, 0), 0u) << wire.url.absoluteString();
  EXPECT_EQ(kp::test::openEncodedValue(wire.url.absoluteString().substr(prefix.size()), kKey), "a=1 2&b=x");
  // The connection still goes to the host that the sealed URL no longer names.
  EXPECT_EQ(wire.connectTo, (UrlRequest::ConnectTarget{"h", 8443}));
  EXPECT_FALSE(UrlRequestFactory::createUrlRequest(*requestFor("https://h/p?a=1"), kKey).connectTo);
  EXPECT_FALSE(UrlRequestFactory::createUrlRequest(*request).connectTo);
}

TEST(CacheKey, UrlThenBody) {
  auto request = requestFor("https://h/p");
  request->httpConfig()->addQuery("1", "q");
  request->httpConfig()->addBody("1", "a");
  request->httpConfig()->addBody(std::nullopt, "skipped");
  request->httpConfig()->addBody("2", "b");
  request->generateCacheKey();
  EXPECT_EQ(request->cacheConfig()->key, "https://h/p?q=1a=1b=2");

  // Distinct bodies can share a key.
  auto other = requestFor("https://h/p");
  other->httpConfig()->addQuery("1", "q");
  other->httpConfig()->addBody("1b=2", "a");
  EXPECT_EQ(HttpRequestTypeCacheKeyGenerator::generate(*other), *request->cacheConfig()->key);

  // Body data takes over the key even when parameters are sent.
  request->httpConfig()->bodyData = Data::fromString("abc");
  EXPECT_EQ(HttpRequestTypeCacheKeyGenerator::generate(*request),
            "https://h/p?q=1bodyDataHash=a9993e364706816aba3e25717850c26c9cd0d89d");
}

TEST(UrlRequest, HeaderFieldsIgnoreCase) {
  UrlRequest wire(*Url::parse("https://h/"));
  wire.setValue("1", "X-Count");
  wire.setValue("2", "x-count");
  wire.addValue("3", "X-COUNT");
  ASSERT_EQ(wire.allHTTPHeaderFields().size(), 1u);
  EXPECT_EQ(wire.allHTTPHeaderFields()[0], (UrlRequest::HeaderField{"X-Count", "2, 3"}));
  wire.setValue(std::nullopt, "X-count");
  EXPECT_TRUE(wire.allHTTPHeaderFields().empty());
}

}  // namespace
}  // namespace kp
