// The cache on the catalogue workload (N = 1,000 list items, M other videos):
// merge of the response, read of the N x 5 fields, snapshot out and back in,
// and resident memory per cached leaf. A "leaf" is one field of one item.
//
//   make bench BENCH_ARGS=--benchmark_filter=Cache
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "brivet/core/cache/cache.h"
#include "brivet/core/values/internal/value_access.h"
#include "brivet/testing/catalogue.h"
#include "brivet/testing/memory.h"

namespace brivet {
namespace {

using internal::Slot;
using internal::SlotRef;

constexpr std::size_t kItems = 1000;
constexpr double kLeaves = kItems * 5.0;
constexpr const char* kGenres[] = {"Drama", "Comedy", "Action", "Horror", "Documentary", "Family", "Thriller",
                                   "Romance"};

// Waits for every write queued so far.
void settle() {
  cacheQueue()->sync([] {});
}

// Video i straight into nodes (the shape the response's conversion gives).
Slot videoNode(std::size_t i) {
  internal::ObjectBuilder boxart;
  boxart.add("url", internal::makeString("https://img.example/" + std::to_string(i) + ".jpg"));
  boxart.add("w", internal::makeSignedNumber(150));
  boxart.add("h", internal::makeSignedNumber(200));
  internal::ObjectBuilder video;
  video.add("title", internal::makeString("Title " + std::to_string(i)));
  video.add("rating", internal::makeDoubleNumber(static_cast<double>(i % 50) / 10.0));
  video.add("year", internal::makeSignedNumber(static_cast<std::int64_t>(1950 + i % 70)));
  video.add("genre", internal::makeString(kGenres[i % 8]));
  video.add("boxart", internal::makeLeaf(internal::LeafKind::Atom, boxart.build(), {}));
  return video.build();
}

// {"videos": {v<first> .. v<first+count-1>}}, and the list over v0..v<listItems-1> when asked.
JSONGraph catalogueGraph(std::size_t first, std::size_t count, std::size_t listItems) {
  internal::ObjectBuilder videos;
  videos.reserve(count);
  for (std::size_t i = first; i < first + count; ++i) videos.add("v" + std::to_string(i), videoNode(i));
  internal::ObjectBuilder root;
  root.add("videos", videos.build());
  if (listItems > 0) {
    internal::ObjectBuilder top;
    for (std::size_t k = 0; k < listItems; ++k) {
      std::vector<Slot> path{internal::makeString("videos"), internal::makeString("v" + std::to_string(k))};
      top.add(std::to_string(k), internal::makeLeaf(internal::LeafKind::Ref, internal::buildArray(std::move(path)), {}));
    }
    internal::ObjectBuilder lists;
    lists.add("top", top.build());
    root.add("lists", lists.build());
  }
  return internal::graphFromSlot(SlotRef(root.build()));
}

// A cache holding `others` videos (v<kItems>...) and, when `warm`, the response's list and videos too.
std::shared_ptr<Cache> catalogueCache(std::size_t others, bool warm) {
  JSONGraph g = catalogueGraph(kItems, others, 0);
  auto cache = Cache::create(g);
  if (warm) {
    cache->merge(catalogueGraph(0, kItems, kItems));
    settle();
  }
  return cache;
}

benchmark::Counter perLeaf(const benchmark::State& state) {
  return benchmark::Counter(static_cast<double>(state.iterations()) * kLeaves,
                            benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// The response (platform objects, as the data source hands it over) converted
// and merged into a cache of M other videos, until the write is done. The
// cache goes back to its M videos between iterations, untimed.
void BM_CacheMergeResponse(benchmark::State& state) {
  const std::size_t others = static_cast<std::size_t>(state.range(0));
  auto cache = catalogueCache(others, false);
  const CacheEnvelope start = cache->getCache(std::nullopt);
  const Object response = testing::catalogueResponse(kItems, testing::Dialect::Core);
  for (auto _ : state) {
    cache->merge(JSONGraph::fromAny(response));
    settle();
    state.PauseTiming();
    cache->setCache(start);
    settle();
    state.ResumeTiming();
  }
  state.counters["ns/leaf"] = perLeaf(state);
}
BENCHMARK(BM_CacheMergeResponse)->Arg(1000)->Arg(100000)->Arg(1000000)->UseRealTime()->Unit(benchmark::kMicrosecond);

// The merge alone, the response already converted.
void BM_CacheMergeConverted(benchmark::State& state) {
  const std::size_t others = static_cast<std::size_t>(state.range(0));
  auto cache = catalogueCache(others, false);
  const CacheEnvelope start = cache->getCache(std::nullopt);
  const JSONGraph response = JSONGraph::fromAny(testing::catalogueResponse(kItems, testing::Dialect::Core));
  for (auto _ : state) {
    cache->merge(response);
    settle();
    state.PauseTiming();
    cache->setCache(start);
    settle();
    state.ResumeTiming();
  }
  state.counters["ns/leaf"] = perLeaf(state);
}
BENCHMARK(BM_CacheMergeConverted)->Arg(1000)->Arg(1000000)->UseRealTime()->Unit(benchmark::kMicrosecond);

// The response's conversion from platform objects alone.
void BM_CacheResponseConversion(benchmark::State& state) {
  const Object response = testing::catalogueResponse(kItems, testing::Dialect::Core);
  for (auto _ : state) {
    JSONGraph g = JSONGraph::fromAny(response);
    benchmark::DoNotOptimize(g);
  }
  state.counters["ns/leaf"] = perLeaf(state);
}
BENCHMARK(BM_CacheResponseConversion)->Unit(benchmark::kMicrosecond);

// The same response merged again: equal, so nothing is replaced.
void BM_CacheMergeUnchanged(benchmark::State& state) {
  auto cache = catalogueCache(static_cast<std::size_t>(state.range(0)), true);
  const JSONGraph response = JSONGraph::fromAny(testing::catalogueResponse(kItems, testing::Dialect::Core));
  for (auto _ : state) {
    cache->merge(response);
    settle();
  }
  if (cache->version() != 2) state.SkipWithError("an equal merge stepped the version");
  state.counters["ns/leaf"] = perLeaf(state);
}
BENCHMARK(BM_CacheMergeUnchanged)->Arg(100000)->UseRealTime()->Unit(benchmark::kMicrosecond);

// getValues of lists.top.@range(0,N-1).{title,rating,year,genre,boxart} from a warm cache.
void BM_CacheGetValues(benchmark::State& state) {
  auto cache = catalogueCache(static_cast<std::size_t>(state.range(0)), true);
  const PathTree request = PathTree::fromKeyPaths(testing::catalogueRequestPaths(kItems));
  for (auto _ : state) {
    Result<CacheValues, BrivetError> r = cache->getValues(request, true);
    benchmark::DoNotOptimize(r);
  }
  Result<CacheValues, BrivetError> r = cache->getValues(request, true);
  if (!r.ok() || r->value.find("lists")->find("top")->size() != kItems || !(r->missingPathTree == PathTree())) {
    state.SkipWithError("the read did not find every item");
  }
  state.counters["ns/leaf"] = perLeaf(state);
}
BENCHMARK(BM_CacheGetValues)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);

// The same read with four of the five fields: every item's result is built, none shared.
void BM_CacheGetValuesFourFields(benchmark::State& state) {
  auto cache = catalogueCache(static_cast<std::size_t>(state.range(0)), true);
  std::vector<std::string> paths = testing::catalogueRequestPaths(kItems);
  paths.pop_back();
  const PathTree request = PathTree::fromKeyPaths(paths);
  for (auto _ : state) {
    Result<CacheValues, BrivetError> r = cache->getValues(request, true);
    benchmark::DoNotOptimize(r);
  }
  state.counters["ns/leaf"] = benchmark::Counter(static_cast<double>(state.iterations()) * kItems * 4,
                                                 benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_CacheGetValuesFourFields)->Arg(100000)->Unit(benchmark::kMicrosecond);

// getJSON of P single-item paths lists.top.<k>.<field> (P / 5 list items, five fields each) from a warm
// cache holding exactly those items: the cost per path must not grow with P.
void BM_CacheGetJSON(benchmark::State& state) {
  const std::size_t pathCount = static_cast<std::size_t>(state.range(0));
  const std::size_t items = pathCount / 5;
  auto cache = Cache::create(catalogueGraph(0, items, items));
  constexpr const char* kFields[] = {"title", "rating", "year", "genre", "boxart"};
  std::vector<Path> paths;
  paths.reserve(pathCount);
  for (std::size_t k = 0; k < items; ++k) {
    for (const char* field : kFields) paths.push_back(PathTree::parsePath("lists.top." + std::to_string(k) + "." + field));
  }
  for (auto _ : state) {
    Result<Object, BrivetError> json = cache->getJSON(paths);
    benchmark::DoNotOptimize(json);
  }
  if (cache->getJSON(paths).valueOr(Object()).valueForKeyPath("lists.top").count() != items) {
    state.SkipWithError("the read did not answer every item");
  }
  state.counters["ns/path"] = benchmark::Counter(static_cast<double>(pathCount),
                                                 benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_CacheGetJSON)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

// Snapshot out (getCache + JSON text) and back in (JSON text + setCache, until
// the write is done) for the cache of M + N videos and the list.
void BM_CacheSnapshotRoundTrip(benchmark::State& state) {
  auto cache = catalogueCache(static_cast<std::size_t>(state.range(0)), true);
  std::size_t bytes = 0;
  for (auto _ : state) {
    Result<std::string> text = cache->getCache(std::nullopt).toJSONText();
    bytes = text->size();
    Result<std::optional<CacheEnvelope>> back = CacheEnvelope::fromJSONText(text.value());
    cache->setCache(*back.value());
    settle();
  }
  state.counters["MB"] = static_cast<double>(bytes) / 1e6;
  state.counters["MB/s"] = benchmark::Counter(2.0 * static_cast<double>(bytes) * static_cast<double>(state.iterations()) / 1e6,
                                              benchmark::Counter::kIsRate);
}
BENCHMARK(BM_CacheSnapshotRoundTrip)->Arg(100000)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_CacheSnapshotOut(benchmark::State& state) {
  auto cache = catalogueCache(static_cast<std::size_t>(state.range(0)), true);
  std::size_t bytes = 0;
  for (auto _ : state) {
    Result<std::string> text = cache->getCache(std::nullopt).toJSONText();
    bytes = text->size();
    benchmark::DoNotOptimize(text);
  }
  state.counters["MB/s"] = benchmark::Counter(static_cast<double>(bytes) * static_cast<double>(state.iterations()) / 1e6,
                                              benchmark::Counter::kIsRate);
}
BENCHMARK(BM_CacheSnapshotOut)->Arg(100000)->Unit(benchmark::kMillisecond);

void BM_CacheSnapshotIn(benchmark::State& state) {
  auto cache = catalogueCache(static_cast<std::size_t>(state.range(0)), true);
  const std::string text = cache->getCache(std::nullopt).toJSONText().value();
  for (auto _ : state) {
    Result<std::optional<CacheEnvelope>> back = CacheEnvelope::fromJSONText(text);
    cache->setCache(*back.value());
    settle();
  }
  state.counters["MB/s"] = benchmark::Counter(static_cast<double>(text.size()) * static_cast<double>(state.iterations()) / 1e6,
                                              benchmark::Counter::kIsRate);
}
BENCHMARK(BM_CacheSnapshotIn)->Arg(100000)->UseRealTime()->Unit(benchmark::kMillisecond);

// Resident memory per cached leaf once the cache holds M videos (and the
// list), filled as an app fills it: responses of 1,000 videos converted from
// platform objects and merged one after another. Measured after malloc_trim,
// as the growth over the process before the cache existed.
void BM_CacheMemoryPerLeaf(benchmark::State& state) {
  const std::size_t videos = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    malloc_trim(0);
    const std::size_t before = testing::residentBytes();
    auto cache = Cache::create();
    cache->merge(JSONGraph::fromAny(testing::catalogueResponse(kItems, testing::Dialect::Core)));
    for (std::size_t first = kItems; first < videos; first += kItems) {
      cache->merge(JSONGraph::fromAny(testing::catalogueVideos(first, kItems, testing::Dialect::Core)));
      settle();
    }
    settle();
    malloc_trim(0);
    const std::size_t after = testing::residentBytes();
    if (cache->jsonGraph().find("videos")->size() != videos) state.SkipWithError("videos lost");
    state.counters["rss_B/leaf"] = static_cast<double>(after - before) / (static_cast<double>(videos) * 5);
    state.counters["versions"] = static_cast<double>(cache->version());
  }
}
BENCHMARK(BM_CacheMemoryPerLeaf)->Arg(1000000)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace brivet
