// Cookies as sessions keep and send them, against real servers on 127.0.0.1; what a store
// accepts and how many it keeps; its file across stores, damaged files included.
#include <gtest/gtest.h>
#include <httplib.h>

#include <condition_variable>
#include <fstream>
#include <mutex>

#include "kp/request/http_cookie_storage.h"
#include "kp/request/url_session.h"
#include "support/temp_dir.h"
#include "support/test_servers.h"

namespace kp {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

// A session whose requests run one at a time; get() returns the body.
class Client : public UrlSessionDelegate {
 public:
  static std::shared_ptr<Client> make() {
    auto client = std::make_shared<Client>();
    client->session_ = UrlSession::make(UrlSessionConfiguration::defaultConfiguration(), client);
    return client;
  }
  ~Client() override = default;

  std::string get(UrlRequest request) {
    {
      std::lock_guard lock(mutex_);
      done_ = false;
      body_ = Data();
    }
    session_->dataTask(std::move(request))->resume();
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(changed_.wait_for(lock, 10s, [&] { return done_; }));
    return body_.toString();
  }
  std::string get(const std::string& url) { return get(UrlRequest(*Url::parse(url))); }
  void end() { session_->finishTasksAndInvalidate(); }

  void didReceiveData(UrlSession&, UrlSessionDataTask&, const Data& data) override {
    std::lock_guard lock(mutex_);
    body_.append(data);
  }
  void didComplete(UrlSession&, UrlSessionTask&, const ErrorPtr& error) override {
    EXPECT_EQ(error, nullptr);
    std::lock_guard lock(mutex_);
    done_ = true;
    changed_.notify_all();
  }

 private:
  std::shared_ptr<UrlSession> session_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool done_ = false;  // guarded by mutex_
  Data body_;          // guarded by mutex_
};

std::vector<std::string> names(const std::vector<HttpCookie>& cookies) {
  std::vector<std::string> out;
  for (const auto& cookie : cookies) out.push_back(cookie.name());
  return out;
}

std::vector<HttpCookie> parse(const std::string& field, const std::string& url) {
  return HttpCookie::cookies({{"Set-Cookie", field}}, *Url::parse(url));
}

TEST(CookieSessionTest, SessionsShareTheStoreAndSendWhatMatchesHostPathSchemeAndTime) {
  test::TestServer server;
  auto& s = server.server();
  s.Get("/login", [](const httplib::Request&, httplib::Response& r) {
    r.set_header("Set-Cookie", "sid=abc; Path=/");
    r.set_header("Set-Cookie", "area=x; Path=/private; Max-Age=3600");
    r.set_redirect("/home", 302);
  });
  s.Get("/logout", [](const httplib::Request&, httplib::Response& r) {
    r.set_header("Set-Cookie", "sid=gone; Max-Age=0; Path=/");
  });
  s.Get(R"(/(home|private/page|privateer))", [](const httplib::Request& q, httplib::Response& r) {
    r.set_content(q.get_header_value("Cookie"), "text/plain");
  });
  server.start();
  auto storage = HttpCookieStorage::shared();
  storage->deleteAllCookies();
  auto client = Client::make();

  // Set on the redirect, sent to its target.
  EXPECT_EQ(client->get(server.url("/login")), "sid=abc");
  EXPECT_EQ(client->get(server.url("/private/page")), "area=x; sid=abc");
  EXPECT_EQ(client->get(server.url("/privateer")), "sid=abc");
  // Host-only for 127.0.0.1: the same server under another name gets nothing.
  EXPECT_EQ(client->get("http://localhost:" + std::to_string(server.port()) + "/home"), "");
  // A secure cookie never goes over plain HTTP.
  storage->setCookie(HttpCookie("tls", "1", "127.0.0.1", "/", {.secure = true}));
  EXPECT_EQ(client->get(server.url("/home")), "sid=abc");
  EXPECT_EQ(names(storage->cookies(*Url::parse("https://127.0.0.1/home"))), (std::vector<std::string>{"sid", "tls"}));

  // Another session sends what the first one received; a request that opts out neither sends
  // nor keeps cookies.
  auto other = Client::make();
  EXPECT_EQ(other->get(server.url("/home")), "sid=abc");
  UrlRequest optOut(*Url::parse(server.url("/login")));
  optOut.httpShouldHandleCookies = false;
  storage->deleteCookie(HttpCookie("area", "", "127.0.0.1", "/private"));
  EXPECT_EQ(other->get(optOut), "");
  EXPECT_EQ(names(storage->cookies()), (std::vector<std::string>{"sid", "tls"}));
  // A request's own field wins.
  UrlRequest own(*Url::parse(server.url("/home")));
  own.setValue("mine=1", "Cookie");
  EXPECT_EQ(other->get(own), "mine=1");

  // An expired cookie from the server removes the stored one.
  EXPECT_EQ(other->get(server.url("/logout")), "");
  EXPECT_EQ(client->get(server.url("/home")), "");
  EXPECT_EQ(names(storage->cookies()), std::vector<std::string>{"tls"});
  client->end();
  other->end();
}

TEST(CookieStoreTest, KeepsWhatAResponseMaySetAndBoundsHowMany) {
  auto storage = HttpCookieStorage::make();
  const std::string shop = "https://shop.example.co.uk/a/b";
  storage->setCookies(parse("wide=1; Domain=co.uk, site=1; Domain=example.co.uk, other=1; Domain=example.org, "
                            "plain=1; Secure, __Host-h=1; Secure; Path=/, __Host-bad=1; Secure; Domain=example.co.uk",
                            shop),
                      *Url::parse(shop));
  EXPECT_EQ(names(storage->cookies()), (std::vector<std::string>{"site", "plain", "__Host-h"}));
  EXPECT_EQ(names(storage->cookies(*Url::parse("http://www.example.co.uk/a/x"))), std::vector<std::string>{"site"});

  // Over plain HTTP: nothing secure, and nothing that shadows a secure cookie.
  const std::string plainShop = "http://shop.example.co.uk/a/b";
  storage->setCookies(parse("plain=2, s=1; Secure, __Secure-s=1, fresh=1", plainShop), *Url::parse(plainShop));
  EXPECT_EQ(names(storage->cookies()), (std::vector<std::string>{"site", "plain", "__Host-h", "fresh"}));
  EXPECT_TRUE(storage->cookies()[1].isSecure());

  // A Domain naming an IP address, or the public suffix that is the host, covers the host alone.
  storage->setCookies(parse("ip=1; Domain=127.0.0.1", "http://127.0.0.1/"), *Url::parse("http://127.0.0.1/"));
  storage->setCookies(parse("lh=1; Domain=localhost", "http://localhost/"), *Url::parse("http://localhost/"));
  EXPECT_EQ(storage->cookies(*Url::parse("http://127.0.0.1/")).at(0).domain(), "127.0.0.1");
  EXPECT_EQ(storage->cookies(*Url::parse("http://localhost/")).at(0).domain(), "localhost");

  // The main document's site decides; none means the request's own; `never` takes nothing.
  storage->deleteAllCookies();
  const Url api = *Url::parse("https://api.example.com/v1");
  storage->setCookies(parse("first=1", api.absoluteString()), api, *Url::parse("https://www.example.com/"));
  storage->setCookies(parse("third=1", api.absoluteString()), api, *Url::parse("https://news.example.net/"));
  storage->setCookies(parse("own=1", api.absoluteString()), api);
  storage->setCookieAcceptPolicy(HttpCookieAcceptPolicy::never);
  storage->setCookies(parse("never=1", api.absoluteString()), api);
  storage->setCookie(HttpCookie("never", "2", "api.example.com", "/"));
  EXPECT_EQ(names(storage->cookies()), (std::vector<std::string>{"first", "own"}));
  storage->setCookieAcceptPolicy(HttpCookieAcceptPolicy::always);

  // Lifetimes beyond 400 days are cut; per site and overall the oldest make room.
  storage->setCookies(parse("long=1; Max-Age=999999999999", api.absoluteString()), api);
  EXPECT_LT(storage->cookies().back().expiresDate()->timeIntervalSinceNow(), 401 * 86400.0);
  storage->deleteAllCookies();
  for (int i = 0; i < 60; ++i) storage->setCookie(HttpCookie("c" + std::to_string(i), "", ".example.com", "/"));
  auto kept = storage->cookies();
  ASSERT_EQ(kept.size(), 50u);
  EXPECT_EQ(kept.front().name(), "c10");
  for (int site = 0; site < 70; ++site) {
    for (int i = 0; i < 50; ++i) {
      storage->setCookie(HttpCookie("c" + std::to_string(i), "", "s" + std::to_string(site) + ".net", "/"));
    }
  }
  kept = storage->cookies();
  ASSERT_EQ(kept.size(), 3000u);
  EXPECT_EQ(kept.front().domain(), "s10.net");
}

TEST(CookieFileTest, LastingCookiesOutliveTheirStoreAndEachStoreKeepsItsRemovals) {
  test::TempDir dir;
  const auto file = dir.path() / "jar" / "Cookies";
  const Date later = Date::now().addingTimeInterval(3600);
  auto first = HttpCookieStorage::make(file);
  first->setCookie(HttpCookie("kept", "1", ".example.com", "/", {.expiresDate = later, .httpOnly = true}));
  first->setCookie(HttpCookie("gone", "1", "example.com", "/", {.expiresDate = later}));
  first->setCookie(HttpCookie("session", "1", "example.com", "/"));
  ASSERT_TRUE(first->synchronize());
  EXPECT_EQ(std::filesystem::status(file).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);

  auto second = HttpCookieStorage::make(file);
  EXPECT_EQ(names(second->cookies()), (std::vector<std::string>{"kept", "gone"}));
  EXPECT_TRUE(second->cookies()[0].isHTTPOnly());
  // Each writes after the other changed the file: neither loses the other's change.
  first->deleteCookie(HttpCookie("gone", "", "example.com", "/"));
  second->setCookie(HttpCookie("added", "1", "example.com", "/", {.expiresDate = later}));
  ASSERT_TRUE(second->synchronize());
  ASSERT_TRUE(first->synchronize());
  EXPECT_EQ(names(HttpCookieStorage::make(file)->cookies()), (std::vector<std::string>{"kept", "added"}));
}

TEST(CookieFileTest, ADamagedFileIsSetAsideAndTheStoreStartsEmpty) {
  test::TempDir dir;
  const auto file = dir.path() / "Cookies";
  {
    auto writer = HttpCookieStorage::make(file);
    for (const char* name : {"a", "b"}) {
      writer->setCookie(HttpCookie(name, "v", "example.com", "/", {.expiresDate = Date::now().addingTimeInterval(60)}));
    }
  }
  const std::string whole = test::readFile(file);
  ASSERT_EQ(std::count(whole.begin(), whole.end(), '\n'), 3);
  const std::string header = whole.substr(0, whole.find('\n') + 1);
  // Each content with the number of cookies it holds, or nothing when it is damaged.
  std::vector<std::pair<std::string, std::optional<std::size_t>>> contents = {
      {"\0\0\xff garbage\n"s, std::nullopt},
      {header + std::string(1 << 20, 'x') + "\n", std::nullopt},
      {header + "example.com\t/\tTRUE\tFALSE\t\t1\t2\tname\n", std::nullopt},
      {header + "example.com\t/\tTRUE\tFALSE\t\t1\t2\tna\0me\tv\n"s, std::nullopt},
      {header + "example.com\t/\tTRUE\tFALSE\t\t99999999999999\t2\tname\tv\n", std::nullopt},
  };
  // Every cut of a good file holds its whole lines, or is damaged.
  for (std::size_t size = 0; size <= whole.size(); ++size) {
    const std::string cut = whole.substr(0, size);
    const bool wholeLines = cut.empty() || (cut.size() >= header.size() && cut.ends_with('\n'));
    contents.emplace_back(cut, wholeLines ? std::optional<std::size_t>(std::max<std::ptrdiff_t>(
                                                0, std::count(cut.begin(), cut.end(), '\n') - 1))
                                          : std::nullopt);
  }

  for (const auto& [content, held] : contents) {
    std::filesystem::remove_all(dir.path());
    std::filesystem::create_directories(dir.path());
    std::ofstream(file, std::ios::binary) << content;
    auto storage = HttpCookieStorage::make(file);
    const std::size_t count = storage->cookies().size();
    EXPECT_EQ(count, held.value_or(0)) << content.size();
    EXPECT_EQ(std::filesystem::exists(file), held.has_value()) << content.size();
    // The store goes on with a good file.
    storage->setCookie(HttpCookie("new", "1", "example.com", "/", {.expiresDate = Date::now().addingTimeInterval(60)}));
    ASSERT_TRUE(storage->synchronize());
    EXPECT_EQ(HttpCookieStorage::make(file)->cookies().size(), count + 1);
  }
}

}  // namespace
}  // namespace kp
