// Builders for the wrapped leaves of a JSON Graph, in the dictionary form the
// core model sends and receives (`setWithValue`, `mergeJSONDictionaryIntoModel`,
// server answers):
//
//   leaf::atom("Up")                                   {"$type": "atom", "value": "Up"}
//   leaf::atom(4.5, {.expires = Expiry::after(60s)})   ... "$expires": -60000 (a minute after it is read)
//   leaf::ref("videos", "v1")                          {"$type": "ref", "value": ["videos", "v1"]}
//   leaf::error("no rights")                           {"$type": "error", "value": {"message": "no rights"}}
//
// `Expiry` names the "$expires" conventions: `never()` (1), `now()` (0: expired
// from the start), `after(duration)` (relative to when the graph is read, written
// as minus the milliseconds), `at(date)` (milliseconds since 1970; a date at or
// before 1970-01-01 00:00:00.001 would read as one of the others, so it counts as
// `now()`, long passed). `LeafMetadata` adds "$timestamp" and "$size".
//
// The results are immutable platform dictionaries; nest them in
// `Object::dictionary` to build a graph. Pure functions, any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "brivet/platform/date.h"
#include "brivet/platform/object.h"
#include "brivet/platform/typed_access.h"

namespace brivet {

class Expiry {
 public:
  static Expiry never() { return Expiry(1); }
  static Expiry now() { return Expiry(0); }
  // Relative to the moment the graph is read; a duration of zero or less is `now()`.
  static Expiry after(std::chrono::milliseconds duration) {
    return duration.count() <= 0 ? now() : Expiry(-static_cast<double>(duration.count()));
  }
  static Expiry at(Date date);

  // The "$expires" number.
  double wireNumber() const { return wire_; }
  friend bool operator==(const Expiry& a, const Expiry& b) { return a.wire_ == b.wire_; }

 private:
  explicit Expiry(double wire) : wire_(wire) {}
  double wire_;
};

struct LeafMetadata {
  std::optional<Expiry> expires = std::nullopt;
  std::optional<Date> timestamp = std::nullopt;
  std::optional<std::int64_t> size = std::nullopt;
};

namespace leaf {

// An atom wrapping `value` (any platform value; converted with toObject, so C++
// values and the application's types go as they are).
Object atom(const Object& value, const LeafMetadata& metadata = {});
template <class T, std::enable_if_t<!std::is_convertible_v<const T&, const Object&>, int> = 0>
Object atom(const T& value, const LeafMetadata& metadata = {}) {
  return atom(toObject(value), metadata);
}

namespace detail {
inline std::string refKey(std::string_view key) { return std::string(key); }
template <class I, std::enable_if_t<brivet::detail::kIsReadInteger<I>, int> = 0>
std::string refKey(I key) {
  return std::to_string(key);
}
}  // namespace detail

// A reference to the node at `path` (keys as the graph holds them: text, any characters).
Object ref(const std::vector<std::string>& path, const LeafMetadata& metadata = {});
// The same from keys: text or integers (written in decimal).
template <class... Keys>
  requires(sizeof...(Keys) > 0 && (!std::is_same_v<std::decay_t<Keys>, LeafMetadata> && ...))
Object ref(const Keys&... keys) {
  return leaf::ref(std::vector<std::string>{detail::refKey(keys)...}, LeafMetadata{});
}

// An error leaf: {"message": message}, or any body.
Object error(std::string_view message, const LeafMetadata& metadata = {});
inline Object error(const char* message, const LeafMetadata& metadata = {}) {
  return error(std::string_view(message), metadata);
}
inline Object error(const std::string& message, const LeafMetadata& metadata = {}) {
  return error(std::string_view(message), metadata);
}
Object error(const Object& body, const LeafMetadata& metadata = {});

}  // namespace leaf
}  // namespace brivet
