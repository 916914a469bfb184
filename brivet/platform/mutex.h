// Mutex, MutexLock and CondVar: an annotated mutex, its scoped lock and a
// condition variable that waits on it.
//
// std::mutex carries no thread-safety annotations in libstdc++, so the library
// uses these thin wrappers to let Clang check BRIVET_GUARDED_BY members; they
// appear in the private members of some public classes. Applications may use
// them too. Each is used as its std counterpart is: from any thread, never
// copied.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "brivet/platform/thread_annotations.h"

namespace brivet {

class BRIVET_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() BRIVET_ACQUIRE() { mu_.lock(); }
  void unlock() BRIVET_RELEASE() { mu_.unlock(); }

 private:
  friend class CondVar;
  std::mutex mu_;
};

class BRIVET_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mu) BRIVET_ACQUIRE(mu) : mu_(mu) { mu_.lock(); }
  ~MutexLock() BRIVET_RELEASE() { mu_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mu_;
};

// Waits release the mutex while blocked and hold it again on return.
class CondVar {
 public:
  void wait(Mutex& mu) BRIVET_REQUIRES(mu) {
    std::unique_lock<std::mutex> lock(mu.mu_, std::adopt_lock);
    cv_.wait(lock);
    lock.release();
  }
  // Returns false when the deadline passed without a notification.
  template <class Clock, class Duration>
  bool waitUntil(Mutex& mu, std::chrono::time_point<Clock, Duration> deadline) BRIVET_REQUIRES(mu) {
    std::unique_lock<std::mutex> lock(mu.mu_, std::adopt_lock);
    const bool notified = cv_.wait_until(lock, deadline) == std::cv_status::no_timeout;
    lock.release();
    return notified;
  }
  void notifyOne() { cv_.notify_one(); }
  void notifyAll() { cv_.notify_all(); }

 private:
  std::condition_variable cv_;
};

}  // namespace brivet
