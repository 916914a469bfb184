// Typed access to core values: `as`, `get`, `read` and `readAt` (see
// brivet/platform/typed_access.h) on `JSONValue` and `JSONGraph`.
//
// The same types, rules and errors as for platform objects: a JSONValue reads
// as a T exactly as its platform form (`toAnyType`) would, and keys walk its
// objects and arrays the same way, wrapped leaves included. Application types
// are read from the platform form through their `fromObject`.
//
// A JSONGraph is read through its leaves: an atom reads as its value (keys go
// on into it), a bare primitive as itself; an error leaf fails with its message,
// a reference with the path it points to (a graph on its own cannot follow it),
// an undefined leaf has no value. Keys walk branches (array branches by decimal
// index). A branch read as a whole (a map, a vector, Object) reads as its
// platform form.
//
// `as<std::string_view>` on a JSONValue views the text of a string value the
// caller holds: lvalues only, and the view lives as long as that handle (short
// strings live inside the handle itself).
//
// Thread safety: values are immutable; read them from any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "brivet/core/values/json_graph.h"
#include "brivet/core/values/json_value.h"
#include "brivet/platform/key_path.h"
#include "brivet/platform/typed_access.h"

namespace brivet {
namespace detail {

// Walks `keys` from `value`; nothing when a step finds no value (`failedAt`
// is then the number of keys walked before it).
std::optional<JSONValue> walkValue(const JSONValue& value, std::span<const WalkKey> keys, std::size_t* failedAt);
// The value a wrapped leaf in a JSONValue stands for (through every wrapper),
// or the value itself; an error leaf gives its failure.
Result<JSONValue, Error> unwrapValue(const JSONValue& value);
// The text of a string value, viewed in the handle itself (nothing otherwise).
std::optional<std::string_view> stringViewOf(const JSONValue& value);

// Where a walk through a graph ends: a graph node, or a value inside an atom.
// Neither when it found nothing; `stoppedAt` then holds the reference, error
// or undefined leaf the walk could not go past, if that is why.
struct GraphPlace {
  std::optional<JSONGraph> graph = std::nullopt;
  std::optional<JSONValue> value = std::nullopt;
  std::optional<JSONGraphLeaf> stoppedAt = std::nullopt;
};
GraphPlace walkGraph(const JSONGraph& graph, std::span<const WalkKey> keys, std::size_t* failedAt);
// Why a walk that found nothing failed, said at the keys where it stopped.
Error graphWalkFailure(const GraphPlace& place, std::span<const WalkKey> keys, std::size_t failedAt);
// A leaf's value to read (atoms and primitives), or why it has none.
Result<JSONValue, Error> leafValue(const JSONGraphLeaf& leaf);

template <class T>
Result<T, Error> readValue(const JSONValue& value);

template <class T>
Result<T, Error> readValueElements(const JSONValue& value) {
  using E = typename T::value_type;
  if (!value.isArray()) return readObject<T>(value.toAnyType());
  T out;
  out.reserve(value.size());
  for (std::size_t i = 0; i < value.size(); ++i) {
    Result<E, Error> element = readValue<E>(*value.at(i));
    if (!element.ok()) return atIndex(element.error(), i);
    out.push_back(std::move(element).value());
  }
  return out;
}

template <class T>
Result<T, Error> readValue(const JSONValue& value) {
  if constexpr (kUnwrapsLeaves<T>) {
    if (value.isObject()) {
      Result<JSONValue, Error> inner = unwrapValue(value);
      if (!inner.ok()) return Failure{inner.error()};
      if constexpr (IsVector<T>::value) return readValueElements<T>(inner.value());
      return readObject<T, false>(inner.value().toAnyType());
    }
    if constexpr (IsVector<T>::value) return readValueElements<T>(value);
  }
  return readObject<T>(value.toAnyType());
}

template <class T>
Result<T, Error> readGraph(const JSONGraph& graph) {
  if (!graph.isLeaf()) return readObject<T>(graph.toAnyType());
  Result<JSONValue, Error> value = leafValue(graph.leaf());
  if (!value.ok()) return Failure{value.error()};
  return readValue<T>(value.value());
}

template <class T>
Result<T, Error> readPlace(const GraphPlace& place) {
  if (place.value) return readValue<T>(*place.value);
  return readGraph<T>(*place.graph);
}

template <class T>
Result<T, Error> readAfterWalk(const std::optional<Error>& missing, std::string_view where,
                               const auto& readFound) {
  if (missing) {
    if constexpr (IsOptional<T>::value) return T();
    return *missing;
  }
  Result<T, Error> r = readFound();
  if (!r.ok()) return atKeys(r.error(), where);
  return r;
}

}  // namespace detail

// --- JSONValue ---

template <class T, class... Keys>
Result<T, Error> read(const JSONValue& value, const Keys&... keys) {
  if constexpr (std::is_same_v<T, std::string_view>) {
    static_assert(sizeof...(Keys) == 0, "a string_view found by walking keys would view a temporary: use std::string");
    if (std::optional<std::string_view> text = detail::stringViewOf(value)) return *text;
    return detail::wrongTypeError("a string", value.toAnyType());
  } else if constexpr (sizeof...(Keys) == 0) {
    return detail::readValue<T>(value);
  } else {
    const detail::WalkKey walked[] = {detail::WalkKey(keys)...};
    std::size_t failedAt = 0;
    const std::optional<JSONValue> found = detail::walkValue(value, walked, &failedAt);
    std::optional<Error> missing;
    if (!found) missing = detail::atKeys(detail::noValueError(), detail::describeKeys(walked, failedAt + 1));
    return detail::readAfterWalk<T>(missing, detail::describeKeys(walked, sizeof...(Keys)),
                                    [&] { return detail::readValue<T>(*found); });
  }
}
template <class T, class... Keys>
  requires(!std::is_same_v<T, std::string_view>)
Result<T, Error> read(const JSONValue&& value, const Keys&... keys) {
  return read<T>(value, keys...);
}
template <class T, class... Keys>
  requires std::is_same_v<T, std::string_view>
Result<T, Error> read(const JSONValue&& value, const Keys&... keys) = delete;

template <class T>
std::optional<T> as(const JSONValue& value) {
  Result<T, Error> r = read<T>(value);
  if (!r.ok()) return std::nullopt;
  return std::move(r).value();
}
template <class T>
  requires(!std::is_same_v<T, std::string_view>)
std::optional<T> as(const JSONValue&& value) {
  return as<T>(value);
}
template <class T>
  requires std::is_same_v<T, std::string_view>
std::optional<T> as(const JSONValue&& value) = delete;

template <class T, class Key, class... Keys>
std::optional<T> get(const JSONValue& value, const Key& key, const Keys&... keys) {
  Result<T, Error> r = read<T>(value, key, keys...);
  if (!r.ok()) return std::nullopt;
  return std::move(r).value();
}

template <class T>
Result<T, Error> readAt(const JSONValue& value, const KeyPath& keyPath) {
  if (keyPath.hasRange()) {
    return accessError(AccessErrorCode::NoValue,
                       std::string(keyPath.text()) + ": a key path with a range names many values, not one");
  }
  const std::vector<std::string_view> components = keyPath.components();
  const std::vector<detail::WalkKey> walked(components.begin(), components.end());
  std::size_t failedAt = 0;
  const std::optional<JSONValue> found = detail::walkValue(value, walked, &failedAt);
  std::optional<Error> missing;
  if (!found) missing = detail::atKeys(detail::noValueError(), detail::describeKeys(walked, failedAt + 1));
  return detail::readAfterWalk<T>(missing, keyPath.text(), [&] { return detail::readValue<T>(*found); });
}

// --- JSONGraph ---

template <class T, class... Keys>
Result<T, Error> read(const JSONGraph& graph, const Keys&... keys) {
  static_assert(!std::is_same_v<T, std::string_view>, "read a graph's text as std::string");
  if constexpr (sizeof...(Keys) == 0) {
    return detail::readGraph<T>(graph);
  } else {
    const detail::WalkKey walked[] = {detail::WalkKey(keys)...};
    std::size_t failedAt = 0;
    const detail::GraphPlace found = detail::walkGraph(graph, walked, &failedAt);
    std::optional<Error> missing;
    if (!found.graph && !found.value) missing = detail::graphWalkFailure(found, walked, failedAt);
    return detail::readAfterWalk<T>(missing, detail::describeKeys(walked, sizeof...(Keys)),
                                    [&] { return detail::readPlace<T>(found); });
  }
}

template <class T>
std::optional<T> as(const JSONGraph& graph) {
  Result<T, Error> r = read<T>(graph);
  if (!r.ok()) return std::nullopt;
  return std::move(r).value();
}

template <class T, class Key, class... Keys>
std::optional<T> get(const JSONGraph& graph, const Key& key, const Keys&... keys) {
  Result<T, Error> r = read<T>(graph, key, keys...);
  if (!r.ok()) return std::nullopt;
  return std::move(r).value();
}

template <class T>
Result<T, Error> readAt(const JSONGraph& graph, const KeyPath& keyPath) {
  if (keyPath.hasRange()) {
    return accessError(AccessErrorCode::NoValue,
                       std::string(keyPath.text()) + ": a key path with a range names many values, not one");
  }
  const std::vector<std::string_view> components = keyPath.components();
  const std::vector<detail::WalkKey> walked(components.begin(), components.end());
  std::size_t failedAt = 0;
  const detail::GraphPlace found = detail::walkGraph(graph, walked, &failedAt);
  std::optional<Error> missing;
  if (!found.graph && !found.value) missing = detail::graphWalkFailure(found, walked, failedAt);
  return detail::readAfterWalk<T>(missing, keyPath.text(), [&] { return detail::readPlace<T>(found); });
}

}  // namespace brivet
