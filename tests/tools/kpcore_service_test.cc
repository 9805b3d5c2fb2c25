// kpcore service, clientinfo, demo, serve, crypt and info, run as a user runs them against the
// local weather service.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>

#include "kp/coding/json.h"
#include "kp/service/tarvix_web_service_encryption_details.h"
#include "support/cache_home.h"
#include "support/child_process.h"
#include "support/process.h"
#include "support/test_servers.h"
#include "weather_service.h"

namespace kp {
namespace {

TEST(KpcoreServiceCommands, PrintPayloadsContentInfoClientInfoAndTheDemo) {
  weather::WeatherService service({});
  service.start();
  const std::string kpcore = KPCORE_PATH;
  const std::string call = kpcore + " service --base " + test::shellQuote(service.baseUrl()) + " --body-key " +
                           std::string(kClientInfoBodyEncryptionKey) + " --response-key " +
                           std::string(kClientInfoResponseDecryptionKey) + " ";

  // The payload as JSON on standard output, the content info on standard error.
  const auto forecast = test::runCommand(call + "forecast latitude=52.37 longitude=4.9 2>/dev/null");
  ASSERT_EQ(forecast.status, 0) << forecast.output;
  const auto payload = JsonValue::parse(forecast.output);
  ASSERT_TRUE(payload) << forecast.output;
  EXPECT_EQ((*payload)["hourly"].size(), 48u);
  EXPECT_EQ((*payload)["location"]["latitude"].doubleValue(), 52.37);
  const auto freshness = test::runCommand(call + "basicInfo 2>&1 >/dev/null");
  EXPECT_NE(freshness.output.find("max age:  60 s\n"), std::string::npos) << freshness.output;

  // A service failure: its text on one line, and a non-zero exit.
  const auto offGlobe = test::runCommand(call + "forecast latitude=91 longitude=0 2>&1");
  EXPECT_EQ(offGlobe.status, 1);
  EXPECT_EQ(offGlobe.output.rfind("kpcore service: There is no forecast for latitude 91", 0), 0u) << offGlobe.output;
  EXPECT_EQ(offGlobe.output.find('\n'), offGlobe.output.size() - 1);
  // An answer without payload is a failure that says what came instead.
  const auto sealed =
      test::runCommand(kpcore + " service --base " + test::shellQuote(service.baseUrl()) + " basicInfo 2>&1");
  EXPECT_EQ(sealed.status, 1);
  EXPECT_TRUE(sealed.output.ends_with(" bytes) is sealed: give --response-key to open it\n")) << sealed.output;
  test::RawServer page([](const test::RawServer::Writer& write) {
    write("HTTP/1.1 200 OK\r\nContent-Length: 15\r\nConnection: close\r\n\r\n<html>hi</html>");
  });
  const auto html = test::runCommand(kpcore + " service --base " + test::shellQuote(page.url("")) + " basicInfo 2>&1");
  EXPECT_EQ(html.status, 1);
  EXPECT_EQ(html.output,
            "kpcore service: the answer (HTTP 200, 15 bytes) is not JSON: it starts \"<html>hi</html>\"\n");
  const auto notService = test::runCommand(kpcore + " demo --base " + test::shellQuote(page.url("")) + " 2>&1");
  EXPECT_EQ(notService.status, 1);
  EXPECT_TRUE(notService.output.ends_with("kpcore demo: no client info from " + page.url("") +
                                          ": is it the weather service?\n"))
      << notService.output;
  const auto usage = test::runCommand(kpcore + " service forecast 2>&1");
  EXPECT_EQ(usage.status, 2);
  EXPECT_EQ(usage.output, "kpcore service: missing --base URL\n");

  const auto clientInfo = test::runCommand(kpcore + " clientinfo --json --base " + test::shellQuote(service.baseUrl()));
  ASSERT_EQ(clientInfo.status, 0) << clientInfo.output;
  EXPECT_EQ(clientInfo.output.rfind(R"({"ip":"127.0.0.1","userAgent":"kpcore/)", 0), 0u) << clientInfo.output;

  const auto demo = test::runCommand(kpcore + " demo --base " + test::shellQuote(service.baseUrl()) + " 2>&1");
  ASSERT_EQ(demo.status, 0) << demo.output;
  for (const char* line : {"address:    127.0.0.1\n", "Next 7 days\n", "first call:  from the network, HTTP 200",
                           "second call: from the cache, HTTP 200", "HTTP 304, not modified: yes"}) {
    EXPECT_NE(demo.output.find(line), std::string::npos) << line << "\n" << demo.output;
  }
  service.stop();
}

TEST(KpcoreServe, ServesUntilTerminatedAndReportsABusyPort) {
  test::ChildProcess serve({KPCORE_PATH, "serve", "--quiet"}, {.captureOutput = true});
  const auto url = serve.readLine(std::chrono::seconds(20));
  ASSERT_TRUE(url);
  ASSERT_TRUE(url->starts_with("http://127.0.0.1:")) << *url;

  const std::string target = "/forecast?skipcrypt=1&latitude=1&longitude=2";
  const auto answer = test::runCommand(std::string(KPCORE_PATH) + " get --include " + test::shellQuote(*url + target));
  EXPECT_EQ(answer.status, 0);
  EXPECT_NE(answer.output.find("HTTP 200\n"), std::string::npos) << answer.output;
  EXPECT_NE(answer.output.find("\"latitude\":1"), std::string::npos);

  const std::string port = url->substr(url->rfind(':') + 1);
  const auto busy = test::runCommand(std::string(KPCORE_PATH) + " serve --quiet --port " + port + " 2>&1");
  EXPECT_EQ(busy.status, 1);
  EXPECT_EQ(busy.output, "kpcore serve: cannot listen on 127.0.0.1 port " + port + "\n");
  const auto nowhere = test::runCommand(std::string(KPCORE_PATH) + " serve --quiet --host '' 2>&1");
  EXPECT_EQ(nowhere.status, 2);
  EXPECT_EQ(nowhere.output, "kpcore serve: --host needs a name or an address\n");
  const auto unreadable = test::runCommand(std::string(KPCORE_PATH) + " serve --quiet --faults cut=0.7,500=0.7 2>&1");
  EXPECT_EQ(unreadable.status, 2);
  EXPECT_EQ(unreadable.output, "kpcore serve: --faults: the rates add up to more than 1\n");

  serve.signal(SIGTERM);
  EXPECT_EQ(serve.wait(std::chrono::seconds(10)), 0);

  // Every answer spoiled, and the last line says how.
  test::ChildProcess faulty({KPCORE_PATH, "serve", "--quiet", "--faults", "500=1,seed=5"}, {.captureOutput = true});
  const auto faultyUrl = faulty.readLine(std::chrono::seconds(20));
  ASSERT_TRUE(faultyUrl);
  const auto spoiled =
      test::runCommand(std::string(KPCORE_PATH) + " get --include " + test::shellQuote(*faultyUrl + target));
  EXPECT_NE(spoiled.output.find("HTTP 500\n"), std::string::npos) << spoiled.output;
  faulty.signal(SIGTERM);
  EXPECT_EQ(faulty.readLine(std::chrono::seconds(10)),
            "faults injected: answers=1 delay=0 dribble=0 cut=0 reset=0 500=1 503=0 envelope-error=0 wrong-key=0 "
            "oversize=0 wrong-length=0");
  EXPECT_EQ(faulty.wait(std::chrono::seconds(10)), 0);
}

TEST(KpcoreCrypt, DecryptsAPayloadAndRefusesWhatIsNotOneInOneLine) {
  const std::string key = "Qw7rT2mZx9LpB4nVc8KdS1hYf6GjU3aE";
  const std::string crypt = std::string(KPCORE_PATH) + " crypt ";
  auto sealed = test::runCommand(crypt + "encrypt-body --key " + key, "forecast");
  ASSERT_EQ(sealed.status, 0) << sealed.output;
  auto opened = test::runCommand(crypt + "decrypt --key " + key, sealed.output);
  EXPECT_EQ(opened.status, 0);
  EXPECT_EQ(opened.output, "forecast");
  for (const char* body : {R"({"temp":1234})", "", "QUJD"}) {
    auto refused = test::runCommand(crypt + "decrypt --key " + key + " 2>&1", body);
    EXPECT_NE(refused.status, 0) << body;
    EXPECT_EQ(std::count(refused.output.begin(), refused.output.end(), '\n'), 1) << refused.output;
    EXPECT_NE(refused.output.find("nothing decrypted"), std::string::npos) << refused.output;
  }
}

// Under the C locale the language list does not count.
TEST(KpcoreInfo, NamesTheLanguageOfTheCLocale) {
  const auto plain =
      test::runCommand(std::string("env -u LC_ALL -u LC_MESSAGES LANG=C LANGUAGE=fr ") + KPCORE_PATH + " info --json");
  EXPECT_NE(plain.output.find(R"("preferredLanguages":"en-US")"), std::string::npos) << plain.output;
}

}  // namespace
}  // namespace kp
