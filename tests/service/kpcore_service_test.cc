// kpcore service, clientinfo and demo, run as a user runs them against the local weather
// service.
#include <gtest/gtest.h>

#include "kp/coding/json.h"
#include "kp/service/tarvix_web_service_encryption_details.h"
#include "support/cache_home.h"
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

}  // namespace
}  // namespace kp
