#include "brivet/platform/timer.h"

#include <cstdint>
#include <map>
#include <thread>
#include <utility>

#include "brivet/platform/mutex.h"

namespace brivet {

namespace {

using SteadyClock = std::chrono::steady_clock;

// One thread and a map of deadlines. Entries are keyed by (deadline, sequence)
// so that equal deadlines keep their order and a handle can find its entry.
class SystemTimer final : public Timer, public std::enable_shared_from_this<SystemTimer> {
 public:
  using Key = std::pair<SteadyClock::time_point, std::uint64_t>;
  struct Entry {
    std::shared_ptr<DispatchQueue> queue;
    std::function<void()> block;
  };

  class Handle final : public TimerHandle {
   public:
    Handle(std::weak_ptr<SystemTimer> timer, Key key) : timer_(std::move(timer)), key_(key) {}
    void cancel() override {
      if (std::shared_ptr<SystemTimer> timer = timer_.lock()) timer->cancel(key_);
    }

   private:
    std::weak_ptr<SystemTimer> timer_;
    Key key_;
  };

  std::shared_ptr<TimerHandle> schedule(std::chrono::milliseconds delay, std::shared_ptr<DispatchQueue> queue,
                                        std::function<void()> block) override {
    if (delay.count() < 0) delay = std::chrono::milliseconds(0);
    // A delay past any meaningful wait is capped so the deadline cannot overflow the clock.
    constexpr std::chrono::milliseconds kLongest = std::chrono::hours(24 * 365);
    if (delay > kLongest) delay = kLongest;
    Key key;
    {
      MutexLock lock(mu_);
      key = Key(SteadyClock::now() + delay, next_++);
      entries_.emplace(key, Entry{std::move(queue), std::move(block)});
      if (!started_) {
        started_ = true;
        // The thread holds the timer for the life of the process (the timer is never destroyed).
        std::thread([self = shared_from_this()] { self->loop(); }).detach();
      }
    }
    ready_.notifyAll();
    return std::make_shared<Handle>(weak_from_this(), key);
  }

 private:
  void cancel(const Key& key) {
    Entry dropped;  // released outside the lock: its captures may do anything in their destructors
    MutexLock lock(mu_);
    auto it = entries_.find(key);
    if (it == entries_.end()) return;
    dropped = std::move(it->second);
    entries_.erase(it);
  }

  void loop() {
    for (;;) {
      Entry due;
      {
        MutexLock lock(mu_);
        while (entries_.empty()) ready_.wait(mu_);
        auto first = entries_.begin();
        if (first->first.first > SteadyClock::now()) {
          ready_.waitUntil(mu_, first->first.first);
          continue;  // an earlier entry may have come, or this one was cancelled
        }
        due = std::move(first->second);
        entries_.erase(first);
      }
      due.queue->async(std::move(due.block));
    }
  }

  Mutex mu_;
  CondVar ready_;
  std::map<Key, Entry> entries_ BRIVET_GUARDED_BY(mu_);
  std::uint64_t next_ BRIVET_GUARDED_BY(mu_) = 0;
  bool started_ BRIVET_GUARDED_BY(mu_) = false;
};

}  // namespace

const std::shared_ptr<Timer>& Timer::system() {
  static const std::shared_ptr<Timer>& timer = *new std::shared_ptr<Timer>(std::make_shared<SystemTimer>());
  return timer;
}

}  // namespace brivet
