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
#include <memory>
#include <string>

#include "brivet/core/cache/cache.h"
#include "brivet/core/datasource/http_data_source.h"
#include "brivet/core/model/model.h"
#include "brivet/core/model/operations.h"
#include "brivet/platform/json.h"
#include "brivet/testing/hostile_answers.h"

namespace brivet {
namespace {

using testing::HostileAnswer;

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

void BM_HostileCallAnswer(benchmark::State& state, HostileAnswer kind) {
  const std::string text = testing::hostileAnswer(kind, testing::AnswerDialect::JSONGraph);
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
BENCHMARK_CAPTURE(BM_HostileCallAnswer, benign, HostileAnswer::Benign)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_HostileCallAnswer, fanOutPaths, HostileAnswer::FanOutPaths)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_HostileCallAnswer, fanOutMisses, HostileAnswer::FanOutMisses)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_HostileCallAnswer, longMisses, HostileAnswer::LongMisses)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_HostileCallAnswer, rangesOverALargeBranch, HostileAnswer::RangesOverALargeBranch)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_HostileCallAnswer, invalidatedRanges, HostileAnswer::InvalidatedRanges)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_HostileCallAnswer, invalidatedFanOut, HostileAnswer::InvalidatedFanOut)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_HostileCallAnswer, deepPaths, HostileAnswer::DeepPaths)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace brivet
