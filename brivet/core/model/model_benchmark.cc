// The core model on the catalogue workload, driven through TovInternalModel
// as an application drives it (see ../shared/benchmarks.md for the data):
//
//   BM_CachedGetLatency/<items>: a fully cached get of the five fields of
//     <items> list entries, from subscribe to its completion on the main queue;
//     each get is timed on its own and the median and 99th percentile are
//     reported in microseconds (counters median_us, p99_us).
//   BM_CachedGetThroughput/<window>: cached gets of one entry's five fields
//     from 2 threads, each keeping <window> gets in flight; completions are
//     delivered by a main-queue executor running on its own thread, as an
//     app's UI thread would. Reported as gets per second (items_per_second).
//
//   make bench BENCH_ARGS='--benchmark_filter=CachedGet --benchmark_repetitions=5
//     --benchmark_report_aggregates_only=true'
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <semaphore>
#include <thread>
#include <vector>

#include "brivet/core/model/tov_model.h"
#include "brivet/testing/catalogue.h"

namespace brivet {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::size_t kListItems = 1000;

std::shared_ptr<TovInternalModel> cachedCatalogue() {
  return TovBrivet::createTovModelWithUrl(std::nullopt, nullptr,
                                          testing::catalogueResponse(kListItems, testing::Dialect::Core));
}

double percentile(std::vector<double> samples, double p) {
  if (samples.empty()) return 0;
  std::sort(samples.begin(), samples.end());
  const auto index = static_cast<std::size_t>(p * static_cast<double>(samples.size() - 1) + 0.5);
  return samples[std::min(index, samples.size() - 1)];
}

void BM_CachedGetLatency(benchmark::State& state) {
  const auto items = static_cast<std::size_t>(state.range(0));
  auto model = cachedCatalogue();
  const std::vector<std::string> keyPaths = testing::catalogueRequestPaths(items);
  std::vector<double> micros;
  for (auto _ : state) {
    auto stream = model->getWithKeyPaths(keyPaths)->asStream();
    bool done = false;
    Clock::time_point finished;
    const Clock::time_point start = Clock::now();
    auto subscription =
        stream.subscribeWithProgressBlock([](const Object& dictionary) { benchmark::DoNotOptimize(dictionary); },
                                          [&](const std::optional<Error>& error) {
                                            finished = Clock::now();
                                            done = !error.has_value();
                                          });
    if (!DispatchQueue::main()->runUntil([&] { return done; }, std::chrono::seconds(10))) {
      state.SkipWithError("the get did not complete");
      break;
    }
    micros.push_back(std::chrono::duration<double, std::micro>(finished - start).count());
  }
  state.counters["median_us"] = percentile(micros, 0.5);
  state.counters["p99_us"] = percentile(micros, 0.99);
  state.counters["leaves"] = static_cast<double>(items * 5);
}
BENCHMARK(BM_CachedGetLatency)->Arg(1)->Arg(kListItems)->Unit(benchmark::kMicrosecond)->UseRealTime();

// Runs main-queue blocks in order on a serial queue of their own: the app's UI thread.
class SerialExecutor final : public MainQueueExecutor {
 public:
  void post(std::function<void()> block) override { queue_->async(std::move(block)); }

 private:
  std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::serial("benchmark.main");
};

void BM_CachedGetThroughput(benchmark::State& state) {
  constexpr int kThreads = 2;
  constexpr int kGetsPerThread = 500;
  const auto window = static_cast<std::ptrdiff_t>(state.range(0));
  auto model = cachedCatalogue();
  const std::vector<std::string> keyPaths = testing::catalogueRequestPaths(1);
  DispatchQueue::setMainExecutor(std::make_shared<SerialExecutor>());
  std::atomic<bool> failed{false};
  for (auto _ : state) {
    auto client = [&] {
      // Shared with the completions: one may still be inside release() when the last acquire returns.
      auto slots = std::make_shared<std::counting_semaphore<1024>>(window);
      for (int i = 0; i < kGetsPerThread; ++i) {
        slots->acquire();
        model->getWithKeyPaths(keyPaths)->asStream().subscribeWithProgressBlock(
            nullptr, [slots, &failed](const std::optional<Error>& error) {
              if (error) failed = true;
              slots->release();
            });
      }
      for (std::ptrdiff_t i = 0; i < window; ++i) slots->acquire();
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) threads.emplace_back(client);
    for (std::thread& thread : threads) thread.join();
  }
  DispatchQueue::setMainExecutor(nullptr);
  if (failed) state.SkipWithError("a get failed");
  state.SetItemsProcessed(state.iterations() * kThreads * kGetsPerThread);
}
BENCHMARK(BM_CachedGetThroughput)->Arg(1)->Arg(16)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace brivet
