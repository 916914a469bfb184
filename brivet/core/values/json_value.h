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
//
// `ValueStorage` is what every core value holds: one reference to an
// immutable node, or an immediate. It is opaque; only the library reads it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "brivet/platform/object.h"

namespace brivet {

class JSONPrimitive;
class JSONValue;
class JSONGraphLeaf;
class JSONGraph;

// The storage of a core value: one counted reference to an immutable node, or
// an immediate (a short string, a small number, null, a boolean). Copying
// shares the node.
class ValueStorage {
 public:
  ValueStorage(const ValueStorage& other) noexcept : bits_(other.bits_) {
    if (holdsNode(bits_)) retain(bits_);
  }
  ValueStorage(ValueStorage&& other) noexcept : bits_(std::exchange(other.bits_, 0)) {}
  ValueStorage& operator=(const ValueStorage& other) noexcept {
    if (holdsNode(other.bits_)) retain(other.bits_);
    if (holdsNode(bits_)) release(bits_);
    bits_ = other.bits_;
    return *this;
  }
  ValueStorage& operator=(ValueStorage&& other) noexcept {
    if (this != &other) {
      if (holdsNode(bits_)) release(bits_);
      bits_ = std::exchange(other.bits_, 0);
    }
    return *this;
  }
  ~ValueStorage() {
    if (holdsNode(bits_)) release(bits_);
  }

 private:
  friend struct ValueAccess;
  friend class JSONPrimitive;
  friend class JSONValue;
  friend class JSONGraphLeaf;
  friend class JSONGraph;

  // The null immediate.
  static constexpr std::uint64_t kNullBits = 4;
  // Adopts the reference `bits` carries.
  explicit ValueStorage(std::uint64_t bits) noexcept : bits_(bits) {}
  // The low three bits tell how a value is stored: tags 0, 5 and 6 hold a
  // counted node reference, the others are immediates.
  static constexpr bool holdsNode(std::uint64_t bits) { return bits != 0 && ((0x61u >> (bits & 7u)) & 1u) != 0; }
  static void retain(std::uint64_t bits);
  static void release(std::uint64_t bits);

  std::uint64_t get() const { return bits_; }
  const std::uint64_t& storage() const { return bits_; }
  std::uint64_t take() { return std::exchange(bits_, 0); }

  std::uint64_t bits_;
};

class JSONPrimitive {
 public:
  enum class Kind : std::uint8_t { String, Number, Boolean, Null };

  JSONPrimitive() : slot_(ValueStorage::kNullBits) {}  // null
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


 private:
  friend struct ValueAccess;
  friend class JSONValue;
  explicit JSONPrimitive(ValueStorage slot) : slot_(std::move(slot)) {}
  ValueStorage slot_;
};

class JSONValue {
 public:
  enum class Kind : std::uint8_t { Object, Array, Primitive };

  JSONValue() : slot_(ValueStorage::kNullBits) {}  // primitive(null)
  JSONValue(const JSONPrimitive& primitive)        // NOLINT: a primitive is a value
      : slot_(primitive.slot_) {}
  // An object; a later entry replaces an earlier one with the same key.
  static JSONValue object(std::vector<std::pair<std::string, JSONValue>> entries);
  static JSONValue emptyObject();
  static JSONValue array(std::vector<JSONValue> elements);
  static JSONValue fromAny(const Object& object);

  Kind kind() const;
  bool isObject() const;
  bool isArray() const;
  bool isPrimitive() const { return kind() == Kind::Primitive; }
  // The primitive (null unless this is a primitive).
  JSONPrimitive primitive() const;

  // Objects: entry count and lookup; arrays: element count and access.
  std::size_t size() const;
  std::optional<JSONValue> find(std::string_view key) const;
  // An array's element; nothing when this is not an array or `index` is past its end.
  std::optional<JSONValue> at(std::size_t index) const;
  // Every entry of an object, in its order (keys are views valid during the call).
  void forEach(const std::function<void(std::string_view key, const JSONValue& value)>& f) const;
  std::vector<std::string> keys() const;
  std::vector<JSONValue> elements() const;  // an array's elements

  // Deep merge: on a key both objects hold the merge goes down; otherwise `newValue` wins.
  static JSONValue merge(const JSONValue& newValue, const JSONValue& oldValue);

  Object toAnyType() const;
  std::string description() const;
  friend bool operator==(const JSONValue& a, const JSONValue& b);

 private:
  friend struct ValueAccess;
  explicit JSONValue(ValueStorage slot) : slot_(std::move(slot)) {}
  ValueStorage slot_;
};

}  // namespace brivet
