// Fuzzes the two ways into a graph: JSON text (`JSONGraph::fromJSONText`) and
// platform objects (`JSONGraph::fromAny`), and the two ways out.
//
// Input: one byte of options, then the data.
//   bits 0-1 the default expiry (none, never, now, an absolute date);
//   bit 2 FragmentsAllowed; bit 3 PrettyPrinted; bit 4 SortedKeys;
//   bit 5 the data builds a platform object tree (any kinds, any depth) instead of being JSON text.
// Properties (text):
//   - the graph reader and parseJSON + fromAny agree: both accept or both refuse with
//     the same error, and read the same graph (unless the text has relative dates,
//     which each reader measures from its own clock);
//   - an accepted graph can be written; toJSONText gives the text toAnyType + writeJSON
//     gives; the text reads back to the same graph, and so do the platform objects.
// Properties (objects): a converted graph converts to objects and back to itself; if
// it can be written, its text reads back to it.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "brivet/core/values/json_graph.h"
#include "brivet/core/values/json_value.h"

namespace {

using namespace brivet;

void check(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "json_graph property failed: %s\n", what);
    std::abort();
  }
}

// Whether a tree holds a negative "$expires" or "$refresh" (a date relative to the reader's clock).
bool hasRelativeDates(const Object& o, std::size_t depth = 0) {
  if (depth > 600) return false;
  if (const Array* a = o.asArray()) {
    for (const Object& e : *a) {
      if (hasRelativeDates(e, depth + 1)) return true;
    }
  }
  if (const Dictionary* d = o.asDictionary()) {
    for (const auto& [k, v] : *d) {
      const std::string_view key = k.stringValue();
      if ((key == "$expires" || key == "$refresh") && v.isNumber() && v.asNumber()->doubleValue() < 0) return true;
      if (hasRelativeDates(v, depth + 1)) return true;
    }
  }
  return false;
}

// A platform object tree from bytes: a small stack machine, so that any kind
// (dates, data, number keys, booleans, huge or non-finite numbers, text that is
// not UTF-8) can stand anywhere, at any depth.
class TreeBuilder {
 public:
  TreeBuilder(const std::uint8_t* data, std::size_t size) : p_(data), end_(data + size) {}

  Object build() {
    std::vector<std::vector<Object::Entry>> dictionaries;
    std::vector<std::vector<Object>> arrays;
    std::vector<bool> isDictionary;
    std::vector<Object> pendingKey;
    auto add = [&](Object value) -> bool {
      if (isDictionary.empty()) {
        result_ = std::move(value);
        return false;
      }
      if (isDictionary.back()) {
        dictionaries.back().emplace_back(std::move(pendingKey.back()), std::move(value));
        pendingKey.back() = nextKey();
      } else {
        arrays.back().push_back(std::move(value));
      }
      return true;
    };
    while (p_ < end_) {
      const std::uint8_t op = *p_++;
      switch (op % 12) {
        case 0:
          isDictionary.push_back(true);
          dictionaries.emplace_back();
          pendingKey.push_back(nextKey());
          continue;
        case 1:
          isDictionary.push_back(false);
          arrays.emplace_back();
          continue;
        case 2: {  // close the innermost container
          if (isDictionary.empty()) continue;
          Object closed;
          if (isDictionary.back()) {
            closed = Object::dictionary(std::move(dictionaries.back()));
            dictionaries.pop_back();
            pendingKey.pop_back();
          } else {
            closed = Object::array(std::move(arrays.back()));
            arrays.pop_back();
          }
          isDictionary.pop_back();
          if (!add(std::move(closed))) return result_;
          continue;
        }
        case 3: if (!add(Object::integer(static_cast<std::int64_t>(word())))) return result_; continue;
        case 4: {
          const std::uint64_t bits = word();
          double d;
          std::memcpy(&d, &bits, sizeof d);
          sawNaN_ = sawNaN_ || std::isnan(d);
          if (!add(Object::real(d))) return result_;
          continue;
        }
        case 5: if (!add(Object::unsignedInteger(word()))) return result_; continue;
        case 6: if (!add(Object::boolean(op & 16))) return result_; continue;
        case 7: if (!add(Object::null())) return result_; continue;
        case 8: if (!add(Object::date(dateWithTimeIntervalSince1970(static_cast<double>(op)))) ) return result_; continue;
        case 9: if (!add(Object::data({op}))) return result_; continue;
        case 10: if (!add(Object(text()))) return result_; continue;
        default: {  // a repeated nesting: many levels from one byte, 2048 in all at most
          const std::size_t levels = std::min<std::size_t>((op / 12) * 8, kMaxLevels - levels_);
          levels_ += levels;
          Object inner = Object(text());
          for (std::size_t i = 0; i < levels; ++i) {
            inner = (i % 2) ? Object::array({inner}) : Object::dictionary({{Object("$type"), inner}});
          }
          if (!add(std::move(inner))) return result_;
        }
      }
    }
    // Close whatever is still open.
    while (!isDictionary.empty()) {
      Object closed;
      if (isDictionary.back()) {
        closed = Object::dictionary(std::move(dictionaries.back()));
        dictionaries.pop_back();
        pendingKey.pop_back();
      } else {
        closed = Object::array(std::move(arrays.back()));
        arrays.pop_back();
      }
      isDictionary.pop_back();
      if (!add(std::move(closed))) return result_;
    }
    return result_.isNil() ? Object::null() : result_;
  }
  // A NaN equals nothing, itself included: trees holding one are not compared.
  bool sawNaN() const { return sawNaN_; }

 private:
  std::uint64_t word() {
    std::uint64_t v = 0;
    for (int i = 0; i < 8 && p_ < end_; ++i) v = (v << 8) | *p_++;
    return v;
  }
  std::string text() {
    static const char* const kWords[] = {"$type", "value", "atom", "error", "ref", "$expires", "$refresh",
                                         "$size", "$timestamp", "a", "0", "\xff", ""};
    const std::size_t n = p_ < end_ ? *p_++ : 0;
    return kWords[n % (sizeof kWords / sizeof kWords[0])];
  }
  Object nextKey() {
    const std::uint8_t k = p_ < end_ ? *p_ : 0;
    if (k % 5 == 4) {
      ++p_;
      return Object::integer(k);  // a number key
    }
    return Object(text());
  }

  static constexpr std::size_t kMaxLevels = 2048;
  const std::uint8_t* p_;
  const std::uint8_t* end_;
  std::size_t levels_ = 0;
  Object result_;
  bool sawNaN_ = false;
};

Object defaultExpiresOf(unsigned choice) {
  switch (choice) {
    case 1: return Object::integer(1);
    case 2: return Object::integer(0);
    case 3: return Object::real(1.7e12);
    default: return Object();
  }
}

void checkRoundTrips(const JSONGraph& graph, JSONWritingOptions writing, bool mustWrite, bool comparable) {
  check(!graph.description().empty(), "an empty description");
  const JSONGraph throughObjects = JSONGraph::fromAny(graph.toAnyType());
  check(!comparable || throughObjects == graph, "a graph does not come back from its platform objects");
  const Result<std::string> text = graph.toJSONText(writing);
  check(!mustWrite || text.ok(), "an accepted graph cannot be written");
  const Result<std::string> general = writeJSON(graph.toAnyType(), writing);
  check(text.ok() == general.ok(), "toJSONText and writeJSON disagree on writing");
  if (!text.ok()) return;
  check(text.value() == general.value(), "toJSONText and writeJSON write different text");
  const Result<JSONGraph> back = JSONGraph::fromJSONText(text.value(), Object(), JSONReadingOptions::FragmentsAllowed);
  check(back.ok(), "written graph text does not read back");
  check(back.value() == graph, "written graph text reads back to another graph");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const unsigned flags = data[0];
  const Object defaultExpires = defaultExpiresOf(flags & 3);
  JSONReadingOptions reading = JSONReadingOptions::None;
  if (flags & 4) reading = reading | JSONReadingOptions::FragmentsAllowed;
  JSONWritingOptions writing = JSONWritingOptions::FragmentsAllowed;
  if (flags & 8) writing = writing | JSONWritingOptions::PrettyPrinted;
  if (flags & 16) writing = writing | JSONWritingOptions::SortedKeys;

  if (flags & 32) {
    TreeBuilder builder(data + 1, size - 1);
    const Object tree = builder.build();
    const bool comparable = !builder.sawNaN();
    const JSONGraph graph = JSONGraph::fromAny(tree, defaultExpires);
    checkRoundTrips(graph, writing, false, comparable);
    const JSONValue value = JSONValue::fromAny(tree);
    check(!comparable || JSONValue::fromAny(value.toAnyType()) == value,
          "a value does not come back from its platform objects");
    (void)value.description();
    return 0;
  }

  const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
  const Result<JSONGraph> direct = JSONGraph::fromJSONText(text, defaultExpires, reading);
  const Result<Object> parsed = parseJSON(text, reading);
  check(direct.ok() == parsed.ok(), "the graph reader and parseJSON disagree on accepting");
  if (!parsed.ok()) {
    check(direct.error().description() == parsed.error().description(), "the two readers give different errors");
    return 0;
  }
  if (!hasRelativeDates(parsed.value())) {
    check(direct.value() == JSONGraph::fromAny(parsed.value(), defaultExpires), "the two readers read different graphs");
  }
  checkRoundTrips(direct.value(), writing, true, true);
  return 0;
}
