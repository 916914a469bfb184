// Fuzzes parseJSON with every reading option, and writeJSON on what it accepts.
//
// Input: one byte of options, then the JSON text.
//   bit 0 MutableContainers, bit 1 MutableLeaves, bit 2 FragmentsAllowed (reading);
//   bit 3 PrettyPrinted, bit 4 SortedKeys (writing).
// Properties:
//   - the options change only what they say: the text reads to the same tree
//     (same kinds, same number types, same double bits) with and without
//     MutableContainers / MutableLeaves; it reads without FragmentsAllowed exactly
//     when it reads with it and its top is a container; every container is
//     mutable exactly when MutableContainers is set;
//   - a refusal is an Error in the JSON domain naming a byte offset inside the text;
//   - what is read holds only finite numbers and UTF-8 strings and keys, and is
//     at most kMaxJSONNestingDepth deep;
//   - what is read can be written (compact, pretty, sorted), the text holds no raw
//     control character but the pretty printer's line breaks, and it reads back to
//     the same tree.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "brivet/platform/internal/utf8.h"
#include "brivet/platform/json.h"

namespace {

using namespace brivet;

void check(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "json_text property failed: %s\n", what);
    std::abort();
  }
}

// The same tree: kinds, number types and bits, texts, order of dictionary entries.
bool sameTree(const Object& a, const Object& b, std::size_t depth = 0) {
  if (a.isNil() || b.isNil() || a.kind() != b.kind() || depth > kMaxJSONNestingDepth + 1) return false;
  switch (a.kind()) {
    case ObjectKind::Null: return true;
    case ObjectKind::Number: {
      const Number& x = *a.asNumber();
      const Number& y = *b.asNumber();
      if (x.type() != y.type()) return false;
      if (x.type() == Number::Type::Double) {
        const double dx = x.doubleValue();
        const double dy = y.doubleValue();
        return std::memcmp(&dx, &dy, sizeof dx) == 0;
      }
      return x.uint64Value() == y.uint64Value();
    }
    case ObjectKind::String: return a.stringValue() == b.stringValue();
    case ObjectKind::Array: {
      if (a.count() != b.count()) return false;
      for (std::size_t i = 0; i < a.count(); ++i) {
        if (!sameTree(a[i], b[i], depth + 1)) return false;
      }
      return true;
    }
    case ObjectKind::Dictionary: {
      if (a.count() != b.count()) return false;
      auto i = a.asDictionary()->begin();
      auto j = b.asDictionary()->begin();
      for (; i != a.asDictionary()->end(); ++i, ++j) {
        if (i->first.stringValue() != j->first.stringValue() || !sameTree(i->second, j->second, depth + 1)) {
          return false;
        }
      }
      return true;
    }
    default: return false;
  }
}

// Checks what a reader may produce; answers the depth of the tree.
std::size_t checkContents(const Object& o, bool mutableContainers) {
  check(!o.isNil(), "nil in a parsed tree");
  switch (o.kind()) {
    case ObjectKind::Null: return 0;
    case ObjectKind::Number:
      if (o.asNumber()->type() == Number::Type::Double) {
        check(std::isfinite(o.asNumber()->doubleValue()), "a number that is not finite");
      }
      return 0;
    case ObjectKind::String: check(internal::isValidUTF8(o.stringValue()), "a string that is not UTF-8"); return 0;
    case ObjectKind::Array: {
      check(o.isMutableArray() == mutableContainers, "array mutability differs from the option");
      std::size_t deepest = 0;
      for (const Object& e : *o.asArray()) deepest = std::max(deepest, checkContents(e, mutableContainers));
      return deepest + 1;
    }
    case ObjectKind::Dictionary: {
      check(o.isMutableDictionary() == mutableContainers, "dictionary mutability differs from the option");
      std::size_t deepest = 0;
      for (const auto& [k, v] : *o.asDictionary()) {
        check(k.isString() && internal::isValidUTF8(k.stringValue()), "a key that is not a UTF-8 string");
        deepest = std::max(deepest, checkContents(v, mutableContainers));
      }
      return deepest + 1;
    }
    default: check(false, "a kind the reader never makes"); return 0;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const unsigned flags = data[0];
  const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
  const bool mutableContainers = flags & 1;
  JSONReadingOptions reading = JSONReadingOptions::None;
  if (mutableContainers) reading = reading | JSONReadingOptions::MutableContainers;
  if (flags & 2) reading = reading | JSONReadingOptions::MutableLeaves;
  const bool fragments = flags & 4;
  if (fragments) reading = reading | JSONReadingOptions::FragmentsAllowed;
  JSONWritingOptions writing = JSONWritingOptions::FragmentsAllowed;
  const bool pretty = flags & 8;
  if (pretty) writing = writing | JSONWritingOptions::PrettyPrinted;
  if (flags & 16) writing = writing | JSONWritingOptions::SortedKeys;

  const Result<Object> read = parseJSON(text, reading);
  const Result<Object> plain = parseJSON(text, JSONReadingOptions::FragmentsAllowed);
  check(read.ok() == (plain.ok() && (fragments || plain.value().isArray() || plain.value().isDictionary())),
        "the reading options change what is accepted");
  if (!read.ok()) {
    const Error& error = read.error();
    check(error.domain() == kJSONErrorDomain, "an error outside the JSON domain");
    const std::string message = error.localizedDescription();
    if (error.code() == static_cast<std::int64_t>(JSONErrorCode::FragmentNotAllowed)) return 0;
    const std::size_t at = message.find("byte offset ");
    check(at != std::string::npos, "an error without its byte offset");
    const unsigned long offset = std::strtoul(message.c_str() + at + 12, nullptr, 10);
    check(offset <= text.size(), "an error offset past the end of the text");
    return 0;
  }
  const Object& tree = read.value();
  check(sameTree(tree, plain.value()), "the reading options change the tree");
  check(checkContents(tree, mutableContainers) <= kMaxJSONNestingDepth, "a tree deeper than the nesting limit");

  const Result<std::string> written = writeJSON(tree, writing);
  check(written.ok(), "an accepted tree cannot be written");
  for (const char c : written.value()) {
    check(static_cast<unsigned char>(c) >= 0x20 || (pretty && c == '\n'), "a raw control character in written text");
  }
  const Result<Object> back = parseJSON(written.value(), JSONReadingOptions::FragmentsAllowed);
  check(back.ok(), "written text does not read back");
  if (flags & 16) {
    check(back.value().isEqual(tree), "sorted written text reads back to another tree");
  } else {
    check(sameTree(back.value(), plain.value()), "written text reads back to another tree");
  }
  return 0;
}
