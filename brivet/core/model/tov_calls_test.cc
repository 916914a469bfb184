// The core model's blocking and coroutine forms, driven as a command-line
// program drives them: the calls on a thread of their own while the test runs
// the main queue.
#include "brivet/core/model/tov_calls.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "brivet/core/model/testing/tov_doubles.h"
#include "brivet/core/values/graph_builders.h"
#include "brivet/platform/dispatch_queue.h"

namespace brivet {
namespace {

using namespace std::chrono_literals;
using testing::json;
using testing::Reply;
using testing::ScriptedHTTPClient;

constexpr const char* kCatalogue = R"({
  "lists": {"top": {"0": {"$type": "ref", "value": ["videos", "v0"]},
                    "1": {"$type": "ref", "value": ["videos", "v1"]}}},
  "videos": {"v0": {"title": "Title 0", "year": 1950,
                    "rights": {"$type": "error", "value": {"message": "no rights here"}}}}})";

class TovCallsTest : public ::testing::Test {
 protected:
  // Runs `call` on another thread while this one runs the main queue.
  template <class F>
  auto offMainQueue(F call) {
    std::optional<decltype(call())> answer;
    std::atomic<bool> done{false};
    std::thread caller([&] {
      answer.emplace(call());
      done = true;
    });
    const bool finished = DispatchQueue::main()->runUntil([&] { return done.load(); }, 20s);
    caller.join();
    EXPECT_TRUE(finished);
    return std::move(*answer);
  }

  std::shared_ptr<ScriptedHTTPClient> client_ = std::make_shared<ScriptedHTTPClient>();
  std::shared_ptr<TovInternalModel> model_ =
      TovBrivet::createTovModelWithUrl("https://graph.example/model.json", client_, json(kCatalogue));
};

TEST_F(TovCallsTest, BlockingGetsAnswerFromTheCacheAndTheServer) {
  client_->delivery = testing::Delivery::Later;
  client_->reply = {{json(R"({"jsonGraph": {"videos": {"v1": {"title": "Title 1"}}}})")}};
  EXPECT_EQ(offMainQueue([&] { return blocking::getValue<std::string>(*model_, "lists.top.1.title"); }).value(),
            "Title 1");
  EXPECT_EQ(client_->requestCount(), 1u);
  EXPECT_EQ(offMainQueue([&] { return blocking::getValue<int>(*model_, "lists.top.0.year"); }).value(), 1950);
  const Result<Object, Error> both =
      offMainQueue([&] { return blocking::get(*model_, {"lists.top.@range(0,1).title"}); });
  EXPECT_TRUE(both.value().isEqual(json(R"({"lists": {"top": {"0": {"title": "Title 0"}, "1": {"title": "Title 1"}}}})")));
  EXPECT_EQ(client_->requestCount(), 1u);  // the second and third came from the cache
}

TEST_F(TovCallsTest, FailuresSayWhatFailed) {
  const Result<std::string, Error> rights =
      offMainQueue([&] { return blocking::getValue<std::string>(*model_, "videos.v0.rights"); });
  ASSERT_FALSE(rights.ok());
  EXPECT_NE(rights.error().localizedDescription().find("no rights here"), std::string::npos)
      << rights.error().localizedDescription();

  const Result<int, Error> wrongType = offMainQueue([&] { return blocking::getValue<int>(*model_, "videos.v0.title"); });
  EXPECT_EQ(wrongType.error().code(), static_cast<std::int64_t>(AccessErrorCode::WrongType));

  const Result<Object, Error> rangeSet =
      offMainQueue([&] { return blocking::setValue(*model_, "lists.top.@range(0,1).title", std::string("x")); });
  EXPECT_EQ(rangeSet.error().code(), static_cast<std::int64_t>(AccessErrorCode::InvalidKeyPath));
  EXPECT_EQ(client_->requestCount(), 0u);
}

TEST_F(TovCallsTest, SetValueSendsTheValueAtItsPath) {
  EXPECT_TRUE(detail::graphSetting("videos.v0.title", Object("New")).value().isEqual(
      json(R"({"videos": {"v0": {"title": "New"}}})")));
  client_->delivery = testing::Delivery::Later;
  client_->reply = {{json(R"({"jsonGraph": {"videos": {"v0": {"rating": 5}}}})")}};
  const Result<Object, Error> set = offMainQueue(
      [&] { return blocking::setValue(*model_, "videos.v0.rating", leaf::atom(5, {.expires = Expiry::never()})); });
  ASSERT_TRUE(set.ok()) << set.error().localizedDescription();
  ASSERT_EQ(client_->requestCount(), 1u);
  EXPECT_EQ(client_->requests()[0].method, "POST");
}

TEST_F(TovCallsTest, BlockingOnTheMainQueueFailsAtOnceAndATimeOutCancels) {
  std::optional<Result<Object, Error>> refused;
  DispatchQueue::main()->async([&] { refused = blocking::get(*model_, {"videos.v0.title"}); });
  ASSERT_TRUE(DispatchQueue::main()->runUntil([&] { return refused.has_value(); }, 10s));
  EXPECT_EQ(refused->error().code(), static_cast<std::int64_t>(AccessErrorCode::OnMainQueue));

  client_->delivery = testing::Delivery::Never;
  const Result<Object, Error> late =
      offMainQueue([&] { return blocking::get(*model_, {"videos.v9.title"}, {.timeout = 50ms}); });
  EXPECT_EQ(late.error().code(), static_cast<std::int64_t>(AccessErrorCode::TimedOut));
  EXPECT_TRUE(DispatchQueue::main()->runUntil([&] { return client_->cancels() > 0; }, 10s));
}

Detached readTitle(TovModel& model, std::optional<Result<std::string, Error>>* title, bool* onMainQueue) {
  *title = co_await async::getValue<std::string>(model, "lists.top.1.title");
  *onMainQueue = DispatchQueue::main()->isCurrent();
}

TEST_F(TovCallsTest, CoroutinesResumeOnTheMainQueueWithTheValue) {
  client_->delivery = testing::Delivery::Later;
  client_->reply = {{json(R"({"jsonGraph": {"videos": {"v1": {"title": "Title 1"}}}})")}};
  std::optional<Result<std::string, Error>> title;
  bool onMainQueue = false;
  readTitle(*model_, &title, &onMainQueue);
  ASSERT_TRUE(DispatchQueue::main()->runUntil([&] { return title.has_value(); }, 10s));
  EXPECT_EQ(title->value(), "Title 1");
  EXPECT_TRUE(onMainQueue);
}

}  // namespace
}  // namespace brivet
