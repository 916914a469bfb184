// Fuzzes the two readers of outside text the conveniences add: KeyPath::parse
// (paths an application builds from what it was given) and the typed reads of
// parsed server answers.
//
// Input: one mode byte, then the text. Even mode: the text is a key path.
// Odd mode: the text is JSON, read as several C++ types, whole and at the keys
// given by the mode's upper bits.
// Properties:
//   - a key path is accepted exactly as written: text() is the input, its
//     components joined with '.' give it back, hasRange() says whether a
//     component is an "@range(" component, and it parses again to an equal path;
//   - a refused key path is an InvalidKeyPath error of the access domain with a
//     message;
//   - a typed read answers a value or an access-domain error with a message, its
//     optional form agrees with it, and a value read as an int reads as the
//     same int64.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "brivet/platform/json.h"
#include "brivet/platform/key_path.h"
#include "brivet/platform/typed_access.h"

namespace {

using namespace brivet;

void check(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "property failed: %s\n", what);
    std::abort();
  }
}

void fuzzKeyPath(std::string_view text) {
  const Result<KeyPath, Error> parsed = KeyPath::parse(text);
  if (!parsed.ok()) {
    check(parsed.error().domain() == kAccessErrorDomain, "refusal outside the access domain");
    check(parsed.error().code() == static_cast<std::int64_t>(AccessErrorCode::InvalidKeyPath), "refusal code");
    check(!parsed.error().localizedDescription().empty(), "refusal without a message");
    return;
  }
  const KeyPath& path = parsed.value();
  check(path.text() == text, "accepted text changed");
  const std::vector<std::string_view> components = path.components();
  check(!components.empty(), "no components");
  std::string joined;
  bool range = false;
  for (std::size_t i = 0; i < components.size(); ++i) {
    const std::string_view c = components[i];
    if (i > 0) joined += '.';
    joined.append(c);
    if (c.substr(0, 7) == "@range(") range = true;
  }
  check(joined == text, "components do not give the text back");
  check(path.hasRange() == range, "hasRange disagrees with the components");
  const Result<KeyPath, Error> again = KeyPath::parse(path.text());
  check(again.ok() && again.value() == path, "an accepted path does not parse again");
}

template <class T>
void checkRead(const Object& object) {
  const Result<T, Error> r = read<T>(object);
  check(r.ok() == as<T>(object).has_value(), "as and read disagree");
  if (!r.ok()) {
    check(r.error().domain() == kAccessErrorDomain, "read error outside the access domain");
    check(!r.error().localizedDescription().empty(), "read error without a message");
  }
}

void fuzzTypedRead(unsigned mode, std::string_view text) {
  const Result<Object> parsed = parseJSON(text, JSONReadingOptions::FragmentsAllowed);
  if (!parsed.ok()) return;
  const Object& object = parsed.value();
  checkRead<bool>(object);
  checkRead<int>(object);
  checkRead<std::uint64_t>(object);
  checkRead<double>(object);
  checkRead<std::string>(object);
  checkRead<std::vector<std::string>>(object);
  checkRead<std::map<std::string, double>>(object);
  checkRead<std::optional<std::vector<int>>>(object);
  if (const std::optional<int> small = as<int>(object)) {
    check(as<std::int64_t>(object) == std::int64_t{*small}, "an int that reads differently as an int64");
  }
  // Walk keys chosen by the mode: text keys and indices.
  const int index = static_cast<int>((mode >> 1) & 3);
  const Result<std::string, Error> walked = read<std::string>(object, "videos", index, "title");
  check(walked.ok() == get<std::string>(object, "videos", index, "title").has_value(), "get and read disagree");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const unsigned mode = data[0];
  const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
  if (mode & 1) {
    fuzzTypedRead(mode, text);
  } else {
    fuzzKeyPath(text);
  }
  return 0;
}
