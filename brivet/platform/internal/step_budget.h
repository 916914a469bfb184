// StepBudget: the number of steps one walk over a cache may still take.
//
// The walks of both models (reads, miss collection, extraction) spend one step
// per key they look up and per reference they follow; a walk that would go
// past its budget stops, so key sets fanning out through cycles of references
// cannot cost more than a bound proportional to the request. Once spent, every
// further `spend` fails. A budget belongs to one walk on one thread.
#pragma once

#include <cstddef>

namespace brivet::internal {

class StepBudget {
 public:
  explicit StepBudget(std::size_t limit) : limit_(limit < kUnbounded ? limit : kUnbounded) {}
  static StepBudget unbounded() { return StepBudget(kUnbounded); }

  // Spends `n` steps; false when that goes past the limit (and from then on).
  bool spend(std::size_t n) {
    if (used_ > limit_) return false;
    used_ = n > limit_ - used_ ? limit_ + 1 : used_ + n;
    return used_ <= limit_;
  }
  bool exhausted() const { return used_ > limit_; }
  std::size_t limit() const { return limit_; }

 private:
  static constexpr std::size_t kUnbounded = static_cast<std::size_t>(-1) - 1;
  std::size_t limit_;
  std::size_t used_ = 0;  // at most limit_ + 1
};

}  // namespace brivet::internal
