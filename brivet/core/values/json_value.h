// JSONPrimitive and JSONValue: typed, immutable JSON.
//
// `JSONPrimitive` is a string, a number (which keeps the platform number's
// type: signed, unsigned or double), a boolean or null. `JSONValue` is an
// object (text keys, unordered, unique), an array or a primitive. Both are
// values: copies are cheap (one slot and a reference count) and share their
// nodes, nothing is ever changed in place, and two copies of one value compare
// equal at once. Strings read out of a value are views into the value's own
// storage, valid while the value (or a copy of it) lives.
//
// Platform objects convert both ways: `fromAny` never fails (unknown objects,
// and containers nested deeper than 512 levels, become null; a boolean number is
// told from 0 and 1 by its kind), `toAnyType` gives immutable platform objects.
//
// Thread safety: values may be shared and read from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "brivet/core/values/internal/node.h"
#include "brivet/platform/object.h"

namespace brivet {

class JSONPrimitive {
 public:
  enum class Kind : std::uint8_t { String, Number, Boolean, Null };

  JSONPrimitive() : slot_(internal::kNull) {}  // null
  static JSONPrimitive string(std::string_view text);
  static JSONPrimitive number(const Number& number);  // a boolean number gives a boolean
  static JSONPrimitive integer(std::int64_t value);
  static JSONPrimitive real(double value);
  static JSONPrimitive boolean(bool value);
  static JSONPrimitive null() { return JSONPrimitive(); }

  Kind kind() const;
  bool isString() const { return kind() == Kind::String; }
  bool isNumber() const { return kind() == Kind::Number; }
  bool isBoolean() const { return kind() == Kind::Boolean; }
  bool isNull() const { return kind() == Kind::Null; }

  std::string_view stringValue() const;  // "" unless a string
  bool boolValue() const;                // false unless a boolean
  Object numberObject() const;           // the platform number (nil unless a number)

  Object toAnyType() const;
  std::string description() const;
  // Discriminators: string 0, null 1, number 2, boolean 3, then the payload.
  std::size_t hash() const;
  friend bool operator==(const JSONPrimitive& a, const JSONPrimitive& b);

  // The slot (for the library's own containers).
  static JSONPrimitive fromSlot(internal::SlotRef slot) { return JSONPrimitive(std::move(slot)); }
  internal::Slot slot() const { return slot_.get(); }

 private:
  explicit JSONPrimitive(internal::SlotRef slot) : slot_(std::move(slot)) {}
  internal::SlotRef slot_;
};

class JSONValue {
 public:
  enum class Kind : std::uint8_t { Object, Array, Primitive };

  JSONValue() : slot_(internal::kNull) {}    // primitive(null)
  JSONValue(const JSONPrimitive& primitive)  // NOLINT: a primitive is a value
      : slot_(internal::SlotRef::retained(primitive.slot())) {}
  // An object; a later entry replaces an earlier one with the same key.
  static JSONValue object(std::vector<std::pair<std::string, JSONValue>> entries);
  static JSONValue emptyObject();
  static JSONValue array(std::vector<JSONValue> elements);
  static JSONValue fromAny(const Object& object);

  Kind kind() const;
  bool isObject() const { return internal::isObjectSlot(slot_.get()); }
  bool isArray() const { return internal::isArraySlot(slot_.get()); }
  bool isPrimitive() const { return kind() == Kind::Primitive; }
  // The primitive (null unless this is a primitive).
  JSONPrimitive primitive() const;

  // Objects: entry count and lookup; arrays: element count and access.
  std::size_t size() const;
  std::optional<JSONValue> find(std::string_view key) const;
  JSONValue at(std::size_t index) const;  // precondition: an array and index < size()
  // Every entry of an object, in its order (keys are views valid during the call).
  void forEach(const std::function<void(std::string_view key, const JSONValue& value)>& f) const;
  std::vector<std::string> keys() const;
  std::vector<JSONValue> elements() const;  // an array's elements

  // Deep merge: on a key both objects hold the merge goes down; otherwise `newValue` wins.
  static JSONValue merge(const JSONValue& newValue, const JSONValue& oldValue);

  Object toAnyType() const;
  std::string description() const;
  friend bool operator==(const JSONValue& a, const JSONValue& b);

  // The slot (for the library's own containers).
  // Takes a value slot; a plain graph node (see internal::isPlain) is one too.
  static JSONValue fromSlot(internal::SlotRef slot) {
    return JSONValue(internal::SlotRef(internal::valueView(slot.take())));
  }
  internal::Slot slot() const { return slot_.get(); }

 private:
  explicit JSONValue(internal::SlotRef slot) : slot_(std::move(slot)) {}
  internal::SlotRef slot_;
};

namespace internal {
// Shared by the value and graph code: slot conversions and renderings.
Slot valueSlotFromAny(const Object& object, std::size_t depth);  // owned
Object valueSlotToAny(Slot s);
Object primitiveSlotToAny(Slot s);
void describePrimitive(Slot s, std::string& out);
void describeValue(Slot s, std::string& out);
void appendQuoted(std::string& out, std::string_view text);
// The text a platform dictionary key stands for: its own description.
std::string keyText(const Object& key);
// JSONValue merge on slots (owned result).
Slot mergeValues(Slot newValue, Slot oldValue);

// The keys and values of a platform dictionary are objects of their own, apart
// in memory: a converter asks for the next few while it converts one, so their
// cache misses overlap instead of following one another.
class EntryPrefetcher {
 public:
  explicit EntryPrefetcher(const Dictionary& d) : next_(d.begin()), end_(d.end()) {
    for (int i = 0; i < kAhead && next_ != end_; ++i) step();
  }
  // Called once per entry converted.
  void advance() {
    if (next_ != end_) step();
  }

 private:
  static constexpr int kAhead = 4;
  void step() {
    __builtin_prefetch(next_->first.impl().get());
    __builtin_prefetch(next_->second.impl().get());
    ++next_;
  }
  Dictionary::const_iterator next_;
  Dictionary::const_iterator end_;
};
}  // namespace internal

}  // namespace brivet
