// Building the wire request: 12 query and 4 body parameters, both parts encrypted.
#include <benchmark/benchmark.h>

#include "kp/request/url_request_factory.h"
#include "kp/service/encryption.h"

namespace {

const std::string kQueryKey = "Qw7rT2mZx9LpB4nVc8KdS1hYf6GjU3aE";
const std::string kBodyKey = "Hn4Xk9PzR2wLq7TbM5vC8dJs1YgF6uAe";

std::shared_ptr<kp::HttpRequest> makeRequest() {
  auto request = kp::HttpRequest::make(*kp::Url::parse("https://api.example.com/v3/forecast/hourly"));
  auto& config = *request->httpConfig();
  const char* names[] = {"lat", "lon", "lang", "units", "days", "hours", "tz", "app", "ver", "os", "device", "id"};
  const char* values[] = {"52.5200",       "13.4050", "de-DE", "metric",    "7",        "48",
                          "Europe/Berlin", "weather", "5.2.0", "Linux 6.1", "Desk Top", "a1b2c3d4e5f6"};
  for (int i = 0; i < 12; ++i) config.addQuery(values[i], names[i]);
  config.addBody("push token with spaces & symbols", "token");
  config.addBody("1", "consent");
  config.addBody("2024-06-11T10:00:00Z", "since");
  config.addBody(std::nullopt, "flag");
  config.method = kp::HttpRequestMethod::post;
  config.setHeader("application/x-www-form-urlencoded", "Content-Type");
  config.etag = "\"abc\"";
  return request;
}

void BM_CreateUrlRequest_Encrypted(benchmark::State& state) {
  auto request = makeRequest();
  for (auto _ : state) benchmark::DoNotOptimize(kp::UrlRequestFactory::createUrlRequest(*request, kQueryKey, kBodyKey));
}
void BM_CreateUrlRequest_Plain(benchmark::State& state) {
  auto request = makeRequest();
  for (auto _ : state) benchmark::DoNotOptimize(kp::UrlRequestFactory::createUrlRequest(*request));
}
// The parts, to see what dominates.
void BM_Part_AppendQuery(benchmark::State& state) {
  auto request = makeRequest();
  for (auto _ : state) benchmark::DoNotOptimize(request->completeUrl());
}
void BM_Part_EncryptUrl(benchmark::State& state) {
  const kp::Url url = makeRequest()->completeUrl();
  for (auto _ : state) benchmark::DoNotOptimize(kp::TarvixServiceEncryptionHelper::encrypt(url, kQueryKey));
}
void BM_Part_UrlParse(benchmark::State& state) {
  const std::string text = makeRequest()->completeUrl().absoluteString();
  for (auto _ : state) benchmark::DoNotOptimize(kp::Url::parse(text));
}
void BM_Part_Aes256Encrypt300Bytes(benchmark::State& state) {
  const std::string text(300, 'x');
  for (auto _ : state) benchmark::DoNotOptimize(kp::aes256EncryptString(text, kQueryKey));
}
void BM_Part_CacheKey(benchmark::State& state) {
  auto request = makeRequest();
  for (auto _ : state) benchmark::DoNotOptimize(kp::HttpRequestTypeCacheKeyGenerator::generate(*request));
}

BENCHMARK(BM_CreateUrlRequest_Encrypted);
BENCHMARK(BM_CreateUrlRequest_Plain);
BENCHMARK(BM_Part_AppendQuery);
BENCHMARK(BM_Part_EncryptUrl);
BENCHMARK(BM_Part_UrlParse);
BENCHMARK(BM_Part_Aes256Encrypt300Bytes);
BENCHMARK(BM_Part_CacheKey);

}  // namespace
