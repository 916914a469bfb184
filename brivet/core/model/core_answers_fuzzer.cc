// Fuzzes a data source's answers as the core model digests them: a model
// whose scripted HTTP client answers every request with the parsed JSON text
// (or, when it is not JSON, with the text itself) runs a get of the input's
// key paths, a set of the answer's "jsonGraph" (or of the answer) and a call,
// each through the HTTP data source and the operation pipelines.
//
// Directives: "!fail N" answers with HTTP status N and the answer as error
// body (after the answer as progress with "!partial"); "!later" answers from
// another thread; "!progressive" makes the get and the set progressive.
//
// Properties: every operation ends with exactly one completion and delivers
// nothing after it; the cache stays readable (one value per key path) and
// saves, and what it saves reads back as the envelope the model holds.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "brivet/core/cache/cache_envelope.h"
#include "brivet/core/datasource/data_source.h"
#include "brivet/core/model/testing/tov_doubles.h"
#include "brivet/core/model/tov_model.h"
#include "brivet/platform/json.h"
#include "brivet/testing/fuzz_input.h"

namespace {

using namespace brivet;

constexpr const char* kCache = R"({
  "lists": {"top": {"0": {"$type": "ref", "value": ["videos", "v0"]},
                    "1": {"$type": "ref", "value": ["videos", "v1"]}}},
  "videos": {"v0": {"title": "Title 0", "year": 1950}}})";

struct Run {
  int completions = 0;
  bool progressAfterEnd = false;
};

// Subscribes, runs the main queue until the operation ends, lets every queue
// run out, and checks that it ended once.
void runOnce(TovInternalModel& model, const TovStream<JSONEnvelope>& stream) {
  auto run = std::make_shared<Run>();
  auto subscription = stream.subscribeWithProgressBlock(
      [run](const Object&) { run->progressAfterEnd = run->progressAfterEnd || run->completions > 0; },
      [run](const std::optional<Error>&) { ++run->completions; });
  DispatchQueue::main()->runUntil([&] { return run->completions > 0; }, std::chrono::seconds(30));
  for (int round = 0; round < 2; ++round) {
    model.internalModel().operationQueue()->sync([] {});
    cacheQueue()->sync([] {});
    DispatchQueue::main()->drain();
  }
  BRIVET_FUZZ_CHECK(run->completions == 1, "an operation ends with exactly one completion");
  BRIVET_FUZZ_CHECK(!run->progressAfterEnd, "nothing is delivered after the completion");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const testing::FuzzInput input = testing::FuzzInput::from(data, size);
  const Result<Object> parsed = parseJSON(input.json, JSONReadingOptions::MutableContainers);
  const Object answer = parsed.ok() ? parsed.value() : Object(input.json);

  auto client = std::make_shared<testing::ScriptedHTTPClient>();
  client->delivery = input.has("later") ? testing::Delivery::Later : testing::Delivery::Synchronous;
  if (input.has("fail")) {
    client->reply = {input.has("partial") ? std::vector<Object>{answer} : std::vector<Object>{},
                     httpFailure(input.argument("fail", 500), answer)};
  } else {
    client->reply = {{answer}};
  }
  auto model = TovBrivet::createTovModelWithUrl("https://graph.example/model.json", client, testing::json(kCache));

  auto get = model->getWithKeyPaths(input.keyPaths);
  runOnce(*model, input.has("progressive") ? get->progressively()->asStream() : get->asStream());
  const Object written = answer["jsonGraph"].isDictionary() ? answer["jsonGraph"] : answer;
  auto set = model->setWithValue(written);
  runOnce(*model, input.has("progressive") ? set->progressively()->asStream() : set->asStream());
  runOnce(*model, model->callFunctionWithKeyPath("lists.add", std::nullopt, std::nullopt, input.keyPaths)->asStream());

  BRIVET_FUZZ_CHECK(model->valuesForKeyPaths(input.keyPaths).size() == input.keyPaths.size(),
                    "one value per key path");
  const Result<std::string> saved = model->serializeCacheWithKeyPaths(std::nullopt);
  BRIVET_FUZZ_CHECK(saved.ok(), "the cache saves");
  const Result<std::optional<CacheEnvelope>> back = CacheEnvelope::fromJSONText(saved.value());
  BRIVET_FUZZ_CHECK(back.ok() && back->has_value(), "a saved cache reads back");
  const std::optional<CacheEnvelope> held = CacheEnvelope::fromDictionary(model->getCacheWithKeyPaths(std::nullopt));
  BRIVET_FUZZ_CHECK(held && **back == *held, "a saved cache reads back as the envelope the model holds");
  return 0;
}
