// Stream<T>: the cold push stream that carries every asynchronous answer of the core.
//
// A stream holds a task block, a cancel block, an unsubscribed flag, the
// queue its events are delivered on (the main queue unless `observeOn` chose
// another) and the serial queue its task runs on (the process-wide
// `taskQueue()` unless its maker chose another: a model's operations run on
// the model's own queue). Nothing runs until `subscribe`: each subscription
// runs the task anew on the task queue and returns its `Subscription` at
// once. Events go to the subscriber on the observe queue; whether the stream
// is unsubscribed is tested when an event is delivered, so anything after a
// cancel or after the first terminal event is dropped. The cancel block runs at
// most once per stream object (an atomic exchange of the flag), after a
// cancel or after the first terminal event.
//
// Ownership: a pending task and its observer keep the stream alive; a
// subscription holds it weakly, so cancelling after the stream is gone does
// nothing. Streams are made by `Stream<T>::create` and shared by pointer.
// Thread safety: subscribe and cancel from any thread; the task and the
// observer may be called from any thread.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <utility>

#include "brivet/core/model/brivet_result.h"
#include "brivet/platform/dispatch_queue.h"

namespace brivet {

// The process-wide serial queue that runs the tasks of streams made without a
// queue of their own (a data source's request tasks, which only hand the
// request to the HTTP client), labelled with the library's identifier,
// ".task.queue." and a fresh UUID. Shared by every model in the process, so
// nothing slow runs on it: each model's operations run on the model's own
// serial queue (`Model::operationQueue`).
const std::shared_ptr<DispatchQueue>& taskQueue();
// A new serial queue labelled like `taskQueue()` (with its own UUID).
std::shared_ptr<DispatchQueue> makeTaskQueue();

// What a subscriber holds: `cancel` ends the subscription (at most once takes
// effect; later calls, and calls after the stream ended, do nothing).
class Subscription {
 public:
  virtual ~Subscription() = default;
  virtual void cancel() = 0;
};

// The implementation behind every stream's subscriptions: `cancel` calls its
// cancel block.
class InternalSubscription final : public Subscription {
 public:
  explicit InternalSubscription(std::function<void()> cancelBlock) : cancelBlock_(std::move(cancelBlock)) {}
  void cancel() override {
    if (cancelBlock_) cancelBlock_();
  }

 private:
  const std::function<void()> cancelBlock_;
};

template <class T>
class Stream : public std::enable_shared_from_this<Stream<T>> {
 public:
  using Result = BrivetResult<T>;
  using Observer = std::function<void(const Result&)>;
  using TaskBlock = std::function<void(Observer)>;
  using CancelBlock = std::function<void()>;

  // `runOn`, when given, is the serial queue the task runs on instead of `taskQueue()`.
  static std::shared_ptr<Stream> create(TaskBlock taskBlock, CancelBlock cancelBlock, bool isUnsubscribed = false,
                                        std::shared_ptr<DispatchQueue> observeOn = DispatchQueue::main(),
                                        std::shared_ptr<DispatchQueue> runOn = nullptr) {
    return std::shared_ptr<Stream>(new Stream(std::move(taskBlock), std::move(cancelBlock), isUnsubscribed,
                                              std::move(observeOn), std::move(runOn)));
  }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  // A new stream with the same blocks, flag and task queue, delivering on `queue`.
  std::shared_ptr<Stream> observeOn(std::shared_ptr<DispatchQueue> queue) const {
    return create(taskBlock_, cancelBlock_, isUnsubscribed(), std::move(queue), runOn_);
  }

  // Runs the task for a new subscriber; the handle cancels this subscription.
  std::shared_ptr<Subscription> subscribe(Observer block) {
    std::weak_ptr<Stream> weak = this->shared_from_this();
    auto subscription = std::make_shared<InternalSubscription>([weak] {
      if (std::shared_ptr<Stream> stream = weak.lock()) stream->unsubscribe();
    });
    std::shared_ptr<Stream> self = this->shared_from_this();
    const std::shared_ptr<DispatchQueue>& runOn = runOn_ != nullptr ? runOn_ : taskQueue();
    runOn->async([self, block = std::move(block), subscription]() mutable {
      Observer observer = [self, block, subscription](const Result& result) {
        auto box = std::make_shared<Result>(result);
        self->observeOnQueue_->async([self, block, subscription, box] {
          if (self->isUnsubscribed()) return;
          block(*box);
          if (box->isTerminal()) subscription->cancel();
        });
      };
      self->taskBlock_(std::move(observer));
    });
    return subscription;
  }

  bool isUnsubscribed() const { return isUnsubscribed_.load(std::memory_order_acquire); }
  const std::shared_ptr<DispatchQueue>& observeOnQueue() const { return observeOnQueue_; }

 private:
  Stream(TaskBlock taskBlock, CancelBlock cancelBlock, bool isUnsubscribed, std::shared_ptr<DispatchQueue> observeOn,
         std::shared_ptr<DispatchQueue> runOn)
      : taskBlock_(std::move(taskBlock)),
        cancelBlock_(std::move(cancelBlock)),
        isUnsubscribed_(isUnsubscribed),
        observeOnQueue_(std::move(observeOn)),
        runOn_(std::move(runOn)) {}

  // Marks the stream unsubscribed; the first to do so runs the cancel block.
  void unsubscribe() {
    if (!isUnsubscribed_.exchange(true, std::memory_order_acq_rel) && cancelBlock_) cancelBlock_();
  }

  const TaskBlock taskBlock_;
  const CancelBlock cancelBlock_;
  std::atomic<bool> isUnsubscribed_;
  const std::shared_ptr<DispatchQueue> observeOnQueue_;
  const std::shared_ptr<DispatchQueue> runOn_;  // nullptr: taskQueue()
};

}  // namespace brivet
