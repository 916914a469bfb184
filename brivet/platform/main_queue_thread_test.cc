// The main queue run on a thread of its own, the blocking hand-over of one
// answer, and awaitables resumed on the main queue.
#include "brivet/platform/main_queue_thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <coroutine>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "brivet/platform/coroutine.h"
#include "brivet/platform/dispatch_queue.h"
#include "brivet/platform/internal/blocking.h"
#include "brivet/platform/key_path.h"

namespace brivet {
namespace {

using namespace std::chrono_literals;

// Starts an operation that answers when the test says, from whatever thread.
struct PendingOperation {
  std::function<void(int)> deliver;
  int starts = 0;
  int cancels = 0;
  auto start() {
    return [this](std::function<void(int)> d) -> std::function<void()> {
      ++starts;
      deliver = std::move(d);
      return [this] { ++cancels; };
    };
  }
};

class MainQueueThreadTest : public ::testing::Test {};

TEST_F(MainQueueThreadTest, RunsBlocksInOrderOnItsThreadAndLetsOthersWait) {
  MainQueueThread mainQueue;
  EXPECT_FALSE(mainQueue.isCurrent());
  auto order = std::make_shared<std::vector<int>>();
  for (int i = 0; i < 50; ++i) DispatchQueue::main()->async([order, i] { order->push_back(i); });

  // A thread that is not the main queue's waits for an answer delivered there.
  const Result<std::vector<int>, Error> answer = internal::waitFor<std::vector<int>>(
      "test", 10s, [&](std::function<void(Result<std::vector<int>, Error>)> deliver) -> std::function<void()> {
        DispatchQueue::main()->async([&mainQueue, order, deliver] {
          EXPECT_TRUE(mainQueue.isCurrent());
          EXPECT_TRUE(DispatchQueue::main()->isCurrent());
          deliver(*order);
        });
        return nullptr;
      });
  ASSERT_TRUE(answer.ok());
  ASSERT_EQ(answer.value().size(), 50u);
  for (int i = 0; i < 50; ++i) EXPECT_EQ(answer.value()[i], i);
}

TEST_F(MainQueueThreadTest, WaitingOnTheMainQueueItselfFailsAtOnceInsteadOfDeadlocking) {
  MainQueueThread mainQueue;
  PendingOperation operation;
  const Result<Result<int, Error>, Error> refused =
      internal::waitFor<Result<int, Error>>("outer", 10s, [&](auto deliver) -> std::function<void()> {
        DispatchQueue::main()->async([&, deliver] {
          deliver(internal::waitFor<int>("blocking::get", 10min, operation.start()));
        });
        return nullptr;
      });
  ASSERT_TRUE(refused.ok());
  ASSERT_FALSE(refused.value().ok());
  EXPECT_EQ(refused.value().error().code(), static_cast<std::int64_t>(AccessErrorCode::OnMainQueue));
  EXPECT_NE(refused.value().error().localizedDescription().find("blocking::get"), std::string::npos);
  EXPECT_EQ(operation.starts, 0);
}

TEST_F(MainQueueThreadTest, AWaitThatTimesOutCancelsItsOperation) {
  PendingOperation operation;
  const Result<int, Error> late = internal::waitFor<int>("blocking::call", 20ms, operation.start());
  ASSERT_FALSE(late.ok());
  EXPECT_EQ(late.error().code(), static_cast<std::int64_t>(AccessErrorCode::TimedOut));
  EXPECT_EQ(operation.starts, 1);
  EXPECT_EQ(operation.cancels, 1);
  operation.deliver(7);  // an answer after the time-out goes nowhere
}

// A coroutine its test can destroy while it waits.
struct Task {
  struct promise_type {
    Task get_return_object() { return Task{std::coroutine_handle<promise_type>::from_promise(*this)}; }
    std::suspend_never initial_suspend() noexcept { return {}; }
    std::suspend_always final_suspend() noexcept { return {}; }
    void return_void() noexcept {}
    void unhandled_exception() noexcept { std::terminate(); }
  };
  std::coroutine_handle<promise_type> handle;
  ~Task() {
    if (handle) handle.destroy();
  }
};

Task awaitOnce(MainQueueAwaitable<int> awaitable, std::optional<int>* value, bool* onMainQueue) {
  *value = co_await std::move(awaitable);
  *onMainQueue = DispatchQueue::main()->isCurrent();
}

class MainQueueAwaitableTest : public ::testing::Test {};

TEST_F(MainQueueAwaitableTest, ResumesOnTheMainQueueEvenWhenTheAnswerIsAtHand) {
  std::optional<int> value;
  bool onMainQueue = false;
  int starts = 0;
  MainQueueAwaitable<int> awaitable([&](std::function<void(int)> deliver) -> std::function<void()> {
    ++starts;
    deliver(42);  // at once, inside the start
    return nullptr;
  });
  EXPECT_EQ(starts, 0);  // nothing starts before the await
  Task task = awaitOnce(std::move(awaitable), &value, &onMainQueue);
  EXPECT_EQ(starts, 1);
  EXPECT_FALSE(value.has_value());  // the resumption is a main-queue block of its own
  ASSERT_TRUE(DispatchQueue::main()->runUntil([&] { return value.has_value(); }, 10s));
  EXPECT_EQ(value, 42);
  EXPECT_TRUE(onMainQueue);
}

TEST_F(MainQueueAwaitableTest, ACoroutineDestroyedWhileWaitingCancelsAndNeverResumes) {
  std::optional<int> value;
  bool onMainQueue = false;
  PendingOperation operation;
  {
    Task task = awaitOnce(MainQueueAwaitable<int>(operation.start()), &value, &onMainQueue);
    EXPECT_EQ(operation.starts, 1);
  }
  EXPECT_EQ(operation.cancels, 1);
  operation.deliver(5);  // the late answer resumes nothing
  bool flushed = false;
  DispatchQueue::main()->async([&] { flushed = true; });
  ASSERT_TRUE(DispatchQueue::main()->runUntil([&] { return flushed; }, 10s));
  EXPECT_FALSE(value.has_value());
}

}  // namespace
}  // namespace brivet
