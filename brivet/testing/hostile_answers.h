// Hostile call answers of about a given size, as JSON text, for benchmarks of both models.
//
// Each kind is the worst shape of answer we know for one walk: key sets fanning out through a cycle of
// references (read back, ending on missing keys, or invalidated), many long missing paths, ranges to the end of
// the integers over a large branch (read back or invalidated), and a branch 500 levels deep read to the bottom
// by every path. `Benign` is about the same size of ordinary data read back in full, for scale. The two dialects
// differ only in how the graph is carried ("jsonGraph" or "value"), how a reference is written (a "ref" atom or a
// bare array of keys) and how a leaf is written. Pure functions; the text is returned by value.
#pragma once

#include <cstddef>
#include <string>

namespace brivet::testing {

enum class HostileAnswer {
  Benign,
  FanOutPaths,
  FanOutMisses,
  LongMisses,
  RangesOverALargeBranch,
  InvalidatedRanges,
  InvalidatedFanOut,
  DeepPaths
};

enum class AnswerDialect {
  JSONGraph,  // {"jsonGraph": ..., "paths": ..., "invalidated": ...}, references as {"$type": "ref", ...}
  Legacy,     // {"value": ..., "paths": ..., "invalidated": ...}, references as arrays of keys
};

inline constexpr std::size_t kHostileAnswerBytes = std::size_t{1} << 20;

// The answer's JSON text, about `bytes` long (a little more: the last path is finished).
std::string hostileAnswer(HostileAnswer kind, AnswerDialect dialect, std::size_t bytes = kHostileAnswerBytes);

}  // namespace brivet::testing
