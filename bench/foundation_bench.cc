// Foundation helpers against the code they replace, in the same run: safe element access
// against at() with a caught exception, the ordered set against a bare std::unordered_map
// (which keeps no order), and key-path reads against the same lookups written by hand on
// Boost.JSON. Colour reading is measured alone, in colours per second.
#include <benchmark/benchmark.h>

#include <boost/json.hpp>
#include <random>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "kp/foundation/color.h"
#include "kp/foundation/json.h"
#include "kp/foundation/ordered_set.h"
#include "kp/foundation/safe_access.h"

namespace {

constexpr std::size_t kElements = 1024;

// Indexes in a pseudo-random order, so that the loop cannot be folded away; out of range ones
// lie past the end by up to kElements.
std::vector<std::size_t> indexes(bool inRange) {
  std::mt19937 random(11);
  std::vector<std::size_t> out(4096);
  for (auto& i : out) i = random() % kElements + (inRange ? 0 : kElements);
  return out;
}

void BM_SafeAccessBaselineAtWithCatch(benchmark::State& state) {
  const std::vector<int> values(kElements, 3);
  const auto order = indexes(state.range(0) != 0);
  long sum = 0;
  for (auto _ : state) {
    for (const std::size_t i : order) {
      try {
        sum += values.at(i);
      } catch (const std::out_of_range&) {
        sum -= 1;
      }
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * order.size()));
}
BENCHMARK(BM_SafeAccessBaselineAtWithCatch)->ArgName("inRange")->Arg(1)->Arg(0);

void BM_SafeAccessElementAt(benchmark::State& state) {
  const std::vector<int> values(kElements, 3);
  const auto order = indexes(state.range(0) != 0);
  long sum = 0;
  for (auto _ : state) {
    for (const std::size_t i : order) {
      if (const int* value = kp::elementAt(values, i)) {
        sum += *value;
      } else {
        sum -= 1;
      }
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * order.size()));
}
BENCHMARK(BM_SafeAccessElementAt)->ArgName("inRange")->Arg(1)->Arg(0);

// Place names as a list of saved places holds them; every second lookup misses.
std::vector<std::string> placeNames() {
  std::vector<std::string> out;
  for (std::size_t i = 0; i < kElements; ++i) out.push_back("place-" + std::to_string(i * 7919 % 100003));
  return out;
}

// Builds the collection from the names (build = 1) or only looks each name up in it, with as
// many misses (build = 0).
template <class Collection, class Insert, class Find>
void runCollection(benchmark::State& state, Insert insert, Find find) {
  const auto names = placeNames();
  std::vector<std::string> probes = names;
  for (const auto& name : names) probes.push_back(name + "-gone");
  const bool build = state.range(0) != 0;
  Collection built;
  for (const auto& name : names) insert(built, name);
  long sum = 0;
  for (auto _ : state) {
    if (build) {
      Collection collection;
      for (const auto& name : names) insert(collection, name);
      benchmark::DoNotOptimize(collection);
    } else {
      for (const auto& probe : probes) sum += find(built, probe);
      benchmark::DoNotOptimize(sum);
    }
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * (build ? names.size() : probes.size())));
}

void BM_OrderedSetBaselineUnorderedMap(benchmark::State& state) {
  using Map = std::unordered_map<std::string, std::size_t>;
  runCollection<Map>(
      state, [](Map& map, const std::string& name) { map.try_emplace(name, map.size()); },
      [](const Map& map, const std::string& name) {
        const auto at = map.find(name);
        return at == map.end() ? -1L : static_cast<long>(at->second);
      });
}
BENCHMARK(BM_OrderedSetBaselineUnorderedMap)->ArgName("build")->Arg(1)->Arg(0);

void BM_OrderedSet(benchmark::State& state) {
  using Set = kp::OrderedSet<std::string>;
  runCollection<Set>(
      state, [](Set& set, const std::string& name) { set.insert(name); },
      [](const Set& set, const std::string& name) {
        const auto index = set.indexOf(name);
        return index ? static_cast<long>(*index) : -1L;
      });
}
BENCHMARK(BM_OrderedSet)->ArgName("build")->Arg(1)->Arg(0);

void BM_ColorParse(benchmark::State& state) {
  static const std::vector<std::string> mixes[] = {
      {"#ff8800", "#F80", "#12345678", "#abcd"},
      {"rgb(255, 128, 0)", "rgba(100%, 50%, 0%, 0.5)", "rgb(12 34 56 / 50%)"},
      {"cornflowerblue", "RebeccaPurple", "white", "transparent"},
  };
  const auto& texts = mixes[state.range(0)];
  unsigned sum = 0;
  for (auto _ : state) {
    for (const std::string& text : texts) sum += kp::Color::parse(text)->red;
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * texts.size()));
  state.SetLabel(state.range(0) == 0 ? "hex" : state.range(0) == 1 ? "rgb()" : "named");
}
BENCHMARK(BM_ColorParse)->DenseRange(0, 2);

// A forecast as a weather service answers it: a current block and a week of days.
const std::string& forecastText() {
  static const std::string text = [] {
    std::string s = R"({"place":{"name":"Zurich","lat":47.37,"lon":8.54,"elevation":408},)"
                    R"("current":{"time":1700000000,"temperature":21.5,"feelsLike":20.1,"humidity":0.61,)"
                    R"("wind":3.4,"gusts":7.9,"direction":250,"pressure":1013.2,"symbol":"partly_cloudy","day":true},)"
                    R"("days":[)";
    for (int d = 0; d < 7; ++d) {
      if (d) s += ',';
      s += R"({"date":"2024-06-0)" + std::to_string(d + 1) + R"(","high":)" + std::to_string(20 + d) + R"(,"low":)" +
           std::to_string(10 + d) + R"(,"rain":0.2,"symbol":"sunny"})";
    }
    return s + "]}";
  }();
  return text;
}

double numberOf(const boost::json::value& v) {
  if (v.is_double()) return v.get_double();
  if (v.is_int64()) return static_cast<double>(v.get_int64());
  if (v.is_uint64()) return static_cast<double>(v.get_uint64());
  return 0;
}

// The two reads: "current.temperature" and "days.3.high".
void BM_KeyPathBaselineBoostByHand(benchmark::State& state) {
  const boost::json::value root = boost::json::parse(forecastText());
  double sum = 0;
  for (auto _ : state) {
    if (const auto* top = root.if_object()) {
      if (const auto* current = top->if_contains("current")) {
        if (const auto* fields = current->if_object()) {
          if (const auto* t = fields->if_contains("temperature"); t && t->is_number()) sum += numberOf(*t);
        }
      }
      if (const auto* days = top->if_contains("days")) {
        if (const auto* list = days->if_array(); list && list->size() > 3) {
          if (const auto* day = (*list)[3].if_object()) {
            if (const auto* high = day->if_contains("high"); high && high->is_number()) sum += numberOf(*high);
          }
        }
      }
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * 2));
}
BENCHMARK(BM_KeyPathBaselineBoostByHand);

void BM_KeyPathRead(benchmark::State& state) {
  const kp::JsonValue root = *kp::parseJson(forecastText());
  double sum = 0;
  for (auto _ : state) {
    sum += kp::jsonValueAtKeyPath<double>(root, "current.temperature").value_or(0);
    sum += kp::jsonValueAtKeyPath<double>(root, "days.3.high").value_or(0);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * 2));
}
BENCHMARK(BM_KeyPathRead);

void BM_JsonPointerRead(benchmark::State& state) {
  const kp::JsonValue root = *kp::parseJson(forecastText());
  double sum = 0;
  for (auto _ : state) {
    sum += kp::jsonValueAtPointer<double>(root, "/current/temperature").value_or(0);
    sum += kp::jsonValueAtPointer<double>(root, "/days/3/high").value_or(0);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * 2));
}
BENCHMARK(BM_JsonPointerRead);

}  // namespace
