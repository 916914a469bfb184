// The worst call answers of about 1 MB we know how to build, digested by the legacy model: the answer's JSON text
// parsed, "invalidated" applied, its "value" merged into the cache and its "paths" read back. The same kinds as
// the core model's BM_HostileCallAnswer, in the legacy dialect (references are arrays of keys). Every fan-out kind
// ends at the walk budget (`failed` is 1 when the call answered with an error); `benign` is 1 MB of videos read
// back in full, for scale. The time is one whole digest. Peak memory of one digest: run one kind per process,
// e.g. under /usr/bin/time -v (maximum resident set) or valgrind's massif:
//
//   make bench BENCH_ARGS='--benchmark_filter=BM_LegacyHostileCallAnswer'
//   /usr/bin/time -v build-release/brivet_benchmarks
//       --benchmark_filter=BM_LegacyHostileCallAnswer/fanOutPaths$ --benchmark_min_time=0.001
//   (one command line)
#include <benchmark/benchmark.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "brivet/legacy/function_call.h"
#include "brivet/legacy/model.h"
#include "brivet/legacy/testing/legacy_doubles.h"
#include "brivet/platform/dispatch_queue.h"
#include "brivet/platform/json.h"

namespace brivet {
namespace {

constexpr std::size_t kAnswerBytes = 1 << 20;
constexpr const char* kCycle = R"("a": {"x": ["a"], "y": ["a"], "t": 1})";

// ["a", ["x", "y"] x levels, last]
std::string fanOutPath(int levels, const char* last) {
  std::string p = R"(["a")";
  for (int i = 0; i < levels; ++i) p += R"(,["x","y"])";
  return p + ",\"" + last + "\"]";
}
// As many copies of `path` as fit in `room` bytes.
std::string manyPaths(const std::function<std::string(std::size_t)>& path, std::size_t room) {
  std::string out = "[";
  for (std::size_t i = 0; out.size() < room; ++i) {
    if (i > 0) out += ',';
    out += path(i);
  }
  return out + "]";
}
// {"big": {"0": {"v": 0}, ...}} of about `bytes`.
std::string largeBranch(std::size_t bytes) {
  std::string out = R"("big": {)";
  for (std::size_t i = 0; out.size() < bytes; ++i) {
    if (i > 0) out += ',';
    out += "\"" + std::to_string(i) + "\":{\"v\":" + std::to_string(i) + "}";
  }
  return out + "}";
}
std::string rangeFrom(std::size_t i) {
  return R"(["big",{"from":)" + std::to_string(i) + R"(,"to":9223372036854775807},"v"])";
}
// A chain of `levels` nested "d" branches ending in {"t": 1}, and the path down it.
std::string deepChain(int levels) {
  std::string out = R"("d": )";
  for (int i = 1; i < levels; ++i) out += R"({"d": )";
  out += R"({"t": 1})";
  for (int i = 1; i < levels; ++i) out += "}";
  return out;
}
std::string deepPath(int levels) {
  std::string p = "[";
  for (int i = 0; i < levels; ++i) p += R"("d",)";
  return p + "\"t\"]";
}

enum class Kind {
  Benign,
  FanOutPaths,
  FanOutMisses,
  LongMisses,
  RangesOverALargeBranch,
  InvalidatedRanges,
  InvalidatedFanOut,
  DeepPaths
};

std::string hostileAnswer(Kind kind) {
  switch (kind) {
    case Kind::Benign: {  // for comparison: 1 MB of videos, every field read back
      std::string videos = R"("videos": {)";
      std::size_t count = 0;
      for (; videos.size() < kAnswerBytes; ++count) {
        if (count > 0) videos += ',';
        const std::string i = std::to_string(count);
        videos += "\"" + i + R"(":{"title":"Title )" + i + R"(","rating":3.5,"year":1990,"genre":"Drama",)" +
                  R"("boxart":{"$type":"leaf","url":"https://img.example/)" + i + R"(.jpg","w":150,"h":200}})";
      }
      return R"({"value": {)" + videos + R"(}, "paths": [["videos", {"from": 0, "to": )" +
             std::to_string(count - 1) + R"(}, ["title", "rating", "year", "genre", "boxart"]]]})";
    }
    case Kind::FanOutPaths:  // 2^500 walks per path
      return std::string(R"({"value": {)") + kCycle + R"(}, "paths": )" +
             manyPaths([](std::size_t) { return fanOutPath(500, "t"); }, kAnswerBytes) + "}";
    case Kind::FanOutMisses:  // the same, every walk ending on a missing key: long missing paths
      return std::string(R"({"value": {)") + kCycle + R"(}, "paths": )" +
             manyPaths([](std::size_t) { return fanOutPath(500, "missing"); }, kAnswerBytes) + "}";
    case Kind::LongMisses:  // a thousand absent keys, each followed by 500 more: every miss is a long path
      return std::string(R"({"value": {)") + kCycle + R"(}, "paths": )" +
             manyPaths(
                 [](std::size_t) {
                   std::string p = R"(["a", [)";
                   for (int k = 0; k < 1000; ++k) p += (k > 0 ? ",\"m" : "\"m") + std::to_string(k) + "\"";
                   p += "]";
                   for (int k = 0; k < 500; ++k) p += R"(,"r")";
                   return p + "]";
                 },
                 kAnswerBytes) +
             "}";
    case Kind::RangesOverALargeBranch:
      return R"({"value": {)" + largeBranch(kAnswerBytes * 3 / 4) + R"(}, "paths": )" +
             manyPaths(rangeFrom, kAnswerBytes / 4) + "}";
    case Kind::InvalidatedRanges:
      return R"({"value": {)" + largeBranch(kAnswerBytes * 3 / 4) + R"(}, "paths": [], "invalidated": )" +
             manyPaths(rangeFrom, kAnswerBytes / 4) + "}";
    case Kind::InvalidatedFanOut:
      return std::string(R"({"value": {)") + kCycle + R"(}, "paths": [], "invalidated": )" +
             manyPaths([](std::size_t) { return fanOutPath(500, "t"); }, kAnswerBytes) + "}";
    case Kind::DeepPaths:  // a branch 500 levels deep, read to the bottom by every path
      return R"({"value": {)" + deepChain(500) + R"(}, "paths": )" +
             manyPaths([](std::size_t) { return deepPath(500); }, kAnswerBytes) + "}";
  }
  return "{}";
}

void BM_LegacyHostileCallAnswer(benchmark::State& state, Kind kind) {
  const std::string text = hostileAnswer(kind);
  auto dataSource = std::make_shared<testing::ScriptedDataSource>();
  // The answer is read from its text inside each call, as a network adapter would.
  dataSource->responder = [&text](const Object&) {
    testing::ScriptedResponse response;
    response.results = parseJSON(text, JSONReadingOptions::MutableContainers).valueOr(Object());
    return response;
  };
  const auto function = std::make_shared<BrivetFunctionCall>("lists.add", std::nullopt, std::nullopt, std::nullopt);
  int failures = 0;
  for (auto _ : state) {
    auto model = BrivetModel::create();
    model->setDataSource(dataSource);
    bool done = false;
    model->callFunction(function, [&](const Object&, const std::optional<Error>& error) {
      if (error) ++failures;
      done = true;
    });
    DispatchQueue::main()->runUntil([&] { return done; }, std::chrono::minutes(5));
  }
  state.counters["answer_MB"] = static_cast<double>(text.size()) / 1e6;
  state.counters["failed"] = static_cast<double>(failures) / static_cast<double>(state.iterations());
}
#define BRIVET_HOSTILE(kind, value) \
  BENCHMARK_CAPTURE(BM_LegacyHostileCallAnswer, kind, value)->UseRealTime()->Unit(benchmark::kMillisecond)
BRIVET_HOSTILE(benign, Kind::Benign);
BRIVET_HOSTILE(fanOutPaths, Kind::FanOutPaths);
BRIVET_HOSTILE(fanOutMisses, Kind::FanOutMisses);
BRIVET_HOSTILE(longMisses, Kind::LongMisses);
BRIVET_HOSTILE(rangesOverALargeBranch, Kind::RangesOverALargeBranch);
BRIVET_HOSTILE(invalidatedRanges, Kind::InvalidatedRanges);
BRIVET_HOSTILE(invalidatedFanOut, Kind::InvalidatedFanOut);
BRIVET_HOSTILE(deepPaths, Kind::DeepPaths);
#undef BRIVET_HOSTILE

}  // namespace
}  // namespace brivet
