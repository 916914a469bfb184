// Fuzzes the legacy model's snapshot restore (`deserializeCache`): the JSON text is restored into a new model
// (twice: a snapshot merged over itself), then the input's key paths are read, their misses collected and read as
// a cache-only get, and the cache is saved and restored again (testing/legacy_fuzz.h has the properties).
//
// Restore property: it succeeds exactly when the text is JSON whose top level is a dictionary.
#include <cstddef>
#include <cstdint>
#include <optional>

#include "brivet/legacy/model.h"
#include "brivet/legacy/testing/legacy_fuzz.h"
#include "brivet/platform/json.h"
#include "brivet/testing/fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const brivet::testing::FuzzInput input = brivet::testing::FuzzInput::from(data, size);
  auto model = brivet::BrivetModel::create();
  std::optional<brivet::Error> error;
  const bool restored = model->deserializeCache(input.json, &error);
  const brivet::Result<brivet::Object> parsed =
      brivet::parseJSON(input.json, brivet::JSONReadingOptions::MutableContainers);
  BRIVET_FUZZ_CHECK(restored == (parsed.ok() && parsed->isMutableDictionary()),
                    "a restore succeeds exactly for a JSON dictionary");
  BRIVET_FUZZ_CHECK(parsed.ok() || error.has_value(), "text that is not JSON restores with the parser's error");
  if (!restored) return 0;
  model->deserializeCache(input.json, &error);
  brivet::testing::checkLegacyReads(*model, input.keyPaths);
  brivet::testing::checkLegacySnapshots(*model, input.keyPaths);
  return 0;
}
