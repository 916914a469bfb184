// Core values on the catalogue workload: conversion from and to platform
// objects, graph equality, JSON text in and out, and probes of what the cache
// will do with these nodes (memory per leaf, the read walk, a merge into a large
// branch).
//
//   make bench BENCH_ARGS=--benchmark_filter='Graph|Path|Probe'
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <charconv>
#include <cstdio>
#include <string>
#include <vector>

#include "brivet/core/values/internal/value_access.h"
#include "brivet/core/values/json_graph.h"
#include "brivet/core/values/path_tree.h"
#include "brivet/testing/catalogue.h"
#include "brivet/testing/memory.h"

namespace brivet {
namespace {

using internal::Slot;
using internal::SlotRef;

constexpr const char* kGenres[] = {"Drama",       "Comedy", "Action",   "Horror",
                                   "Documentary", "Family", "Thriller", "Romance"};
constexpr double kLeavesPerVideo = 5;

// Video i straight into nodes, the way the snapshot reader builds it.
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

Slot videosNode(std::size_t first, std::size_t count) {
  internal::ObjectBuilder videos;
  videos.reserve(count);
  for (std::size_t i = first; i < first + count; ++i) videos.add("v" + std::to_string(i), videoNode(i));
  return videos.build();
}

// {"lists": {"top": {0..n-1: ref}}, "videos": {v0..v<videos-1>}}
JSONGraph catalogueGraph(std::size_t videos, std::size_t listItems) {
  internal::ObjectBuilder top;
  for (std::size_t k = 0; k < listItems; ++k) {
    std::vector<Slot> path{internal::makeString("videos"), internal::makeString("v" + std::to_string(k))};
    top.add(std::to_string(k), internal::makeLeaf(internal::LeafKind::Ref, internal::buildArray(std::move(path)), {}));
  }
  internal::ObjectBuilder lists;
  lists.add("top", top.build());
  internal::ObjectBuilder root;
  root.add("lists", lists.build());
  root.add("videos", videosNode(0, videos));
  return internal::graphFromSlot(SlotRef(root.build()));
}

std::size_t allocatedBytes() { return mallinfo2().uordblks; }
// --- Conversion ---

void BM_GraphFromObjects(benchmark::State& state) {
  const std::size_t n = static_cast<std::size_t>(state.range(0));
  const Object response = testing::catalogueResponse(n, testing::Dialect::Core);
  for (auto _ : state) {
    JSONGraph g = JSONGraph::fromAny(response);
    benchmark::DoNotOptimize(g);
  }
  state.counters["ns/leaf"] = benchmark::Counter(static_cast<double>(state.iterations()) * n * (kLeavesPerVideo + 1),
                                                 benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_GraphFromObjects)->Arg(1000)->Unit(benchmark::kMicrosecond);

void BM_GraphToObjects(benchmark::State& state) {
  const std::size_t n = static_cast<std::size_t>(state.range(0));
  const JSONGraph g = JSONGraph::fromAny(testing::catalogueResponse(n, testing::Dialect::Core));
  for (auto _ : state) {
    Object o = g.toAnyType();
    benchmark::DoNotOptimize(o);
  }
  state.counters["ns/leaf"] = benchmark::Counter(static_cast<double>(state.iterations()) * n * (kLeavesPerVideo + 1),
                                                 benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_GraphToObjects)->Arg(1000)->Unit(benchmark::kMicrosecond);

// --- Equality ---

void BM_GraphEqualSeparatelyBuilt(benchmark::State& state) {
  const Object document = testing::catalogueDocument(static_cast<std::size_t>(state.range(0)), 1000, 0);
  const JSONGraph a = JSONGraph::fromAny(document);
  const JSONGraph b = JSONGraph::fromAny(document);
  for (auto _ : state) benchmark::DoNotOptimize(a == b);
  state.counters["ns/leaf"] =
      benchmark::Counter(static_cast<double>(state.iterations()) * state.range(0) * kLeavesPerVideo,
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_GraphEqualSeparatelyBuilt)->Arg(10000)->Unit(benchmark::kMicrosecond);

void BM_GraphEqualSelf(benchmark::State& state) {
  const JSONGraph a = JSONGraph::fromAny(testing::catalogueDocument(static_cast<std::size_t>(state.range(0)), 1000, 0));
  const JSONGraph b = a;
  for (auto _ : state) benchmark::DoNotOptimize(a == b);
}
BENCHMARK(BM_GraphEqualSelf)->Arg(10000);

// --- Path trees ---

void BM_PathTreeFromKeyPaths(benchmark::State& state) {
  std::vector<std::string> paths;
  for (int i = 0; i < 10000; ++i) {
    paths.push_back("videos.v" + std::to_string(i / 5) + "." +
                    std::vector<std::string>{"title", "rating", "year", "genre", "boxart"}[i % 5]);
  }
  for (auto _ : state) {
    PathTree tree = PathTree::fromKeyPaths(paths);
    benchmark::DoNotOptimize(tree);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * paths.size()));
}
BENCHMARK(BM_PathTreeFromKeyPaths)->Unit(benchmark::kMicrosecond);

// The path grammar alone: 10,000 key paths split into components, one in five
// with a range.
void BM_ParsePaths(benchmark::State& state) {
  std::vector<std::string> paths;
  for (int i = 0; i < 10000; ++i) {
    paths.push_back(i % 5 == 0 ? "lists.top.@range(0," + std::to_string(i) + ").title"
                               : "videos.v" + std::to_string(i) + ".title");
  }
  for (auto _ : state) {
    for (const std::string& path : paths) benchmark::DoNotOptimize(PathTree::parsePath(path));
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * paths.size()));
}
BENCHMARK(BM_ParsePaths)->Unit(benchmark::kMicrosecond);

// --- Probes for the cache ---

// Bytes per cached leaf of the 1,000,000-video graph: allocator bytes in use
// (what the nodes take, with the allocator's per-block overhead) and resident
// memory, both as the growth while the graph is built.
void BM_ProbeMemoryPerLeaf(benchmark::State& state) {
  const std::size_t videos = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    malloc_trim(0);
    const std::size_t heapBefore = allocatedBytes();
    const std::size_t rssBefore = testing::residentBytes();
    JSONGraph g = catalogueGraph(videos, 1000);
    const std::size_t heapAfter = allocatedBytes();
    const std::size_t rssAfter = testing::residentBytes();
    malloc_trim(0);  // what the allocator kept of the builders' temporary buffers goes back
    const std::size_t rssTrimmed = testing::residentBytes();
    const double leaves = static_cast<double>(videos) * kLeavesPerVideo;
    state.counters["heap_B/leaf"] = static_cast<double>(heapAfter - heapBefore) / leaves;
    state.counters["rss_B/leaf"] = static_cast<double>(rssAfter - rssBefore) / leaves;
    state.counters["rss_trimmed_B/leaf"] = static_cast<double>(rssTrimmed - rssBefore) / leaves;
    benchmark::DoNotOptimize(g);
  }
}
BENCHMARK(BM_ProbeMemoryPerLeaf)->Arg(1000000)->Iterations(1)->Unit(benchmark::kMillisecond);

// The cache's read of lists.top.@range(0,999).{title,rating,year,genre,boxart}:
// per item, follow the reference, read five fields and put them in the result.
// With `share`, an item node that is plain and has exactly the requested keys
// goes into the result as it is (a plain graph node reads as a JSON value);
// without, a result object is built per item.
template <bool kShare>
void BM_ProbeReadWalk(benchmark::State& state) {
  const std::size_t n = 1000;
  const JSONGraph g = catalogueGraph(static_cast<std::size_t>(state.range(0)), n);
  const char* fields[] = {"title", "rating", "year", "genre", "boxart"};
  const internal::KeyProbe fieldProbes[] = {internal::KeyProbe(fields[0]), internal::KeyProbe(fields[1]),
                                            internal::KeyProbe(fields[2]), internal::KeyProbe(fields[3]),
                                            internal::KeyProbe(fields[4])};
  for (auto _ : state) {
    const Slot root = internal::slot(g);
    const Slot top = internal::objectFind(internal::objectFind(root, "lists"), "top");
    internal::ObjectBuilder items;
    items.reserve(n);
    char key[24];
    for (std::size_t k = 0; k < n; ++k) {
      const auto len = static_cast<std::size_t>(std::to_chars(key, key + sizeof key, k).ptr - key);
      const Slot ref = internal::objectFind(top, std::string_view(key, len));
      const internal::ArrayNode* path = internal::arrayOf(ref & ~Slot{7});
      Slot node = root;
      for (std::uint32_t i = 0; i < path->count; ++i)
        node = internal::objectFind(node, internal::stringOf(path->items[i]));
      Slot values[5];
      for (int f = 0; f < 5; ++f) values[f] = internal::objectFind(node, fieldProbes[f]);
      if (kShare && internal::isPlain(node) && internal::objectSize(node) == 5) {
        internal::retain(node);
        items.add(internal::makeString(std::string_view(key, len)), node);
        continue;
      }
      internal::ObjectBuilder item;
      for (int f = 0; f < 5; ++f) {
        internal::retain(values[f]);
        item.add(internal::makeString(fields[f]), internal::valueView(values[f]));
      }
      items.add(internal::makeString(std::string_view(key, len)), item.build());
    }
    SlotRef result(items.build());
    benchmark::DoNotOptimize(result);
  }
  state.counters["ns/leaf"] = benchmark::Counter(static_cast<double>(state.iterations()) * n * kLeavesPerVideo,
                                                 benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK_TEMPLATE(BM_ProbeReadWalk, false)->Arg(100000)->Unit(benchmark::kMicrosecond);

// The lookups of that walk alone (reference, video, five fields), no result.
void BM_ProbeReadLookups(benchmark::State& state) {
  const std::size_t n = 1000;
  const JSONGraph g = catalogueGraph(static_cast<std::size_t>(state.range(0)), n);
  const internal::KeyProbe fieldProbes[] = {internal::KeyProbe("title"), internal::KeyProbe("rating"),
                                            internal::KeyProbe("year"), internal::KeyProbe("genre"),
                                            internal::KeyProbe("boxart")};
  for (auto _ : state) {
    const Slot root = internal::slot(g);
    const Slot top = internal::objectFind(internal::objectFind(root, "lists"), "top");
    char key[24];
    Slot sink = 0;
    for (std::size_t k = 0; k < n; ++k) {
      const auto len = static_cast<std::size_t>(std::to_chars(key, key + sizeof key, k).ptr - key);
      const Slot ref = internal::objectFind(top, std::string_view(key, len));
      const internal::ArrayNode* path = internal::arrayOf(ref & ~Slot{7});
      Slot node = root;
      for (std::uint32_t i = 0; i < path->count; ++i)
        node = internal::objectFind(node, internal::stringOf(path->items[i]));
      for (const auto& probe : fieldProbes) sink ^= internal::objectFind(node, probe);
    }
    benchmark::DoNotOptimize(sink);
  }
  state.counters["ns/leaf"] = benchmark::Counter(static_cast<double>(state.iterations()) * n * kLeavesPerVideo,
                                                 benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_ProbeReadLookups)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK_TEMPLATE(BM_ProbeReadWalk, true)->Arg(100000)->Unit(benchmark::kMicrosecond);

// The merge of the response's 1,000 new videos into a "videos" branch holding
// M others: the branch copies only the trie nodes on the changed paths.
void BM_ProbeMergeIntoLargeBranch(benchmark::State& state) {
  const std::size_t m = static_cast<std::size_t>(state.range(0));
  const SlotRef cached(videosNode(1000, m));
  const SlotRef response(videosNode(0, 1000));
  const std::vector<internal::Entry> changes = internal::objectEntries(response.get());
  for (auto _ : state) {
    SlotRef merged(internal::objectUpdate(cached.get(), changes, [](Slot, Slot incoming) {
      internal::retain(incoming);
      return incoming;
    }));
    benchmark::DoNotOptimize(merged);
    state.PauseTiming();
    merged = SlotRef();
    state.ResumeTiming();
  }
}
BENCHMARK(BM_ProbeMergeIntoLargeBranch)->Arg(1000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMicrosecond);

// The merge the cache makes, in its simplest form: branches merge key by key,
// anything else replaces (no timestamps in this workload).
Slot mergeGraphs(Slot incoming, Slot old) {
  if (!internal::isObjectSlot(incoming) || !internal::isObjectSlot(old)) return internal::copySlot(incoming);
  return internal::objectUpdate(old, internal::objectEntries(incoming), [](Slot o, Slot n) -> Slot {
    return o == internal::kEmpty ? internal::copySlot(n) : mergeGraphs(n, o);
  });
}

// A whole merge of the catalogue response (N = 1,000) into a cache holding M
// other videos: conversion from platform objects, then the merge; the result
// is released untimed. The 1,000,000 case should cost at most twice the 1,000.
void BM_ProbeMergeResponse(benchmark::State& state) {
  const std::size_t m = static_cast<std::size_t>(state.range(0));
  internal::ObjectBuilder root;
  root.add("videos", videosNode(1000, m));
  const SlotRef cached(root.build());
  const Object response = testing::catalogueResponse(1000, testing::Dialect::Core);
  for (auto _ : state) {
    const JSONGraph incoming = JSONGraph::fromAny(response);
    SlotRef merged(mergeGraphs(internal::slot(incoming), cached.get()));
    benchmark::DoNotOptimize(merged);
    state.PauseTiming();
    merged = SlotRef();
    state.ResumeTiming();
  }
  state.counters["ns/leaf"] = benchmark::Counter(static_cast<double>(state.iterations()) * 1000 * (kLeavesPerVideo + 1),
                                                 benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_ProbeMergeResponse)->Arg(1000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMicrosecond);

// Snapshot shape: the 100,000-video graph to JSON text and back.
void BM_ProbeGraphTextRoundTrip(benchmark::State& state) {
  const JSONGraph g = catalogueGraph(static_cast<std::size_t>(state.range(0)), 1000);
  std::size_t bytes = 0;
  for (auto _ : state) {
    Result<std::string> text = g.toJSONText();
    bytes = text->size();
    Result<JSONGraph> back = JSONGraph::fromJSONText(text.value());
    benchmark::DoNotOptimize(back);
  }
  state.counters["MB"] = static_cast<double>(bytes) / 1e6;
}
BENCHMARK(BM_ProbeGraphTextRoundTrip)->Arg(100000)->Unit(benchmark::kMillisecond);

// The two halves: writing, and reading (the parsed graph released untimed).
void BM_ProbeGraphToText(benchmark::State& state) {
  const JSONGraph g = catalogueGraph(static_cast<std::size_t>(state.range(0)), 1000);
  for (auto _ : state) {
    Result<std::string> text = g.toJSONText();
    benchmark::DoNotOptimize(text);
  }
}
BENCHMARK(BM_ProbeGraphToText)->Arg(100000)->Unit(benchmark::kMillisecond);

void BM_ProbeGraphFromText(benchmark::State& state) {
  const std::string text = catalogueGraph(static_cast<std::size_t>(state.range(0)), 1000).toJSONText().value();
  for (auto _ : state) {
    Result<JSONGraph> g = JSONGraph::fromJSONText(text);
    benchmark::DoNotOptimize(g);
    state.PauseTiming();
    g = JSONGraph();
    state.ResumeTiming();
  }
}
BENCHMARK(BM_ProbeGraphFromText)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace brivet
