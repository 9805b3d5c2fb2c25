// Resolution of an already-made service: the container, Services without an override, a
// LazyDependency, against a bare mutex plus type-indexed hash map in the same run.
#include <benchmark/benchmark.h>

#include <memory>
#include <mutex>
#include <typeindex>
#include <unordered_map>

#include "kp/container/dependency.h"
#include "kp/container/services.h"

namespace {

template <int N>
class Svc : public virtual tarvix::Service {
 public:
  virtual int id() const { return N; }
};
template <int N>
class Impl final : public Svc<N> {};

using Target = Svc<5>;

// Eight registered services, as in a small application.
template <class Container>
void registerEight(Container& c) {
  [&]<int... I>(std::integer_sequence<int, I...>) {
    (c.template registerInstance<Svc<I>>(std::make_shared<Impl<I>>()), ...);
  }
  (std::make_integer_sequence<int, 8>{});
}

struct Baseline {
  std::mutex mutex;
  std::unordered_map<std::type_index, std::shared_ptr<void>> map;
  Baseline() {
    [&]<int... I>(std::integer_sequence<int, I...>) {
      ((map[typeid(Svc<I>)] = std::static_pointer_cast<void>(std::make_shared<Impl<I>>())), ...);
    }
    (std::make_integer_sequence<int, 8>{});
  }
  template <class S>
  std::shared_ptr<S> get() {
    std::lock_guard lock(mutex);
    return std::static_pointer_cast<S>(map.find(typeid(S))->second);
  }
};

Baseline& baseline() {
  static Baseline b;
  return b;
}

kp::DefaultServiceContainer& container() {
  static auto* c = [] {
    auto* made = new kp::DefaultServiceContainer;
    registerEight(*made);
    (void)made->safeGet<Target>();
    return made;
  }();
  return *c;
}

kp::Services& services() {
  static auto* s = [] {
    auto* made = new kp::Services(std::make_shared<kp::DefaultServiceContainer>());
    registerEight(*made);
    (void)made->safeGet<Target>();
    return made;
  }();
  return *s;
}

void BM_BaselineMutexMap(benchmark::State& state) {
  auto& b = baseline();
  for (auto _ : state) benchmark::DoNotOptimize(b.get<Target>());
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BaselineMutexMap)->UseRealTime();
BENCHMARK(BM_BaselineMutexMap)->Threads(2)->UseRealTime();

void BM_ContainerResolve(benchmark::State& state) {
  auto& c = container();
  for (auto _ : state) benchmark::DoNotOptimize(c.safeGet<Target>());
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ContainerResolve)->UseRealTime();
BENCHMARK(BM_ContainerResolve)->Threads(2)->UseRealTime();

void BM_ServicesResolveNoOverride(benchmark::State& state) {
  auto& s = services();
  for (auto _ : state) benchmark::DoNotOptimize(s.safeGet<Target>());
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ServicesResolveNoOverride)->UseRealTime();

void BM_ServicesResolveWithOverride(benchmark::State& state) {
  auto& s = services();
  kp::withDependencies([](kp::DefaultServiceContainer& c) { c.registerInstance<Svc<9>>(std::make_shared<Impl<9>>()); },
                       [&] {
                         for (auto _ : state) benchmark::DoNotOptimize(s.safeGet<Target>());
                       });
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ServicesResolveWithOverride)->UseRealTime();

void BM_LazyDependencyRead(benchmark::State& state) {
  auto shared = std::shared_ptr<kp::Services>(&services(), [](kp::Services*) {});
  kp::LazyDependency<Target> lazy(shared);
  for (auto _ : state) benchmark::DoNotOptimize(lazy->id());
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LazyDependencyRead)->UseRealTime();

}  // namespace
