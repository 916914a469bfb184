// Retrying an operation's data-source request.
//
// Which failures are worth another attempt (anything else is reported at once):
//  * transport failures of the library's HTTP clients, platform errors in
//    `httpErrorDomain()` with the codes of a refused connection (-1), a
//    time-out (-2) or a connection lost mid-answer (-9): the request may not
//    have reached the server, or its answer did not reach us;
//  * HTTP answers with status 500-599 (the server's trouble, often passing)
//    or 429 (too many requests), whether the data source read the error body
//    into a reason or not. For 429 and 503 the server's Retry-After, when
//    usable, sets the wait (see retry_policy.h).
// Never retried: any other 4xx (the request itself is wrong and will stay
// wrong), a cancelled request (-3), an answer that is too large, not JSON or
// not a graph, a redirect, a bad URL, a missing HTTP client, errors in the
// graph of an answer, and errors of any other domain (an application whose own
// client fails in its own domain can report `httpErrorDomain()` codes instead).
// A set is retried like a get: a JSON Graph set writes values, so repeating it
// gives the same graph.
//
// Internal to the core model. Everything here runs on the model's operation
// queue, except `cancel`, which may come from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "brivet/core/model/brivet_result.h"
#include "brivet/core/model/internal/operation_support.h"
#include "brivet/core/model/internal/subscription_slot.h"
#include "brivet/core/model/stream.h"
#include "brivet/platform/internal/mutex.h"
#include "brivet/platform/retry_policy.h"

namespace brivet::internal {

struct RetryAdvice {
  bool worthRetrying = false;
  std::optional<std::chrono::seconds> retryAfter;  // the server's wish, when it gave a usable one
};
RetryAdvice retryAdvice(const StreamError& error);

// Sends the request that `request` makes and hands its events to `handler` on
// the model's operation queue, keeping the subscription in `slot` so that
// cancelling the operation reaches it.
//
// With `maxRetries` 0 or less this is one request whose events pass as they
// come, inside one DataSource interval. Otherwise each attempt has its own
// DataSource interval under the operation's Stream interval (with
// "attempt=%lu"), and its responses are held until it ends: a completed
// attempt hands them on followed by its completion; a failed one worth
// retrying, while retries are left, is dropped (logged as info, its interval
// closed with "status=%@" "Error") and sent again after the policy's wait, so
// the subscriber sees the events of one attempt only. Cancelling stops a
// pending wait at once: nothing more is sent or delivered.
template <class Response>
void sendRequest(const std::shared_ptr<Run>& run, const std::shared_ptr<SubscriptionSlot>& slot,
                 std::string_view method, const std::string& path,
                 std::function<std::shared_ptr<Stream<Response>>()> request,
                 std::function<void(const BrivetResult<Response>&)> handler);

// --- implementation ---

template <class Response>
class RetryingRequest : public std::enable_shared_from_this<RetryingRequest<Response>> {
 public:
  using Handler = std::function<void(const BrivetResult<Response>&)>;
  using Request = std::function<std::shared_ptr<Stream<Response>>()>;

  RetryingRequest(std::shared_ptr<Run> run, std::string method, std::string path, Request request, Handler handler)
      : run_(std::move(run)),
        method_(std::move(method)),
        path_(std::move(path)),
        request_(std::move(request)),
        handler_(std::move(handler)) {}

  void start() {
    std::shared_ptr<Stream<Response>> responses;
    {
      MutexLock lock(mu_);
      if (cancelled_) return;
      ++attempt_;
    }
    held_.clear();
    run_->beginDataSourceAttempt(method_, path_, attempt_);
    responses = request_()->observeOn(run_->model().operationQueue());
    std::shared_ptr<Subscription> subscription =
        responses->subscribe([self = this->shared_from_this()](const BrivetResult<Response>& result) {
          self->onEvent(result);
        });
    keep(std::move(subscription), nullptr);
  }

  void cancel() {
    std::shared_ptr<Subscription> subscription;
    std::shared_ptr<TimerHandle> wait;
    {
      MutexLock lock(mu_);
      cancelled_ = true;
      subscription.swap(current_);
      wait.swap(wait_);
    }
    if (subscription != nullptr) subscription->cancel();
    if (wait != nullptr) wait->cancel();
  }

 private:
  // Holds the attempt's subscription or its wait; cancels it at once after a cancel.
  void keep(std::shared_ptr<Subscription> subscription, std::shared_ptr<TimerHandle> wait) {
    {
      MutexLock lock(mu_);
      if (!cancelled_) {
        current_ = std::move(subscription);
        wait_ = std::move(wait);
        return;
      }
    }
    if (subscription != nullptr) subscription->cancel();
    if (wait != nullptr) wait->cancel();
  }

  bool isCancelled() const {
    MutexLock lock(mu_);
    return cancelled_;
  }

  void onEvent(const BrivetResult<Response>& result) {
    if (const Response* response = result.value()) {
      held_.push_back(*response);
      return;
    }
    if (const StreamError* error = result.error(); error != nullptr && retryLater(*error)) return;
    std::vector<Response> held;
    held.swap(held_);
    for (Response& response : held) handler_(BrivetResult<Response>::progress(std::move(response)));
    handler_(result);
  }

  // Schedules the next attempt when this failure deserves one; answers whether it did.
  bool retryLater(const StreamError& error) {
    const InternalModel& model = run_->model();
    if (attempt_ > model.maxRetries() || isCancelled()) return false;
    const RetryAdvice advice = retryAdvice(error);
    if (!advice.worthRetrying) return false;
    const RetryPolicy& policy = model.retryPolicy();
    const std::optional<std::chrono::milliseconds> delay = policy.delayBefore(attempt_, advice.retryAfter);
    if (!delay) return false;
    run_->attemptFailed(error, attempt_, model.maxRetries() + 1, *delay);
    held_.clear();
    std::shared_ptr<TimerHandle> wait = policy.timerOrSystem()->schedule(
        *delay, model.operationQueue(), [self = this->shared_from_this()] { self->start(); });
    keep(nullptr, std::move(wait));
    return true;
  }

  const std::shared_ptr<Run> run_;
  const std::string method_;
  const std::string path_;
  const Request request_;
  const Handler handler_;
  std::int64_t attempt_ = 0;    // operation queue only
  std::vector<Response> held_;  // operation queue only

  mutable Mutex mu_;
  bool cancelled_ BRIVET_GUARDED_BY(mu_) = false;
  std::shared_ptr<Subscription> current_ BRIVET_GUARDED_BY(mu_);
  std::shared_ptr<TimerHandle> wait_ BRIVET_GUARDED_BY(mu_);
};

template <class Response>
void sendRequest(const std::shared_ptr<Run>& run, const std::shared_ptr<SubscriptionSlot>& slot,
                 std::string_view method, const std::string& path,
                 std::function<std::shared_ptr<Stream<Response>>()> request,
                 std::function<void(const BrivetResult<Response>&)> handler) {
  if (run->model().maxRetries() <= 0) {
    run->beginDataSource(method, path);
    slot->store(request()->observeOn(run->model().operationQueue())->subscribe(std::move(handler)));
    return;
  }
  auto retrying = std::make_shared<RetryingRequest<Response>>(run, std::string(method), path, std::move(request),
                                                               std::move(handler));
  slot->store(std::make_shared<InternalSubscription>([weak = std::weak_ptr(retrying)] {
    if (auto r = weak.lock()) r->cancel();
  }));
  retrying->start();
}

}  // namespace brivet::internal
