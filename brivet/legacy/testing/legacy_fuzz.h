// What the legacy model's fuzz harnesses check once a model holds fuzzed data (fuzz harnesses only): reads of
// the input's key paths, their misses, a cache-only get, and saving and restoring the cache.
//
// Properties: every read and miss collection ends; `valuesForKeyPaths` answers one value per key path; the get
// ends with exactly one completion, a dictionary or an error; a saved cache (whole or by key paths) is JSON, a
// new model restores it, and the restored model saves it again as JSON.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "brivet/legacy/model.h"
#include "brivet/legacy/path.h"
#include "brivet/platform/dispatch_queue.h"
#include "brivet/platform/json.h"
#include "brivet/testing/fuzz_input.h"

namespace brivet::testing {

// Runs the main queue until `count` completions arrived and the model's queue ran out; answers the count.
template <class Count>
int awaitCompletions(BrivetModel& model, const Count& count, int expected) {
  DispatchQueue::main()->runUntil([&] { return count() >= expected; }, std::chrono::seconds(30));
  model.valueForKey("-");  // waits for the model's queue
  DispatchQueue::main()->drain();
  return count();
}

inline void checkLegacyReads(BrivetModel& model, const std::vector<std::string>& keyPaths) {
  for (const std::string& keyPath : keyPaths) {
    model.valueForKeyPath(keyPath);
    model.valueForKey(keyPath);
  }
  BRIVET_FUZZ_CHECK(model.valuesForKeyPaths(keyPaths, true).size() == keyPaths.size(), "one value per key path");

  std::vector<std::string> misses;
  model.jsongModelAccessQueue()->sync([&] {
    for (const std::string& keyPath : keyPaths) {
      model.collectCacheMissesInto(&misses, BrivetPath::withKeyPath(keyPath).get(), std::nullopt);
    }
  });

  int completions = 0;
  bool answered = false;
  model.getKeyPaths(keyPaths, BrivetModelOptionReturnCacheDataDontFetch, std::nullopt,
                    [&](const Object& result, const std::optional<Error>& error) {
                      ++completions;
                      answered = result.isDictionary() || error.has_value();  // a cache read always answers
                    });
  BRIVET_FUZZ_CHECK(awaitCompletions(model, [&] { return completions; }, 1) == 1 && answered,
                    "a cache-only get ends with one completion, a dictionary or an error");
}

inline void checkLegacySnapshots(BrivetModel& model, const std::vector<std::string>& keyPaths) {
  std::optional<Error> error;
  if (const std::optional<std::string> saved = model.serializeCache(&error)) {
    BRIVET_FUZZ_CHECK(parseJSON(*saved).ok(), "a saved cache is JSON");
    auto restored = BrivetModel::create();
    BRIVET_FUZZ_CHECK(restored->deserializeCache(*saved, &error), "a saved cache restores");
    const std::optional<std::string> again = restored->serializeCache(&error);
    BRIVET_FUZZ_CHECK(again.has_value() && parseJSON(*again).ok(), "a restored cache saves again as JSON");
  }
  if (const std::optional<std::string> part = model.serializeCacheWithKeyPaths(keyPaths, &error)) {
    BRIVET_FUZZ_CHECK(parseJSON(*part).ok(), "a saved part of the cache is JSON");
  }
}

}  // namespace brivet::testing
