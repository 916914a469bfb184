// Stream<T>: the cold push stream that carries every asynchronous answer of the core.
//
// A stream holds a task block, a cancel block, an unsubscribed flag, the
// queue its events are delivered on (the main queue unless `observeOn` chose
// another) and the serial queue its task runs on (the process-wide
// `taskQueue()` unless its maker chose another: a model's operations run on
// the model's own queue). Nothing runs until `subscribe`: each subscription
// runs the task anew on the task queue and returns its `Subscription` without
// waiting for it (a stream may carry a quick task that finishes a subscription
// on the caller's thread when the task queue is idle: a get answered from the
// cache). Events go to the subscriber on the observe queue, in the order the
// observer was called; whether the stream
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
#include <vector>

#include "brivet/core/model/brivet_result.h"
#include "brivet/platform/dispatch_queue.h"
#include "brivet/platform/mutex.h"

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
  // The part of a task that may finish it at once, run on the subscriber's
  // thread (see `subscribe`). It answers true when it did the whole task;
  // when it answers false it must have called the observer not at all and
  // started nothing, and the task block runs on the task queue as usual.
  using QuickTaskBlock = std::function<bool(const Observer&)>;

  // `runOn`, when given, is the serial queue the task runs on instead of `taskQueue()`.
  static std::shared_ptr<Stream> create(TaskBlock taskBlock, CancelBlock cancelBlock, bool isUnsubscribed = false,
                                        std::shared_ptr<DispatchQueue> observeOn = DispatchQueue::main(),
                                        std::shared_ptr<DispatchQueue> runOn = nullptr,
                                        QuickTaskBlock quickTask = nullptr) {
    return std::shared_ptr<Stream>(new Stream(std::move(taskBlock), std::move(cancelBlock), isUnsubscribed,
                                              std::move(observeOn), std::move(runOn), std::move(quickTask)));
  }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  // A new stream with the same blocks, flag and task queue, delivering on `queue`.
  std::shared_ptr<Stream> observeOn(std::shared_ptr<DispatchQueue> queue) const {
    return create(taskBlock_, cancelBlock_, isUnsubscribed(), std::move(queue), runOn_, quickTask_);
  }

  // Runs the task for a new subscriber; the handle cancels this subscription.
  //
  // The task runs in subscription order on the task queue, one task at a time.
  // When the stream has a quick task and that queue is idle, the quick task
  // runs at once on the calling thread, holding the queue as a block of it
  // would: nothing queued earlier is still waiting, and what is queued
  // meanwhile waits for it, so the order is the same as on the queue. It saves
  // the crossing to the task queue and back; its events still go to the
  // observe queue, so none is delivered inside this call when the caller is on
  // the observe queue (an app subscribing from its main thread).
  std::shared_ptr<Subscription> subscribe(Observer block) {
    std::weak_ptr<Stream> weak = this->shared_from_this();
    auto subscription = std::make_shared<InternalSubscription>([weak] {
      if (std::shared_ptr<Stream> stream = weak.lock()) stream->unsubscribe();
    });
    auto delivery = std::make_shared<Delivery>(std::move(block), subscription);
    Observer observer = [self = this->shared_from_this(), delivery](const Result& result) {
      self->deliver(delivery, result);
    };
    const std::shared_ptr<DispatchQueue>& runOn = runOn_ != nullptr ? runOn_ : taskQueue();
    if (quickTask_ != nullptr) {
      bool finished = false;
      if (runOn->syncIfIdle([&] { finished = quickTask_(observer); }) && finished) return subscription;
    }
    runOn->async([self = this->shared_from_this(), observer = std::move(observer)] { self->taskBlock_(observer); });
    return subscription;
  }

  bool isUnsubscribed() const { return isUnsubscribed_.load(std::memory_order_acquire); }
  const std::shared_ptr<DispatchQueue>& observeOnQueue() const { return observeOnQueue_; }

 private:
  // One subscription's events on their way to the observe queue. They wait
  // here in the order the observer was called, and one drain block at a time
  // hands them to the subscriber on the observe queue: events never overtake
  // one another, and a progress followed at once by the completion costs one
  // crossing, not two.
  struct Delivery {
    Delivery(Observer s, std::shared_ptr<InternalSubscription> sub)
        : subscriber(std::move(s)), subscription(std::move(sub)) {}
    const Observer subscriber;
    const std::shared_ptr<InternalSubscription> subscription;
    Mutex mu;
    std::vector<Result> waiting BRIVET_GUARDED_BY(mu);
    bool draining BRIVET_GUARDED_BY(mu) = false;  // a drain block is queued or running
  };

  void deliver(const std::shared_ptr<Delivery>& delivery, const Result& result) {
    {
      MutexLock lock(delivery->mu);
      delivery->waiting.push_back(result);
      if (delivery->draining) return;  // the drain under way hands it over
      delivery->draining = true;
    }
    observeOnQueue_->async([self = this->shared_from_this(), delivery] { self->drain(*delivery); });
  }

  // On the observe queue. Whether the stream is unsubscribed is tested for
  // each event as it is handed over, so anything after a cancel or a terminal
  // event is dropped.
  void drain(Delivery& delivery) {
    std::vector<Result> batch;
    for (;;) {
      batch.clear();
      {
        MutexLock lock(delivery.mu);
        if (delivery.waiting.empty()) {
          delivery.draining = false;
          return;
        }
        batch.swap(delivery.waiting);
      }
      for (const Result& result : batch) {
        if (isUnsubscribed()) continue;
        delivery.subscriber(result);
        if (result.isTerminal()) delivery.subscription->cancel();
      }
    }
  }

  Stream(TaskBlock taskBlock, CancelBlock cancelBlock, bool isUnsubscribed, std::shared_ptr<DispatchQueue> observeOn,
         std::shared_ptr<DispatchQueue> runOn, QuickTaskBlock quickTask)
      : taskBlock_(std::move(taskBlock)),
        cancelBlock_(std::move(cancelBlock)),
        isUnsubscribed_(isUnsubscribed),
        observeOnQueue_(std::move(observeOn)),
        runOn_(std::move(runOn)),
        quickTask_(std::move(quickTask)) {}

  // Marks the stream unsubscribed; the first to do so runs the cancel block.
  void unsubscribe() {
    if (!isUnsubscribed_.exchange(true, std::memory_order_acq_rel) && cancelBlock_) cancelBlock_();
  }

  const TaskBlock taskBlock_;
  const CancelBlock cancelBlock_;
  std::atomic<bool> isUnsubscribed_;
  const std::shared_ptr<DispatchQueue> observeOnQueue_;
  const std::shared_ptr<DispatchQueue> runOn_;  // nullptr: taskQueue()
  const QuickTaskBlock quickTask_;              // nullptr: none
};

}  // namespace brivet
