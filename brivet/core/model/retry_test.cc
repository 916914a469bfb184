// Retries of the core model's requests, driven through TovInternalModel with a
// scripted HTTP client and a timer the test advances by hand.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "brivet/core/datasource/data_source.h"
#include "brivet/core/model/operations.h"
#include "brivet/core/model/testing/tov_doubles.h"
#include "brivet/core/model/tov_model.h"
#include "brivet/testing/manual_timer.h"

namespace brivet {
namespace {

using namespace std::chrono_literals;
using testing::json;
using testing::Reply;
using testing::ScriptedHTTPClient;

constexpr const char* kURL = "https://graph.example/model.json";
constexpr const char* kCatalogue = R"({"videos": {"v0": {"title": "Title 0"}}})";
constexpr const char* kVideo1 = R"({"jsonGraph": {"videos": {"v1": {"title": "Title 1"}}}})";

struct CoreEvents {
  std::vector<JSONEnvelope> progress;
  std::vector<StreamError> failures;
  int completes = 0;
  int terminals() const { return completes + static_cast<int>(failures.size()); }
};

// An error body whose code names the attempt, so a test can tell which failure it got.
Error serverError(std::int64_t status, int attempt, Object retryAfter = Object()) {
  return httpFailure(status, json(R"({"code": "E)" + std::to_string(attempt) + R"(", "message": "busy"})"),
                     std::move(retryAfter));
}

class RetryTest : public ::testing::Test {
 protected:
  void SetUp() override { useRetries(3); }

  void useRetries(std::int64_t maxRetries) {
    RetryPolicy policy;
    policy.baseDelay = 100ms;
    policy.maxDelay = 10s;
    policy.timer = timer_;
    policy.random = [] { return 0.0; };  // no jitter: the waits are exact
    base_ = TovBrivet::createTovModelWithUrl(kURL, client_, json(kCatalogue));
    base_->setLoggingDelegate(logger_);
    model_ = base_->withRetries(maxRetries, policy);
  }
  // The first `failures` requests fail with `failure(attempt)`, later ones answer `answer`.
  void failFirst(int failures, std::function<Error(int)> failure, const char* answer = kVideo1,
                 std::vector<Object> failedProgress = {}) {
    client_->responder = [this, failures, failure, answer, failedProgress](const testing::Request&) {
      const int attempt = ++attempts_;
      if (attempt <= failures) return Reply(failedProgress, failure(attempt));
      return Reply({json(answer)}, std::nullopt);
    };
  }

  static bool waitFor(const std::function<bool()>& done) { return DispatchQueue::main()->runUntil(done, 10s); }

  std::shared_ptr<Subscription> subscribe(const std::shared_ptr<Stream<JSONEnvelope>>& stream, CoreEvents& events) {
    return stream->subscribe([&events](const BrivetResult<JSONEnvelope>& result) {
      if (const JSONEnvelope* envelope = result.value()) events.progress.push_back(*envelope);
      if (const StreamError* error = result.error()) events.failures.push_back(*error);
      if (result.isComplete()) ++events.completes;
    });
  }
  // Runs the stream to its end, moving the timer on whenever the operation waits.
  CoreEvents run(const std::shared_ptr<Stream<JSONEnvelope>>& stream) {
    CoreEvents events;
    auto subscription = subscribe(stream, events);
    EXPECT_TRUE(waitFor([&] {
      if (timer_->pending() > 0) timer_->advance(1h);
      return events.terminals() > 0;
    }));
    settle();
    return events;
  }
  // Lets late events, if any, reach the main queue.
  void settle() {
    bool flushed = false;
    model_->internalModel().operationQueue()->async([&] {
      taskQueue()->async([&] { DispatchQueue::main()->async([&] { flushed = true; }); });
    });
    waitFor([&] { return flushed; });
  }
  CoreEvents get(const std::string& keyPath) {
    return run(model_->internalModel().get(PathTree::fromKeyPaths({keyPath})).asStream());
  }
  static std::string failureCode(const CoreEvents& events) {
    if (events.failures.empty() || !events.failures[0].isBrivetError()) return "";
    const BrivetError::DataSourceFailureReason* reason = events.failures[0].brivetError()->dataSourceReason();
    return reason != nullptr ? reason->code() : "";
  }

  std::shared_ptr<ScriptedHTTPClient> client_ = std::make_shared<ScriptedHTTPClient>();
  std::shared_ptr<testing::RecordingLoggingDelegate> logger_ = std::make_shared<testing::RecordingLoggingDelegate>();
  std::shared_ptr<testing::ManualTimer> timer_ = testing::ManualTimer::create();
  std::shared_ptr<TovInternalModel> base_;
  std::shared_ptr<TovInternalModel> model_;
  std::atomic<int> attempts_{0};
};

TEST_F(RetryTest, AGetFailingTwiceSucceedsOnTheThirdAttempt) {
  failFirst(2, [](int attempt) { return serverError(503, attempt); });
  CoreEvents events = get("videos.v1.title");
  EXPECT_EQ(events.completes, 1);
  EXPECT_TRUE(events.failures.empty());
  ASSERT_EQ(events.progress.size(), 1u);
  EXPECT_EQ(events.progress[0].json, JSONValue::fromAny(json(R"({"videos": {"v1": {"title": "Title 1"}}})")));
  EXPECT_EQ(client_->requestCount(), 3u);
  EXPECT_EQ(timer_->delays(), (std::vector<std::chrono::milliseconds>{100ms, 200ms}));
  ASSERT_EQ(logger_->infos().size(), 2u);
  EXPECT_EQ(logger_->infos()[0].rfind("dataSource attempt 1 of 4 failed, retrying in 100 ms: ", 0), 0u)
      << logger_->infos()[0];
  EXPECT_TRUE(logger_->errors().empty());
}

TEST_F(RetryTest, ExhaustedRetriesReportTheLastErrorOnce) {
  failFirst(100, [](int attempt) { return serverError(500, attempt); });
  CoreEvents events = get("videos.v1.title");
  EXPECT_EQ(events.terminals(), 1);
  ASSERT_EQ(events.failures.size(), 1u);
  EXPECT_EQ(failureCode(events), "E4");
  EXPECT_TRUE(events.progress.empty());
  EXPECT_EQ(client_->requestCount(), 4u);
  EXPECT_EQ(timer_->delays(), (std::vector<std::chrono::milliseconds>{100ms, 200ms, 400ms}));
  EXPECT_EQ(logger_->errors().size(), 1u);
}

TEST_F(RetryTest, ClientErrorsOtherThan429AreNotRetried) {
  for (std::int64_t status : {400, 404, 413}) {
    attempts_ = 0;
    useRetries(3);
    failFirst(100, [status](int attempt) { return serverError(status, attempt); });
    const std::size_t before = client_->requestCount();
    CoreEvents events = get("videos.v1.title");
    EXPECT_EQ(events.failures.size(), 1u) << status;
    EXPECT_EQ(client_->requestCount() - before, 1u) << status;
  }
  EXPECT_TRUE(timer_->delays().empty());
}

TEST_F(RetryTest, TransportFailuresAreRetriedButACancelledRequestIsNot) {
  failFirst(2, [](int attempt) {
    return Error::withDescription(httpErrorDomain(), attempt == 1 ? -1 : -9, "connection trouble");
  });
  EXPECT_EQ(get("videos.v1.title").completes, 1);
  EXPECT_EQ(client_->requestCount(), 3u);

  attempts_ = 0;
  useRetries(3);
  failFirst(100, [](int) { return Error::withDescription(httpErrorDomain(), -3, "cancelled"); });
  EXPECT_EQ(get("videos.v1.title").failures.size(), 1u);
  EXPECT_EQ(client_->requestCount(), 4u);
}

TEST_F(RetryTest, RetryAfterSetsTheWait) {
  failFirst(1, [](int attempt) { return serverError(429, attempt, Object("7")); });
  CoreEvents events;
  auto subscription = subscribe(model_->internalModel().get(PathTree::fromKeyPaths({"videos.v1.title"})).asStream(),
                                events);
  ASSERT_TRUE(waitFor([&] { return timer_->pending() == 1; }));
  EXPECT_EQ(timer_->delays(), (std::vector<std::chrono::milliseconds>{7000ms}));
  timer_->advance(6999ms);
  settle();
  EXPECT_EQ(client_->requestCount(), 1u);
  timer_->advance(1ms);
  ASSERT_TRUE(waitFor([&] { return events.terminals() == 1; }));
  EXPECT_EQ(events.completes, 1);
  EXPECT_EQ(client_->requestCount(), 2u);
}

TEST_F(RetryTest, ARetryAfterBeyondThePolicyIsNotWaitedFor) {
  failFirst(1, [](int attempt) { return serverError(503, attempt, Object(std::int64_t{86400})); });
  CoreEvents events = get("videos.v1.title");
  EXPECT_EQ(failureCode(events), "E1");
  EXPECT_EQ(client_->requestCount(), 1u);
  // A malformed one is ignored: the backoff applies.
  attempts_ = 0;
  useRetries(1);
  failFirst(1, [](int attempt) { return serverError(429, attempt, Object("soon")); });
  EXPECT_EQ(get("videos.v1.title").completes, 1);
  EXPECT_EQ(timer_->delays(), (std::vector<std::chrono::milliseconds>{100ms}));
}

TEST_F(RetryTest, CancellingDuringTheWaitStopsEverything) {
  failFirst(1, [](int attempt) { return serverError(503, attempt); });
  CoreEvents events;
  auto subscription = subscribe(model_->internalModel().get(PathTree::fromKeyPaths({"videos.v1.title"})).asStream(),
                                events);
  ASSERT_TRUE(waitFor([&] { return timer_->pending() == 1; }));
  subscription->cancel();
  EXPECT_EQ(timer_->pending(), 0u);
  EXPECT_EQ(timer_->cancelled(), 1u);
  timer_->advance(1h);
  settle();
  EXPECT_EQ(client_->requestCount(), 1u);
  EXPECT_EQ(events.terminals(), 0);
  EXPECT_TRUE(events.progress.empty());
  EXPECT_TRUE(logger_->errors().empty());
}

TEST_F(RetryTest, WhatAFailedAttemptAnsweredNeverReachesSubscribersOrTheCache) {
  // The first attempt hands over a graph and then fails: neither its value nor its merge may show.
  failFirst(1, [](int attempt) { return serverError(502, attempt); }, kVideo1,
            {json(R"({"jsonGraph": {"videos": {"v1": {"title": "Stale"}, "v9": {"title": "Half"}}}})")});
  CoreEvents events = get("videos.v1.title");
  ASSERT_EQ(events.progress.size(), 1u);
  EXPECT_EQ(events.progress[0].json, JSONValue::fromAny(json(R"({"videos": {"v1": {"title": "Title 1"}}})")));
  EXPECT_EQ(events.terminals(), 1);
  EXPECT_TRUE(base_->valueForKeyPath("videos.v9.title").isNil());
}

TEST_F(RetryTest, SetsAndCallsAreRetriedToo) {
  failFirst(1, [](int attempt) { return serverError(500, attempt); });
  CoreEvents set = run(model_->internalModel()
                           .set(JSONGraph::fromAny(json(R"({"videos": {"v1": {"title": "Title 1"}}})")))
                           .asStream());
  EXPECT_EQ(set.completes, 1);
  EXPECT_EQ(client_->requestCount(), 2u);

  attempts_ = 0;
  failFirst(2, [](int) { return Error::withDescription(httpErrorDomain(), -2, "timed out"); });
  CoreEvents call = run(model_->internalModel().call({"videos", "refresh"}).asStream());
  EXPECT_EQ(call.completes, 1);
  EXPECT_EQ(client_->requestCount(), 5u);
  for (const testing::Request& request : client_->requests()) EXPECT_EQ(request.method, "POST");
}

TEST_F(RetryTest, WithoutRetriesAFailureIsReportedAtOnce) {
  useRetries(0);
  failFirst(1, [](int attempt) { return serverError(503, attempt); });
  CoreEvents events = get("videos.v1.title");
  EXPECT_EQ(failureCode(events), "E1");
  EXPECT_EQ(client_->requestCount(), 1u);
  EXPECT_TRUE(timer_->delays().empty());
  EXPECT_TRUE(logger_->infos().empty());
}

// Many operations retrying at once, answers from another thread, the timer
// advanced from the main thread: every operation ends once (run under TSan).
TEST_F(RetryTest, ConcurrentRetryingOperationsEachEndOnce) {
  client_->delivery = ScriptedHTTPClient::Delivery::Later;
  std::atomic<int> requests{0};
  client_->responder = [&requests](const testing::Request&) {
    // Every other request fails.
    if (++requests % 2 == 1) return Reply({}, serverError(503, 0));
    return Reply({json(kVideo1)}, std::nullopt);
  };
  constexpr int kOperations = 40;
  std::vector<CoreEvents> events(kOperations);
  std::vector<std::shared_ptr<Subscription>> subscriptions;
  for (int i = 0; i < kOperations; ++i) {
    subscriptions.push_back(subscribe(
        model_->internalModel().get(PathTree::fromKeyPaths({"videos.v1.title"})).refresh().asStream(), events[i]));
  }
  // A few are cancelled while they run.
  for (int i = 0; i < kOperations; i += 7) subscriptions[i]->cancel();
  ASSERT_TRUE(waitFor([&] {
    if (timer_->pending() > 0) timer_->advance(1h);
    for (int i = 0; i < kOperations; ++i) {
      if (i % 7 != 0 && events[i].terminals() == 0) return false;
    }
    return true;
  }));
  settle();
  EXPECT_GE(timer_->delays().size(), std::size_t{kOperations / 3});  // the retries did happen
  for (int i = 0; i < kOperations; ++i) EXPECT_LE(events[i].terminals(), 1) << i;
  for (int i = 1; i < kOperations; ++i) {
    if (i % 7 != 0) {
      EXPECT_EQ(events[i].terminals(), 1) << i;
    }
  }
}

}  // namespace
}  // namespace brivet
