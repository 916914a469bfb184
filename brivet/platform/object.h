// Object: the platform's "any object", a cheap nullable handle with reference semantics.
//
// Brivet's legacy model, its facade and the edges of the core model speak in
// untyped object trees: dictionaries, arrays, strings, numbers, the null
// marker, dates and data, plus library objects (`CustomObject`) that live inside
// such trees. `Object` is a shared handle to one of them; copying it copies the
// reference, never the object. A default-constructed `Object` is nil (no object),
// which is different from the null singleton `Object::null()`.
//
// Kinds:
//   Null        the singleton null marker
//   Number      remembers whether it is a boolean, a signed or unsigned 64-bit
//               integer or a double; the boolean test is a kind test (`isBoolean`)
//   String      UTF-8 text
//   Array       ordered objects; immutable or mutable
//   Dictionary  keys (strings or numbers) to objects, kept in insertion order;
//               immutable or mutable
//   Date, Data  a point in time; a byte string
//   Custom      a `CustomObject` subclass (library objects)
//
// Identity is pointer identity (`isIdentical`). Equality (`isEqual`) and
// `hash()` are structural: numbers compare numerically (1 == 1.0 == true, with
// equal hashes), a number never equals a string, containers compare element by
// element. `description()` is stable: integers print without a fraction, doubles
// in shortest round-trip form, strings as their text, arrays as "(a, b)" and
// dictionaries as "{k = v; k2 = v2;}" (strings inside containers are quoted when
// they are empty or hold anything but letters, digits and "_.$-").
//
// Mutability follows the platform: `copy()` of an immutable container is the
// same object, of a mutable one a new immutable shallow copy; `mutableCopy()`
// is always a new mutable shallow copy. Mutating an immutable container is a
// precondition failure. Objects are not internally synchronised: share a
// mutable container across threads only under the caller's own lock or queue.
//
// Trees of any depth are safe to destroy, compare (`isEqual`), hash and
// describe: none of these recurses once per level, so a tree nested a hundred
// thousand levels deep (which an app can build) costs no more stack than a
// flat one. Writing JSON refuses trees deeper than its nesting limit instead.
//
// Key-value lookup: `valueForKey` / `valueForKeyPath` read dictionaries by
// string keys ("a.b.c" walks one level per component, nil as soon as a step has
// no value) and forward to a `CustomObject` met on the way, which may override
// them. `setValueForKey` / `setValueForKeyPath` write into mutable dictionaries
// (a nil value removes the key) and forward through custom objects likewise.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "brivet/platform/date.h"

namespace brivet {

// GCC 12's -Wshadow takes a scoped enumerator named like a type (`Date`) for a shadowing declaration; it shadows
// nothing, so the warning is silenced here for the apps that build with it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wshadow"
enum class ObjectKind : std::uint8_t { Null, Number, String, Array, Dictionary, Date, Data, Custom };
#pragma GCC diagnostic pop

class Object;
class Number;
class String;
class Array;
class Dictionary;
class DateObject;
class Data;
class CustomObject;

// The common header of every object: its kind. Objects are owned through
// std::shared_ptr; `Object::impl()` hands out that pointer for low-level use.
class ObjectBase {
 public:
  explicit ObjectBase(ObjectKind kind) : kind_(kind) {}
  ObjectBase(const ObjectBase&) = delete;
  ObjectBase& operator=(const ObjectBase&) = delete;
  ObjectKind kind() const { return kind_; }

 protected:
  ~ObjectBase() = default;

 private:
  const ObjectKind kind_;
};

class Object {
 public:
  // nil
  Object() noexcept = default;
  Object(std::nullptr_t) noexcept {}  // NOLINT: nil
  // Strings.
  Object(const char* text);         // NOLINT: implicit by design
  Object(std::string_view text);    // NOLINT
  Object(std::string text);         // NOLINT
  // Numbers: exactly `bool` gives a boolean, other integers a signed or
  // unsigned integer, floating point a double.
  template <class B, std::enable_if_t<std::is_same_v<B, bool>, int> = 0>
  Object(B value) : Object(boolean(value)) {}  // NOLINT
  template <class I, std::enable_if_t<std::is_integral_v<I> && !std::is_same_v<I, bool> &&
                                          !std::is_same_v<I, char>,
                                      int> = 0>
  Object(I value)  // NOLINT
      : Object(std::is_signed_v<I> ? integer(static_cast<std::int64_t>(value))
                                   : unsignedInteger(static_cast<std::uint64_t>(value))) {}
  template <class F, std::enable_if_t<std::is_floating_point_v<F>, int> = 0>
  Object(F value) : Object(real(static_cast<double>(value))) {}  // NOLINT
  // Library objects.
  Object(std::shared_ptr<CustomObject> custom);  // NOLINT

  // --- Factories ---
  static Object null();  // the null singleton
  static Object boolean(bool value);
  static Object integer(std::int64_t value);
  static Object unsignedInteger(std::uint64_t value);
  static Object real(double value);
  static Object array(std::vector<Object> elements = {});
  static Object array(std::initializer_list<Object> elements);
  static Object mutableArray(std::vector<Object> elements = {});
  using Entry = std::pair<Object, Object>;
  // Later entries replace earlier ones with an equal key.
  static Object dictionary(std::vector<Entry> entries = {});
  static Object dictionary(std::initializer_list<Entry> entries);
  static Object mutableDictionary(std::vector<Entry> entries = {});
  static Object mutableDictionary(std::initializer_list<Entry> entries);
  // For builders that already know their keys are distinct (a map's keys, a
  // parser that checked): skips the duplicate check. Precondition: no two keys
  // are equal.
  static Object dictionaryWithDistinctKeys(std::vector<Entry> entries, bool isMutable);
  // Builds a string, array or dictionary with its contents in one allocation.
  static Object string(std::string_view text);
  static Object date(Date value);
  static Object data(std::vector<std::uint8_t> bytes);

  // --- Kind tests ---
  bool isNil() const { return impl_ == nullptr; }
  explicit operator bool() const { return impl_ != nullptr; }
  ObjectKind kind() const;  // precondition: not nil
  bool is(ObjectKind kind) const { return impl_ != nullptr && impl_->kind() == kind; }
  bool isNull() const { return is(ObjectKind::Null); }
  bool isNumber() const { return is(ObjectKind::Number); }
  bool isBoolean() const;  // a number created as a boolean
  bool isString() const { return is(ObjectKind::String); }
  bool isArray() const { return is(ObjectKind::Array); }
  bool isMutableArray() const;
  bool isDictionary() const { return is(ObjectKind::Dictionary); }
  bool isMutableDictionary() const;
  bool isDate() const { return is(ObjectKind::Date); }
  bool isData() const { return is(ObjectKind::Data); }
  bool isCustom() const { return is(ObjectKind::Custom); }

  // --- Typed access: nullptr when the object is of another kind (or nil) ---
  const Number* asNumber() const;
  const String* asString() const;
  const Array* asArray() const;
  Array* asMutableArray() const;  // nullptr unless a mutable array
  const Dictionary* asDictionary() const;
  Dictionary* asMutableDictionary() const;  // nullptr unless a mutable dictionary
  const DateObject* asDate() const;
  const Data* asData() const;
  CustomObject* asCustom() const;
  template <class T>
  std::shared_ptr<T> asCustom() const;  // nullptr unless a T (see CustomObject::castTo)

  // Shortcuts for common reads; they answer an empty/zero value for other kinds.
  std::string_view stringValue() const;  // the text of a String, else ""
  std::size_t count() const;             // elements of an Array / entries of a Dictionary, else 0
  // Dictionary lookup by a string key (nil when absent or not a dictionary).
  Object operator[](std::string_view key) const;
  // Array element (nil when out of range or not an array).
  Object operator[](std::size_t index) const;
  Object operator[](int index) const { return (*this)[static_cast<std::size_t>(index)]; }

  // --- Identity, equality, hashing, description ---
  bool isIdentical(const Object& other) const { return impl_ == other.impl_; }
  bool isEqual(const Object& other) const;
  std::size_t hash() const;
  std::string description() const;  // "(nil)" for nil
  friend bool operator==(const Object& a, const Object& b) { return a.isEqual(b); }

  // --- Copies ---
  Object copy() const;         // immutable: self; mutable container: new immutable shallow copy
  Object mutableCopy() const;  // containers only (nil otherwise): new mutable shallow copy

  // --- Key-value lookup ---
  Object valueForKey(std::string_view key) const;
  Object valueForKeyPath(std::string_view keyPath) const;
  void setValueForKey(const Object& value, std::string_view key) const;
  void setValueForKeyPath(const Object& value, std::string_view keyPath) const;

  // --- Low level ---
  const std::shared_ptr<ObjectBase>& impl() const { return impl_; }
  std::weak_ptr<ObjectBase> weak() const { return impl_; }
  static Object fromImpl(std::shared_ptr<ObjectBase> impl) {
    Object o;
    o.impl_ = std::move(impl);
    return o;
  }

 private:
  std::shared_ptr<ObjectBase> impl_;
};

// A weak reference to an object: `lock()` answers nil once the object is gone.
class WeakObject {
 public:
  WeakObject() = default;
  WeakObject(const Object& object) : impl_(object.weak()) {}  // NOLINT
  Object lock() const { return Object::fromImpl(impl_.lock()); }

 private:
  std::weak_ptr<ObjectBase> impl_;
};

// std::hash / std::equal_to adaptors, so Objects can key standard containers.
struct ObjectHash {
  std::size_t operator()(const Object& o) const { return o.hash(); }
};
struct ObjectEqual {
  bool operator()(const Object& a, const Object& b) const { return a.isEqual(b); }
};

// --- The concrete kinds (read through Object::asX) ---

class Number final : public ObjectBase {
 public:
  enum class Type : std::uint8_t { Boolean, Signed, Unsigned, Double };
  explicit Number(bool v) : ObjectBase(ObjectKind::Number), type_(Type::Boolean) { u_.i = v ? 1 : 0; }
  explicit Number(std::int64_t v) : ObjectBase(ObjectKind::Number), type_(Type::Signed) { u_.i = v; }
  explicit Number(std::uint64_t v) : ObjectBase(ObjectKind::Number), type_(Type::Unsigned) { u_.u = v; }
  explicit Number(double v) : ObjectBase(ObjectKind::Number), type_(Type::Double) { u_.d = v; }

  Type type() const { return type_; }
  bool isBoolean() const { return type_ == Type::Boolean; }
  bool isInteger() const { return type_ != Type::Double; }
  bool boolValue() const;            // non-zero
  std::int64_t int64Value() const;   // doubles truncate toward zero and saturate
  std::uint64_t uint64Value() const; // negative values saturate at 0 for doubles, wrap for integers
  double doubleValue() const;
  // Numeric three-way comparison: -1, 0, 1; NaN compares unordered (2).
  int compare(const Number& other) const;
  bool isEqual(const Number& other) const { return compare(other) == 0; }
  std::size_t hash() const;
  std::string description() const;  // booleans as 1 / 0, like the platform

 private:
  Type type_;
  union {
    std::int64_t i;
    std::uint64_t u;
    double d;
  } u_{};
};

// What the layout of strings, arrays and dictionaries needs; not API.
namespace detail {

// Strings, arrays and dictionaries keep their contents in the same allocation
// as the object (one allocation per node instead of two). The allocator that
// creates such an object hands the address of the extra bytes to its
// constructor through this slot; a constructor that finds it empty (an object
// made some other way) keeps its contents on the heap instead.
void* takeTrailingStorage();
struct TrailingTag {};

// A run of T that starts in trailing storage and moves to the heap only when
// it must grow beyond it.
template <class T>
class TrailingVector {
 public:
  TrailingVector(T* storage, std::size_t capacity)
      : data_(storage), capacity_(storage != nullptr ? static_cast<std::uint32_t>(capacity) : 0) {}
  TrailingVector(const TrailingVector&) = delete;
  TrailingVector& operator=(const TrailingVector&) = delete;
  ~TrailingVector() {
    clear();
    if (heap_) ::operator delete(data_);
  }

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  T* data() { return data_; }
  const T* data() const { return data_; }
  T& operator[](std::size_t i) { return data_[i]; }
  const T& operator[](std::size_t i) const { return data_[i]; }
  const T* begin() const { return data_; }
  const T* end() const { return data_ + size_; }
  T& back() { return data_[size_ - 1]; }

  template <class... Args>
  void emplace_back(Args&&... args) {
    if (size_ == capacity_) grow();
    new (data_ + size_) T(std::forward<Args>(args)...);
    ++size_;
  }
  void insert(std::size_t index, T value) {
    emplace_back(std::move(value));
    for (std::size_t i = size_ - 1; i > index; --i) std::swap(data_[i], data_[i - 1]);
  }
  void erase(std::size_t index) {
    for (std::size_t i = index; i + 1 < size_; ++i) data_[i] = std::move(data_[i + 1]);
    pop_back();
  }
  void pop_back() { data_[--size_].~T(); }
  void clear() {
    while (size_ > 0) pop_back();
  }

 private:
  void grow() {
    const std::size_t capacity = capacity_ < 4 ? 4 : static_cast<std::size_t>(capacity_) * 2;
    T* moved = static_cast<T*>(::operator new(capacity * sizeof(T)));
    for (std::uint32_t i = 0; i < size_; ++i) {
      new (moved + i) T(std::move(data_[i]));
      data_[i].~T();
    }
    if (heap_) ::operator delete(data_);
    data_ = moved;
    capacity_ = static_cast<std::uint32_t>(capacity);
    heap_ = true;
  }

  T* data_;
  std::uint32_t size_ = 0;
  std::uint32_t capacity_;
  bool heap_ = false;
};

// Builders that own their members already (the JSON reader) hand them over
// without an intermediate vector: the objects are moved out of the span.
// `keysAndValues` alternates keys and values.
Object makeArray(std::span<Object> elements, bool isMutable);
Object makeDictionary(std::span<Object> keysAndValues, bool isMutable, bool distinctKeys);

}  // namespace detail

class String final : public ObjectBase {
 public:
  String(detail::TrailingTag, std::string_view text);
  ~String();
  std::string_view text() const { return {data_, size_}; }
  static std::size_t hashText(std::string_view text);

 private:
  const char* data_;
  std::size_t size_;
  bool heap_;
};

class Array final : public ObjectBase {
 public:
  Array(detail::TrailingTag, std::size_t capacity, bool isMutable);
  ~Array();
  bool isMutable() const { return mutable_; }
  std::size_t size() const { return elements_.size(); }
  bool empty() const { return elements_.empty(); }
  const Object& operator[](std::size_t i) const { return elements_[i]; }
  Object at(std::size_t i) const { return i < elements_.size() ? elements_[i] : Object(); }
  std::span<const Object> elements() const { return {elements_.data(), elements_.size()}; }
  const Object* begin() const { return elements_.begin(); }
  const Object* end() const { return elements_.end(); }

  // Mutation: precondition that the array is mutable and the value is not nil.
  void add(Object value);
  void insert(Object value, std::size_t index);
  void replace(std::size_t index, Object value);
  void removeAt(std::size_t index);
  void removeAll();

 private:
  friend Object detail::makeArray(std::span<Object>, bool);
  friend class Object;
  detail::TrailingVector<Object> elements_;
  const bool mutable_;
};

// Insertion-ordered hash map. Small dictionaries are scanned linearly; larger
// ones keep an open-addressing index over the entries.
class Dictionary final : public ObjectBase {
 public:
  using Entry = std::pair<Object, Object>;
  Dictionary(detail::TrailingTag, std::size_t capacity, bool isMutable);
  ~Dictionary();
  bool isMutable() const { return mutable_; }
  std::size_t size() const { return live_; }
  bool empty() const { return live_ == 0; }

  // String keys may be given as any string type; the overloads keep calls unambiguous.
  Object objectForKey(const Object& key) const;
  Object objectForKey(std::string_view key) const;
  Object objectForKey(const char* key) const { return objectForKey(std::string_view(key)); }
  Object objectForKey(const std::string& key) const { return objectForKey(std::string_view(key)); }
  bool contains(std::string_view key) const { return !objectForKey(key).isNil(); }

  // Mutation: precondition that the dictionary is mutable; keys are not nil.
  // Setting a nil value removes the key. A new key goes to the end; replacing
  // keeps the key's position.
  void setObject(Object value, Object key);
  void setObject(Object value, std::string_view key) { setObject(std::move(value), Object(key)); }
  void setObject(Object value, const char* key) { setObject(std::move(value), Object(key)); }
  void setObject(Object value, const std::string& key) { setObject(std::move(value), Object(key)); }
  void removeObject(const Object& key);
  void removeObject(std::string_view key) { removeObject(Object(key)); }
  void removeObject(const char* key) { removeObject(Object(key)); }
  void removeObject(const std::string& key) { removeObject(Object(key)); }
  void removeAll();

  // Iteration in insertion order over live entries.
  class const_iterator {
   public:
    using value_type = Entry;
    using difference_type = std::ptrdiff_t;
    using reference = const Entry&;
    using pointer = const Entry*;
    using iterator_category = std::forward_iterator_tag;
    const_iterator() = default;
    const_iterator(const Entry* p, const Entry* end) : p_(p), end_(end) { skip(); }
    reference operator*() const { return *p_; }
    pointer operator->() const { return p_; }
    const_iterator& operator++() {
      ++p_;
      skip();
      return *this;
    }
    const_iterator operator++(int) {
      auto t = *this;
      ++*this;
      return t;
    }
    friend bool operator==(const const_iterator& a, const const_iterator& b) { return a.p_ == b.p_; }

   private:
    void skip() {
      while (p_ != end_ && p_->first.isNil()) ++p_;
    }
    const Entry* p_ = nullptr;
    const Entry* end_ = nullptr;
  };
  const_iterator begin() const { return {entries_.begin(), entries_.end()}; }
  const_iterator end() const { return {entries_.end(), entries_.end()}; }
  std::vector<Object> allKeys() const;

 private:
  friend class Object;
  friend Object detail::makeDictionary(std::span<Object>, bool, bool);
  // Adds the entries moved in so far as live, checking for repeated keys
  // unless they are known to be distinct.
  void adopt(bool distinctKeys);
  std::size_t find(const Object& key, std::size_t hash) const;
  std::size_t find(std::string_view key, std::size_t hash) const;
  void rebuildIndex(std::size_t capacity);
  void indexInsert(std::size_t entry, std::size_t hash);
  void compact();

  detail::TrailingVector<Entry> entries_;  // removed entries have a nil key
  std::vector<std::uint32_t> index_;         // 0 empty, kTombstone removed, else entry + 1
  std::uint32_t live_ = 0;
  std::uint32_t tombstones_ = 0;  // removed entries still in entries_
  const bool mutable_;
};

class DateObject final : public ObjectBase {
 public:
  explicit DateObject(Date value) : ObjectBase(ObjectKind::Date), value_(value) {}
  Date value() const { return value_; }

 private:
  Date value_;
};

class Data final : public ObjectBase {
 public:
  explicit Data(std::vector<std::uint8_t> bytes) : ObjectBase(ObjectKind::Data), bytes_(std::move(bytes)) {}
  const std::vector<std::uint8_t>& bytes() const { return bytes_; }

 private:
  std::vector<std::uint8_t> bytes_;
};

// Base of library objects that live inside object trees. Create subclasses with
// std::make_shared and store them as `Object(sharedPtr)`.
//
// The key-value defaults mirror the platform: `valueForKeyPath` looks up the
// first component with `valueForKey` and asks the result for the rest;
// `valueForKey` ends in `valueForUndefinedKey`, which answers nil; setting
// through a key path forwards to the object at the first component. Subclasses
// override whichever they forward.
// The identity of a C++ type for `CustomObject::castTo`: the address of a variable that only that type has, so
// finding a custom object's type needs no RTTI (apps often build without it).
using CustomTypeId = const void*;
template <class T>
struct CustomTypeAnchor {
  static constexpr char address = 0;
};
template <class T>
constexpr CustomTypeId customTypeId() noexcept {
  return &CustomTypeAnchor<std::remove_cv_t<T>>::address;
}

// Type identity: `Object::asCustom<T>()` asks the object for itself as a `T` through `castTo`. A subclass that
// is to be found that way, as its own class or as an interface it implements, overrides it with
// `castAs<Self, T...>`, listing every type it may be asked for:
//
//   void* castTo(CustomTypeId type) override { return castAs<MySubscription, KelSubscription>(this, type); }
class CustomObject : public ObjectBase, public std::enable_shared_from_this<CustomObject> {
 public:
  CustomObject() : ObjectBase(ObjectKind::Custom) {}
  virtual ~CustomObject() = default;

  // "<ClassName: 0x...>" by default.
  virtual std::string description() const;
  virtual std::string_view className() const { return "CustomObject"; }
  virtual bool isEqual(const CustomObject& other) const { return this == &other; }
  virtual std::size_t hash() const;

  virtual Object valueForKey(std::string_view key) const;
  virtual Object valueForKeyPath(std::string_view keyPath) const;
  virtual Object valueForUndefinedKey(std::string_view key) const;
  virtual void setValueForKey(const Object& value, std::string_view key);
  virtual void setValueForKeyPath(const Object& value, std::string_view keyPath);

  Object asObject() { return Object(shared_from_this()); }

  // This object as the type `type` names (pointing at that base within it), or nullptr when it is not one.
  virtual void* castTo(CustomTypeId /*type*/) { return nullptr; }

 protected:
  // `self` as whichever of the listed types (`T`, `Rest...`) `type` names, or nullptr; `self` must derive from
  // each of them (or be one).
  template <class T, class... Rest, class Self>
  static void* castAs(Self* self, CustomTypeId type) {
    if (type == customTypeId<T>()) return static_cast<T*>(self);
    if constexpr (sizeof...(Rest) > 0) {
      return castAs<Rest...>(self, type);
    } else {
      return nullptr;
    }
  }
};

// Hot accessors, defined here so they inline.
inline const String* Object::asString() const {
  return isString() ? static_cast<const String*>(impl_.get()) : nullptr;
}
inline std::string_view Object::stringValue() const {
  return isString() ? static_cast<const String*>(impl_.get())->text() : std::string_view();
}
inline const Number* Object::asNumber() const {
  return isNumber() ? static_cast<const Number*>(impl_.get()) : nullptr;
}
inline const Dictionary* Object::asDictionary() const {
  return isDictionary() ? static_cast<const Dictionary*>(impl_.get()) : nullptr;
}
inline const Array* Object::asArray() const { return isArray() ? static_cast<const Array*>(impl_.get()) : nullptr; }

template <class T>
std::shared_ptr<T> Object::asCustom() const {
  if (!isCustom()) return nullptr;
  std::shared_ptr<CustomObject> custom = std::static_pointer_cast<CustomObject>(impl_);
  if constexpr (std::is_same_v<std::remove_cv_t<T>, CustomObject>) {
    return custom;
  } else {
    void* found = custom->castTo(customTypeId<T>());
    // Shares ownership with the object, pointing at its `T` part.
    return found != nullptr ? std::shared_ptr<T>(std::move(custom), static_cast<T*>(found)) : nullptr;
  }
}

}  // namespace brivet
