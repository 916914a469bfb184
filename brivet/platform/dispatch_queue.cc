#include "brivet/platform/dispatch_queue.h"

#include <algorithm>
#include <thread>
#include <vector>

#include "brivet/platform/precondition.h"

namespace brivet {
namespace {


// The queues the calling thread is running blocks of (innermost last).
thread_local std::vector<const DispatchQueue*> tCurrentQueues;
thread_local bool tIsWorker = false;

class CurrentQueueScope {
 public:
  explicit CurrentQueueScope(const DispatchQueue* q) { tCurrentQueues.push_back(q); }
  ~CurrentQueueScope() { tCurrentQueues.pop_back(); }
  CurrentQueueScope(const CurrentQueueScope&) = delete;
  CurrentQueueScope& operator=(const CurrentQueueScope&) = delete;
};

// Threads shared by every queue. Never destroyed: blocks may still run while
// the process exits.
class WorkerPool {
 public:
  static WorkerPool& shared() {
    static auto* pool = new WorkerPool();
    return *pool;
  }

  void submit(std::function<void()> job) {
    MutexLock lock(mu_);
    jobs_.push_back(std::move(job));
    if (idle_ > 0) {
      cv_.notifyOne();
    } else {
      maybeSpawnLocked();
    }
  }

  // A worker about to wait on something other than the pool stops counting
  // toward the pool's width, so queued work still finds a thread.
  void willBlock() {
    if (!tIsWorker) return;
    MutexLock lock(mu_);
    ++blocked_;
    maybeSpawnLocked();
  }
  void didUnblock() {
    if (!tIsWorker) return;
    MutexLock lock(mu_);
    --blocked_;
  }

 private:
  static constexpr int kMaxThreads = 256;
  static constexpr std::chrono::seconds kIdleExit{10};

  WorkerPool() : width_(std::max(4, static_cast<int>(std::thread::hardware_concurrency()))) {}

  void maybeSpawnLocked() BRIVET_REQUIRES(mu_) {
    if (jobs_.empty() || idle_ > 0) return;
    if (threads_ - blocked_ >= width_ || threads_ >= kMaxThreads) return;
    ++threads_;
    std::thread([this] { workerMain(); }).detach();
  }

  void workerMain() {
    tIsWorker = true;
    MutexLock lock(mu_);
    for (;;) {
      while (jobs_.empty()) {
        ++idle_;
        const bool notified = cv_.waitUntil(mu_, std::chrono::steady_clock::now() + kIdleExit);
        --idle_;
        if (!notified && jobs_.empty() && threads_ > width_) {
          --threads_;
          return;
        }
      }
      std::function<void()> job = std::move(jobs_.front());
      jobs_.pop_front();
      if (!jobs_.empty() && idle_ > 0) cv_.notifyOne();
      mu_.unlock();
      job();
      job = nullptr;
      mu_.lock();
    }
  }

  Mutex mu_;
  CondVar cv_;
  std::deque<std::function<void()>> jobs_ BRIVET_GUARDED_BY(mu_);
  int threads_ BRIVET_GUARDED_BY(mu_) = 0;
  int idle_ BRIVET_GUARDED_BY(mu_) = 0;
  int blocked_ BRIVET_GUARDED_BY(mu_) = 0;
  const int width_;
};

// Main-queue executor state, separate from the queue so it can be swapped.
struct MainState {
  Mutex mu;
  std::shared_ptr<MainQueueExecutor> executor BRIVET_GUARDED_BY(mu);
};
MainState& mainState() {
  static auto* state = new MainState();
  return *state;
}

}  // namespace

struct DispatchQueue::SyncWaiter {
  Mutex mu;
  CondVar cv;
  bool go BRIVET_GUARDED_BY(mu) = false;

  void signal() {
    MutexLock lock(mu);  // notify under the lock: the waiter's frame may end right after
    go = true;
    cv.notifyOne();
  }
  void wait() {
    WorkerPool::shared().willBlock();
    {
      MutexLock lock(mu);
      while (!go) cv.wait(mu);
    }
    WorkerPool::shared().didUnblock();
  }
};

DispatchQueue::DispatchQueue(std::string label, Kind kind) : label_(std::move(label)), kind_(kind) {}

DispatchQueue::~DispatchQueue() = default;

std::shared_ptr<DispatchQueue> DispatchQueue::serial(std::string label) {
  return std::shared_ptr<DispatchQueue>(new DispatchQueue(std::move(label), Kind::Serial));
}

std::shared_ptr<DispatchQueue> DispatchQueue::concurrent(std::string label) {
  return std::shared_ptr<DispatchQueue>(new DispatchQueue(std::move(label), Kind::Concurrent));
}

const std::shared_ptr<DispatchQueue>& DispatchQueue::main() {
  static const auto* queue =
      new std::shared_ptr<DispatchQueue>(new DispatchQueue("com.main-thread", Kind::Main));
  return *queue;
}

bool DispatchQueue::isCurrent() const {
  return std::find(tCurrentQueues.begin(), tCurrentQueues.end(), this) != tCurrentQueues.end();
}

void DispatchQueue::async(Block block) {
  BRIVET_PRECONDITION(block != nullptr, "async given an empty block");
  if (kind_ == Kind::Main) {
    mainAsync(std::move(block));
    return;
  }
  enqueue(Item{std::move(block), false, nullptr});
}

void DispatchQueue::asyncBarrier(Block block) {
  BRIVET_PRECONDITION(block != nullptr, "asyncBarrier given an empty block");
  if (kind_ == Kind::Main) {
    mainAsync(std::move(block));
    return;
  }
  enqueue(Item{std::move(block), true, nullptr});
}

void DispatchQueue::enqueue(Item item) {
  MutexLock lock(mu_);
  if (keepAlive_ == nullptr) keepAlive_ = shared_from_this();
  pending_.push_back(std::move(item));
  pumpLocked();
}

// Starts every block at the head of the queue that the ordering rules allow.
void DispatchQueue::pumpLocked() {
  while (!pending_.empty() && !exclusiveActive_) {
    const bool exclusive = kind_ != Kind::Concurrent || pending_.front().barrier;
    if (exclusive && active_ > 0) return;
    Item item = std::move(pending_.front());
    pending_.pop_front();
    ++active_;
    if (exclusive) exclusiveActive_ = true;
    if (item.waiter != nullptr) {
      item.waiter->signal();  // the sync caller runs the block on its own thread
    } else {
      WorkerPool::shared().submit([this, block = std::move(item.block), exclusive]() mutable {
        runOnWorker(block, exclusive);
      });
    }
    if (exclusive) return;
  }
}

void DispatchQueue::runOnWorker(Block& block, bool exclusive) {
  {
    CurrentQueueScope scope(this);
    block();
    block = nullptr;  // release what the block captured before the next one starts
  }
  finish(exclusive);
}

void DispatchQueue::finish(bool exclusive) {
  std::shared_ptr<DispatchQueue> release;  // dropped after the lock: may destroy this queue
  {
    MutexLock lock(mu_);
    --active_;
    if (exclusive) exclusiveActive_ = false;
    pumpLocked();
    if (pending_.empty() && active_ == 0) release = std::move(keepAlive_);
  }
}

void DispatchQueue::syncImpl(void (*call)(void*), void* context, bool barrier) {
  if (kind_ == Kind::Main) {
    BRIVET_PRECONDITION(!isCurrent(), "sync onto the main queue from the main queue would deadlock");
    SyncWaiter done;
    mainAsync([&] {
      call(context);
      done.signal();
    });
    done.wait();
    return;
  }
  const bool exclusive = kind_ == Kind::Serial || barrier;
  if (isCurrent()) {
    BRIVET_PRECONDITION(!exclusive, "sync onto the queue the caller is running on would deadlock");
    call(context);  // a nested read on a concurrent queue: already admitted
    return;
  }
  SyncWaiter waiter;
  bool admitted = false;
  {
    MutexLock lock(mu_);
    if (pending_.empty() && !exclusiveActive_ && (!exclusive || active_ == 0)) {
      ++active_;
      if (exclusive) exclusiveActive_ = true;
      admitted = true;
    } else {
      if (keepAlive_ == nullptr) keepAlive_ = shared_from_this();
      pending_.push_back(Item{nullptr, barrier, &waiter});
      pumpLocked();
    }
  }
  if (!admitted) waiter.wait();
  {
    CurrentQueueScope scope(this);
    call(context);
  }
  finish(exclusive);
}

bool DispatchQueue::syncIfIdleImpl(void (*call)(void*), void* context) {
  if (kind_ == Kind::Main || isCurrent()) return false;
  const bool exclusive = kind_ == Kind::Serial;
  {
    MutexLock lock(mu_);
    if (!pending_.empty() || exclusiveActive_ || (exclusive && active_ > 0)) return false;
    ++active_;
    if (exclusive) exclusiveActive_ = true;
  }
  {
    CurrentQueueScope scope(this);
    call(context);
  }
  finish(exclusive);
  return true;
}

// --- Main queue ---

void DispatchQueue::setMainExecutor(std::shared_ptr<MainQueueExecutor> executor) {
  const auto& queue = main();
  std::deque<Item> waiting;
  {
    MutexLock lock(mainState().mu);
    mainState().executor = executor;
    if (executor != nullptr) {
      MutexLock queueLock(queue->mu_);
      waiting.swap(queue->pending_);
    }
  }
  for (Item& item : waiting) queue->mainAsync(std::move(item.block));
}

void DispatchQueue::mainAsync(Block block) {
  std::shared_ptr<MainQueueExecutor> executor;
  {
    MutexLock lock(mainState().mu);
    executor = mainState().executor;
  }
  if (executor != nullptr) {
    executor->post([this, block = std::move(block)] {
      CurrentQueueScope scope(this);
      block();
    });
    return;
  }
  {
    MutexLock lock(mu_);
    pending_.push_back(Item{std::move(block), false, nullptr});
  }
  mainReady_.notifyAll();
}

bool DispatchQueue::mainRunOne() {
  Block block;
  {
    MutexLock lock(mu_);
    if (pending_.empty()) return false;
    block = std::move(pending_.front().block);
    pending_.pop_front();
  }
  CurrentQueueScope scope(this);
  block();
  return true;
}

std::size_t DispatchQueue::drain() {
  BRIVET_PRECONDITION(kind_ == Kind::Main, "drain() is for the main queue");
  std::size_t ran = 0;
  while (mainRunOne()) ++ran;
  return ran;
}

bool DispatchQueue::runUntil(const std::function<bool()>& predicate, std::chrono::milliseconds timeout) {
  BRIVET_PRECONDITION(kind_ == Kind::Main, "runUntil() is for the main queue");
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (predicate()) return true;
    if (mainRunOne()) continue;
    if (std::chrono::steady_clock::now() >= deadline) return predicate();
    WorkerPool::shared().willBlock();
    {
      MutexLock lock(mu_);
      if (pending_.empty()) mainReady_.waitUntil(mu_, std::min(deadline, std::chrono::steady_clock::now() +
                                                                             std::chrono::milliseconds(10)));
    }
    WorkerPool::shared().didUnblock();
  }
}

}  // namespace brivet
