// CacheEnvelope: a cache snapshot, the graph (or part of it) with the version.
//
// Its platform-dictionary form is {"jsonGraph": <graph in JSON Graph wire
// form>, "$_version": <unsigned 64-bit number>}; its text form is that
// dictionary as JSON (UTF-8). Reading accepts only a dictionary whose
// "jsonGraph" is a dictionary and whose "$_version" is a number in the version
// range; anything else is no envelope (not an error). A reader given a
// `SnapshotReport` says why it found no envelope, and what of the graph it
// could not read or found already expired. Plain value, safe to share across
// threads.
//
// Versions: a cache's version and every snapshot's lie in 0...kMaxCacheVersion
// (2^63 - 1). The cache never leaves that range (it starts at 1, stepping past
// the top stops the program, and setting a version above it is a precondition
// failure), the writers write every version in it and the readers accept every
// version in it, in both forms, so every snapshot the library writes can be
// restored. A larger number is refused: it would bring the cache within reach
// of the end of its counter, and a negative integer from another writer reads
// as one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "brivet/core/values/json_graph.h"
#include "brivet/platform/error.h"
#include "brivet/platform/object.h"
#include "brivet/platform/result.h"

namespace brivet {

// The largest version a cache or a snapshot holds.
inline constexpr std::uint64_t kMaxCacheVersion = (std::uint64_t{1} << 63) - 1;

// What reading a snapshot kept and what it left out.
struct SnapshotReport {
  // Why the input holds no snapshot ("no \"$_version\" number", ...); empty
  // when it holds one. A refused snapshot leaves the cache as it was.
  std::string refusal;
  // Graph nodes that could not be read and were restored as null: a "$type"
  // dictionary that is no atom, error or reference (or has no "value" and is
  // no atom), a reference whose path is not all text, a value that is not
  // JSON, nesting past the depth bound.
  std::size_t unreadableEntries = 0;
  // Leaves (atoms, errors, references) whose "$expires" had passed when the
  // snapshot was read: restored, but a read counts them as missing and a get
  // fetches them again.
  std::size_t expiredLeaves = 0;

  bool restored() const { return refusal.empty(); }
  // One line: "restored; 2 entries could not be read (restored as null); 5
  // leaves had already expired", "restored" or "not restored: <refusal>".
  std::string description() const;
};

struct CacheEnvelope {
  JSONGraph jsonGraph;
  std::uint64_t version = 0;  // 0...kMaxCacheVersion

  // Precondition (both writers): `version` <= kMaxCacheVersion.
  Object toDictionary() const;
  static std::optional<CacheEnvelope> fromDictionary(const Object& dictionary, SnapshotReport* report = nullptr);

  // JSON text of the dictionary form (the writer's error when it cannot be written).
  [[nodiscard]] Result<std::string> toJSONText() const;
  // Parses JSON text (mutable containers and fragments allowed): a parse error
  // is returned as it stands; text that parses but holds no envelope gives an
  // empty optional (and the refusal in `report`).
  [[nodiscard]] static Result<std::optional<CacheEnvelope>> fromJSONText(std::string_view text,
                                                                         SnapshotReport* report = nullptr);

  friend bool operator==(const CacheEnvelope& a, const CacheEnvelope& b) {
    return a.version == b.version && a.jsonGraph == b.jsonGraph;
  }
};

}  // namespace brivet
