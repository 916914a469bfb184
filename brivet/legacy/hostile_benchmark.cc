// The worst call answers of about 1 MB we know how to build, digested by the legacy model: the answer's JSON text
// parsed, "invalidated" applied, its "value" merged into the cache and its "paths" read back. The same kinds as
// the core model's BM_HostileCallAnswer, in the legacy dialect (references are arrays of keys). Every fan-out kind
// ends at the walk budget (`failed` is 1 when the call answered with an error); `benign` is 1 MB of videos read
// back in full, for scale (the answers: brivet/testing/hostile_answers.h). The time is one whole digest. Peak
// memory of one digest: run one kind per process, e.g. under /usr/bin/time -v (maximum resident set) or
// valgrind's massif:
//
//   make bench BENCH_ARGS='--benchmark_filter=BM_LegacyHostileCallAnswer'
//   /usr/bin/time -v build-release/brivet_benchmarks
//       --benchmark_filter=BM_LegacyHostileCallAnswer/fanOutPaths$ --benchmark_min_time=0.001
//   (one command line)
#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>
#include <string>

#include "brivet/legacy/function_call.h"
#include "brivet/legacy/model.h"
#include "brivet/legacy/testing/legacy_doubles.h"
#include "brivet/platform/dispatch_queue.h"
#include "brivet/platform/json.h"
#include "brivet/testing/hostile_answers.h"

namespace brivet {
namespace {

using testing::HostileAnswer;

void BM_LegacyHostileCallAnswer(benchmark::State& state, HostileAnswer kind) {
  const std::string text = testing::hostileAnswer(kind, testing::AnswerDialect::Legacy);
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
BRIVET_HOSTILE(benign, HostileAnswer::Benign);
BRIVET_HOSTILE(fanOutPaths, HostileAnswer::FanOutPaths);
BRIVET_HOSTILE(fanOutMisses, HostileAnswer::FanOutMisses);
BRIVET_HOSTILE(longMisses, HostileAnswer::LongMisses);
BRIVET_HOSTILE(rangesOverALargeBranch, HostileAnswer::RangesOverALargeBranch);
BRIVET_HOSTILE(invalidatedRanges, HostileAnswer::InvalidatedRanges);
BRIVET_HOSTILE(invalidatedFanOut, HostileAnswer::InvalidatedFanOut);
BRIVET_HOSTILE(deepPaths, HostileAnswer::DeepPaths);
#undef BRIVET_HOSTILE

}  // namespace
}  // namespace brivet
