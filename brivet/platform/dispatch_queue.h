// Dispatch queues: labelled serial and concurrent queues on one shared worker
// pool, and the main queue that the application drives.
//
// Guarantees (the same as the platform's):
//  * Blocks start in FIFO order per queue. A serial queue runs one block at a
//    time; a concurrent queue runs blocks side by side.
//  * `asyncBarrier` on a concurrent queue waits for every block queued before
//    it, runs alone, and holds back every block queued after it. On a serial
//    queue it is the same as `async`.
//  * `sync` runs the block on the calling thread once the queue's order lets
//    it start: on a concurrent queue beside other readers but never beside a
//    barrier (so it sees every write of earlier barriers); on a serial queue
//    alone. `syncBarrier` runs alone. `sync` onto the serial queue (or a
//    barrier onto any queue) that the caller is already running on would
//    deadlock and is a precondition failure; a plain `sync` onto a concurrent
//    queue the caller is already reading on runs at once.
//  * A queue stays alive while it has blocks to run, even when its owner has
//    dropped it.
//
// Worker pool: sized to the machine (at least four threads); a worker blocked
// in `sync` or `runUntil` does not count, so the pool grows instead of
// deadlocking when blocks wait on each other.
//
// The main queue is serial and runs only where the application says: either
// install a `MainQueueExecutor` (an app forwards blocks to its UI thread), or
// call `drain()` / `runUntil()` on the thread that owns the main queue (tests
// and command-line tools do this to wait for completions).
//
// What every model in the process shares, and what each has to itself (so
// that one model digesting a slow or hostile answer stalls no other):
//  * Shared: the worker pool; the main queue (completions and stream events);
//    the core's process-wide serial task queue (`taskQueue()`,
//    core/model/stream.h), which runs only quick tasks: a data source handing a
//    request to the HTTP client; the core's process-wide concurrent cache queue
//    (`cacheQueue()`, core/cache/cache.h): every core cache's writes are
//    barriers on it, and a read that must see earlier writes waits for them
//    there (an empty `sync`) before it walks, outside the queue. A write holds
//    back what is queued behind it while it runs: a merge costs what the
//    answer holds, an invalidation at most its walk budget.
//  * Per model: a core model's serial operation queue (`Model::operationQueue`,
//    core/model/model.h), where its operations run and its answers are read
//    and digested; a legacy model's concurrent queue (legacy/model.h), where
//    its cache is read and written.
// A block that runs long holds one worker; the pool grows past a worker that
// waits in `sync`, but not past one that computes.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

#include "brivet/platform/mutex.h"

namespace brivet {

// Runs main-queue blocks on the application's main thread, in submission order.
class MainQueueExecutor {
 public:
  virtual ~MainQueueExecutor() = default;
  virtual void post(std::function<void()> block) = 0;
};

class DispatchQueue : public std::enable_shared_from_this<DispatchQueue> {
 public:
  using Block = std::function<void()>;

  static std::shared_ptr<DispatchQueue> serial(std::string label);
  static std::shared_ptr<DispatchQueue> concurrent(std::string label);
  static const std::shared_ptr<DispatchQueue>& main();

  // Installs (or, with nullptr, removes) the executor that runs main-queue
  // blocks. Blocks already waiting on the main queue move to the executor.
  static void setMainExecutor(std::shared_ptr<MainQueueExecutor> executor);

  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;
  ~DispatchQueue();

  const std::string& label() const { return label_; }
  bool isSerial() const { return kind_ != Kind::Concurrent; }
  bool isConcurrent() const { return kind_ == Kind::Concurrent; }
  bool isMain() const { return kind_ == Kind::Main; }

  void async(Block block);
  void asyncBarrier(Block block);

  template <class F>
  void sync(F&& block) {
    syncImpl(&invoke<std::remove_reference_t<F>>, static_cast<void*>(std::addressof(block)), false);
  }
  template <class F>
  void syncBarrier(F&& block) {
    syncImpl(&invoke<std::remove_reference_t<F>>, static_cast<void*>(std::addressof(block)), true);
  }
  // Runs the block on the calling thread, as `sync` would, when the queue can
  // start it at once: nothing is waiting on the queue and nothing running
  // excludes it (a serial queue is idle; a concurrent queue runs no barrier).
  // Otherwise it neither runs nor queues the block and answers false. It never
  // waits, so it suits a caller that must not block (an app's UI thread), and
  // it keeps the queue's order: what was queued before has finished, and what
  // is queued while the block runs starts after it. Answers false on the main
  // queue and on a queue the caller is already running on.
  template <class F>
  [[nodiscard]] bool syncIfIdle(F&& block) {
    return syncIfIdleImpl(&invoke<std::remove_reference_t<F>>, static_cast<void*>(std::addressof(block)));
  }

  // Whether the calling thread is running a block of this queue.
  bool isCurrent() const;

  // Main queue only. `drain` runs every block waiting on the main queue (and
  // those they add) on the calling thread and answers how many ran.
  // `runUntil` runs main-queue blocks until `predicate` holds or `timeout`
  // passes, and answers the predicate's final value.
  std::size_t drain();
  bool runUntil(const std::function<bool()>& predicate, std::chrono::milliseconds timeout);

 private:
  enum class Kind { Serial, Concurrent, Main };
  struct SyncWaiter;
  struct Item {
    Block block;
    bool barrier = false;
    SyncWaiter* waiter = nullptr;  // a sync caller waiting for its turn
  };

  DispatchQueue(std::string label, Kind kind);

  template <class F>
  static void invoke(void* f) {
    (*static_cast<F*>(f))();
  }
  void syncImpl(void (*call)(void*), void* context, bool barrier);
  bool syncIfIdleImpl(void (*call)(void*), void* context);
  void enqueue(Item item);
  void pumpLocked() BRIVET_REQUIRES(mu_);
  void runOnWorker(Block& block, bool exclusive);
  void finish(bool exclusive);

  // Main queue.
  void mainAsync(Block block);
  bool mainRunOne();

  const std::string label_;
  const Kind kind_;

  Mutex mu_;
  std::deque<Item> pending_ BRIVET_GUARDED_BY(mu_);
  std::size_t active_ BRIVET_GUARDED_BY(mu_) = 0;
  bool exclusiveActive_ BRIVET_GUARDED_BY(mu_) = false;
  std::shared_ptr<DispatchQueue> keepAlive_ BRIVET_GUARDED_BY(mu_);
  CondVar mainReady_;  // main queue: a block was added
};

}  // namespace brivet
