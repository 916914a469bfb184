// brivet::platform alone: objects and JSON text.
#include <cstdio>

#include "brivet/platform/json.h"
#include "brivet/platform/object.h"

int main() {
  const brivet::Result<brivet::Object> parsed = brivet::parseJSON(R"({"a": [1, 2.5, "x"]})");
  if (!parsed.ok()) return 1;
  const brivet::Result<std::string> written = brivet::writeJSON(parsed.value());
  if (!written.ok() || parsed.value().valueForKeyPath("a").count() != 3) return 1;
  std::printf("%s\n", written.value().c_str());
  return 0;
}
