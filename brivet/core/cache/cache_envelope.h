// CacheEnvelope: a cache snapshot, the graph (or part of it) with the version.
//
// Its platform-dictionary form is {"jsonGraph": <graph in JSON Graph wire
// form>, "$_version": <unsigned 64-bit number>}; its text form is that
// dictionary as JSON (UTF-8). Reading accepts only a dictionary whose
// "jsonGraph" is a dictionary and whose "$_version" is a number; anything else
// is no envelope (not an error). Plain value, safe to share across threads.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "brivet/core/values/json_graph.h"
#include "brivet/platform/error.h"
#include "brivet/platform/object.h"
#include "brivet/platform/result.h"

namespace brivet {

struct CacheEnvelope {
  JSONGraph jsonGraph;
  std::uint64_t version = 0;

  Object toDictionary() const;
  static std::optional<CacheEnvelope> fromDictionary(const Object& dictionary);

  // JSON text of the dictionary form (the writer's error when it cannot be written).
  [[nodiscard]] Result<std::string> toJSONText() const;
  // Parses JSON text (mutable containers and fragments allowed): a parse error
  // is returned as it stands; text that parses but holds no envelope gives an
  // empty optional.
  [[nodiscard]] static Result<std::optional<CacheEnvelope>> fromJSONText(std::string_view text);

  friend bool operator==(const CacheEnvelope& a, const CacheEnvelope& b) {
    return a.version == b.version && a.jsonGraph == b.jsonGraph;
  }
};

}  // namespace brivet
