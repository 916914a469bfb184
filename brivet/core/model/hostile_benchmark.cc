// The worst answers of about 1 MB we know how to build, digested by a core
// model as a call answer: JSON text parsed, the answer read by the HTTP data
// source, "invalidated" applied, the graph merged and the "paths" read back.
// Every hostile kind ends at the walk budget (`failed` is 1 when the read
// failed on it); `benign` is 1 MB of videos read back in full, for scale, and
// `deepPaths` reads a branch 500 levels deep to the bottom, over and over. The
// time is one whole digest. Peak heap of one digest, with valgrind's massif:
//
//   make bench BENCH_ARGS='--benchmark_filter=BM_HostileCallAnswer'
//   valgrind --tool=massif build-release/brivet_benchmarks
//       --benchmark_filter=BM_HostileCallAnswer/longMisses/ --benchmark_min_time=0.001
//   (one command line)
#include <benchmark/benchmark.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "brivet/core/cache/cache.h"
#include "brivet/core/datasource/http_data_source.h"
#include "brivet/core/model/model.h"
#include "brivet/core/model/operations.h"
#include "brivet/platform/json.h"

namespace brivet {
namespace {

constexpr std::size_t kAnswerBytes = 1 << 20;
constexpr const char* kCycle = R"("a": {"x": {"$type": "ref", "value": ["a"]},
                                        "y": {"$type": "ref", "value": ["a"]}, "t": 1})";

// ["a", ["x", "y"] x levels, last]
std::string fanOutPath(int levels, const char* last) {
  std::string p = R"(["a")";
  for (int i = 0; i < levels; ++i) p += R"(,["x","y"])";
  return p + ",\"" + last + "\"]";
}
// As many copies of `path` (with its index appended, so none are merged away) as fit in the answer.
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
                  R"("boxart":{"$type":"atom","value":{"url":"https://img.example/)" + i + R"(.jpg","w":150,"h":200}}})";
      }
      return R"({"jsonGraph": {)" + videos + R"(}}, "paths": [["videos", {"from": 0, "to": )" +
             std::to_string(count - 1) + R"(}, ["title", "rating", "year", "genre", "boxart"]]]})";
    }
    case Kind::FanOutPaths:  // 2^500 walks per path
      return std::string(R"({"jsonGraph": {)") + kCycle + R"(}, "paths": )" +
             manyPaths([](std::size_t) { return fanOutPath(500, "t"); }, kAnswerBytes) + "}";
    case Kind::FanOutMisses:  // the same, every walk ending on a missing key: long missing paths
      return std::string(R"({"jsonGraph": {)") + kCycle + R"(}, "paths": )" +
             manyPaths([](std::size_t) { return fanOutPath(500, "missing"); }, kAnswerBytes) + "}";
    case Kind::LongMisses:  // a thousand absent keys, each followed by 500 more: every miss is a long path
      return std::string(R"({"jsonGraph": {)") + kCycle + R"(}, "paths": )" +
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
      return R"({"jsonGraph": {)" + largeBranch(kAnswerBytes * 3 / 4) + R"(}, "paths": )" +
             manyPaths(rangeFrom, kAnswerBytes / 4) + "}";
    case Kind::InvalidatedRanges:
      return R"({"jsonGraph": {)" + largeBranch(kAnswerBytes * 3 / 4) + R"(}, "paths": [], "invalidated": )" +
             manyPaths(rangeFrom, kAnswerBytes / 4) + "}";
    case Kind::InvalidatedFanOut:
      return std::string(R"({"jsonGraph": {)") + kCycle + R"(}, "paths": [], "invalidated": )" +
             manyPaths([](std::size_t) { return fanOutPath(500, "t"); }, kAnswerBytes) + "}";
    case Kind::DeepPaths:  // a branch 500 levels deep, read to the bottom by every path
      return R"({"jsonGraph": {)" + deepChain(500) + R"(}, "paths": )" +
             manyPaths([](std::size_t) { return deepPath(500); }, kAnswerBytes) + "}";
  }
  return "{}";
}

// Answers every request with the dictionary parsed from `text`, on the calling thread.
class CannedClient final : public HTTPClientProtocol {
 public:
  explicit CannedClient(const std::string& text) : text_(text) {}
  Object preGET(const PathTree&) override { return Object(); }
  Object prePOST(const PathTree&) override { return Object(); }
  std::shared_ptr<Stream<Object>> GET(const std::string&, const Object&) override { return answer(); }
  std::shared_ptr<Stream<Object>> POST(const std::string&, const Object&) override { return answer(); }

 private:
  std::shared_ptr<Stream<Object>> answer() {
    return Stream<Object>::create(
        [text = text_](Stream<Object>::Observer observer) {
          Result<Object> parsed = parseJSON(text, JSONReadingOptions::MutableContainers);
          if (parsed.ok()) observer(BrivetResult<Object>::progress(parsed.value()));
          observer(BrivetResult<Object>::complete());
        },
        nullptr);
  }
  const std::string text_;
};

void BM_HostileCallAnswer(benchmark::State& state, Kind kind) {
  const std::string text = hostileAnswer(kind);
  auto client = std::make_shared<CannedClient>(text);
  int failures = 0;
  for (auto _ : state) {
    const InternalModel model(Cache::create(), HTTPDataSource::create("https://graph.example/model.json", client));
    bool done = false;
    auto subscription = model.call({"lists", "add"}).asStream()->subscribe([&](const BrivetResult<JSONEnvelope>& r) {
      if (r.isFailure()) ++failures;
      if (r.isTerminal()) done = true;
    });
    DispatchQueue::main()->runUntil([&] { return done; }, std::chrono::minutes(5));
  }
  state.counters["answer_MB"] = static_cast<double>(text.size()) / 1e6;
  state.counters["failed"] = static_cast<double>(failures) / static_cast<double>(state.iterations());
}
BENCHMARK_CAPTURE(BM_HostileCallAnswer, benign, Kind::Benign)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_HostileCallAnswer, fanOutPaths, Kind::FanOutPaths)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_HostileCallAnswer, fanOutMisses, Kind::FanOutMisses)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_HostileCallAnswer, longMisses, Kind::LongMisses)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_HostileCallAnswer, rangesOverALargeBranch, Kind::RangesOverALargeBranch)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_HostileCallAnswer, invalidatedRanges, Kind::InvalidatedRanges)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_HostileCallAnswer, invalidatedFanOut, Kind::InvalidatedFanOut)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_HostileCallAnswer, deepPaths, Kind::DeepPaths)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace brivet
