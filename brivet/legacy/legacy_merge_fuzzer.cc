// Fuzzes the legacy model's merge input (`mergeJSONDictionaryIntoModel`): the JSON text is parsed as a data
// source's response would be and merged twice (a refreshed answer), then the input's key paths are read, their
// misses collected and read as a cache-only get, and the cache is saved and restored (testing/legacy_fuzz.h has
// the properties). "!prefix" makes the key paths the model's prefixes.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "brivet/legacy/model.h"
#include "brivet/legacy/testing/legacy_fuzz.h"
#include "brivet/platform/json.h"
#include "brivet/testing/fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const brivet::testing::FuzzInput input = brivet::testing::FuzzInput::from(data, size);
  auto parse = [&] { return brivet::parseJSON(input.json, brivet::JSONReadingOptions::MutableContainers); };
  brivet::Result<brivet::Object> response = parse();
  if (!response.ok() || !response->isMutableDictionary()) return 0;

  auto model = brivet::BrivetModel::create(
      input.has("prefix") ? std::optional<std::vector<std::string>>(input.keyPaths) : std::nullopt);
  model->mergeJSONDictionaryIntoModel(*response);
  model->mergeJSONDictionaryIntoModel(parse().value());
  brivet::testing::checkLegacyReads(*model, input.keyPaths);
  brivet::testing::checkLegacySnapshots(*model, input.keyPaths);
  return 0;
}
