// brivet::core alone: a core model over a cache, read offline.
#include <cstdio>

#include "brivet/core/model/tov_model.h"
#include "brivet/platform/dispatch_queue.h"

int main() {
  const auto model = brivet::TovBrivet::createTovModelWithUrl(std::nullopt, nullptr);
  model->mergeJSONDictionaryIntoModel(brivet::Object::dictionary({{"greeting", "hello"}}));
  bool done = false;
  brivet::Object value;
  model->getKeyPath("greeting", [&](const brivet::Object& result, const std::optional<brivet::Error>&) {
    value = result;
    done = true;
  });
  brivet::DispatchQueue::main()->runUntil([&] { return done; }, std::chrono::seconds(10));
  if (value["greeting"].stringValue() != "hello") return 1;
  std::printf("%s\n", value.description().c_str());
  return 0;
}
