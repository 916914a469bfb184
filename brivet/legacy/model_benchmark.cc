// The legacy model on the catalogue workload: merging the response, reading the list back, snapshots, memory.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstdio>

#include "brivet/legacy/model.h"
#include "brivet/testing/catalogue.h"
#include "brivet/testing/memory.h"

namespace brivet {
namespace {

using testing::Dialect;

constexpr std::size_t kListItems = 1000;
constexpr std::size_t kFields = 5;

// Waits for every write queued so far: a read on the model's queue runs after earlier barriers.
void waitForWrites(BrivetModel& model) {
  model.jsongModelAccessQueue()->sync([] {});
}

std::shared_ptr<BrivetModel> modelWithVideos(std::size_t first, std::size_t count) {
  auto model = BrivetModel::create();
  if (count > 0) model->mergeJSONDictionaryIntoModel(testing::catalogueVideos(first, count, Dialect::Legacy));
  waitForWrites(*model);
  return model;
}

benchmark::Counter perLeaf(std::size_t leaves) {
  return benchmark::Counter(static_cast<double>(leaves),
                            benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// Merge of the N = 1,000 response (a list of references and five fields per video) into a model that holds
// Arg(0) other videos. The timed part is the merge as an application triggers it, waited for.
void BM_LegacyMergeCatalogueResponse(benchmark::State& state) {
  const auto others = static_cast<std::size_t>(state.range(0));
  const auto model = modelWithVideos(kListItems, others);
  for (auto _ : state) {
    state.PauseTiming();
    const Object response = testing::catalogueResponse(kListItems, Dialect::Legacy);
    state.ResumeTiming();
    model->mergeJSONDictionaryIntoModel(response);
    waitForWrites(*model);
    state.PauseTiming();
    // Back to "M other videos": drop the list and the N merged videos.
    model->jsongModelAccessQueue()->syncBarrier([&] {
      Dictionary& root = *model->jsongModel().asMutableDictionary();
      root.removeObject("lists");
      if (Dictionary* videos = root.objectForKey("videos").asMutableDictionary()) {
        for (std::size_t i = 0; i < kListItems; ++i) videos->removeObject("v" + std::to_string(i));
      }
    });
    state.ResumeTiming();
  }
  state.counters["per_leaf"] = perLeaf(kListItems * kFields);
}
BENCHMARK(BM_LegacyMergeCatalogueResponse)
    ->Arg(0)
    ->Arg(1000)
    ->Arg(100000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// A get of the five list paths answered from a warm cache (option 4: no miss collection), completion included.
void BM_LegacyReadCatalogueList(benchmark::State& state) {
  const auto model = modelWithVideos(kListItems, static_cast<std::size_t>(state.range(0)));
  model->mergeJSONDictionaryIntoModel(testing::catalogueResponse(kListItems, Dialect::Legacy));
  waitForWrites(*model);
  const auto paths = testing::catalogueRequestPaths(kListItems);
  std::size_t items = 0;
  for (auto _ : state) {
    model->getKeyPaths(
        paths, BrivetModelOptionReturnCacheDataDontFetch, std::nullopt,
        [&](Object result, std::optional<Error>) { items = result.valueForKeyPath("lists.top").count(); });
    DispatchQueue::main()->drain();
  }
  if (items != kListItems) state.SkipWithError("the read did not answer every list item");
  state.counters["per_leaf"] = perLeaf(kListItems * kFields);
}
BENCHMARK(BM_LegacyReadCatalogueList)->Arg(0)->Arg(100000)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same get under the default option: every requested leaf is first checked for a miss, then read.
void BM_LegacyGetCachedCatalogueList(benchmark::State& state) {
  const auto model = modelWithVideos(0, 0);
  model->mergeJSONDictionaryIntoModel(testing::catalogueResponse(kListItems, Dialect::Legacy));
  waitForWrites(*model);
  const auto paths = testing::catalogueRequestPaths(kListItems);
  for (auto _ : state) {
    model->getKeyPaths(paths, BrivetModelOptionDefault, std::nullopt, [](Object, std::optional<Error>) {});
    DispatchQueue::main()->drain();
  }
  state.counters["per_leaf"] = perLeaf(kListItems * kFields);
}
BENCHMARK(BM_LegacyGetCachedCatalogueList)->Unit(benchmark::kMillisecond)->UseRealTime();

// The cache with M + N videos written to JSON text and read back into a fresh model.
void BM_LegacySnapshotRoundTrip(benchmark::State& state) {
  const auto model = modelWithVideos(kListItems, static_cast<std::size_t>(state.range(0)));
  model->mergeJSONDictionaryIntoModel(testing::catalogueResponse(kListItems, Dialect::Legacy));
  waitForWrites(*model);
  std::size_t bytes = 0;
  for (auto _ : state) {
    const std::optional<std::string> snapshot = model->serializeCache();
    auto restored = BrivetModel::create();
    if (!snapshot || !restored->deserializeCache(*snapshot)) state.SkipWithError("snapshot failed");
    waitForWrites(*restored);
    bytes = snapshot ? snapshot->size() : 0;
    state.PauseTiming();  // releasing the restored model is not part of the round trip
    restored.reset();
    state.ResumeTiming();
  }
  state.counters["MB"] = static_cast<double>(bytes) / 1e6;
}
BENCHMARK(BM_LegacySnapshotRoundTrip)->Arg(100000)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

// Memory the cache holds per cached leaf, for M + N videos (the model adopts the merged objects): heap bytes in
// use (bytes_per_leaf) and the growth of the resident set after malloc_trim (rss_B/leaf).
void BM_LegacyMemoryPerLeaf(benchmark::State& state) {
  const auto videos = static_cast<std::size_t>(state.range(0));
  const auto leaves = static_cast<double>(videos * kFields);
  double perLeafBytes = 0;
  double perLeafResident = 0;
  for (auto _ : state) {
    malloc_trim(0);
    const std::size_t before = mallinfo2().uordblks;
    const std::size_t residentBefore = testing::residentBytes();
    auto model = modelWithVideos(0, videos);
    const std::size_t after = mallinfo2().uordblks;
    malloc_trim(0);
    perLeafBytes = static_cast<double>(after - before) / leaves;
    perLeafResident = (static_cast<double>(testing::residentBytes()) - static_cast<double>(residentBefore)) / leaves;
    state.PauseTiming();
    model.reset();
    state.ResumeTiming();
  }
  state.counters["bytes_per_leaf"] = perLeafBytes;
  state.counters["rss_B/leaf"] = perLeafResident;
}
BENCHMARK(BM_LegacyMemoryPerLeaf)->Arg(101000)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

}  // namespace
}  // namespace brivet
