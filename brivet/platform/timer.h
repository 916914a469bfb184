// Timer: runs a block on a dispatch queue once a delay has passed.
//
// `schedule` answers a handle at once; the block is later submitted with
// `async` to the given queue (it never runs on the timer's own thread), unless
// the handle was cancelled first. Cancelling after the block was submitted
// does nothing: the block checks its own state if that matters.
//
// `Timer::system()` is the process-wide timer on the steady clock: one thread,
// started at the first `schedule`, that sleeps until the earliest deadline.
// Code that waits (retry backoff) takes a `Timer` so that tests can hand it
// one they advance by hand (brivet/testing/manual_timer.h) instead of sleeping.
//
// Ownership: the timer keeps each pending block (and what it captured) and the
// queue alive until the block is submitted or cancelled. Thread safety: every
// member may be called from any thread.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "brivet/platform/dispatch_queue.h"

namespace brivet {

class TimerHandle {
 public:
  virtual ~TimerHandle() = default;
  // Drops the block if it has not been submitted yet (releasing what it holds).
  virtual void cancel() = 0;
};

class Timer {
 public:
  virtual ~Timer() = default;
  // A negative delay counts as zero.
  virtual std::shared_ptr<TimerHandle> schedule(std::chrono::milliseconds delay,
                                                std::shared_ptr<DispatchQueue> queue,
                                                std::function<void()> block) = 0;

  static const std::shared_ptr<Timer>& system();
};

}  // namespace brivet
