// brivet::legacy alone: the key-path model's cache.
#include <cstdio>

#include "brivet/legacy/model.h"

int main() {
  const auto model = brivet::BrivetModel::create();
  model->mergeJSONDictionaryIntoModel(
      brivet::Object::mutableDictionary({{"lists", brivet::Object::mutableDictionary({{"name", "top"}})}}));
  const brivet::Object name = model->valueForKeyPath("lists.name");
  if (name.stringValue() != "top") return 1;
  std::printf("%s\n", name.description().c_str());
  return 0;
}
