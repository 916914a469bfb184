#include "brivet/core/model/stream.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "brivet/core/model/tov_stream.h"
#include "brivet/platform/identifier.h"

namespace brivet {
namespace {

using namespace std::chrono_literals;
using IntStream = Stream<int>;

class StreamTest : public ::testing::Test {
 protected:
  // Runs the main queue until `done` holds (or a generous timeout passes).
  static bool waitFor(const std::function<bool()>& done) { return DispatchQueue::main()->runUntil(done, 5000ms); }
  // Lets every block queued so far on the task queue and the main queue run.
  static void settle() {
    std::atomic<bool> flushed{false};
    taskQueue()->async([&] { DispatchQueue::main()->async([&] { flushed = true; }); });
    waitFor([&] { return flushed.load(); });
  }

  std::vector<std::string> events_;
  std::atomic<int> cancels_{0};

  std::function<void(const BrivetResult<int>&)> recorder() {
    return [this](const BrivetResult<int>& r) { events_.push_back(r.debugDescription()); };
  }
  std::shared_ptr<IntStream> streamEmitting(std::vector<BrivetResult<int>> results) {
    return IntStream::create(
        [results](IntStream::Observer observer) {
          for (const auto& r : results) observer(r);
        },
        [this] { ++cancels_; });
  }
};

TEST_F(StreamTest, NothingAfterTheTerminalEvent) {
  auto stream =
      streamEmitting({BrivetResult<int>::progress(1), BrivetResult<int>::complete(), BrivetResult<int>::progress(2)});
  auto subscription = stream->subscribe(recorder());
  ASSERT_TRUE(waitFor([&] { return events_.size() == 2; }));
  settle();
  EXPECT_EQ(events_, (std::vector<std::string>{"PROGRESS: <value>", "COMPLETE"}));
  EXPECT_EQ(cancels_, 1);
  EXPECT_TRUE(stream->isUnsubscribed());
}

TEST_F(StreamTest, FailureEndsTheStream) {
  auto stream =
      streamEmitting({BrivetResult<int>::failure(BrivetError::invalidAttempt()), BrivetResult<int>::complete()});
  stream->subscribe(recorder());
  ASSERT_TRUE(waitFor([&] { return !events_.empty(); }));
  settle();
  EXPECT_EQ(events_, (std::vector<std::string>{"FAILURE: invalidAttempt"}));
  EXPECT_EQ(cancels_, 1);
}

TEST_F(StreamTest, CancelBeforeTheTaskRunsDropsEverything) {
  std::atomic<bool> taskRan{false};
  std::mutex gate;
  gate.lock();
  taskQueue()->async([&] { std::lock_guard<std::mutex> hold(gate); });  // keeps the task queue busy
  auto stream = IntStream::create(
      [&](IntStream::Observer observer) {
        taskRan = true;
        observer(BrivetResult<int>::progress(1));
        observer(BrivetResult<int>::complete());
      },
      [this] { ++cancels_; });
  auto subscription = stream->subscribe(recorder());
  subscription->cancel();
  EXPECT_EQ(cancels_, 1);  // at the cancel, not later
  gate.unlock();
  settle();
  EXPECT_TRUE(taskRan);          // the task still runs...
  EXPECT_TRUE(events_.empty());  // ...but nothing is delivered
  EXPECT_EQ(cancels_, 1);
}

TEST_F(StreamTest, CancelTwiceRunsTheCancelBlockOnce) {
  auto stream = streamEmitting({});
  auto subscription = stream->subscribe(recorder());
  subscription->cancel();
  subscription->cancel();
  settle();
  EXPECT_EQ(cancels_, 1);
  // A stream derived from an unsubscribed one is born unsubscribed.
  EXPECT_TRUE(stream->observeOn(DispatchQueue::main())->isUnsubscribed());
}

TEST_F(StreamTest, CancelAfterTheStreamIsGoneDoesNothing) {
  std::shared_ptr<Subscription> subscription;
  {
    auto stream = streamEmitting({});
    subscription = stream->subscribe(recorder());
  }
  settle();
  subscription->cancel();
  EXPECT_EQ(cancels_, 0);
}

TEST_F(StreamTest, TwoSubscriptionsShareTheOneFlag) {
  // Each subscription runs the task; the first terminal event silences both.
  std::atomic<int> runs{0};
  auto stream = IntStream::create(
      [&runs](IntStream::Observer observer) {
        const int run = ++runs;
        observer(BrivetResult<int>::progress(run));
        if (run == 1) observer(BrivetResult<int>::complete());
      },
      [this] { ++cancels_; });
  stream->subscribe(recorder());
  stream->subscribe(recorder());
  ASSERT_TRUE(waitFor([&] { return runs == 2; }));
  settle();
  EXPECT_EQ(events_, (std::vector<std::string>{"PROGRESS: <value>", "COMPLETE"}));
  EXPECT_EQ(cancels_, 1);
}

TEST_F(StreamTest, EventsArriveOnTheObserveQueue) {
  auto queue = DispatchQueue::serial("observe");
  std::atomic<bool> onQueue{false};
  std::atomic<bool> done{false};
  auto stream = streamEmitting({BrivetResult<int>::progress(1), BrivetResult<int>::complete()})->observeOn(queue);
  EXPECT_EQ(stream->observeOnQueue(), queue);
  stream->subscribe([&](const BrivetResult<int>& r) {
    if (r.isProgress()) onQueue = queue->isCurrent();
    if (r.isComplete()) done = true;
  });
  ASSERT_TRUE(waitFor([&] { return done.load(); }));
  EXPECT_TRUE(onQueue);
}

TEST_F(StreamTest, TaskRunsOnTheProcessWideTaskQueue) {
  std::atomic<bool> onTaskQueue{false};
  std::atomic<bool> ran{false};
  auto stream = IntStream::create(
      [&](IntStream::Observer) {
        onTaskQueue = taskQueue()->isCurrent();
        ran = true;
      },
      nullptr);
  stream->subscribe(recorder());
  ASSERT_TRUE(waitFor([&] { return ran.load(); }));
  EXPECT_TRUE(onTaskQueue);
  const std::string prefix = std::string(kReverseDomain) + ".task.queue.";
  EXPECT_EQ(taskQueue()->label().rfind(prefix, 0), 0u);
  EXPECT_EQ(taskQueue()->label().size(), prefix.size() + 36);
}

TEST_F(StreamTest, AQuickTaskFinishesOnTheCallersThreadInOneCrossing) {
  auto queue = DispatchQueue::serial("test.quick");
  bool quickOnQueue = false;
  std::atomic<bool> fullTaskRan{false};
  auto stream = IntStream::create([&](IntStream::Observer) { fullTaskRan = true; }, [this] { ++cancels_; },
                                  false, DispatchQueue::main(), queue, [&](const IntStream::Observer& observer) {
                                    quickOnQueue = queue->isCurrent();
                                    observer(BrivetResult<int>::progress(1));
                                    observer(BrivetResult<int>::complete());
                                    return true;
                                  });
  stream->subscribe(recorder());
  EXPECT_TRUE(quickOnQueue);
  EXPECT_TRUE(events_.empty());  // never inside subscribe
  EXPECT_EQ(DispatchQueue::main()->drain(), 1u);
  EXPECT_EQ(events_, (std::vector<std::string>{"PROGRESS: <value>", "COMPLETE"}));
  EXPECT_EQ(cancels_, 1);
  queue->sync([] {});
  EXPECT_FALSE(fullTaskRan);
}

TEST_F(StreamTest, ADeclinedOrBlockedQuickTaskLeavesTheRunToTheTaskQueue) {
  auto queue = DispatchQueue::serial("test.quick.declined");
  std::atomic<int> quickCalls{0};
  std::atomic<bool> quickAnswer{false};
  auto makeStream = [&] {
    return IntStream::create(
        [&](IntStream::Observer observer) {
          EXPECT_TRUE(queue->isCurrent());
          observer(BrivetResult<int>::complete());
        },
        nullptr, false, DispatchQueue::main(), queue, [&](const IntStream::Observer&) {
          ++quickCalls;
          return quickAnswer.load();
        });
  };
  makeStream()->subscribe(recorder());
  ASSERT_TRUE(waitFor([&] { return events_.size() == 1; }));
  EXPECT_EQ(quickCalls, 1);

  // While a block holds the queue the quick task is not tried: it would run out of order.
  std::atomic<bool> release{false};
  queue->async([&] {
    while (!release) std::this_thread::yield();
  });
  quickAnswer = true;
  makeStream()->subscribe(recorder());
  release = true;
  ASSERT_TRUE(waitFor([&] { return events_.size() == 2; }));
  EXPECT_EQ(quickCalls, 1);
}

TEST_F(StreamTest, EventsKeepTheirOrderWhileTheyAreDelivered) {
  constexpr int kEvents = 2000;
  auto stream = IntStream::create(
      [](IntStream::Observer observer) {  // on the task queue, while the main queue drains
        for (int i = 0; i < kEvents; ++i) observer(BrivetResult<int>::progress(i));
        observer(BrivetResult<int>::complete());
      },
      nullptr);
  std::vector<int> seen;
  bool completed = false;
  stream->subscribe([&](const BrivetResult<int>& r) {
    if (const int* v = r.value()) seen.push_back(*v);
    if (r.isComplete()) completed = true;
  });
  ASSERT_TRUE(waitFor([&] { return completed; }));
  ASSERT_EQ(seen.size(), static_cast<std::size_t>(kEvents));
  for (int i = 0; i < kEvents; ++i) ASSERT_EQ(seen[static_cast<std::size_t>(i)], i);
}

TEST_F(StreamTest, ResultDescriptions) {
  EXPECT_EQ(BrivetResult<int>::progress(1).description(), "PROGRESS");
  EXPECT_EQ(BrivetResult<int>::complete().description(), "COMPLETE");
  const auto failure = BrivetResult<int>::failure(Error("D", 4));
  EXPECT_EQ(failure.description(), "FAILURE");
  EXPECT_TRUE(failure.isFailure());
  EXPECT_EQ(failure.error()->toError().code(), 4);
  EXPECT_EQ(BrivetResult<JSONEnvelope>::progress({JSONPrimitive::integer(3), std::nullopt}).debugDescription(),
            "PROGRESS: JSONEnvelope(json: 3, context: nil)");
}

// --- Platform-facing streams ---

class TovStreamTest : public StreamTest {
 protected:
  std::vector<Object> dictionaries_;
  std::vector<std::optional<Error>> completions_;

  void subscribe(std::vector<BrivetResult<JSONEnvelope>> results) {
    auto stream = Stream<JSONEnvelope>::create(
        [results](Stream<JSONEnvelope>::Observer observer) {
          for (const auto& r : results) observer(r);
        },
        nullptr);
    TovStream<JSONEnvelope>(stream).subscribeWithProgressBlock(
        [this](const Object& d) { dictionaries_.push_back(d); },
        [this](const std::optional<Error>& e) { completions_.push_back(e); });
    ASSERT_TRUE(waitFor([&] { return !completions_.empty(); }));
  }
};

TEST_F(TovStreamTest, DictionariesWithTheirContext) {
  const JSONValue json = JSONValue::object({{"a", JSONPrimitive::integer(1)}});
  const JSONValue ownContext = JSONValue::object({{"context", JSONPrimitive::string("mine")}});
  const JSONValue context = JSONValue::object({{"page", JSONPrimitive::integer(2)}});
  subscribe({BrivetResult<JSONEnvelope>::progress({json, context}),
             BrivetResult<JSONEnvelope>::progress({json, JSONPrimitive::integer(5)}),  // not a dictionary
             BrivetResult<JSONEnvelope>::progress({ownContext, context}),
             BrivetResult<JSONEnvelope>::progress({JSONValue::array({}), std::nullopt}),  // not delivered
             BrivetResult<JSONEnvelope>::complete()});
  ASSERT_EQ(dictionaries_.size(), 3u);
  EXPECT_EQ(dictionaries_[0]["context"]["page"].asNumber()->int64Value(), 2);
  EXPECT_EQ(dictionaries_[0]["a"].asNumber()->int64Value(), 1);
  EXPECT_TRUE(dictionaries_[1]["context"].isNil());
  EXPECT_EQ(dictionaries_[2]["context"].stringValue(), "mine");
  ASSERT_EQ(completions_.size(), 1u);
  EXPECT_FALSE(completions_[0].has_value());
}

TEST_F(TovStreamTest, ProgressOfOtherValuesIsDropped) {
  std::vector<Object> delivered;
  bool done = false;
  auto stream = Stream<int>::create(
      [](Stream<int>::Observer observer) {
        observer(BrivetResult<int>::progress(1));
        observer(BrivetResult<int>::failure(Error("App", 7)));
      },
      nullptr);
  std::optional<Error> failure;
  TovStream<int>(stream).subscribeWithProgressBlock([&](const Object& d) { delivered.push_back(d); },
                                                    [&](const std::optional<Error>& e) {
                                                      failure = e;
                                                      done = true;
                                                    });
  ASSERT_TRUE(waitFor([&] { return done; }));
  EXPECT_TRUE(delivered.empty());
  ASSERT_TRUE(failure.has_value());
  EXPECT_EQ(failure->domain(), "App");  // a platform error passes through as it is
}

TEST_F(TovStreamTest, FailuresReachTheCompletionAsPlatformErrors) {
  subscribe({BrivetResult<JSONEnvelope>::failure(BrivetError::invalidAttempt())});
  ASSERT_TRUE(completions_[0].has_value());
  EXPECT_EQ(completions_[0]->domain(), "BrivetCore.BrivetError");
  EXPECT_EQ(completions_[0]->code(), 3);
}

TEST_F(TovStreamTest, HTTPResponseStreamAdaptsTheApplicationsBlocks) {
  std::atomic<int> cancelled{0};
  TovHTTPDataSourceResponseStream response(
      [](ProgressBlock progress, CompletionBlock completion) {
        progress(Object::dictionary({{"jsonGraph", Object::dictionary()}}));
        completion(Error("HTTP", 500));
      },
      [&] { ++cancelled; });
  EXPECT_EQ(response.stream()->observeOnQueue(), DispatchQueue::main());
  std::vector<Object> progress;
  std::optional<Error> failure;
  bool finished = false;
  response.subscribe([&](const Object& d) { progress.push_back(d); },
                     [&](const std::optional<Error>& e) {
                       failure = e;
                       finished = true;
                     });
  ASSERT_TRUE(waitFor([&] { return finished; }));
  EXPECT_EQ(progress.size(), 1u);
  ASSERT_TRUE(failure.has_value());
  EXPECT_EQ(failure->code(), 500);
  EXPECT_EQ(cancelled, 1);  // the cancel block also runs after the terminal event
  static_assert(!std::is_default_constructible_v<TovHTTPDataSourceResponseStream>);
}

}  // namespace
}  // namespace brivet
