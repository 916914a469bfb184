// Fuzzes the legacy model's snapshot restore (`deserializeCache`): the JSON text is restored into a new model
// (twice: a snapshot merged over itself), the same text is merged again as the immutable dictionary an application
// would hand over, the cache is saved and restored into a fresh model, and then the input's key paths are read,
// their misses collected and read as a cache-only get, and the cache saved again (testing/legacy_fuzz.h has the
// properties of those last steps).
//
// Properties of the restore itself:
//  * it succeeds exactly when the text is JSON whose top level is a dictionary; text that is not JSON restores
//    with the parser's error;
//  * every dictionary the cache holds afterwards is writable (an immutable one would drop every later write
//    under it), also after merging immutable containers;
//  * the cache's snapshot restores into a fresh model whose own snapshot says the same, unless that restore
//    reports entries it left out (a cached reference whose target the cache does not hold is written, but a
//    restore cannot store it).
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "brivet/legacy/model.h"
#include "brivet/legacy/testing/legacy_fuzz.h"
#include "brivet/platform/json.h"
#include "brivet/testing/fuzz_input.h"

namespace {

using brivet::BrivetModel;
using brivet::Dictionary;
using brivet::Object;

bool everyDictionaryWritable(const Object& node, std::size_t depth) {
  const Dictionary* d = node.asDictionary();
  if (d == nullptr || depth > 2048) return true;
  if (!node.isMutableDictionary()) return false;
  for (const auto& entry : *d) {
    if (!everyDictionaryWritable(entry.second, depth + 1)) return false;
  }
  return true;
}

bool writable(BrivetModel& model) {
  bool result = false;
  model.jsongModelAccessQueue()->sync([&] { result = everyDictionaryWritable(model.jsongModel(), 0); });
  return result;
}

Object snapshotOf(BrivetModel& model) {
  const std::optional<std::string> text = model.serializeCache();
  return text ? brivet::parseJSON(*text).valueOr(Object()) : Object();
}

// Saves the model's cache and restores it into a fresh model: the restored cache is writable and, unless the
// restore left entries out, saves as the same snapshot.
void checkRoundTrip(BrivetModel& model) {
  // A cache whose root holds a "jsonGraph" dictionary and a "$_version" number is written as if it were the
  // envelope itself (the snapshot format's own rule), so its other keys do not come back: not checked here.
  if (model.valueForKey("jsonGraph").isDictionary() && model.valueForKey("$_version").isNumber()) return;
  const std::optional<std::string> saved = model.serializeCache();
  const Object first = saved ? brivet::parseJSON(*saved).valueOr(Object()) : Object();
  if (first.isNil()) return;
  const auto restored = BrivetModel::create();
  brivet::BrivetRestoreReport report;
  BRIVET_FUZZ_CHECK(restored->deserializeCache(*saved, nullptr, &report), "a saved cache restores");
  BRIVET_FUZZ_CHECK(writable(*restored), "a restored cache holds only writable dictionaries");
  if (report.leftOut == 0) {
    BRIVET_FUZZ_CHECK(snapshotOf(*restored).isEqual(first), "a restored cache saves as the snapshot it came from");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const brivet::testing::FuzzInput input = brivet::testing::FuzzInput::from(data, size);
  auto model = BrivetModel::create();
  std::optional<brivet::Error> error;
  brivet::BrivetRestoreReport report;
  const bool restored = model->deserializeCache(input.json, &error, &report);
  const brivet::Result<Object> parsed = brivet::parseJSON(input.json, brivet::JSONReadingOptions::MutableContainers);
  BRIVET_FUZZ_CHECK(restored == (parsed.ok() && parsed->isMutableDictionary()),
                    "a restore succeeds exactly for a JSON dictionary");
  BRIVET_FUZZ_CHECK(parsed.ok() || error.has_value(), "text that is not JSON restores with the parser's error");
  if (!restored) return 0;
  model->deserializeCache(input.json, &error);
  // The same graph again, as immutable containers an application merges.
  const brivet::Result<Object> frozen = brivet::parseJSON(input.json);
  if (frozen.ok() && frozen.value().isDictionary()) {
    const Object graph = frozen.value()["jsonGraph"];
    model->mergeJSONDictionaryIntoModel(graph.isDictionary() && frozen.value()["$_version"].isNumber() ? graph
                                                                                                       : frozen.value());
  }
  BRIVET_FUZZ_CHECK(writable(*model), "after restores and merges the cache holds only writable dictionaries");
  checkRoundTrip(*model);

  brivet::testing::checkLegacyReads(*model, input.keyPaths);
  brivet::testing::checkLegacySnapshots(*model, input.keyPaths);
  return 0;
}
