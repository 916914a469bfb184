// Optimistic sets with rollback: a set made `withRollback` undoes its local
// write when its request fails, node by node, keeping anything newer.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "brivet/core/datasource/data_source.h"
#include "brivet/core/model/operations.h"
#include "brivet/core/model/testing/tov_doubles.h"
#include "brivet/core/model/tov_model.h"

namespace brivet {
namespace {

using namespace std::chrono_literals;
using testing::json;
using testing::Reply;
using testing::ScriptedHTTPClient;

constexpr const char* kCatalogue = R"({"videos": {"v0": {"title": "Title 0", "year": 1950}}})";

class RollbackTest : public ::testing::Test {
 protected:
  void SetUp() override {
    model_ = TovBrivet::createTovModelWithUrl("https://graph.example/model.json", client_, json(kCatalogue));
  }
  SetOperation set(const char* graph) const {
    return model_->internalModel().set(JSONGraph::fromAny(json(graph)));
  }
  // Subscribes and collects, in order, "progress:<json text>", "failure", "complete".
  std::shared_ptr<Subscription> start(const SetOperation& operation) {
    return operation.asStream()->subscribe([this](const BrivetResult<JSONEnvelope>& result) {
      if (const JSONEnvelope* envelope = result.value()) events_.push_back("progress:" + envelope->json.description());
      if (result.error() != nullptr) events_.push_back("failure");
      if (result.isComplete()) events_.push_back("complete");
    });
  }
  bool finished() const {
    return !events_.empty() && (events_.back() == "failure" || events_.back() == "complete");
  }
  void runToEnd(const SetOperation& operation) {
    auto subscription = start(operation);
    ASSERT_TRUE(DispatchQueue::main()->runUntil([&] { return finished(); }, 10s));
  }
  Object value(const char* keyPath) { return model_->valueForKeyPath(keyPath); }

  std::shared_ptr<ScriptedHTTPClient> client_ = std::make_shared<ScriptedHTTPClient>();
  std::shared_ptr<TovInternalModel> model_;
  std::vector<std::string> events_;  // main queue only
};

TEST_F(RollbackTest, AFailedSetPutsBackExactlyWhatItChanged) {
  client_->reply = {{}, httpFailure(400)};
  runToEnd(set(R"({"videos": {"v0": {"title": "New", "year": 1950}, "v5": {"title": "Added"}}})")
               .progressively()
               .withRollback());
  ASSERT_EQ(events_.size(), 2u);
  EXPECT_NE(events_[0].find("New"), std::string::npos) << events_[0];  // the optimistic value was seen
  EXPECT_EQ(events_[1], "failure");
  // A read issued after the failure sees the rollback.
  EXPECT_TRUE(value("videos.v0.title").isEqual(Object("Title 0")));
  EXPECT_TRUE(value("videos.v0.year").isEqual(Object(1950)));
  EXPECT_TRUE(value("videos.v5.title").isNil());
  EXPECT_TRUE(model_->valueForKeyPath("videos.v5").isNil() ||
              model_->valueForKeyPath("videos.v5").isEqual(json("{}")));
}

TEST_F(RollbackTest, WhatWasWrittenSinceIsKept) {
  client_->reply = {{}, httpFailure(500)};
  client_->delivery = ScriptedHTTPClient::Delivery::Held;
  auto subscription = start(set(R"({"videos": {"v0": {"title": "Mine", "year": 2001}}})").withRollback());
  ASSERT_TRUE(DispatchQueue::main()->runUntil([&] { return client_->heldCount() == 1; }, 10s));
  // Another write lands on one of the two leaves while the request is out.
  model_->internalModel().cache()->merge(JSONGraph::fromAny(json(R"({"videos": {"v0": {"title": "Theirs"}}})")));
  client_->releaseHeld();
  ASSERT_TRUE(DispatchQueue::main()->runUntil([&] { return finished(); }, 10s));
  EXPECT_EQ(events_.back(), "failure");
  EXPECT_TRUE(value("videos.v0.title").isEqual(Object("Theirs")));
  EXPECT_TRUE(value("videos.v0.year").isEqual(Object(1950)));
}

TEST_F(RollbackTest, WithoutTheSwitchOrWhenTheSetSucceedsTheWriteStays) {
  client_->reply = {{}, httpFailure(500)};
  runToEnd(set(R"({"videos": {"v0": {"title": "Kept"}}})"));
  EXPECT_TRUE(value("videos.v0.title").isEqual(Object("Kept")));

  events_.clear();
  client_->reply = {{json(R"({"jsonGraph": {"videos": {"v0": {"title": "Server"}}}})")}, std::nullopt};
  runToEnd(set(R"({"videos": {"v0": {"title": "Mine"}}})").withRollback());
  EXPECT_EQ(events_.back(), "complete");
  EXPECT_TRUE(value("videos.v0.title").isEqual(Object("Server")));
}

TEST_F(RollbackTest, RetriedSetsRollBackOnlyAfterTheLastAttempt) {
  RetryPolicy policy;
  policy.baseDelay = 1ms;
  model_ = model_->withRetries(2, policy);
  int attempts = 0;
  std::vector<Object> seenAtRetry;  // what the cache held when each attempt was sent
  client_->responder = [&](const testing::Request&) {
    ++attempts;
    seenAtRetry.push_back(model_->internalModel().cache()->jsonGraph().toAnyType());
    return Reply({}, httpFailure(503));
  };
  runToEnd(set(R"({"videos": {"v0": {"title": "Mine"}}})").withRollback());
  EXPECT_EQ(attempts, 3);
  for (const Object& graph : seenAtRetry) {
    EXPECT_TRUE(graph.valueForKeyPath("videos.v0.title").isEqual(Object("Mine"))) << graph.description();
  }
  EXPECT_TRUE(value("videos.v0.title").isEqual(Object("Title 0")));
}

}  // namespace
}  // namespace brivet
