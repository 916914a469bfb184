// Fuzzes a data source's answers as the legacy model digests them: a model whose scripted data source answers
// every request with the parsed JSON text (the "results" dictionary: "value", "error", "paths", "invalidated")
// runs a get of the input's key paths and a call, then its cache is read, saved and restored
// (testing/legacy_fuzz.h has those properties).
//
// Directives: "!option N" chooses the get option (0 to 4); "!fail" answers with an error instead; "!later"
// answers from another thread; "!expire" switches cache expiry on.
//
// Properties: the get ends with exactly one completion (two for option 3, which answers from the cache first) and
// the call with exactly one; no completion carries anything but a dictionary (or nothing, with or without an
// error).
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "brivet/legacy/function_call.h"
#include "brivet/legacy/model.h"
#include "brivet/legacy/testing/legacy_doubles.h"
#include "brivet/legacy/testing/legacy_fuzz.h"
#include "brivet/platform/json.h"
#include "brivet/testing/fuzz_input.h"

namespace {

using namespace brivet;

constexpr const char* kCache = R"({"lists": {"top": {"0": ["videos", "v0"], "1": ["videos", "v1"]}},
                                   "videos": {"v0": {"title": "Title 0", "year": 1950}}})";

struct Completions {
  int count = 0;
  bool answered = true;
};

BrivetCompletion record(const std::shared_ptr<Completions>& seen) {
  return [seen](const Object& result, const std::optional<Error>& /*error*/) {
    ++seen->count;
    // A dictionary, an error, or neither (an answer without a value completes empty).
    seen->answered = seen->answered && (result.isNil() || result.isDictionary());
  };
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const testing::FuzzInput input = testing::FuzzInput::from(data, size);
  const Result<Object> parsed = parseJSON(input.json, JSONReadingOptions::MutableContainers);

  auto dataSource = std::make_shared<testing::ScriptedDataSource>();
  dataSource->expiration = input.has("expire");
  dataSource->delivery =
      input.has("later") ? testing::ScriptedDataSource::Delivery::Later : testing::ScriptedDataSource::Delivery::Synchronous;
  dataSource->response.results = parsed.ok() ? parsed.value() : Object(input.json);
  if (input.has("fail")) dataSource->response.error = Error::withDescription("fuzz", 1, "the data source failed");

  auto model = BrivetModel::create();
  model->setDataSource(dataSource);
  model->mergeJSONDictionaryIntoModel(testing::json(kCache));

  const long long option = input.argument("option", 0);
  const BrivetModelOption chosen = option >= 0 && option <= 4 ? static_cast<BrivetModelOption>(option)
                                                              : BrivetModelOptionDefault;
  auto got = std::make_shared<Completions>();
  model->getKeyPaths(input.keyPaths, chosen, std::nullopt, record(got));
  const int expected = chosen == BrivetModelOptionReturnCacheDataAndFetch ? 2 : 1;
  BRIVET_FUZZ_CHECK(testing::awaitCompletions(*model, [&] { return got->count; }, expected) == expected,
                    "a get ends with exactly one completion (two when it answers from the cache first)");
  BRIVET_FUZZ_CHECK(got->answered, "every completion carries a dictionary or nothing");

  auto called = std::make_shared<Completions>();
  model->callFunction(std::make_shared<BrivetFunctionCall>("lists.add", std::nullopt, std::nullopt, std::nullopt),
                      input.keyPaths, record(called));
  BRIVET_FUZZ_CHECK(testing::awaitCompletions(*model, [&] { return called->count; }, 1) == 1 && called->answered,
                    "a call ends with exactly one completion, a dictionary or nothing");

  testing::checkLegacyReads(*model, input.keyPaths);
  testing::checkLegacySnapshots(*model, input.keyPaths);
  return 0;
}
