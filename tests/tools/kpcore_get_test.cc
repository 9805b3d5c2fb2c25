// `kpcore get` as a user runs it: a separate process talking to servers on 127.0.0.1.
#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <fstream>

#include "kp/platform/image.h"
#include "support/process.h"
#include "support/temp_dir.h"
#include "support/test_servers.h"

namespace {

using kp::test::runCommand;
using kp::test::shellQuote;

std::string kpcore(const std::string& arguments) { return std::string(KPCORE_PATH) + " get " + arguments; }

using kp::test::readFile;

void addRoutes(httplib::Server& s) {
  s.Get("/hello", [](const httplib::Request&, httplib::Response& r) { r.set_content("hello world", "text/plain"); });
  s.Get("/moved", [](const httplib::Request&, httplib::Response& r) { r.set_redirect("/hello", 302); });
  s.Get("/missing", [](const httplib::Request&, httplib::Response& r) {
    r.status = 404;
    r.set_content("not here", "text/plain");
  });
  s.Get("/odd", [](const httplib::Request&, httplib::Response& r) { r.set_header("X-Odd", "\x1b]0;owned\x07 \xff"); });
  s.Put("/echo", [](const httplib::Request& q, httplib::Response& r) {
    r.set_content(q.method + " " + q.get_header_value("X-Test") + " " + q.body, "text/plain");
  });
}

TEST(KpcoreGet, PrintsBodiesHeadsAndSendsWhatItIsTold) {
  kp::test::TestServer server;
  addRoutes(server.server());
  server.start();

  auto plain = runCommand(kpcore(shellQuote(server.url("/hello"))));
  EXPECT_EQ(plain.status, 0);
  EXPECT_EQ(plain.output, "hello world");

  auto head = runCommand(kpcore("--include " + shellQuote(server.url("/moved"))));
  EXPECT_EQ(head.status, 0);
  EXPECT_EQ(head.output.rfind("< redirect 302 " + server.url("/hello") + "\nHTTP 200\n", 0), 0u) << head.output;
  EXPECT_NE(head.output.find("\nContent-Type: text/plain\n"), std::string::npos) << head.output;
  EXPECT_TRUE(head.output.ends_with("\n\nhello world")) << head.output;
  // What a server puts in its headers cannot drive the terminal.
  auto odd = runCommand(kpcore("--include " + shellQuote(server.url("/odd"))));
  EXPECT_NE(odd.output.find("\nX-Odd: \\x1b]0;owned\\x07 \\xff\n"), std::string::npos) << odd.output;

  kp::test::TempDir dir;
  std::ofstream(dir.path() / "body") << "payload";
  auto sent = runCommand(kpcore("--method put --header 'X-Test: yes' --data @" + shellQuote(dir.path() / "body") + " " +
                                shellQuote(server.url("/echo"))));
  EXPECT_EQ(sent.status, 0);
  EXPECT_EQ(sent.output, "PUT yes payload");
}

// URLs as people type them, and as servers redirect to them: spaces and letters outside ASCII
// go out percent-encoded as UTF-8, and a host name in Unicode in its IDNA form.
TEST(KpcoreGet, TypedUrlsGoOutEncoded) {
  kp::test::RawServer raw([](const std::string& request, const kp::test::RawServer::Writer& write) {
    if (request.starts_with("GET /move ")) {
      write("HTTP/1.1 302 Found\r\nLocation: /ziel?stadt=K\xc3\xb6ln\r\nContent-Length: 0\r\n\r\n");
      return;
    }
    const auto host = request.find("Host: ");
    const std::string seen = request.substr(0, request.find("\r\n")) + " | " +
                             request.substr(host + 6, request.find("\r\n", host) - host - 6);
    write("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(seen.size()) + "\r\n\r\n" + seen);
  });
  const std::string authority = raw.url("").substr(std::string("http://").size());
  auto typed = runCommand(kpcore(shellQuote("http://" + authority + "/get?city=M\xc3\xbcnchen&q=a b")));
  EXPECT_EQ(typed.status, 0);
  EXPECT_EQ(typed.output, "GET /get?city=M%C3%BCnchen&q=a%20b HTTP/1.1 | " + authority);

  // libcurl takes every name under "localhost" for this machine, so no resolver is asked.
  const std::string port = authority.substr(authority.find(':'));
  auto named =
      runCommand(kpcore(shellQuote("http://b\xc3\xbc"
                                   "cher.localhost" +
                                   port + "/move")));
  EXPECT_EQ(named.status, 0);
  EXPECT_EQ(named.output, "GET /ziel?stadt=K%C3%B6ln HTTP/1.1 | xn--bcher-kva.localhost" + port);
}

TEST(KpcoreGet, ShowsEachKindAndAnswersRepeatsFromTheCache) {
  kp::test::TestServer server;
  std::atomic<int> served{0};
  server.server().Get("/weather.json", [&](const httplib::Request&, httplib::Response& r) {
    ++served;
    r.set_content(R"({"place":"Oslo","hours":[1,2]})", "application/json");
  });
  server.server().Get("/icon.png", [](const httplib::Request&, httplib::Response& r) {
    std::vector<std::uint8_t> pixels(6 * 4 * 4, 200);
    r.set_content(kp::Image(6, 4, std::move(pixels), 2).pngData()->toString(), "image/png");
  });
  addRoutes(server.server());
  server.start();
  const std::string json = shellQuote(server.url("/weather.json"));

  auto pretty = runCommand(kpcore("--as json " + json));
  EXPECT_EQ(pretty.status, 0);
  EXPECT_EQ(pretty.output, "{\n  \"place\" : \"Oslo\",\n  \"hours\" : [\n    1,\n    2\n  ]\n}\n");
  auto image = runCommand(kpcore("--as image " + shellQuote(server.url("/icon.png"))));
  EXPECT_EQ(image.output, "image 3x2 points at scale 2 (6x4 pixels)\n");
  auto text = runCommand(kpcore("--as string " + shellQuote(server.url("/hello"))));
  EXPECT_EQ(text.output, "hello world");
  auto notImage = runCommand(kpcore("--as image " + json + " 2>&1"));
  EXPECT_EQ(notImage.status, 1);
  EXPECT_EQ(notImage.output, "error: the body is not an image\n");

  // The second run is answered by the cache and says how old the entry is.
  const int before = served.load();
  auto first = runCommand(kpcore("--cache --as json " + json + " 2>&1"));
  auto second = runCommand(kpcore("--cache --as json " + json + " 2>&1"));
  EXPECT_EQ(first.output, pretty.output);
  EXPECT_EQ(second.status, 0);
  EXPECT_EQ(second.output.rfind("from cache: " + server.url("/weather.json") + ", age ", 0), 0u) << second.output;
  EXPECT_TRUE(second.output.ends_with(pretty.output)) << second.output;
  EXPECT_EQ(served.load(), before + 1);
}

TEST(KpcoreGet, SeveralUrlsRunThroughOneQueueByPriorityAndDownloadsGoToFiles) {
  kp::test::TestServer server;
  addRoutes(server.server());
  server.start();
  const std::string hello = shellQuote(server.url("/hello"));
  const std::string missing = shellQuote(server.url("/missing"));
  auto both =
      runCommand(kpcore("--parallel 1 --priority high --as string " + hello + " " + missing + " " + hello + " 2>&1"));
  EXPECT_EQ(both.status, 1);
  const std::string title = "==> " + server.url("/hello") + " <==\nhello world\n";
  EXPECT_EQ(both.output, title + "==> " + server.url("/missing") + " <==\n" + server.url("/missing") +
                             ": error KPRequest 400: Request failed with status code: 404.\n" + title);

  kp::test::TempDir dir;
  const auto target = dir.path() / "new" / "folder" / "saved.txt";
  auto saved = runCommand(kpcore("--output " + shellQuote(target.string()) + " " + hello + " 2>&1"));
  EXPECT_EQ(saved.status, 0);
  EXPECT_EQ(saved.output, "");  // no progress bar where standard error is no terminal
  EXPECT_EQ(readFile(target), "hello world");

  auto usage = runCommand(kpcore("--output x " + hello + " " + hello + " 2>&1"));
  EXPECT_EQ(usage.status, 2);
  EXPECT_EQ(usage.output, "kpcore get: --output takes one URL\n");
  auto parallel = runCommand(kpcore("--parallel 0 " + hello + " 2>&1"));
  EXPECT_EQ(parallel.output, "kpcore get: --parallel takes 1 to 64: 0\n");
}

TEST(KpcoreGet, KeepsLastingCookiesInTheDataFolderAcrossRuns) {
  kp::test::TestServer server;
  server.server().Get("/login", [](const httplib::Request&, httplib::Response& r) {
    r.set_header("Set-Cookie", "sid=abc; Path=/");
    r.set_header("Set-Cookie", "keep=1; Path=/; Max-Age=3600; HttpOnly");
    r.set_redirect("/home", 302);
  });
  server.server().Get("/home", [](const httplib::Request& q, httplib::Response& r) {
    r.set_content(q.get_header_value("Cookie"), "text/plain");
  });
  server.start();
  kp::test::TempDir home;
  // A first run on an empty machine: no data folder yet.
  const std::string tool = "env -u XDG_DATA_HOME HOME=" + shellQuote(home.path()) + " " + KPCORE_PATH;

  EXPECT_EQ(runCommand(tool + " get " + shellQuote(server.url("/login"))).output, "sid=abc; keep=1");
  EXPECT_EQ(runCommand(tool + " get " + shellQuote(server.url("/home"))).output, "keep=1");
  std::filesystem::path file;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(home.path() / ".local/share")) {
    if (entry.path().filename() == "Cookies") file = entry.path();
  }
  ASSERT_FALSE(file.empty());
  using std::filesystem::perms;
  EXPECT_EQ(std::filesystem::status(file).permissions(), perms::owner_read | perms::owner_write);
  EXPECT_EQ(std::filesystem::status(file.parent_path()).permissions(), perms::owner_all);

  auto list = runCommand(tool + " cookies list");
  EXPECT_EQ(list.status, 0);
  EXPECT_EQ(list.output.rfind("127.0.0.1  /  keep=1  expires ", 0), 0u) << list.output;
  EXPECT_TRUE(list.output.ends_with("  httponly\n")) << list.output;
  auto json = runCommand(tool + " cookies list " + shellQuote(server.url("/")) + " --json");
  EXPECT_EQ(json.output.rfind(R"([{"name":"keep","value":"1","domain":"127.0.0.1","path":"/","expires":")", 0), 0u)
      << json.output;
  EXPECT_EQ(runCommand(tool + " cookies clear").output, "removed 1 cookie\n");
  EXPECT_EQ(runCommand(tool + " cookies list --json").output, "[]\n");
  EXPECT_EQ(runCommand(tool + " get " + shellQuote(server.url("/home"))).output, "");
}

TEST(KpcoreGet, FailuresPrintOneErrorLineAndExitNonZero) {
  kp::test::TestServer server;
  addRoutes(server.server());
  server.start();
  struct Case {
    std::string arguments;
    int status;
    std::string output;
  };
  const Case cases[] = {
      {server.url("/missing") + " 2>&1", 1, "error KPRequest 400: Request failed with status code: 404.\n"},
      {"--output /dev/full " + server.url("/hello") + " 2>&1", 1,
       "error: cannot write /dev/full: No space left on device\n"},
      {"--timeout 0 " + server.url("/hello") + " 2>&1", 2,
       "kpcore get: --timeout takes a positive number of seconds: 0\n"},
      {"--parallel 3x " + server.url("/hello") + " 2>&1", 2, "kpcore get: --parallel takes 1 to 64: 3x\n"},
      {"http://127.0.0.1:" + std::to_string(kp::test::closedPort()) + "/ 2>&1", 1,
       "error NSURLErrorDomain -1004: Could not connect to the server.\n"},
      {"--method FETCH " + server.url("/hello") + " 2>&1", 2, "kpcore get: unknown method: FETCH\n"},
      {shellQuote("\x1b[2Jnot-a-url\xff") + " 2>&1", 2, "kpcore get: not an absolute URL: \\x1b[2Jnot-a-url\\xff\n"},
  };
  for (const auto& c : cases) {
    auto result = runCommand(kpcore(c.arguments));
    EXPECT_EQ(result.status, c.status) << c.arguments;
    EXPECT_EQ(result.output, c.output) << c.arguments;
  }
}

TEST(KpcoreGet, InsecureAcceptsAnUntrustedCertificateOnBothPaths) {
  kp::test::SelfSignedCertificate certificate;
  kp::test::TestServer server(&certificate);
  addRoutes(server.server());
  server.start();
  const std::string url = shellQuote(server.url("/hello"));

  auto refused = runCommand(kpcore(url + " 2>&1"));
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.output.rfind("error NSURLErrorDomain -1202: ", 0), 0u) << refused.output;

  auto accepted = runCommand(kpcore("--insecure " + url));
  EXPECT_EQ(accepted.status, 0);
  EXPECT_EQ(accepted.output, "hello world");

  kp::test::TempDir dir;
  auto saved = runCommand(kpcore("--insecure --output " + shellQuote(dir.path() / "saved") + " " + url));
  EXPECT_EQ(saved.status, 0);
  EXPECT_EQ(std::filesystem::file_size(dir.path() / "saved"), 11u);
}

}  // namespace
