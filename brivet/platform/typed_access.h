// Typed access to platform objects: the value an application wants, in the C++
// type it wants, in one call.
//
//   as<T>(object)                  std::optional<T>: the object as a T, or nothing
//   get<T>(object, key, ...)       std::optional<T>: the value found by walking keys, as a T
//   read<T>(object [, key, ...])   Result<T, Error>: the same, with the reason when it fails
//   toObject(value)                the platform object for a C++ value
//
// Types read: bool (a boolean only, never 0 or 1), every integer type (a
// number whose value the type holds exactly: 3.0 reads as 3, 3.5 and 300 as
// int8_t do not), float and double (any number that is not a boolean),
// std::string, Date, Object (anything but nil), std::vector<T> (an array),
// std::map / std::unordered_map with std::string keys (a dictionary; number
// keys by their description), std::optional<T> (nil or null read as nothing;
// a missing key too), and the application's own types (below).
// `as<std::string_view>` views the text of a string the caller holds: it is
// offered on lvalues only (the view lives as long as that handle), never on a
// temporary, never through `get`.
//
// Keys walk dictionaries (text keys; an integer key is looked up as its decimal
// text), arrays (an integer key, or a text key of decimal digits, is an
// index) and library objects that answer key-value lookups (the legacy
// model's references forward them to their target).
//
// Wrapped leaves: where the target type is a scalar (bool, number, string,
// Date) or a vector, a dictionary that holds "value" and otherwise only keys
// starting with "$" stands for its "value". That is an atom in JSON Graph form
// ({"$type": "atom", "value": ...}), a legacy leaf ({"$type": "leaf", "value":
// ...}) and what the facade answers for one ({"value": ...}); an error leaf
// ({"$type": "error"}) reads as a failure carrying its message. A key that
// such a wrapper lacks is looked up in its "value". Maps, Object and
// application types receive dictionaries as they are.
//
// Application types: declare, in the type's namespace, one function each way;
// `as`, `get`, `read` and `toObject` find them (and use them inside vectors and
// maps):
//
//   std::optional<Video> fromObject(const brivet::Object& object, brivet::Tag<Video>);
//       // or Result<Video, brivet::Error> to say why
//   brivet::Object toObject(const Video& video);
//
// Failures are errors of kAccessErrorDomain (key_path.h): WrongType, NoValue,
// or OutOfRange; the message names where (keys joined by ".", array
// positions as "[i]") and what was expected and found:
// `lists.top.0.year: expected an integer from -128 to 127, found the number 1994`.
//
// Pure functions over immutable objects: call from any thread, as long as no
// other thread mutates a mutable container being read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "brivet/platform/date.h"
#include "brivet/platform/error.h"
#include "brivet/platform/key_path.h"
#include "brivet/platform/object.h"
#include "brivet/platform/result.h"

namespace brivet {

// Names the type a conversion produces, for the `fromObject` overloads.
template <class T>
struct Tag {};

// --- Built-in conversions (defined in typed_access.cc) ---
Result<bool, Error> fromObject(const Object& object, Tag<bool>);
Result<double, Error> fromObject(const Object& object, Tag<double>);
Result<float, Error> fromObject(const Object& object, Tag<float>);
Result<std::string, Error> fromObject(const Object& object, Tag<std::string>);
Result<Date, Error> fromObject(const Object& object, Tag<Date>);
Result<Object, Error> fromObject(const Object& object, Tag<Object>);

namespace detail {

template <class T>
inline constexpr bool kIsReadInteger = std::is_integral_v<T> && !std::is_same_v<T, bool> &&
                                       !std::is_same_v<T, char> && !std::is_same_v<T, wchar_t> &&
                                       !std::is_same_v<T, char8_t> && !std::is_same_v<T, char16_t> &&
                                       !std::is_same_v<T, char32_t>;

// An integer read: the value when `object` is a number that [min, max] holds exactly.
Result<std::int64_t, Error> readSigned(const Object& object, std::int64_t min, std::int64_t max);
Result<std::uint64_t, Error> readUnsigned(const Object& object, std::uint64_t max);

// Failures, and the same failure one level further out ("[3]" or "title" before its location).
Error noValueError();
// A failure of a read, placed where it happened by atKey/atKeys/atIndex.
Error readError(AccessErrorCode code, std::string reason);
Error wrongTypeError(std::string_view expected, const Object& found);
Error refusedByConversionError(const Object& found);
Error atIndex(const Error& inner, std::size_t index);
Error atKey(const Error& inner, std::string_view key);
Error atKeys(const Error& inner, std::string_view keys);

// A key of a walk: text, or an integer.
struct WalkKey {
  WalkKey(std::string_view key) : text(key) {}   // NOLINT: keys are given as they are
  WalkKey(const char* key) : text(key) {}        // NOLINT
  WalkKey(const std::string& key) : text(key) {}  // NOLINT
  template <class I, std::enable_if_t<kIsReadInteger<I>, int> = 0>
  WalkKey(I key)  // NOLINT
      : isInteger(true),
        negative(key < 0),
        magnitude(key < 0 ? 0 - static_cast<std::uint64_t>(key) : static_cast<std::uint64_t>(key)) {}
  bool isInteger = false;
  std::string_view text;
  bool negative = false;
  std::uint64_t magnitude = 0;
};
// Walks `keys` from `object`; nil when a step has no value. `failedAt` is the
// number of keys walked before the one that found nothing.
Object walk(const Object& object, std::span<const WalkKey> keys, std::size_t* failedAt);
// "lists.top.0" for the first `count` keys.
std::string describeKeys(std::span<const WalkKey> keys, std::size_t count);
// The value a wrapped leaf stands for (see the header comment), through any
// number of wrappers, or `object` itself; an error leaf gives its failure.
Result<Object, Error> unwrapLeaf(const Object& object);

template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {};
template <class T>
struct IsResult : std::false_type {};
template <class T>
struct IsResult<Result<T, Error>> : std::true_type {};
template <class T>
struct IsVector : std::false_type {};
template <class T, class A>
struct IsVector<std::vector<T, A>> : std::true_type {};

// Where a wrapped leaf stands for its value: scalars and vectors.
template <class T>
inline constexpr bool kUnwrapsLeaves = kIsReadInteger<T> || std::is_same_v<T, bool> ||
                                       std::is_floating_point_v<T> || std::is_same_v<T, std::string> ||
                                       std::is_same_v<T, Date> || IsVector<T>::value;

// `kUnwrap`: whether a wrapped leaf may still stand for its value (unwrapLeaf
// unwraps every level at once, so the second look is skipped).
template <class T, bool kUnwrap = true>
Result<T, Error> readObject(const Object& object);

template <class T>
concept HasFromObject = requires(const Object& o) { fromObject(o, Tag<T>{}); };

}  // namespace detail

// --- Integers: exact, range-checked ---
template <class I, std::enable_if_t<detail::kIsReadInteger<I>, int> = 0>
Result<I, Error> fromObject(const Object& object, Tag<I>) {
  if constexpr (std::is_signed_v<I>) {
    Result<std::int64_t, Error> r =
        detail::readSigned(object, std::numeric_limits<I>::min(), std::numeric_limits<I>::max());
    if (!r.ok()) return Failure{r.error()};
    // The value lies within I's range (checked above).
    return static_cast<I>(r.value());
  } else {
    Result<std::uint64_t, Error> r = detail::readUnsigned(object, std::numeric_limits<I>::max());
    if (!r.ok()) return Failure{r.error()};
    return static_cast<I>(r.value());
  }
}

// --- Containers ---
template <class T, class A>
Result<std::vector<T, A>, Error> fromObject(const Object& object, Tag<std::vector<T, A>>) {
  static_assert(!std::is_same_v<T, std::string_view>, "a vector of views would outlive the strings: use std::string");
  const Array* array = object.asArray();
  if (array == nullptr) return detail::wrongTypeError("an array", object);
  std::vector<T, A> out;
  out.reserve(array->size());
  for (std::size_t i = 0; i < array->size(); ++i) {
    Result<T, Error> element = detail::readObject<T>((*array)[i]);
    if (!element.ok()) return detail::atIndex(element.error(), i);
    out.push_back(std::move(element).value());
  }
  return out;
}

namespace detail {
template <class Map>
Result<Map, Error> readMap(const Object& object) {
  using T = typename Map::mapped_type;
  static_assert(std::is_same_v<typename Map::key_type, std::string>, "maps are read with std::string keys");
  static_assert(!std::is_same_v<T, std::string_view>, "a map of views would outlive the strings: use std::string");
  const Dictionary* dictionary = object.asDictionary();
  if (dictionary == nullptr) return wrongTypeError("a dictionary", object);
  Map out;
  for (const auto& [key, value] : *dictionary) {
    std::string name = key.isString() ? std::string(key.stringValue()) : key.description();
    Result<T, Error> element = readObject<T>(value);
    if (!element.ok()) return atKey(element.error(), name);
    out.emplace(std::move(name), std::move(element).value());
  }
  return out;
}
}  // namespace detail

template <class T, class C, class A>
Result<std::map<std::string, T, C, A>, Error> fromObject(const Object& object, Tag<std::map<std::string, T, C, A>>) {
  return detail::readMap<std::map<std::string, T, C, A>>(object);
}
template <class T, class H, class E, class A>
Result<std::unordered_map<std::string, T, H, E, A>, Error> fromObject(
    const Object& object, Tag<std::unordered_map<std::string, T, H, E, A>>) {
  return detail::readMap<std::unordered_map<std::string, T, H, E, A>>(object);
}
template <class T>
Result<std::optional<T>, Error> fromObject(const Object& object, Tag<std::optional<T>>) {
  if (object.isNil() || object.isNull()) return std::optional<T>();
  Result<T, Error> r = detail::readObject<T>(object);
  if (!r.ok()) return Failure{r.error()};
  return std::optional<T>(std::move(r).value());
}

namespace detail {

// One value as a T: wrapped leaves first (for the types that see through
// them), then the conversion for T, whatever form it answers in.
template <class T, bool kUnwrap>
Result<T, Error> readObject(const Object& object) {
  static_assert(!std::is_reference_v<T> && !std::is_const_v<T>, "read a plain type");
  static_assert(!std::is_same_v<T, std::string_view>,
                "a string_view read here would view a temporary: use std::string, or as<std::string_view> on a "
                "handle you keep");
  static_assert(HasFromObject<T>,
                "no conversion from Object to this type: declare `std::optional<T> fromObject(const brivet::Object&, "
                "brivet::Tag<T>)` in the type's namespace");
  if constexpr (kUnwrap && kUnwrapsLeaves<T>) {
    if (object.isDictionary()) {
      Result<Object, Error> inner = unwrapLeaf(object);
      if (!inner.ok()) return Failure{inner.error()};
      if (!inner.value().isIdentical(object)) return readObject<T, false>(inner.value());
    }
  }
  if constexpr (!IsOptional<T>::value && !std::is_same_v<T, Object>) {
    if (object.isNil()) return noValueError();
  }
  auto converted = fromObject(object, Tag<T>{});
  using R = decltype(converted);
  if constexpr (IsResult<R>::value) {
    static_assert(std::is_same_v<R, Result<T, Error>>, "fromObject must answer std::optional<T> or Result<T, Error>");
    return converted;
  } else if constexpr (IsOptional<R>::value) {
    static_assert(std::is_same_v<R, std::optional<T>>, "fromObject must answer std::optional<T> or Result<T, Error>");
    if (!converted) return refusedByConversionError(object);
    return std::move(*converted);
  } else {
    static_assert(IsOptional<R>::value, "fromObject must answer std::optional<T> or Result<T, Error>");
    return refusedByConversionError(object);
  }
}

}  // namespace detail

// --- Reading ---

// The object (or the value found by walking `keys` from it) as a T, or why not.
template <class T, class... Keys>
Result<T, Error> read(const Object& object, const Keys&... keys) {
  if constexpr (sizeof...(Keys) == 0) {
    if constexpr (std::is_same_v<T, std::string_view>) {
      if (!object.isString()) return detail::wrongTypeError("a string", object);
      return object.stringValue();
    } else {
      return detail::readObject<T>(object);
    }
  } else {
    static_assert(!std::is_same_v<T, std::string_view>,
                  "a string_view found by walking keys would view a temporary handle: use std::string");
    const detail::WalkKey walked[] = {detail::WalkKey(keys)...};
    std::size_t failedAt = 0;
    const Object found = detail::walk(object, walked, &failedAt);
    if (found.isNil()) {
      if constexpr (detail::IsOptional<T>::value) return T();
      return detail::atKeys(detail::noValueError(), detail::describeKeys(walked, failedAt + 1));
    }
    Result<T, Error> r = detail::readObject<T>(found);
    if (!r.ok()) return detail::atKeys(r.error(), detail::describeKeys(walked, sizeof...(Keys)));
    return r;
  }
}
// A string_view from a temporary would outlive its text: refused.
template <class T, class... Keys>
  requires(!std::is_same_v<T, std::string_view>)
Result<T, Error> read(const Object&& object, const Keys&... keys) {
  return read<T>(object, keys...);
}
template <class T, class... Keys>
  requires std::is_same_v<T, std::string_view>
Result<T, Error> read(const Object&& object, const Keys&... keys) = delete;

// The object as a T, or nothing.
template <class T>
std::optional<T> as(const Object& object) {
  Result<T, Error> r = read<T>(object);
  if (!r.ok()) return std::nullopt;
  return std::move(r).value();
}
template <class T>
  requires(!std::is_same_v<T, std::string_view>)
std::optional<T> as(const Object&& object) {
  return as<T>(object);
}
template <class T>
  requires std::is_same_v<T, std::string_view>
std::optional<T> as(const Object&& object) = delete;

// The value found by walking `keys`, as a T, or nothing.
template <class T, class Key, class... Keys>
std::optional<T> get(const Object& object, const Key& key, const Keys&... keys) {
  Result<T, Error> r = read<T>(object, key, keys...);
  if (!r.ok()) return std::nullopt;
  return std::move(r).value();
}

// The value at a key path ("lists.top.0.title"); a path with a range names
// many values and reads as NoValue.
template <class T>
Result<T, Error> readAt(const Object& object, const KeyPath& keyPath) {
  const std::vector<std::string_view> components = keyPath.components();
  if (keyPath.hasRange()) {
    return accessError(AccessErrorCode::NoValue,
                       std::string(keyPath.text()) + ": a key path with a range names many values, not one");
  }
  std::vector<detail::WalkKey> walked(components.begin(), components.end());
  std::size_t failedAt = 0;
  const Object found = detail::walk(object, walked, &failedAt);
  if (found.isNil()) {
    if constexpr (detail::IsOptional<T>::value) return T();
    return detail::atKeys(detail::noValueError(), detail::describeKeys(walked, failedAt + 1));
  }
  Result<T, Error> r = detail::readObject<T>(found);
  if (!r.ok()) return detail::atKeys(r.error(), keyPath.text());
  return r;
}

// --- Writing ---

template <class T>
Object toObject(const std::optional<T>& value);
template <class T, class A>
Object toObject(const std::vector<T, A>& values);
template <class T, class C, class A>
Object toObject(const std::map<std::string, T, C, A>& values);
template <class T, class H, class E, class A>
Object toObject(const std::unordered_map<std::string, T, H, E, A>& values);

inline Object toObject(const Object& object) { return object; }
inline Object toObject(bool value) { return Object::boolean(value); }
template <class N, std::enable_if_t<detail::kIsReadInteger<N> || std::is_floating_point_v<N>, int> = 0>
Object toObject(N value) {
  return Object(value);
}
inline Object toObject(std::string_view text) { return Object::string(text); }
inline Object toObject(const char* text) { return Object::string(text); }
inline Object toObject(const std::string& text) { return Object::string(text); }
inline Object toObject(Date date) { return Object::date(date); }
template <class T>
Object toObject(const std::optional<T>& value) {
  if (!value) return Object::null();
  return toObject(*value);
}
template <class T, class A>
Object toObject(const std::vector<T, A>& values) {
  std::vector<Object> elements;
  elements.reserve(values.size());
  for (const T& value : values) elements.push_back(toObject(value));
  return Object::array(std::move(elements));
}
namespace detail {
template <class Map>
Object mapToObject(const Map& values) {
  std::vector<Object::Entry> entries;
  entries.reserve(values.size());
  for (const auto& [key, value] : values) entries.emplace_back(Object::string(key), toObject(value));
  return Object::dictionaryWithDistinctKeys(std::move(entries), false);
}
}  // namespace detail
template <class T, class C, class A>
Object toObject(const std::map<std::string, T, C, A>& values) {
  return detail::mapToObject(values);
}
template <class T, class H, class E, class A>
Object toObject(const std::unordered_map<std::string, T, H, E, A>& values) {
  return detail::mapToObject(values);
}

}  // namespace brivet
