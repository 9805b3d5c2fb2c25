// `kpcore get` as a user runs it: a separate process talking to servers on 127.0.0.1.
#include <gtest/gtest.h>
#include <httplib.h>

#include <fstream>

#include "support/process.h"
#include "support/temp_dir.h"
#include "support/test_servers.h"

namespace {

using kp::test::runCommand;
using kp::test::shellQuote;

std::string kpcore(const std::string& arguments) { return std::string(KPCORE_PATH) + " get " + arguments; }

void addRoutes(httplib::Server& s) {
  s.Get("/hello", [](const httplib::Request&, httplib::Response& r) { r.set_content("hello world", "text/plain"); });
  s.Get("/moved", [](const httplib::Request&, httplib::Response& r) { r.set_redirect("/hello", 302); });
  s.Get("/missing", [](const httplib::Request&, httplib::Response& r) {
    r.status = 404;
    r.set_content("not here", "text/plain");
  });
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

  kp::test::TempDir dir;
  std::ofstream(dir.path() / "body") << "payload";
  auto sent = runCommand(kpcore("--method put --header 'X-Test: yes' --data @" + shellQuote(dir.path() / "body") + " " +
                                shellQuote(server.url("/echo"))));
  EXPECT_EQ(sent.status, 0);
  EXPECT_EQ(sent.output, "PUT yes payload");

  auto saved = runCommand(kpcore("--output " + shellQuote(dir.path() / "saved") + " " + server.url("/hello")));
  EXPECT_EQ(saved.status, 0);
  std::ifstream file(dir.path() / "saved");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), "hello world");
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
      {"--output /dev/null " + server.url("/missing") + " 2>&1", 1,
       "error KPRequest 400: Request failed with status code: 404.\n"},
      {"http://127.0.0.1:" + std::to_string(kp::test::closedPort()) + "/ 2>&1", 1,
       "error NSURLErrorDomain -1004: Could not connect to the server.\n"},
      {"--method FETCH " + server.url("/hello") + " 2>&1", 2, "kpcore get: unknown method: FETCH\n"},
      {"not-a-url 2>&1", 2, "kpcore get: not an absolute URL: not-a-url\n"},
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
