// What the blocking forms of the models share: the refusal to block the main
// queue's own thread, and the hand-over of one answer from the thread that
// delivers it to the thread that waits for it.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "brivet/platform/error.h"
#include "brivet/platform/mutex.h"
#include "brivet/platform/result.h"

namespace brivet::internal {

// An OnMainQueue error when the calling thread is running main-queue blocks:
// the answer it would wait for can only be delivered by that thread.
std::optional<Error> refuseOnMainQueue(std::string_view operation);
// The TimedOut error of `operation` after `timeout`.
Error timedOut(std::string_view operation, std::chrono::milliseconds timeout);

// One answer, handed from any thread to the one waiting. Shared by both sides;
// the first `deliver` counts.
template <class T>
class Rendezvous {
 public:
  void deliver(T value) {
    MutexLock lock(mu_);
    if (value_) return;
    value_.emplace(std::move(value));
    ready_.notifyAll();
  }
  // The answer, or nothing once `timeout` has passed.
  std::optional<T> wait(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    MutexLock lock(mu_);
    while (!value_) {
      if (!ready_.waitUntil(mu_, deadline) && !value_) return std::nullopt;
    }
    return std::move(value_);
  }

 private:
  Mutex mu_;
  CondVar ready_;
  std::optional<T> value_ BRIVET_GUARDED_BY(mu_);
};

// Starts an operation with `start` (which answers how to cancel it), waits for
// its answer, and cancels it when the time is up.
template <class T>
Result<T, Error> waitFor(std::string_view operation, std::chrono::milliseconds timeout,
                         const std::function<std::function<void()>(std::function<void(Result<T, Error>)>)>& start) {
  if (std::optional<Error> refusal = refuseOnMainQueue(operation)) return *refusal;
  auto rendezvous = std::make_shared<Rendezvous<Result<T, Error>>>();
  std::function<void()> cancel =
      start([rendezvous](Result<T, Error> answer) { rendezvous->deliver(std::move(answer)); });
  std::optional<Result<T, Error>> answer = rendezvous->wait(timeout);
  if (!answer) {
    if (cancel) cancel();
    return timedOut(operation, timeout);
  }
  return std::move(*answer);
}

}  // namespace brivet::internal
