// ManualTimer: a Timer whose clock moves only when a test says so.
//
// `schedule` records the block with its delay; `advance(d)` moves the clock
// and submits, in deadline order, every block that has come due (each with
// `async` to its queue, as the system timer does). `delays()` lists every delay
// asked for, so a test can check backoff and Retry-After without waiting.
// Thread safety: every member may be called from any thread.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "brivet/platform/mutex.h"
#include "brivet/platform/timer.h"

namespace brivet::testing {

class ManualTimer final : public Timer, public std::enable_shared_from_this<ManualTimer> {
 public:
  static std::shared_ptr<ManualTimer> create() { return std::shared_ptr<ManualTimer>(new ManualTimer()); }

  std::shared_ptr<TimerHandle> schedule(std::chrono::milliseconds delay, std::shared_ptr<DispatchQueue> queue,
                                        std::function<void()> block) override {
    MutexLock lock(mu_);
    const Key key(now_ + std::max(delay, std::chrono::milliseconds(0)), next_++);
    delays_.push_back(delay);
    entries_.emplace(key, Entry{std::move(queue), std::move(block)});
    return std::make_shared<Handle>(weak_from_this(), key);
  }

  // Moves the clock by `d` and submits what came due; answers how many blocks.
  std::size_t advance(std::chrono::milliseconds d) {
    std::vector<Entry> due;
    {
      MutexLock lock(mu_);
      now_ += d;
      while (!entries_.empty() && entries_.begin()->first.first <= now_) {
        due.push_back(std::move(entries_.begin()->second));
        entries_.erase(entries_.begin());
      }
    }
    for (Entry& entry : due) entry.queue->async(std::move(entry.block));
    return due.size();
  }

  std::vector<std::chrono::milliseconds> delays() const {
    MutexLock lock(mu_);
    return delays_;
  }
  std::size_t pending() const {
    MutexLock lock(mu_);
    return entries_.size();
  }
  std::size_t cancelled() const {
    MutexLock lock(mu_);
    return cancelled_;
  }

 private:
  using Key = std::pair<std::chrono::milliseconds, std::uint64_t>;
  struct Entry {
    std::shared_ptr<DispatchQueue> queue;
    std::function<void()> block;
  };
  class Handle final : public TimerHandle {
   public:
    Handle(std::weak_ptr<ManualTimer> timer, Key key) : timer_(std::move(timer)), key_(key) {}
    void cancel() override {
      if (auto timer = timer_.lock()) timer->cancel(key_);
    }

   private:
    std::weak_ptr<ManualTimer> timer_;
    Key key_;
  };

  ManualTimer() = default;
  void cancel(const Key& key) {
    Entry dropped;
    MutexLock lock(mu_);
    auto it = entries_.find(key);
    if (it == entries_.end()) return;
    dropped = std::move(it->second);
    entries_.erase(it);
    ++cancelled_;
  }

  mutable Mutex mu_;
  std::chrono::milliseconds now_ BRIVET_GUARDED_BY(mu_){0};
  std::uint64_t next_ BRIVET_GUARDED_BY(mu_) = 0;
  std::size_t cancelled_ BRIVET_GUARDED_BY(mu_) = 0;
  std::map<Key, Entry> entries_ BRIVET_GUARDED_BY(mu_);
  std::vector<std::chrono::milliseconds> delays_ BRIVET_GUARDED_BY(mu_);
};

}  // namespace brivet::testing
