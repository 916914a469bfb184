#include "brivet/platform/main_queue_thread.h"

#include <atomic>
#include <deque>
#include <functional>
#include <utility>

#include "brivet/platform/dispatch_queue.h"
#include "brivet/platform/mutex.h"
#include "brivet/platform/precondition.h"

namespace brivet {
namespace {
std::atomic<bool> gRunning{false};
}  // namespace

// Blocks in submission order, run by one thread until stopped. A block posted
// after the stop (the main queue may still hold this executor for a moment
// after it was removed) goes back to the main queue.
class MainQueueThread::Executor final : public MainQueueExecutor {
 public:
  void post(std::function<void()> block) override {
    {
      MutexLock lock(mu_);
      if (!stopped_) {
        blocks_.push_back(std::move(block));
        ready_.notifyAll();
        return;
      }
    }
    DispatchQueue::main()->async(std::move(block));
  }

  void run() {
    for (;;) {
      std::function<void()> block;
      {
        MutexLock lock(mu_);
        while (blocks_.empty() && !stopped_) ready_.wait(mu_);
        if (blocks_.empty()) return;  // stopped, and nothing left
        block = std::move(blocks_.front());
        blocks_.pop_front();
      }
      block();
    }
  }

  void stop() {
    MutexLock lock(mu_);
    stopped_ = true;
    ready_.notifyAll();
  }

 private:
  Mutex mu_;
  CondVar ready_;
  std::deque<std::function<void()>> blocks_ BRIVET_GUARDED_BY(mu_);
  bool stopped_ BRIVET_GUARDED_BY(mu_) = false;
};

MainQueueThread::MainQueueThread() : executor_(std::make_shared<Executor>()) {
  BRIVET_PRECONDITION(!gRunning.exchange(true), "a MainQueueThread is already running the main queue");
  thread_ = std::thread([executor = executor_] { executor->run(); });
  DispatchQueue::setMainExecutor(executor_);
}

MainQueueThread::~MainQueueThread() {
  DispatchQueue::setMainExecutor(nullptr);
  executor_->stop();
  thread_.join();
  gRunning.store(false);
}

}  // namespace brivet
