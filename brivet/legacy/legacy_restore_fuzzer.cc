// Text the legacy model restores, and the same text as an application's immutable dictionary merged into it:
// whatever the bytes, neither crashes or hangs, and afterwards
//  * every dictionary the cache holds is writable (an immutable one would drop every later write under it);
//  * the cache's snapshot restores into a fresh model whose own snapshot says the same, unless the restore
//    reports entries it left out (a cached reference whose target the cache does not hold is written, but a
//    restore cannot store it).
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "brivet/legacy/model.h"
#include "brivet/platform/json.h"

// A property that does not hold: say which, then stop (libFuzzer keeps the input).
#define CHECK_PROPERTY(condition)                                      \
  do {                                                                 \
    if (!(condition)) {                                                \
      std::fprintf(stderr, "property failed: %s\n", #condition);       \
      std::abort();                                                    \
    }                                                                  \
  } while (false)

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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto model = BrivetModel::create();
  brivet::BrivetRestoreReport report;
  model->deserializeCache(text, nullptr, &report);
  // The same graph again, as immutable containers an application merges.
  const brivet::Result<Object> frozen = brivet::parseJSON(text);
  if (frozen.ok() && frozen.value().isDictionary()) {
    const Object graph = frozen.value()["jsonGraph"];
    model->mergeJSONDictionaryIntoModel(graph.isDictionary() && frozen.value()["$_version"].isNumber() ? graph
                                                                                                       : frozen.value());
  }
  CHECK_PROPERTY(writable(*model));

  // A cache whose root holds a "jsonGraph" dictionary and a "$_version" number is written as if it were the
  // envelope itself (the snapshot format's own rule), so its other keys do not come back: not checked here.
  const Object root = model->valueForKey("jsonGraph");
  if (root.isDictionary() && model->valueForKey("$_version").isNumber()) return 0;
  const Object first = snapshotOf(*model);
  if (first.isNil()) return 0;
  const auto restored = BrivetModel::create();
  brivet::BrivetRestoreReport again;
  CHECK_PROPERTY(restored->deserializeCache(*model->serializeCache(), nullptr, &again));
  CHECK_PROPERTY(writable(*restored));
  if (again.leftOut == 0) CHECK_PROPERTY(snapshotOf(*restored).isEqual(first));
  return 0;
}
