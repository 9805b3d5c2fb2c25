// Keyed storage and the keychain against their baselines, measured in the same run:
//   user-defaults reads against a std::mutex plus a hash map lookup of the same value;
//   a burst of 10,000 writes against the same inserts into that map, with the number of
//   times the suite file was written (counter fileWrites, per burst);
//   keychain round trips (write then read) against libsecret's own password calls, both on
//   a private GNOME Keyring.
#include <benchmark/benchmark.h>
#include <libsecret/secret.h>

#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>

#include "kp/platform/string_map.h"
#include "kp/storage/dictionary_storage.h"
#include "kp/storage/keychain.h"
#include "kp/storage/user_defaults.h"
#include "support/secret_service.h"
#include "support/temp_dir.h"

namespace {

constexpr int kKeys = 100;

std::string keyName(int i) { return "key" + std::to_string(i); }

// A suite of 100 integers and one text, in a folder of its own.
const std::shared_ptr<kp::UserDefaults>& suite() {
  static kp::test::TempDir folder;
  static const std::shared_ptr<kp::UserDefaults> defaults = [] {
    ::setenv("XDG_CONFIG_HOME", folder.path().c_str(), 1);
    auto d = kp::UserDefaults::suite("bench");
    for (int i = 0; i < kKeys; ++i) d->setInteger(i, keyName(i));
    d->setObject(std::string("metric"), "units");
    d->synchronize();
    return d;
  }();
  return defaults;
}

struct LockedMap {
  std::mutex mutex;
  kp::StringMap<std::int64_t> integers;
  kp::StringMap<std::string> texts;
  LockedMap() {
    for (int i = 0; i < kKeys; ++i) integers.emplace(keyName(i), i);
    texts.emplace("units", "metric");
  }
};

void BM_Baseline_LockedMapInteger(benchmark::State& state) {
  LockedMap map;
  const std::string_view key = "key42";
  for (auto _ : state) {
    std::lock_guard lock(map.mutex);
    auto it = map.integers.find(key);
    benchmark::DoNotOptimize(it == map.integers.end() ? 0 : it->second);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Baseline_LockedMapInteger);

void BM_UserDefaultsInteger(benchmark::State& state) {
  const auto& defaults = suite();
  for (auto _ : state) benchmark::DoNotOptimize(defaults->integer("key42"));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_UserDefaultsInteger);
BENCHMARK(BM_UserDefaultsInteger)->Threads(2);

void BM_Baseline_LockedMapString(benchmark::State& state) {
  LockedMap map;
  const std::string_view key = "units";
  for (auto _ : state) {
    std::optional<std::string> copy;
    {
      std::lock_guard lock(map.mutex);
      if (auto it = map.texts.find(key); it != map.texts.end()) copy = it->second;
    }
    benchmark::DoNotOptimize(copy);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Baseline_LockedMapString);

void BM_UserDefaultsString(benchmark::State& state) {
  const auto& defaults = suite();
  for (auto _ : state) benchmark::DoNotOptimize(defaults->string("units"));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_UserDefaultsString);

// For information: the in-memory store serialises every access on its own queue.
void BM_DictionaryStorageInteger(benchmark::State& state) {
  kp::DictionaryStorage storage;
  for (int i = 0; i < kKeys; ++i) storage.setInteger(i, keyName(i));
  for (auto _ : state) benchmark::DoNotOptimize(storage.integer("key42"));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DictionaryStorageInteger);

constexpr int kBurst = 10'000;

void BM_Baseline_LockedMapWriteBurst(benchmark::State& state) {
  LockedMap map;
  for (auto _ : state) {
    for (int i = 0; i < kBurst; ++i) {
      std::lock_guard lock(map.mutex);
      map.integers.insert_or_assign(keyName(i % kKeys), i);
    }
  }
  state.SetItemsProcessed(state.iterations() * kBurst);
}
BENCHMARK(BM_Baseline_LockedMapWriteBurst)->Unit(benchmark::kMillisecond);

void BM_UserDefaultsWriteBurst(benchmark::State& state) {
  const auto& defaults = suite();
  defaults->synchronize();
  const std::uint64_t before = defaults->fileWriteCount();
  for (auto _ : state) {
    for (int i = 0; i < kBurst; ++i) defaults->setInteger(i, keyName(i % kKeys));
    state.PauseTiming();
    // Each burst ends with its last write on the disk, so that every burst pays for its own.
    defaults->synchronize();
    state.ResumeTiming();
  }
  state.counters["fileWrites"] =
      benchmark::Counter(static_cast<double>(defaults->fileWriteCount() - before), benchmark::Counter::kAvgIterations);
  state.SetItemsProcessed(state.iterations() * kBurst);
}
BENCHMARK(BM_UserDefaultsWriteBurst)->Unit(benchmark::kMillisecond);

kp::test::PrivateSecretService& keyring() {
  static std::unique_ptr<kp::test::PrivateSecretService> service = std::make_unique<kp::test::PrivateSecretService>();
  return *service;
}

void BM_Baseline_LibsecretRoundTrip(benchmark::State& state) {
  keyring();
  static const SecretSchema schema = {"com.kp.bench.Password",
                                      SECRET_SCHEMA_NONE,
                                      {{"account", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                       {"service", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                       {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}},
                                      0,
                                      nullptr,
                                      nullptr,
                                      nullptr,
                                      nullptr,
                                      nullptr,
                                      nullptr,
                                      nullptr};
  const std::string secret = "s3cret";
  for (auto _ : state) {
    SecretValue* value = secret_value_new(secret.data(), static_cast<gssize>(secret.size()), "text/plain");
    secret_password_store_binary_sync(&schema, SECRET_COLLECTION_DEFAULT, "bench", value, nullptr, nullptr, "account",
                                      "token", "service", "com.kp.bench.raw", nullptr);
    secret_value_unref(value);
    SecretValue* back = secret_password_lookup_binary_sync(&schema, nullptr, nullptr, "account", "token", "service",
                                                           "com.kp.bench.raw", nullptr);
    benchmark::DoNotOptimize(back);
    if (back) secret_value_unref(back);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Baseline_LibsecretRoundTrip)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_KeychainRoundTrip(benchmark::State& state) {
  keyring();
  kp::Keychain keychain("com.kp.bench");
  for (auto _ : state) {
    keychain.setString(std::string("s3cret"), "token", kp::KeychainAccess::afterFirstUnlock, std::nullopt);
    benchmark::DoNotOptimize(keychain.string("token", std::nullopt));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_KeychainRoundTrip)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
