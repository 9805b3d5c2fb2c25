// The payload cipher and Base64 against OpenSSL called directly, 1 MiB each; opening a
// service answer (Base64, decrypt, parse) against OpenSSL and Boost.JSON called directly;
// decoding a forecast answer into typed values against parsing it alone; forecast calls to
// the local weather service through the facades against raw libcurl and OpenSSL.
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <openssl/evp.h>

#include <algorithm>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <cstring>
#include <ctime>
#include <random>
#include <vector>

#include "forecast_model.h"
#include "kp/service/encryption.h"
#include "kp/service/tarvix_web_service.h"
#include "weather_protocol.h"
#include "weather_service.h"

namespace {

constexpr std::size_t kSize = 1 << 20;
const std::string kKey = "Qw7rT2mZx9LpB4nVc8KdS1hYf6GjU3aE";
const std::string kResponseKey = "Zt3Lm8QxW5rN2kPv9BcH7jDs4YfG1uEa";

std::span<const std::uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

const kp::Data& plain() {
  static const kp::Data data = [] {
    std::mt19937 rng(1);
    kp::Data d = kp::Data::zeros(kSize);
    for (auto& b : d) b = static_cast<std::uint8_t>(rng());
    return d;
  }();
  return data;
}

// The baseline: a fresh output buffer, one context, one update and final.
std::vector<std::uint8_t> evpCrypt(int encrypt, const std::uint8_t* in, std::size_t size) {
  unsigned char key[32] = {};
  std::memcpy(key, kKey.data(), 32);
  static constexpr unsigned char iv[16] = {};
  std::vector<std::uint8_t> out(size + 16);
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  EVP_CipherInit_ex2(ctx, EVP_aes_256_cbc(), key, iv, encrypt, nullptr);
  int a = 0, b = 0;
  EVP_CipherUpdate(ctx, out.data(), &a, in, static_cast<int>(size));
  EVP_CipherFinal_ex(ctx, out.data() + a, &b);
  EVP_CIPHER_CTX_free(ctx);
  out.resize(static_cast<std::size_t>(a + b));
  return out;
}

void BM_Encrypt_Evp(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(evpCrypt(1, plain().data(), kSize));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kSize));
}
void BM_Encrypt_Kp(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(kp::aes256Encrypt(plain().bytes(), kKey));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kSize));
}
void BM_Decrypt_Evp(benchmark::State& state) {
  const auto cipher = evpCrypt(1, plain().data(), kSize);
  for (auto _ : state) benchmark::DoNotOptimize(evpCrypt(0, cipher.data(), cipher.size()));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kSize));
}
void BM_Decrypt_Kp(benchmark::State& state) {
  const auto cipher = *kp::aes256Encrypt(plain().bytes(), kKey);
  for (auto _ : state) benchmark::DoNotOptimize(kp::aes256Decrypt(cipher.bytes(), kKey));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kSize));
}

// EVP_EncodeBlock / EVP_DecodeBlock into fresh buffers (no line breaks: OpenSSL's block
// functions have no such form).
void BM_Base64Encode_Evp(benchmark::State& state) {
  for (auto _ : state) {
    std::string out((kSize + 2) / 3 * 4 + 1, '\0');
    EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), plain().data(), static_cast<int>(kSize));
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kSize));
}
void BM_Base64Encode_Kp(benchmark::State& state) {
  const auto options = static_cast<kp::Base64EncodingOptions>(state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(kp::base64Encode(plain().bytes(), options));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kSize));
}
void BM_Base64Decode_Evp(benchmark::State& state) {
  const std::string text = kp::base64Encode(plain().bytes());
  for (auto _ : state) {
    std::vector<unsigned char> out(text.size() / 4 * 3);
    benchmark::DoNotOptimize(EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(text.data()),
                                             static_cast<int>(text.size())));
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kSize));
}
void BM_Base64Decode_Kp(benchmark::State& state) {
  const bool lines = state.range(0) != 0;
  const std::string text = kp::base64Encode(
      plain().bytes(), lines ? kp::Base64EncodingOptions::lineLength64Characters : kp::Base64EncodingOptions::none);
  const auto options = lines ? kp::Base64DecodingOptions::ignoreUnknownCharacters : kp::Base64DecodingOptions::none;
  for (auto _ : state) benchmark::DoNotOptimize(kp::base64Decode(text, options));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kSize));
}

// An encrypted envelope of 85 KB (within a few hundred bytes) as the local weather service
// seals it: forecasts for a row of places under "data", the last one cut to size.
const std::string& envelope85k() {
  static const std::string sealed = [] {
    constexpr std::size_t kTarget = 85 * 1024;
    const kp::weather::WeatherProtocol service({});
    boost::json::array forecasts;
    auto seal = [&forecasts] {
      const boost::json::object envelope{
          {"success", true}, {"meta", {{"statusCode", 200}, {"code", 200}}}, {"data", forecasts}};
      return kp::base64Encode(kp::aes256Encrypt(bytesOf(boost::json::serialize(envelope)), kResponseKey)->bytes());
    };
    std::string body;
    for (int place = 0; body.size() < kTarget; ++place) {
      const std::string query = "latitude=" + std::to_string(40 + place % 20) + "&longitude=" + std::to_string(place);
      const auto answer = service.answer({.target = "/forecast?skipcrypt=1&" + query});
      forecasts.push_back(boost::json::parse(answer.body).at("data"));
      body = seal();
      auto& hourly = forecasts.back().at("hourly").as_array();
      while (body.size() > kTarget + 512 && !hourly.empty()) {
        hourly.pop_back();
        body = seal();
      }
    }
    return body;
  }();
  return sealed;
}

// The three steps by hand: EVP_DecodeBlock, one EVP decryption, boost::json::parse.
boost::json::value openWithOpenSsl(const std::string& text) {
  std::vector<unsigned char> cipher(text.size() / 4 * 3);
  int length = EVP_DecodeBlock(cipher.data(), reinterpret_cast<const unsigned char*>(text.data()),
                               static_cast<int>(text.size()));
  length -= static_cast<int>(std::count(text.end() - 2, text.end(), '='));  // the block function keeps padding
  unsigned char key[32] = {};
  std::memcpy(key, kResponseKey.data(), 32);
  static constexpr unsigned char iv[16] = {};
  std::string plain(static_cast<std::size_t>(length) + 16, '\0');
  // Fetched once, as a careful caller would: an implicit fetch per call costs more than the
  // cipher on short inputs.
  static EVP_CIPHER* const aes = EVP_CIPHER_fetch(nullptr, "AES-256-CBC", nullptr);
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  EVP_DecryptInit_ex2(ctx, aes, key, iv, nullptr);
  int a = 0, b = 0;
  EVP_DecryptUpdate(ctx, reinterpret_cast<unsigned char*>(plain.data()), &a, cipher.data(), length);
  EVP_DecryptFinal_ex(ctx, reinterpret_cast<unsigned char*>(plain.data()) + a, &b);
  EVP_CIPHER_CTX_free(ctx);
  plain.resize(static_cast<std::size_t>(a + b));
  return boost::json::parse(plain);
}

void BM_OpenEnvelope85k_OpenSslBoostJson(benchmark::State& state) {
  const std::string& text = envelope85k();
  if (openWithOpenSsl(text).at("data").as_array().empty()) state.SkipWithError("the envelope did not open");
  for (auto _ : state) benchmark::DoNotOptimize(openWithOpenSsl(text));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
  state.counters["envelope_bytes"] = static_cast<double>(text.size());
}
void BM_OpenEnvelope85k_Kp(benchmark::State& state) {
  const std::string& text = envelope85k();
  const auto bytes = bytesOf(text);
  const auto opened = kp::TarvixServiceEncryptionHelper::decryptData(bytes, kResponseKey);
  if (!opened || (*opened)["data"].size() == 0) state.SkipWithError("the envelope did not open");
  for (auto _ : state) benchmark::DoNotOptimize(kp::TarvixServiceEncryptionHelper::decryptData(bytes, kResponseKey));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

// One plain forecast answer of the local weather service (about 14 KB: 48 hours, 7 days).
const std::string& forecastAnswer() {
  static const std::string body =
      kp::weather::WeatherProtocol({}).answer({.target = "/forecast?skipcrypt=1&latitude=52.37&longitude=4.9"}).body;
  return body;
}

void BM_ForecastParse_BoostJson(benchmark::State& state) {
  const std::string& body = forecastAnswer();
  for (auto _ : state) benchmark::DoNotOptimize(boost::json::parse(body));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * body.size()));
}

// What the facade's request does with the answer: the decodable handler decodes the envelope
// and the forecast into typed values.
void BM_ForecastDecodeTyped_Kp(benchmark::State& state) {
  const std::string& body = forecastAnswer();
  kp::DecodableTarvixWebService service("http://127.0.0.1:1");
  service.encryptionDetails.skipEncryptionAndDecryption = true;
  auto request = service.createRequest<kp::weather::Forecast>("forecast");
  auto handler = std::dynamic_pointer_cast<kp::HttpRequestHandler>(request->handler());
  handler->request = request;
  handler->receivedData = kp::Data::fromString(body);
  using Result = kp::DecodableTarvixServiceResult<kp::weather::Forecast>;
  const std::any first = handler->processReceivedData();
  const auto* decoded = std::any_cast<Result>(&first);
  if (!decoded || !decoded->data || decoded->data->hourly.size() != 48) state.SkipWithError("no forecast decoded");
  for (auto _ : state) benchmark::DoNotOptimize(handler->processReceivedData());
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * body.size()));
  state.counters["answer_bytes"] = static_cast<double>(body.size());
}

BENCHMARK(BM_ForecastParse_BoostJson);
BENCHMARK(BM_ForecastDecodeTyped_Kp);
BENCHMARK(BM_OpenEnvelope85k_OpenSslBoostJson);
BENCHMARK(BM_OpenEnvelope85k_Kp);
BENCHMARK(BM_Encrypt_Evp);
BENCHMARK(BM_Encrypt_Kp);
BENCHMARK(BM_Decrypt_Evp);
BENCHMARK(BM_Decrypt_Kp);
BENCHMARK(BM_Base64Encode_Evp);
BENCHMARK(BM_Base64Encode_Kp)->Arg(0)->Arg(1);
BENCHMARK(BM_Base64Decode_Evp);
BENCHMARK(BM_Base64Decode_Kp)->Arg(0)->Arg(1);

}  // namespace

// MARK: - Forecast calls against the local weather service over loopback.

namespace {

double processCpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Requests per second, and the process's CPU time per call (the in-process service's
// included): a figure that the load of a shared machine skews far less than wall time.
void countCalls(benchmark::State& state, double cpuAtStart) {
  state.counters["calls/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  state.counters["cpu_us/call"] = (processCpuSeconds() - cpuAtStart) * 1e6 / static_cast<double>(state.iterations());
}

kp::weather::WeatherService& localService() {
  static kp::weather::WeatherService* const service = [] {
    auto* s = new kp::weather::WeatherService({});
    s->start();
    return s;
  }();
  return *service;
}

// The plain query the library seals: the common parameters, then the place.
std::string plainForecastQuery() {
  std::string query = kp::HttpRequestParameter::makeParameterString(kp::TarvixWebServiceParameters().queryParameters());
  return query + "&latitude=52.37&longitude=4.90";
}

size_t appendToString(char* bytes, size_t size, size_t count, void* user) {
  static_cast<std::string*>(user)->append(bytes, size * count);
  return size * count;
}

// Base64 of AES-256-CBC by EVP, as the service protocol seals a query.
std::string evpSealBase64(const std::string& plain, const std::string& key) {
  unsigned char keyBytes[32] = {};
  std::memcpy(keyBytes, key.data(), std::min<std::size_t>(key.size(), 32));
  static constexpr unsigned char iv[16] = {};
  static EVP_CIPHER* const aes = EVP_CIPHER_fetch(nullptr, "AES-256-CBC", nullptr);
  std::vector<unsigned char> cipher(plain.size() + 16);
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  EVP_EncryptInit_ex2(ctx, aes, keyBytes, iv, nullptr);
  int a = 0, b = 0;
  EVP_EncryptUpdate(ctx, cipher.data(), &a, reinterpret_cast<const unsigned char*>(plain.data()),
                    static_cast<int>(plain.size()));
  EVP_EncryptFinal_ex(ctx, cipher.data() + a, &b);
  EVP_CIPHER_CTX_free(ctx);
  std::string text(static_cast<std::size_t>(a + b + 2) / 3 * 4 + 1, '\0');
  text.resize(
      static_cast<std::size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), cipher.data(), a + b)));
  return text;
}

// The same call by hand: the query sealed with EVP and percent-encoded, a POST on one easy
// handle that keeps its connection, the answer opened with EVP and parsed with Boost.JSON.
void BM_ForecastCalls_RawCurlOpenSsl(benchmark::State& state) {
  const std::string base = localService().baseUrl() + "/forecast?data=";
  const double cpuAtStart = processCpuSeconds();
  CURL* easy = curl_easy_init();
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_POSTFIELDS, "");
  curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
  std::string body;
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &appendToString);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &body);
  for (auto _ : state) {
    std::string url = base;
    for (char c : evpSealBase64(plainForecastQuery(), kKey)) {
      if (c == '+')
        url += "%2B";
      else if (c == '/')
        url += "%2F";
      else if (c == '=')
        url += "%3D";
      else
        url += c;
    }
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    body.clear();
    if (curl_easy_perform(easy) != CURLE_OK) state.SkipWithError("transfer failed");
    const boost::json::value answer = openWithOpenSsl(body);
    if (answer.at("data").at("hourly").as_array().size() != 48) state.SkipWithError("no forecast");
  }
  curl_slist_free_all(headers);
  curl_easy_cleanup(easy);
  countCalls(state, cpuAtStart);
}

template <class Facade>
Facade sharedSessionFacade(const std::shared_ptr<kp::UrlSession>& session) {
  Facade service(localService().baseUrl());
  service.urlSession = session;
  service.encryptionDetails.bodyEncryptionKey = std::string(kp::kClientInfoBodyEncryptionKey);
  service.encryptionDetails.responseDecryptionKey = kResponseKey;
  return service;
}

// Through TarvixWebService: a new request per call on one shared session, run synchronously.
void BM_ForecastCalls_Kp(benchmark::State& state) {
  const double cpuAtStart = processCpuSeconds();
  auto session = kp::UrlSession::make({}, std::make_shared<kp::HttpRequestURLSessionDelegateHandler>());
  const auto service = sharedSessionFacade<kp::TarvixWebService>(session);
  for (auto _ : state) {
    auto request = service.createRequestFor("forecast");
    request->httpConfig()->addQuery("52.37", "latitude");
    request->httpConfig()->addQuery("4.90", "longitude");
    const auto result = request->executeSynchronously();
    if (!result || !result->dataAsJson() || (*result->dataAsJson())["hourly"].size() != 48) {
      state.SkipWithError("no forecast");
    }
  }
  session->invalidateAndCancel();
  countCalls(state, cpuAtStart);
}

// Through DecodableTarvixWebService, decoded into typed values.
void BM_ForecastCalls_KpTyped(benchmark::State& state) {
  const double cpuAtStart = processCpuSeconds();
  auto session = kp::UrlSession::make({}, std::make_shared<kp::HttpRequestURLSessionDelegateHandler>());
  const auto service = sharedSessionFacade<kp::DecodableTarvixWebService>(session);
  for (auto _ : state) {
    auto request = service.createRequest<kp::weather::Forecast>("forecast");
    request->httpConfig()->addQuery("52.37", "latitude");
    request->httpConfig()->addQuery("4.90", "longitude");
    const auto result = request->executeSynchronously();
    if (!result || !result->data || result->data->hourly.size() != 48) state.SkipWithError("no forecast");
  }
  session->invalidateAndCancel();
  countCalls(state, cpuAtStart);
}

BENCHMARK(BM_ForecastCalls_RawCurlOpenSsl)->UseRealTime();
BENCHMARK(BM_ForecastCalls_Kp)->UseRealTime();
BENCHMARK(BM_ForecastCalls_KpTyped)->UseRealTime();

}  // namespace
