// Counting what a conversion into typed values could not read.
//
// The conversions from platform objects and from JSON text never fail: a node
// they cannot read (a "$type" dictionary that is no leaf, a value that is not
// JSON, nesting past the depth bound) becomes null. A caller that must say how
// many did - a snapshot restore - opens an `UnreadableCount` on its thread
// around the conversion. Without one, noting costs one thread-local load, and
// only on the paths that give up on a node.
#pragma once

#include <cstddef>

namespace brivet::internal {

inline thread_local std::size_t* tUnreadableCounter = nullptr;

inline void noteUnreadable(std::size_t count = 1) {
  if (tUnreadableCounter != nullptr) *tUnreadableCounter += count;
}

// Counts the nodes noted on this thread while it lives; an enclosing count gets them too.
class UnreadableCount {
 public:
  UnreadableCount() : outer_(tUnreadableCounter) { tUnreadableCounter = &count_; }
  ~UnreadableCount() {
    tUnreadableCounter = outer_;
    if (outer_ != nullptr) *outer_ += count_;
  }
  UnreadableCount(const UnreadableCount&) = delete;
  UnreadableCount& operator=(const UnreadableCount&) = delete;

  std::size_t count() const { return count_; }

 private:
  std::size_t* const outer_;
  std::size_t count_ = 0;
};

}  // namespace brivet::internal
