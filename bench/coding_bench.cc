// Coding layer benchmarks. Baselines run in the same process: boost::json::parse for the
// dynamic JSON value, and the dynamic parse itself for typed decoding.
#include <benchmark/benchmark.h>

#include <boost/json.hpp>
#include <random>

#include "kp/coding/json.h"
#include "kp/coding/property_list.h"
#include "kp/foundation/json.h"

namespace {

struct Small {
  std::string name;
  std::int64_t count = 0;
  double ratio = 0;
  bool enabled = false;
  kp::Date updated;
  kp::Data payload;
  std::optional<std::string> note;
};
BOOST_DESCRIBE_STRUCT(Small, (), (name, count, ratio, enabled, updated, payload, note))

void BM_PropertyListRoundTripSmallRecord(benchmark::State& state) {
  Small s{"Zurich", 42, 0.5, true, kp::Date::now(), kp::Data::zeros(1024), "note"};
  const kp::PropertyListEncoder encoder;
  const kp::PropertyListDecoder decoder;
  for (auto _ : state) {
    const kp::Data bytes = encoder.encode(s);
    Small back = decoder.decode<Small>(bytes);
    benchmark::DoNotOptimize(back);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PropertyListRoundTripSmallRecord);

struct Hour {
  std::int64_t time = 0;
  double temperature = 0;
  double wind = 0;
  std::string symbol;
  bool day = false;
};
BOOST_DESCRIBE_STRUCT(Hour, (), (time, temperature, wind, symbol, day))
struct Forecast {
  std::string city;
  std::vector<Hour> hours;
};
BOOST_DESCRIBE_STRUCT(Forecast, (), (city, hours))

const std::string& document() {
  static const std::string doc = [] {
    std::mt19937 rng(7);
    std::string s = R"({"city":"Zurich","hours":[)";
    for (int i = 0; s.size() < 100 * 1024; ++i) {
      if (i) s += ',';
      s += R"({"time":)" + std::to_string(1700000000 + i * 3600) + R"(,"temperature":)" +
           std::to_string(static_cast<double>(rng() % 4000) / 100.0 - 10) + R"(,"wind":)" +
           std::to_string(static_cast<double>(rng() % 300) / 10.0) + R"(,"symbol":"partly_cloudy_)" +
           std::to_string(rng() % 9) + R"(","day":)" + (i % 24 < 12 ? "true" : "false") + "}";
    }
    return s + "]}";
  }();
  return doc;
}

void BM_JsonBaselineBoostParse(benchmark::State& state) {
  const std::string& doc = document();
  for (auto _ : state) {
    boost::json::value v = boost::json::parse(doc);
    benchmark::DoNotOptimize(v);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * doc.size()));
}
BENCHMARK(BM_JsonBaselineBoostParse);

void BM_JsonDynamicParse(benchmark::State& state) {
  const kp::Data doc = kp::Data::fromString(document());
  for (auto _ : state) {
    auto v = kp::objectFromJSONData(doc);
    benchmark::DoNotOptimize(v);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * doc.size()));
}
BENCHMARK(BM_JsonDynamicParse);

void BM_JsonTypedDecode(benchmark::State& state) {
  const kp::Data doc = kp::Data::fromString(document());
  const kp::JsonDecoder decoder;
  for (auto _ : state) {
    Forecast f = decoder.decode<Forecast>(doc);
    benchmark::DoNotOptimize(f);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * doc.size()));
}
BENCHMARK(BM_JsonTypedDecode);

}  // namespace
