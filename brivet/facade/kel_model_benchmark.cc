// The facade model on the catalogue workload, as an application calls it:
//
//   BM_FacadeGetCachedCatalogue/<items>: `getKeyPaths` (default option) of the
//     five fields of <items> list entries, every one already cached, in a model
//     that also holds M = 100,000 other videos; timed from the call to its
//     completion on the main queue. Each get is timed on its own: median and
//     99th percentile in microseconds (median_us, p99_us) and the median per
//     leaf read (median_ns/leaf; a leaf is one field of one item).
//
//   make bench BENCH_ARGS='--benchmark_filter=BM_FacadeGet --benchmark_repetitions=5
//     --benchmark_report_aggregates_only=true'
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include "brivet/facade/kel_model.h"
#include "brivet/platform/dispatch_queue.h"
#include "brivet/testing/catalogue.h"

namespace brivet {
namespace {

using Clock = std::chrono::steady_clock;
using testing::Dialect;

constexpr std::size_t kListItems = 1000;
constexpr std::size_t kOtherVideos = 100000;
constexpr std::size_t kFields = 5;

double percentile(std::vector<double> samples, double p) {
  if (samples.empty()) return 0;
  std::sort(samples.begin(), samples.end());
  const auto index = static_cast<std::size_t>(p * static_cast<double>(samples.size() - 1) + 0.5);
  return samples[std::min(index, samples.size() - 1)];
}

void BM_FacadeGetCachedCatalogue(benchmark::State& state) {
  const auto items = static_cast<std::size_t>(state.range(0));
  const std::shared_ptr<KelModel> model = KelBrivet::createModel(std::nullopt, std::nullopt);
  model->mergeJSONDictionaryIntoModel(testing::catalogueVideos(kListItems, kOtherVideos, Dialect::Legacy));
  model->mergeJSONDictionaryIntoModel(testing::catalogueResponse(kListItems, Dialect::Legacy));
  (void)model->valueForKey("lists");  // a read waits for the merges queued before it
  const std::vector<std::string> keyPaths = testing::catalogueRequestPaths(items);
  std::vector<double> micros;
  std::size_t answered = 0;
  for (auto _ : state) {
    bool done = false;
    Clock::time_point finished;
    const Clock::time_point start = Clock::now();
    model->getKeyPaths(keyPaths, std::nullopt, [&](Object result, std::optional<Error> error) {
      finished = Clock::now();
      answered = error ? 0 : result.valueForKeyPath("lists.top").count();
      done = true;
    });
    if (!DispatchQueue::main()->runUntil([&] { return done; }, std::chrono::seconds(10))) {
      state.SkipWithError("the get did not complete");
      break;
    }
    micros.push_back(std::chrono::duration<double, std::micro>(finished - start).count());
  }
  if (answered != items) state.SkipWithError("the get did not answer every list item");
  const double median = percentile(micros, 0.5);
  state.counters["median_us"] = median;
  state.counters["p99_us"] = percentile(micros, 0.99);
  state.counters["median_ns/leaf"] = median * 1000.0 / static_cast<double>(items * kFields);
}
BENCHMARK(BM_FacadeGetCachedCatalogue)->Arg(1)->Arg(kListItems)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
}  // namespace brivet
