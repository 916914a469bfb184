// Checks shared by the path tree harnesses (key paths and path arrays).
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include "brivet/core/values/path_tree.h"

namespace brivet::fuzzing {

inline void check(bool condition, const char* target, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "%s property failed: %s\n", target, what);
    std::abort();
  }
}

// Walks a tree (at most `depthLimit` levels): every key set is non-empty, and a
// KeyIterator over a set whose ranges are all in order yields its first keys in
// order. Answers whether the tree holds a reversed range.
inline bool checkTree(const PathTree& tree, const char* target, std::size_t depth = 0) {
  check(depth <= 513, target, "a tree deeper than the path length limit");
  bool reversed = false;
  for (const auto& [keys, sub] : tree.entries()) {
    check(!keys.empty(), target, "an empty key set");
    bool inOrder = true;
    for (const Key& k : keys) {
      if (k.kind() == Key::Kind::Range && k.from() > k.to()) inOrder = false;
    }
    if (inOrder) {
      KeyIterator it(keys);
      std::size_t seen = 0;
      std::size_t keyIndex = 0;
      std::int64_t expected = keys[0].kind() == Key::Kind::Range ? keys[0].from() : 0;
      while (seen < 64) {
        const std::optional<std::string_view> next = it.next();
        if (!next) break;
        if (keyIndex == 0 && keys[0].kind() == Key::Kind::Range) {
          check(*next == std::to_string(expected), target, "a range iterates out of order");
          if (expected == keys[0].to()) {
            keyIndex = 1;
          } else {
            ++expected;
          }
        }
        ++seen;
      }
    }
    reversed = reversed || !inOrder;
    reversed = checkTree(sub, target, depth + 1) || reversed;
  }
  return reversed;
}

}  // namespace brivet::fuzzing
