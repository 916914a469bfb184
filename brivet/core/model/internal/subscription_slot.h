// SubscriptionSlot: where a stream keeps the subscription its task opened, so
// that cancelling the stream reaches it.
//
// A stream's cancel block is fixed when the stream is made, but the inner
// subscription it must cancel (a data-source request, an HTTP client's
// response stream) only exists once the task has run. Both capture one slot:
// the task `store`s what it opened, the cancel block calls `cancel`. The slot
// remembers a cancel that came first: a subscription stored afterwards is
// cancelled at once, and the task can ask `isCancelled` before starting work
// nobody will see. Objects `retain`ed by the task (a client's pre-request
// answer) are released by `cancel` or `releaseRetained`.
//
// Thread safety: every member may be called from any thread; inner cancels run
// outside the slot's lock.
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "brivet/core/model/stream.h"
#include "brivet/platform/internal/mutex.h"
#include "brivet/platform/object.h"

namespace brivet::internal {

class SubscriptionSlot {
 public:
  void store(std::shared_ptr<Subscription> subscription) {
    if (subscription == nullptr) return;
    {
      MutexLock lock(mu_);
      if (!cancelled_) {
        subscriptions_.push_back(std::move(subscription));
        return;
      }
    }
    subscription->cancel();
  }

  // Cancels every stored subscription once and releases what was retained.
  void cancel() {
    std::vector<std::shared_ptr<Subscription>> subscriptions;
    std::vector<Object> retained;
    {
      MutexLock lock(mu_);
      cancelled_ = true;
      subscriptions.swap(subscriptions_);
      retained.swap(retained_);
    }
    for (const auto& subscription : subscriptions) subscription->cancel();
  }

  bool isCancelled() const {
    MutexLock lock(mu_);
    return cancelled_;
  }

  void retain(Object object) {
    MutexLock lock(mu_);
    if (!cancelled_) retained_.push_back(std::move(object));
  }
  void releaseRetained() {
    std::vector<Object> retained;
    MutexLock lock(mu_);
    retained.swap(retained_);
  }

 private:
  mutable Mutex mu_;
  bool cancelled_ BRIVET_GUARDED_BY(mu_) = false;
  std::vector<std::shared_ptr<Subscription>> subscriptions_ BRIVET_GUARDED_BY(mu_);
  std::vector<Object> retained_ BRIVET_GUARDED_BY(mu_);
};

}  // namespace brivet::internal
