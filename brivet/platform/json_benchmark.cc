// JSON text throughput on a ~10 MB JSON Graph document (branches, atoms,
// refs, errors), next to RapidJSON's own DOM parse of the same text.
//
//   make bench BENCH_ARGS=--benchmark_filter=JSON
#include <benchmark/benchmark.h>

#include "brivet/platform/internal/rapidjson.h"
#include "brivet/platform/json.h"
#include "brivet/testing/catalogue.h"

#include <rapidjson/document.h>

#include <memory>

namespace brivet {
namespace {

const std::string& documentText() {
  static const std::string text = [] {
    const Object document = testing::catalogueDocument(50000, 1000, 100);
    return writeJSON(document).value();
  }();
  return text;
}

// Parse alone: the tree is released with the timer paused.
template <JSONReadingOptions kOptions>
void BM_JSONParseToObjects(benchmark::State& state) {
  const std::string& text = documentText();
  for (auto _ : state) {
    Result<Object> parsed = parseJSON(text, kOptions);
    benchmark::DoNotOptimize(parsed);
    state.PauseTiming();
    parsed = Object();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
  state.counters["MB"] = static_cast<double>(text.size()) / 1e6;
}
BENCHMARK_TEMPLATE(BM_JSONParseToObjects, JSONReadingOptions::None)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_JSONParseToObjects, JSONReadingOptions::MutableContainers)->Unit(benchmark::kMillisecond);

// What a caller pays in all: parse, then release the tree (with glibc, the
// release of a million small blocks costs more than the parse).
void BM_JSONParseAndRelease(benchmark::State& state) {
  const std::string& text = documentText();
  for (auto _ : state) {
    Result<Object> parsed = parseJSON(text);
    benchmark::DoNotOptimize(parsed);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_JSONParseAndRelease)->Unit(benchmark::kMillisecond);

// The reference: RapidJSON's DOM, with default flags and with the flags our
// parser uses (full-precision doubles, UTF-8 validation).
template <unsigned kFlags>
void BM_RapidJSONDOMParse(benchmark::State& state) {
  const std::string& text = documentText();
  for (auto _ : state) {
    auto document = std::make_unique<rapidjson::Document>();
    document->Parse<kFlags>(text.c_str(), text.size());
    benchmark::DoNotOptimize(document->IsObject());
    state.PauseTiming();
    document.reset();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}
BENCHMARK_TEMPLATE(BM_RapidJSONDOMParse, rapidjson::kParseDefaultFlags)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_RapidJSONDOMParse, rapidjson::kParseFullPrecisionFlag | rapidjson::kParseValidateEncodingFlag)
    ->Unit(benchmark::kMillisecond);

void BM_JSONWriteCompact(benchmark::State& state) {
  const Object document = parseJSON(documentText()).value();
  std::size_t bytes = 0;
  for (auto _ : state) {
    Result<std::string> text = writeJSON(document);
    bytes = text->size();
    benchmark::DoNotOptimize(text);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
}
BENCHMARK(BM_JSONWriteCompact)->Unit(benchmark::kMillisecond);

void BM_JSONWritePretty(benchmark::State& state) {
  const Object document = parseJSON(documentText()).value();
  std::size_t bytes = 0;
  for (auto _ : state) {
    Result<std::string> text = writeJSON(document, JSONWritingOptions::PrettyPrinted);
    bytes = text->size();
    benchmark::DoNotOptimize(text);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
}
BENCHMARK(BM_JSONWritePretty)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace brivet
