// Fuzzes the legacy key paths: `BrivetPath` from key-path strings, their array form
// (`convertKeyPathToPQL`), and `BrivetPathSet` from path-set arrays in JSON text.
//
// Input: one byte of mode, then the data. Even: a key path; odd: JSON text of path sets.
// Properties (key paths): the chain has one link per fragment, each link knows the
// rest of the key path and the link before it; a fragment without "@range" is its
// own one key; a fragment that is exactly "@range(a,b)" (small bounds) names a..b;
// the array form of a UTF-8 key path is a JSON array of one element per fragment,
// and read back as a path set it names the same keys at every position where the
// fragment is a plain key (no "@range" in any case) or exactly such a range.
// Properties (path sets): the chain has one link per position; key counts never
// overflow and match the expanded keys of small sets; descriptions are written.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "brivet/legacy/path.h"
#include "brivet/platform/internal/utf8.h"
#include "brivet/platform/json.h"

namespace {

using namespace brivet;

void check(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "legacy_paths property failed: %s\n", what);
    std::abort();
  }
}

// The bounds of a fragment that is exactly "@range(a,b)" with a and b of at most
// nine digits (so they fit every reader's integers), read here by hand.
std::optional<BrivetKeySet::Range> exactRange(std::string_view f) {
  if (f.size() < 10 || f.substr(0, 7) != "@range(" || f.back() != ')') return std::nullopt;
  const std::string_view inner = f.substr(7, f.size() - 8);
  const std::size_t comma = inner.find(',');
  if (comma == std::string_view::npos) return std::nullopt;
  auto number = [](std::string_view d, std::int64_t* out) {
    if (d.empty() || d.size() > 9) return false;
    std::int64_t v = 0;
    for (const char c : d) {
      if (c < '0' || c > '9') return false;
      v = v * 10 + (c - '0');
    }
    *out = v;
    return true;
  };
  BrivetKeySet::Range r{0, 0};
  if (!number(inner.substr(0, comma), &r.from) || !number(inner.substr(comma + 1), &r.to)) return std::nullopt;
  return r;
}

// What a position should name, when the fragment says it plainly.
std::optional<BrivetKeySet> expectedKeys(std::string_view fragment) {
  BrivetKeySet keys;
  if (fragment.find("@range") == std::string_view::npos) {
    keys.addKey(std::string(fragment));
    return keys;
  }
  if (const auto r = exactRange(fragment)) {
    keys.addRange(r->from, r->to);
    return keys;
  }
  return std::nullopt;
}

bool sameKeys(const BrivetKeySet* set, const BrivetKeySet& expected) {
  if (expected.empty()) return set == nullptr || set->empty();
  return set != nullptr && *set == expected;
}

void checkKeySet(const BrivetKeySet* set) {
  if (set == nullptr) return;
  const std::uint64_t count = set->count();
  if (count <= 64) check(set->keys().size() == count, "a key set's count differs from its keys");
}

void checkKeyPath(std::string_view keyPath) {
  std::vector<std::string_view> fragments;
  std::size_t start = 0;
  for (;;) {
    const std::size_t dot = keyPath.find('.', start);
    fragments.push_back(keyPath.substr(start, dot == std::string_view::npos ? dot : dot - start));
    if (dot == std::string_view::npos) break;
    start = dot + 1;
  }
  const std::shared_ptr<BrivetPath> path = BrivetPath::withKeyPath(keyPath);
  check(path != nullptr && path->keyPath() == keyPath, "the chain does not keep its key path");
  check(path->pathCount() == fragments.size(), "one link per fragment");
  std::size_t i = 0;
  for (const BrivetPath* link = path.get(); link != nullptr; link = link->nextPathFragment().get(), ++i) {
    check(i < fragments.size() && link->pathCount() == fragments.size() - i, "a link counts the rest wrongly");
    check(link->pathFragments().front() == fragments[i], "a link starts at another fragment");
    if (i > 0) check(link->previousPathFragment() != nullptr, "a link lost the one before it");
    checkKeySet(link->firstPathKeySet());
    if (const auto expected = expectedKeys(fragments[i])) {
      check(sameKeys(link->firstPathKeySet(), *expected), "a fragment names other keys");
    }
  }
  check(i == fragments.size(), "the chain is not as long as the key path");
  (void)path->description();

  const std::string pql = convertKeyPathToPQL(keyPath);
  if (!internal::isValidUTF8(keyPath)) return;
  const Result<Object> array = parseJSON(pql);
  check(array.ok() && array.value().count() == fragments.size(), "the array form is not one element per fragment");
  const std::shared_ptr<BrivetPathSet> set = BrivetPathSet::withPathSets(array.value());
  check(set != nullptr && set->pathCount() == fragments.size(), "the array form reads back to another length");
  i = 0;
  for (const BrivetPathSet* link = set.get(); link != nullptr; link = link->nextPathSet().get(), ++i) {
    // The array form reads ranges case-insensitively ("@RANGE(1,2)"), while a key path
    // takes a fragment for a range only when it holds "@range" as written: fragments
    // with any other spelling are not compared.
    std::string lower(fragments[i]);
    for (char& c : lower) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
    const bool spelledOtherwise = lower.find("@range") != std::string::npos &&
                                  fragments[i].find("@range") == std::string_view::npos;
    const auto expected = expectedKeys(fragments[i]);
    if (expected && !spelledOtherwise) {
      check(sameKeys(link->firstPathKeySet(), *expected), "the array form names other keys than the key path");
    }
  }
}

void checkPathSets(std::string_view text) {
  const Result<Object> parsed = parseJSON(text, JSONReadingOptions::FragmentsAllowed);
  if (!parsed.ok()) return;
  const std::shared_ptr<BrivetPathSet> set = BrivetPathSet::withPathSets(parsed.value());
  if (!parsed.value().isArray()) {
    check(set == nullptr, "a path set from something that is not an array");
    return;
  }
  check(set != nullptr, "no path set from an array");
  std::size_t links = 0;
  for (const BrivetPathSet* link = set.get(); link != nullptr; link = link->nextPathSet().get()) {
    ++links;
    checkKeySet(link->firstPathKeySet());
  }
  check(links == std::max<std::size_t>(parsed.value().count(), 1), "one link per position");
  (void)set->description();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view rest(reinterpret_cast<const char*>(data + 1), size - 1);
  if (data[0] % 2 == 0) {
    checkKeyPath(rest);
  } else {
    checkPathSets(rest);
  }
  return 0;
}
