// brivet::facade alone: the application-facing model, offline.
#include <cstdio>

#include "brivet/facade/kel_model.h"

int main() {
  const std::shared_ptr<brivet::KelModel> model = brivet::KelBrivet::createModel(std::nullopt, std::nullopt);
  model->mergeJSONDictionaryIntoModel(brivet::Object::mutableDictionary({{"n", 42}}));
  const brivet::Object n = model->valueForKeyPath("n");
  if (n.description() != "42") return 1;
  std::printf("%s\n", n.description().c_str());
  return 0;
}
