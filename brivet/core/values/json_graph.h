// JSONGraph: the typed form of a JSON Graph document, with its leaves and metadata.
//
// A `JSONGraph` is an object branch, an array branch or a leaf. A
// `JSONGraphLeaf` is an atom or an error (a `JSONValue` with metadata), a
// reference (a path of text keys with metadata), a bare primitive, or the
// undefined marker. `JSONGraphMetadata` holds the optional expiry, refresh,
// size and timestamp of a wrapped leaf; `MetaDate` is an absolute date, never
// or now.
//
// Graphs are immutable values with structural sharing, like `JSONValue`:
// copying shares nodes, equality of two copies of one graph returns at once,
// and a branch's container is private to the graph. Parsing never fails:
// malformed nodes become a null or undefined leaf, and containers nested deeper
// than 512 levels (counting the wire form of wrapped leaves) become null.
//
// `fromJSONText` / `toJSONText` go between JSON text and graphs without
// building platform objects; they give exactly what `parseJSON` + `fromAny` and
// `toAnyType` + `writeJSON` give, errors included.
//
// Thread safety: graphs may be shared and read from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "brivet/core/values/json_value.h"
#include "brivet/platform/date.h"
#include "brivet/platform/error.h"
#include "brivet/platform/json.h"
#include "brivet/platform/object.h"
#include "brivet/platform/result.h"

namespace brivet {

class MetaDate {
 public:
  // A scoped enumerator named like a type is no shadowing declaration, whatever GCC 12's -Wshadow says.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wshadow"
  enum class Kind : std::uint8_t { Date, Never, Now };
#pragma GCC diagnostic pop

  static MetaDate date(Date value) { return MetaDate(Kind::Date, value); }
  static MetaDate never() { return MetaDate(Kind::Never, Date()); }
  static MetaDate now() { return MetaDate(Kind::Now, Date()); }
  // The "$expires" wire convention: negative values are relative to `parseTime`
  // (-60000: a minute after it), 1 is never, 0 is now, anything else is
  // milliseconds since 1970.
  static MetaDate fromWireNumber(double milliseconds, Date parseTime);

  Kind kind() const { return kind_; }
  Date dateValue() const { return date_; }  // the epoch unless kind() is Date
  // The wire number written back: milliseconds since 1970, 1.0 or 0.0.
  double wireNumber() const;

  std::string description() const;
  // Discriminators: date 0 (then the date), never 1, now 2.
  std::size_t hash() const;
  friend bool operator==(const MetaDate& a, const MetaDate& b) {
    return a.kind_ == b.kind_ && (a.kind_ != Kind::Date || a.date_ == b.date_);
  }

 private:
  MetaDate(Kind kind, Date date) : kind_(kind), date_(date) {}
  Kind kind_;
  Date date_;
};

struct JSONGraphMetadata {
  std::optional<MetaDate> expires;
  std::optional<MetaDate> refresh;
  Object size;  // a platform number, or nil
  std::optional<Date> timestamp;

  // Reads "$timestamp", "$size", "$expires" and "$refresh" of one node
  // dictionary (entries that are not numbers count as absent). `defaultExpires`
  // (a number, or nil) stands in for a missing "$expires".
  static JSONGraphMetadata fromDictionary(const Object& dictionary, const Object& defaultExpires = Object());
  // The present fields as "$timestamp", "$size", "$expires", "$refresh" entries.
  std::vector<Object::Entry> toEntries() const;
  Object toDictionary() const;
  bool empty() const { return !expires && !refresh && size.isNil() && !timestamp; }

  std::string description() const;
  friend bool operator==(const JSONGraphMetadata& a, const JSONGraphMetadata& b);
};

class JSONGraphLeaf {
 public:
  enum class Kind : std::uint8_t { Atom, Error, Ref, Primitive, Undefined };

  static JSONGraphLeaf atom(const JSONValue& value, const JSONGraphMetadata& metadata = {});
  static JSONGraphLeaf error(const JSONValue& value, const JSONGraphMetadata& metadata = {});
  static JSONGraphLeaf ref(const std::vector<std::string>& path, const JSONGraphMetadata& metadata = {});
  static JSONGraphLeaf primitive(const JSONPrimitive& primitive);
  static JSONGraphLeaf undefined();

  Kind kind() const;
  JSONValue value() const;                // atoms and errors (null otherwise)
  std::vector<std::string> path() const;  // references (empty otherwise)
  JSONGraphMetadata metadata() const;     // empty for primitives and undefined
  JSONPrimitive primitive() const;        // primitives (null otherwise)

  std::string description() const;
  friend bool operator==(const JSONGraphLeaf& a, const JSONGraphLeaf& b);

 private:
  friend struct ValueAccess;
  friend class JSONGraph;
  explicit JSONGraphLeaf(ValueStorage slot) : slot_(std::move(slot)) {}
  ValueStorage slot_;
};

class JSONGraph {
 public:
  enum class Kind : std::uint8_t { Object, Array, Leaf };

  JSONGraph();                          // an empty object branch
  JSONGraph(const JSONGraphLeaf& leaf)  // NOLINT: a leaf is a graph
      : slot_(leaf.slot_) {}
  // An object branch; a later entry replaces an earlier one with the same key.
  static JSONGraph object(std::vector<std::pair<std::string, JSONGraph>> entries);
  static JSONGraph emptyObject() { return JSONGraph(); }
  static JSONGraph array(std::vector<JSONGraph> elements);

  // Parses a platform object in JSON Graph form; `defaultExpires` (a number in
  // the "$expires" convention, or nil) applies to error leaves without "$expires".
  static JSONGraph fromAny(const Object& object, const Object& defaultExpires = Object());
  // The same from JSON text (UTF-8), with parseJSON's options, limits and errors.
  static Result<JSONGraph> fromJSONText(std::string_view text, const Object& defaultExpires = Object(),
                                        JSONReadingOptions options = JSONReadingOptions::FragmentsAllowed);

  Kind kind() const;
  bool isObject() const;
  bool isArray() const;
  bool isLeaf() const { return kind() == Kind::Leaf; }
  JSONGraphLeaf leaf() const;  // undefined unless a leaf

  // Branches: child count, lookup by key (arrays by decimal index), access.
  std::size_t size() const;
  std::optional<JSONGraph> find(std::string_view key) const;
  // An array's element; nothing when this is not an array or `index` is past its end.
  std::optional<JSONGraph> at(std::size_t index) const;
  void forEach(const std::function<void(std::string_view key, const JSONGraph& child)>& f) const;
  std::vector<JSONGraph> elements() const;

  Object toAnyType() const;
  Result<std::string> toJSONText(JSONWritingOptions options = JSONWritingOptions::None) const;

  std::string description() const;
  friend bool operator==(const JSONGraph& a, const JSONGraph& b);

 private:
  friend struct ValueAccess;
  explicit JSONGraph(ValueStorage slot) : slot_(std::move(slot)) {}
  ValueStorage slot_;
};

}  // namespace brivet
