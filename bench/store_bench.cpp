// Latency of the SQLite preferences store as the program sees it: reads and writes from the main
// thread, how soon a burst of counter adds is visible to another process, and whether a caller
// ever waits while the writer thread commits.
#include "platform/linux/sqlite_defaults_store.h"

#include "linux/temp_dir.h"

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace {

using tarry::platform::Value;
using tarry::platform::os::SqliteDefaultsStore;
using tarry::testing::TempDir;
using Clock = std::chrono::steady_clock;

// Another process's view of the file.
class Reader final {
 public:
  explicit Reader(const std::string& path) {
    sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READONLY, nullptr);
    sqlite3_busy_timeout(db_, 2000);
    sqlite3_prepare_v2(db_, "SELECT value FROM defaults WHERE key = ?1", -1, &select_, nullptr);
    sqlite3_prepare_v2(db_, "PRAGMA data_version", -1, &version_, nullptr);
  }
  ~Reader() {
    sqlite3_finalize(select_);
    sqlite3_finalize(version_);
    sqlite3_close(db_);
  }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  std::string value(const std::string& key) {
    sqlite3_bind_text(select_, 1, key.c_str(), -1, SQLITE_TRANSIENT);
    std::string out;
    if (sqlite3_step(select_) == SQLITE_ROW)
      out = reinterpret_cast<const char*>(sqlite3_column_text(select_, 0));
    sqlite3_reset(select_);
    return out;
  }
  std::int64_t version() {
    std::int64_t v = -1;
    if (sqlite3_step(version_) == SQLITE_ROW) v = sqlite3_column_int64(version_, 0);
    sqlite3_reset(version_);
    return v;
  }

 private:
  sqlite3* db_ = nullptr;
  sqlite3_stmt* select_ = nullptr;
  sqlite3_stmt* version_ = nullptr;
};

double nanos(Clock::duration d) { return std::chrono::duration<double, std::nano>(d).count(); }
double millis(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

double percentile(std::vector<double>& sorted, double p) {
  if (sorted.empty()) return 0;
  const auto index = static_cast<std::size_t>(p * static_cast<double>(sorted.size() - 1));
  return sorted[index];
}

void reportLatency(benchmark::State& state, std::vector<double>& samples, const char* what) {
  std::sort(samples.begin(), samples.end());
  // On a busy machine any call can be descheduled for milliseconds; how many calls took that long
  // tells waiting on a commit (one per commit at least) apart from that noise.
  const auto slow = samples.end() - std::upper_bound(samples.begin(), samples.end(), 1e6);
  state.counters["p50_ns"] = percentile(samples, 0.50);
  state.counters["p99_ns"] = percentile(samples, 0.99);
  state.counters["p99.9_ns"] = percentile(samples, 0.999);
  state.counters["max_ns"] = samples.empty() ? 0 : samples.back();
  state.counters["over_1ms"] = static_cast<double>(slow);
  std::printf("  %s: median %.0f ns, p99 %.0f ns, p99.9 %.0f ns, worst %.0f ns, %td of %zu calls over 1 ms\n",
              what, percentile(samples, 0.5), percentile(samples, 0.99), percentile(samples, 0.999),
              samples.empty() ? 0.0 : samples.back(), slow, samples.size());
}

// A domain the size the program keeps: settings plus a year of daily counters.
std::vector<std::string> populate(SqliteDefaultsStore& store) {
  std::vector<std::string> keys;
  for (const char* name :
       {"enabled", "holdSeconds", "style", "showHUD", "playSound", "closeHold", "workFrom"}) {
    store.set(name, 1);
    keys.emplace_back(name);
  }
  for (int day = 0; day < 365; ++day) {
    const std::string key = "day.2025" + std::to_string(1000 + day) + ".blocked";
    store.set(key, day);
    keys.push_back(key);
  }
  store.flush();
  return keys;
}

void BM_StoreGet(benchmark::State& state) {
  TempDir dir;
  SqliteDefaultsStore store(dir / "defaults.sqlite3");
  const auto keys = populate(store);
  std::vector<double> samples;
  samples.reserve(static_cast<std::size_t>(state.max_iterations));
  std::size_t i = 0;
  for (auto _ : state) {
    const auto start = Clock::now();
    auto value = store.get(keys[i++ % keys.size()]);
    const auto end = Clock::now();
    benchmark::DoNotOptimize(value);
    samples.push_back(nanos(end - start));
  }
  reportLatency(state, samples, "get");
}
BENCHMARK(BM_StoreGet)->Iterations(200000);

void BM_StoreSet(benchmark::State& state) {
  TempDir dir;
  SqliteDefaultsStore store(dir / "defaults.sqlite3");
  const auto keys = populate(store);
  std::vector<double> samples;
  samples.reserve(static_cast<std::size_t>(state.max_iterations));
  std::size_t i = 0;
  for (auto _ : state) {
    Value value(static_cast<double>(i) * 0.5);
    const auto start = Clock::now();
    store.set(keys[i++ % keys.size()], std::move(value));
    const auto end = Clock::now();
    samples.push_back(nanos(end - start));
  }
  reportLatency(state, samples, "set (writer committing every 200 ms meanwhile)");
}
BENCHMARK(BM_StoreSet)->Iterations(200000);

// 10,000 counter adds, each to the all-time, period and day keys, then the time until another
// connection reads the final totals.
void BM_CounterBurstVisible(benchmark::State& state) {
  const std::array<std::string, 4> names{"blocked.quit", "blocked.close", "confirmed.quit", "cancelMs"};
  std::vector<std::string> keys;
  for (const auto& name : names) {
    for (const char* prefix : {"all.", "period.", "day.20250615."}) keys.push_back(prefix + name);
  }
  constexpr int kAdds = 10000;
  std::vector<double> visible;
  std::vector<double> burst;
  for (auto _ : state) {
    TempDir dir;
    SqliteDefaultsStore store(dir / "defaults.sqlite3");
    Reader reader(dir / "defaults.sqlite3");
    const auto start = Clock::now();
    for (int i = 0; i < kAdds; ++i) {
      const std::size_t n = static_cast<std::size_t>(i) % names.size() * 3;
      store.addInteger(keys[n], 1);
      store.addInteger(keys[n + 1], 1);
      store.addInteger(keys[n + 2], 1);
    }
    const auto burstEnd = Clock::now();
    const std::string expected = std::to_string(kAdds / names.size());
    const auto seenAll = [&] {
      return std::all_of(keys.begin(), keys.end(),
                         [&](const std::string& key) { return reader.value(key) == expected; });
    };
    while (!seenAll() && Clock::now() - burstEnd < std::chrono::seconds(10)) {
      std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    const auto seen = Clock::now();
    burst.push_back(millis(burstEnd - start));
    visible.push_back(seenAll() ? millis(seen - burstEnd) : -1);
  }
  std::sort(visible.begin(), visible.end());
  state.counters["burst_ms"] = burst.empty() ? 0 : *std::max_element(burst.begin(), burst.end());
  state.counters["visible_median_ms"] = percentile(visible, 0.5);
  state.counters["visible_worst_ms"] = visible.empty() ? 0 : visible.back();
  for (std::size_t i = 0; i < burst.size(); ++i) {
    std::printf("  burst of %d counter adds took %.1f ms\n", kAdds, burst[i]);
  }
  std::printf("  final totals visible to another connection after (ms, sorted):");
  for (const double ms : visible) std::printf(" %.1f", ms);
  std::printf("   (-1 = never within 10 s)\n");
}
BENCHMARK(BM_CounterBurstVisible)->Iterations(5)->Unit(benchmark::kMillisecond);

// Large commits (2,000 keys of 512 bytes each time) run on the writer thread while the caller
// keeps setting; the caller's worst latency is compared with what one commit costs.
void BM_SetWhileCommitting(benchmark::State& state) {
  constexpr int kKeys = 2000;
  std::vector<std::string> keys;
  for (int i = 0; i < kKeys; ++i) keys.push_back("appset.bench." + std::to_string(i));
  for (auto _ : state) {
    TempDir dir;
    SqliteDefaultsStore store(dir / "defaults.sqlite3");
    Reader reader(dir / "defaults.sqlite3");
    for (const auto& key : keys) store.set(key, std::string(512, 'a'));
    store.flush();
    // What the caller would wait for if it committed itself.
    for (const auto& key : keys) store.set(key, std::string(512, 'b'));
    const auto flushStart = Clock::now();
    store.flush();
    const double commitMs = millis(Clock::now() - flushStart);

    std::vector<double> samples;
    int commits = 0;
    std::int64_t version = reader.version();
    const auto end = Clock::now() + std::chrono::seconds(3);
    for (int round = 0; Clock::now() < end; ++round) {
      for (const auto& key : keys) {
        Value value(std::string(512, static_cast<char>('c' + round % 20)));
        const auto start = Clock::now();
        store.set(key, std::move(value));
        samples.push_back(nanos(Clock::now() - start));
      }
      const std::int64_t now = reader.version();
      if (now != version) ++commits;
      version = now;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    state.counters["commit_ms"] = commitMs;
    state.counters["commits_seen"] = commits;
    std::printf("  one commit of %d keys, done synchronously by flush(): %.1f ms\n", kKeys, commitMs);
    std::printf("  the writer thread committed at least %d times while the caller kept setting\n", commits);
    reportLatency(state, samples, "set during background commits");
  }
}
BENCHMARK(BM_SetWhileCommitting)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
