// Responses, HTTP dates, cookies from header fields, and results with their archived form.
#include <gtest/gtest.h>

#include "kp/coding/keyed_archiver.h"
#include "kp/platform/data.h"
#include "kp/platform/http_date.h"
#include "kp/request/http_response.h"
#include "kp/request/request_errors.h"
#include "kp/request/request_result.h"

namespace kp {
namespace {

TEST(HttpResponseTest, DerivedHeadersUseTheExactSpellings) {
  HttpResponse response;
  response.headers = {{"etag", "\"lower\""}, {"content-type", "text/plain"}};
  EXPECT_EQ(response.etag(), std::nullopt);
  EXPECT_EQ(response.contentType(), std::nullopt);
  response.headers["Etag"] = "\"second\"";
  EXPECT_EQ(response.etag(), "\"second\"");
  response.headers["ETag"] = "\"first\"";
  EXPECT_EQ(response.etag(), "\"first\"");
  EXPECT_FALSE(response.isNotModified());
  response.statusCode = 304;
  EXPECT_TRUE(response.isNotModified());

  response.headers["Expires"] = "0";
  response.headers["Date"] = "Sun, 06 Nov 1994 08:49:37 GMT";
  response.headers["Last-Modified"] = "";
  EXPECT_EQ(response.expiresDate(), std::nullopt);
  EXPECT_EQ(response.lastModifiedDate(), std::nullopt);
  EXPECT_EQ(response.sentDate(), Date::fromTimeIntervalSince1970(784111777));
}

TEST(HttpResponseTest, HttpDatesInTheirThreeFormsAndNothingElse) {
  const Date t = Date::fromTimeIntervalSince1970(784111777);
  for (const char* text : {"Sun, 06 Nov 1994 08:49:37 GMT", "Sun, 6 Nov 1994 10:49:37 GMT+02:00",
                           "Sun, 06 Nov 1994 00:49:37 PST", "SUN, 06 NOV 1994 09:49:37 +0100",
                           "Sunday, 06-Nov-94 08:49:37 GMT", "Sun Nov  6 08:49:37 1994", "Sun Nov 06 08:49:37 1994"}) {
    EXPECT_EQ(parseHttpDate(text), t) << text;
  }
  EXPECT_EQ(parseHttpDate("Wed, 31 Dec 2025 23:59:60 GMT"), Date::fromTimeIntervalSince1970(1767225600));
  // Two-digit years are at most 50 years ahead.
  EXPECT_EQ(parseHttpDate("Thursday, 01-Jan-70 00:00:00 GMT"), std::nullopt);  // 2070 was no Thursday
  EXPECT_EQ(parseHttpDate("Wednesday, 01-Jan-70 00:00:00 GMT"), Date::fromTimeIntervalSince1970(3155760000));
  for (const char* text :
       {"1994-11-06T08:49:37Z", "Sun, 31 Feb 1994 08:49:37 GMT", "Sun, 06 Nov 1994 08:49:37",
        "Sun, 06 Nov 1994 25:49:37 GMT", "Sun, 06 Nov 1994 08:49:37 GMT junk", "Mon, 06 Nov 1994 08:49:37 GMT",
        "Sun, 06 Nov 1994 08:49:37 CET", "Sun, 06 Nov 1994 08:49:37 +02", "Sunday, 06 Nov 1994 08:49:37 GMT",
        "Sun, 06-Nov-94 08:49:37 GMT", "Sun Nov  6 08:49:37 1994 GMT", "Sun Nov 6 08:49:37 1994",
        "Sun, 06 November 1994 08:49:37 GMT", "Sat, 01 Jan 0000 00:00:00 GMT", " Sun, 06 Nov 1994 08:49:37 GMT",
        "Sun, 06 Nov 1994 08:49:37 GMT\r\n", "Sun, 06 Nov 1994 08:49:37 GMT+2:0"}) {
    EXPECT_EQ(parseHttpDate(text), std::nullopt) << text;
  }
  EXPECT_EQ(parseHttpDate("Sun, 06 Nov 1994 08:49:37 GMT" + std::string(60, ' ')), std::nullopt);
}

TEST(HttpCookieTest, ReadsCookiesWithDefaultsFromTheUrl) {
  const Url url = *Url::parse("https://www.example.com/a/b/page?x=1");
  const auto cookies = HttpCookie::cookies(
      {{"Set-Cookie",
        "plain=1, full=2; Domain=example.com; Path=/p; Expires=Wed, 21 Oct 2037 07:28:00 GMT; Secure; HttpOnly; "
        "SameSite=Lax, aged=3; Max-Age=60; Expires=Wed, 21 Oct 2037 07:28:00 GMT, foreign=4; Domain=other.org, "
        "novalue"},
       {"Content-Type", "text/html"}},
      url);
  ASSERT_EQ(cookies.size(), 3u);
  EXPECT_EQ(cookies[0], HttpCookie("plain", "1", "www.example.com", "/a/b"));
  EXPECT_TRUE(cookies[0].isSessionOnly());

  const HttpCookie& full = cookies[1];
  EXPECT_EQ(full.domain(), ".example.com");
  EXPECT_EQ(full.path(), "/p");
  EXPECT_EQ(full.expiresDate(), Date::fromTimeIntervalSince1970(2139722880));
  EXPECT_TRUE(full.isSecure());
  EXPECT_TRUE(full.isHTTPOnly());
  EXPECT_EQ(full.sameSitePolicy(), "Lax");

  // Max-Age wins over Expires.
  ASSERT_TRUE(cookies[2].expiresDate());
  EXPECT_NEAR(cookies[2].expiresDate()->timeIntervalSinceNow(), 60, 5);

  EXPECT_EQ(HttpCookie::cookies({{"set-cookie", "a=b"}}, *Url::parse("http://h.example/"))[0].path(), "/");
}

TEST(RequestResultTest, DerivedFlagsAndCopies) {
  auto result = std::make_shared<HttpRequestResult>();
  result->data = Data::fromString("kept");
  result->error = RequestErrors::statusCodeErrorWith(500);
  EXPECT_FALSE(result->noConnection());
  result->response = std::make_shared<HttpResponse>();
  result->response->statusCode = 500;

  auto copy = std::dynamic_pointer_cast<HttpRequestResult>(result->copy());
  ASSERT_TRUE(copy);
  EXPECT_EQ(std::any_cast<Data>(copy->data).toString(), "kept");
  EXPECT_NE(copy->response, result->response);
  EXPECT_EQ(copy->response->statusCode, 500);

  result->error = Error::make("NSURLErrorDomain", -1009, "offline");
  EXPECT_FALSE(result->noConnection());
  result->error = RequestErrors::noConnectionError();
  EXPECT_TRUE(result->noConnection());
}

TEST(RequestResultTest, ArchivesKeepPayloadErrorAndResponseButNotCookies) {
  auto response = std::make_shared<HttpResponse>();
  response->statusCode = 500;
  response->headers = {{"ETag", "\"v1\""}, {"Content-Type", "text/plain"}};
  response->addRedirect(*Url::parse("https://example.com/a%2Fb"));
  response->cookies.push_back(HttpCookie::cookies({{"Set-Cookie", "a=1"}}, *Url::parse("https://example.com/")).at(0));
  HttpRequestResult result;
  result.data = Data{1, 2, 3};
  result.error = RequestErrors::statusCodeErrorWith(500);
  result.response = response;
  result.cacheExpirationDate = Date::now();

  auto archive = KeyedArchiver::archivedData(ArchiveValue(std::make_shared<HttpRequestResult>(result)));
  ASSERT_TRUE(archive);
  auto back = KeyedUnarchiver::safeUnarchivedObject(*archive);
  ASSERT_TRUE(back);
  auto restored = back->object<HttpRequestResult>();
  ASSERT_TRUE(restored);
  EXPECT_EQ(std::any_cast<Data>(restored->data), (Data{1, 2, 3}));
  EXPECT_EQ(restored->error->code(), 400);
  EXPECT_EQ(restored->error->localizedDescription(), result.error->localizedDescription());
  ASSERT_TRUE(restored->response);
  EXPECT_TRUE(restored->response->isEqual(*response));
  EXPECT_EQ(restored->response->etag(), "\"v1\"");
  EXPECT_TRUE(restored->response->cookies.empty());  // cookies are not archived
  EXPECT_FALSE(restored->fromCache());               // nor is the cache expiry
  EXPECT_TRUE(restored->failed());

  // A payload without an archived form is dropped; the rest survives. A plain result keeps
  // its own class.
  RequestResult plain;
  plain.data = std::vector<int>{1, 2};
  plain.error = RequestErrors::noConnectionError();
  auto plainBack = KeyedUnarchiver::safeUnarchivedObject(
      *KeyedArchiver::archivedData(ArchiveValue(std::make_shared<RequestResult>(plain))));
  ASSERT_TRUE(plainBack && plainBack->object<RequestResult>());
  EXPECT_FALSE(plainBack->object<RequestResult>()->data.has_value());
  EXPECT_EQ(plainBack->object<RequestResult>()->error->code(), 600);
  EXPECT_FALSE(plainBack->object<HttpRequestResult>());
  // Accepting results accepts their subclasses, but every nested class must be accepted too.
  auto results = KeyedUnarchiver::propertyListClasses();
  results.insert({"KPRequestResult", "NSError", "NSURL"});
  EXPECT_TRUE(KeyedUnarchiver::unarchivedObject(
      *KeyedArchiver::archivedData(ArchiveValue(std::make_shared<RequestResult>(plain))), results));
  EXPECT_FALSE(KeyedUnarchiver::unarchivedObject(*archive, results));  // its response is a KPHttpResponse
  results.insert("KPHttpResponse");
  EXPECT_TRUE(KeyedUnarchiver::unarchivedObject(*archive, results));
}

}  // namespace
}  // namespace kp
