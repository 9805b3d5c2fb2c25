// The local weather service: refusals, forecasts and hostile requests at the protocol; slow,
// idle and hostile clients at the transport. (The library's own calls to it are the service
// call tests.)
#include "weather_service.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include "kp/foundation/json.h"
#include "kp/service/encryption.h"

namespace kp {
namespace {

using namespace std::chrono_literals;
using weather::ServiceAnswer;
using weather::ServiceCall;
using weather::WeatherProtocol;

const std::string kQueryKey(kDefaultQueryStringEncryptionKey);
const std::string kBodyKey(kClientInfoBodyEncryptionKey);
const std::string kResponseKey(kClientInfoResponseDecryptionKey);

// ---- The protocol without a transport ----------------------------------------------------------

std::string sealedQuery(const std::string& query, const std::string& key = kQueryKey) {
  return "data=" + urlEncodeQueryParameter(*aes256EncryptString(query, key));
}

JsonValue plainEnvelope(const ServiceAnswer& answer, const std::string& key = kResponseKey) {
  return TarvixServiceEncryptionHelper::decryptData(
             {reinterpret_cast<const std::uint8_t*>(answer.body.data()), answer.body.size()}, key)
      .value_or(JsonValue());
}

TEST(WeatherProtocol, RefusalsNameTheFaultInBothEnvelopeForms) {
  const WeatherProtocol protocol({});
  const struct {
    ServiceCall call;
    int status;
    std::string_view words;
    bool sealed;
  } cases[] = {
      {{.target = "/forecast?" + sealedQuery("latitude=1&longitude=2", "other")}, 400, "could not be decrypted", true},
      {{.target = "/forecast?latitude=1&longitude=2"}, 400, "must travel encrypted", true},
      {{.target = "/forecast?" + sealedQuery("latitude=north&longitude=2")}, 400, "not decimal numbers", true},
      {{.target = "/forecast?" + sealedQuery("latitude=1")}, 400, "Missing coordinates", true},
      {{.target = "/forecast?" + sealedQuery("latitude=1&longitude=2"), .body = "data=%%%"}, 400, "body", true},
      {{.httpMethod = "DELETE", .target = "/forecast"}, 405, "DELETE", true},
      {{.target = "/"}, 404, "Missing method", false},
      {{.target = "/v2/snowfall?skipcrypt=1"}, 404, "'snowfall'", false},
  };
  for (const auto& c : cases) {
    const ServiceAnswer answer = protocol.answer(c.call);
    EXPECT_EQ(answer.status, c.status) << c.call.target;
    // Refusals of a known method are sealed like its answers; the rest are plain JSON.
    EXPECT_EQ(answer.contentType != "application/json", c.sealed) << c.call.target;
    const JsonValue envelope = plainEnvelope(answer);
    EXPECT_EQ(envelope["success"].boolValue(), false);
    EXPECT_EQ(envelope["meta"]["code"].intValue(), c.status);
    EXPECT_EQ(envelope["meta"]["statusCode"].intValue(), c.status);
    EXPECT_NE(envelope["meta"]["message"].stringValue().value_or("").find(c.words), std::string_view::npos)
        << envelope.serialize();
  }
}

TEST(WeatherProtocol, ForecastsAreFixedForTheHourAndPlausible) {
  Date now = Date::fromTimeIntervalSince1970(1'736'942'400 + 60);  // 2025-01-15 12:01 UTC
  weather::WeatherServiceOptions options;
  options.clock = [&now] { return now; };
  const WeatherProtocol protocol(options);
  auto forecast = [&](const std::string& latitude, const std::string& longitude) {
    return protocol.answer({.target = "/forecast?" + sealedQuery("latitude=" + latitude + "&longitude=" + longitude)});
  };
  const ServiceAnswer first = forecast("52.37", "4.9");
  now = now.addingTimeInterval(3000);
  const ServiceAnswer sameHour = forecast("52.371", "4.9");  // the same place, to 0.01 degrees
  EXPECT_EQ(sameHour.body, first.body);
  EXPECT_EQ(sameHour.header("ETag"), first.header("ETag"));
  now = now.addingTimeInterval(600);
  const ServiceAnswer nextHour = forecast("52.37", "4.9");
  EXPECT_NE(nextHour.header("ETag"), first.header("ETag"));
  EXPECT_EQ(nextHour.header("Tarvix-Content-Created"), "1736946000");

  const JsonValue data = plainEnvelope(first)["data"];
  const std::set<std::string_view> conditions{"clear", "partlyCloudy", "cloudy", "rain", "snow"};
  for (std::size_t i = 0; i < 48; ++i) {
    const JsonValue hour = data["hourly"][i];
    EXPECT_EQ(hour["time"].intValue(), 1'736'942'400 + static_cast<std::int64_t>(i) * 3600);
    EXPECT_GT(hour["temperature"].doubleValue(), -30);
    EXPECT_LT(hour["temperature"].doubleValue(), 25);  // January in Amsterdam
    EXPECT_GT(hour["pressure"].doubleValue(), 960);
    EXPECT_LT(hour["pressure"].doubleValue(), 1060);
    EXPECT_GE(hour["precipitation"].doubleValue(), 0);
    EXPECT_LE(hour["precipitationProbability"].intValue(), 100);
    EXPECT_LT(hour["windDirection"].intValue(), 360);
    EXPECT_TRUE(conditions.contains(*hour["condition"].stringValue()));
  }
  for (std::size_t i = 0; i < 7; ++i) {
    const JsonValue day = data["daily"][i];
    EXPECT_EQ(day["date"].intValue(), 1'736'899'200 + static_cast<std::int64_t>(i) * 86400);
    EXPECT_LE(day["temperatureMin"].doubleValue(), day["temperatureMax"].doubleValue());
  }
  // January is summer in Sydney and winter in Oslo; the equator is warmer than both poles.
  auto meanHigh = [&](const std::string& latitude) {
    const JsonValue days = plainEnvelope(forecast(latitude, "10"))["data"]["daily"];
    double sum = 0;
    for (std::size_t i = 0; i < 7; ++i) sum += *days[i]["temperatureMax"].doubleValue();
    return sum / 7;
  };
  EXPECT_GT(meanHigh("-33.9"), meanHigh("59.9") + 10);
  EXPECT_GT(meanHigh("0"), meanHigh("-80") + 20);
  EXPECT_GT(meanHigh("0"), meanHigh("80") + 20);
}

TEST(WeatherProtocol, HostileRequestsEndInAnswers) {
  const WeatherProtocol protocol({});
  const std::string block16 = base64Encode(std::vector<std::uint8_t>(16, 0x41));
  const std::vector<ServiceCall> calls{
      {.target = "/forecast?data="},
      {.target = "/forecast?data=%"},
      {.target = "/forecast?data=%zz&data=%41"},
      {.target = "/forecast?data=QUJD"},        // not whole blocks
      {.target = "/forecast?data=" + block16},  // whole blocks, wrong padding
      {.target = "/forecast?" + sealedQuery(std::string("latitude=1\0\x01&longitude=2", 24))},
      {.target = "/basicInfo?skipcrypt=1", .body = "{\"a\":" + std::string(100000, '[')},
      {.target = "/basicInfo?" + sealedQuery("x"), .body = "data=" + block16},
      {.target = "/basicInfo?" + sealedQuery("x"), .body = block16},
      {.target = "/basicInfo?" + sealedQuery("x"), .body = *aes256EncryptString("[1,2]", kBodyKey)},
      {.target = "/forecast?" + sealedQuery("latitude=1e400&longitude=nan")},
      {.target = "?"},
      {.target = ""},
      {.target = std::string(100000, '/')},
      {.httpMethod = "", .target = "/%", .ifNoneMatch = ",,W/\"\"\",*"},
  };
  // Every answer is an envelope that opens, whatever was asked.
  auto answers = [&protocol](const ServiceCall& call, std::initializer_list<int> statuses) {
    const ServiceAnswer answer = protocol.answer(call);
    EXPECT_TRUE(std::find(statuses.begin(), statuses.end(), answer.status) != statuses.end())
        << call.target.substr(0, 80) << " " << answer.status;
    if (answer.status != 304) {
      EXPECT_FALSE(plainEnvelope(answer).isNull()) << call.target.substr(0, 80);
    }
  };
  for (const auto& call : calls) answers(call, {400, 404, 405});
  answers({.target = "/basicInfo?skipcrypt=1", .userAgent = "\xff\xfe agent"}, {200});
  answers({.target = "/\xc3(" + std::string(300, 'x')}, {404});
  // (Random requests are the weather service fuzzer's.)
}

// ---- The transport -----------------------------------------------------------------------------

// A raw client on 127.0.0.1, for what the library's own client would never send.
class RawClient {
 public:
  explicit RawClient(int port) : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{.sin_family = AF_INET, .sin_port = htons(static_cast<std::uint16_t>(port)), .sin_addr = {}};
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = ::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }
  ~RawClient() { ::close(fd_); }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  bool send(std::string_view bytes) {
    return connected_ && ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }
  // Everything received until one whole answer is there, the connection closes or `limit`
  // passes.
  std::string answer(std::chrono::milliseconds limit = 5s) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!whole(received_) && !closed_) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
      pollfd readable{.fd = fd_, .events = POLLIN, .revents = 0};
      if (left.count() <= 0 || ::poll(&readable, 1, static_cast<int>(left.count())) <= 0) break;
      char buffer[65536];
      const ssize_t got = ::recv(fd_, buffer, sizeof buffer, 0);
      if (got <= 0) closed_ = true;
      if (got > 0) received_.append(buffer, static_cast<std::size_t>(got));
    }
    return std::exchange(received_, {});
  }
  [[nodiscard]] bool closed() const { return closed_; }

 private:
  static bool whole(const std::string& bytes) {
    const auto end = bytes.find("\r\n\r\n");
    if (end == std::string::npos) return false;
    const auto length = bytes.find("Content-Length: ");
    if (length == std::string::npos || length > end) return bytes.find(" 304 ") < end;
    return bytes.size() - end - 4 >= std::stoul(bytes.substr(length + 16));
  }

  int fd_;
  bool connected_ = false;
  bool closed_ = false;
  std::string received_;
};

const std::string kPlainForecast = "GET /forecast?skipcrypt=1&latitude=1&longitude=2 HTTP/1.1\r\nHost: x\r\n";

TEST(WeatherServiceTransport, SlowAndIdleClientsLeaveRoomForOthers) {
  weather::WeatherServiceOptions options;
  options.requestTimeLimit = 1s;
  weather::WeatherService service(options);
  service.start();
  // Clients that stop halfway through a head, and clients that keep their connection open
  // after one answer.
  std::vector<std::unique_ptr<RawClient>> slow;
  for (int i = 0; i < 16; ++i) {
    slow.push_back(std::make_unique<RawClient>(service.port()));
    ASSERT_TRUE(slow.back()->send("GET /forecast?skipcrypt=1 HTTP/1.1\r\n"));
  }
  const auto start = std::chrono::steady_clock::now();
  std::vector<std::unique_ptr<RawClient>> idle;
  for (int i = 0; i < 100; ++i) {
    idle.push_back(std::make_unique<RawClient>(service.port()));
    ASSERT_TRUE(idle.back()->send(kPlainForecast + "\r\n"));
  }
  for (auto& client : idle) ASSERT_EQ(client->answer().rfind("HTTP/1.1 200 OK\r\n", 0), 0u);
  RawClient fresh(service.port());
  ASSERT_TRUE(fresh.send(kPlainForecast + "\r\n"));
  EXPECT_EQ(fresh.answer().rfind("HTTP/1.1 200 OK\r\n", 0), 0u);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);

  // A head that keeps coming, a line at a time, is cut off at the limit for the whole
  // request, not only after a silence; the client waiting for an answer is told no more.
  RawClient trickle(service.port());
  ASSERT_TRUE(trickle.send(kPlainForecast));
  const auto trickleStart = std::chrono::steady_clock::now();
  for (int i = 0; i < 20 && !trickle.closed(); ++i) {
    (void)trickle.send("X-Line: " + std::to_string(i) + "\r\n");
    EXPECT_EQ(trickle.answer(200ms), "");
  }
  EXPECT_TRUE(trickle.closed());
  EXPECT_LT(std::chrono::steady_clock::now() - trickleStart, 2500ms);
}

TEST(WeatherServiceTransport, UntrustworthyLengthsAndRangesGetPlainRefusals) {
  weather::WeatherService service({});
  service.start();
  const struct {
    std::string fields;
    std::string_view status;
  } lengths[] = {
      {"Content-Length: 99999999999999999999\r\n", "400"},
      {"Content-Length: -1\r\n", "400"},
      {"Content-Length: 5\r\nContent-Length: 7\r\n", "400"},
      {"Content-Length: 5\r\nTransfer-Encoding: chunked\r\n", "400"},
      {"Transfer-Encoding: gzip\r\n", "400"},
      {"Content-Length: 2000000\r\n", "413"},
      {"X-Long: " + std::string(10000, 'x') + "\r\n", "431"},
  };
  for (const auto& c : lengths) {
    RawClient client(service.port());
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(client.send("POST /basicInfo?skipcrypt=1 HTTP/1.1\r\nHost: x\r\n" + c.fields + "\r\nhello"));
    const std::string answer = client.answer();
    EXPECT_EQ(answer.substr(0, 12), "HTTP/1.1 " + std::string(c.status)) << c.fields.substr(0, 60);
    EXPECT_NE(answer.find("\r\nConnection: close\r\n"), std::string::npos);
    EXPECT_NE(answer.find(R"("success":false)"), std::string::npos);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  }

  // A Range with 1,500 parts gets the whole answer once, on an error as on content.
  std::string ranges = "Range: bytes=-1";
  for (int i = 0; i < 1500; ++i) ranges += ",-1";
  for (const std::string target : {"/snowfall?skipcrypt=1", "/forecast?skipcrypt=1&latitude=1&longitude=2"}) {
    RawClient plain(service.port());
    ASSERT_TRUE(plain.send("GET " + target + " HTTP/1.1\r\nHost: x\r\n\r\n"));
    const std::string whole = plain.answer();
    RawClient ranged(service.port());
    ASSERT_TRUE(ranged.send("GET " + target + " HTTP/1.1\r\nHost: x\r\n" + ranges + "\r\n\r\n"));
    const std::string answer = ranged.answer();
    EXPECT_EQ(answer.substr(answer.find("\r\n\r\n")), whole.substr(whole.find("\r\n\r\n"))) << target;
    EXPECT_EQ(answer.substr(0, 15), whole.substr(0, 15));
  }
}

TEST(WeatherServiceTransport, FaultsComeAsTheSeedPlansThemAndAreCounted) {
  std::string error;
  EXPECT_FALSE(weather::FaultSpec::parse("cut=0.6,reset=0.6", &error));
  EXPECT_EQ(error, "the rates add up to more than 1");
  EXPECT_FALSE(weather::FaultSpec::parse("cut=0.1:2s"));
  EXPECT_FALSE(weather::FaultSpec::parse("stall=0.1"));

  // What a client sees of each of 24 answers ('.' whole, '5' a 500, 'x' cut or of a wrong
  // length), and the service's own counts.
  const auto observe = [](int seed) {
    weather::WeatherServiceOptions options;
    options.faults = *weather::FaultSpec::parse("cut=0.3,500=0.3,wrong-length=0.2,seed=" + std::to_string(seed));
    weather::WeatherService service(options);
    service.start();
    std::string seen;
    for (int i = 0; i < 24; ++i) {
      RawClient client(service.port());
      EXPECT_TRUE(client.send(kPlainForecast + "Connection: close\r\n\r\n"));
      std::string bytes;
      for (int reads = 0; reads < 20 && !client.closed(); ++reads) bytes += client.answer(500ms);
      const auto head = bytes.find("\r\n\r\n");
      const auto length = bytes.find("Content-Length: ");
      const bool whole = head != std::string::npos && length < head &&
                         bytes.find("Content-Length: ", length + 1) > head &&
                         std::stoul(bytes.substr(length + 16)) == bytes.size() - head - 4;
      seen += bytes.starts_with("HTTP/1.1 500 ") ? '5' : whole ? '.' : 'x';
    }
    RawClient status(service.port());
    EXPECT_TRUE(status.send("GET /_faults HTTP/1.1\r\nHost: x\r\n\r\n"));
    return std::pair(seen, status.answer());
  };
  const auto [seen, counts] = observe(3);
  EXPECT_EQ(observe(3).first, seen);
  EXPECT_NE(observe(4).first, seen);
  for (char kind : {'.', '5', 'x'}) EXPECT_NE(seen.find(kind), std::string::npos) << seen;
  const auto fives = std::count(seen.begin(), seen.end(), '5');
  EXPECT_NE(counts.find(R"({"answers":24,"seed":3,"injected":{)"), std::string::npos) << counts;
  EXPECT_NE(counts.find(R"("500":)" + std::to_string(fives) + ","), std::string::npos) << counts << " for " << seen;
}

}  // namespace
}  // namespace kp
