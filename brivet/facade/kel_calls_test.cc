// The facade's blocking and coroutine forms against an in-memory data source.
#include "brivet/facade/kel_calls.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "brivet/facade/testing/app_doubles.h"
#include "brivet/platform/dispatch_queue.h"

namespace brivet {
namespace {

using namespace std::chrono_literals;
using ::brivet::testing::DocumentDataSource;
using ::brivet::testing::parse;

constexpr std::string_view kDocument = R"({
  "lists": {"top": {"0": ["videos", "v0"], "1": ["videos", "v1"]}},
  "videos": {
    "v0": {"title": "Zero", "year": 1950, "boxart": {"$type": "leaf", "url": "a.jpg"}},
    "v1": {"title": "One", "year": 1951}}
})";

class KelCallsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dataSource_->answerLater = true;
    model_->setDataSource(dataSource_);
  }

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

  std::shared_ptr<KelModel> model_ = KelBrivet::createModel(std::nullopt, std::nullopt);
  std::shared_ptr<DocumentDataSource> dataSource_ = std::make_shared<DocumentDataSource>(kDocument);
};

TEST_F(KelCallsTest, BlockingGetsAnswerTypedValues) {
  EXPECT_EQ(offMainQueue([&] { return blocking::getValue<std::string>(*model_, "lists.top.1.title"); }).value(), "One");
  EXPECT_EQ(offMainQueue([&] { return blocking::getValue<int>(*model_, "lists.top.0.year"); }).value(), 1950);
  const Result<Object, Error> both = offMainQueue(
      [&] { return blocking::get(*model_, {"lists.top.@range(0,1).title"}, {.option = KelModelOption::ForceRemote}); });
  ASSERT_TRUE(both.ok());
  EXPECT_EQ(both.value().valueForKeyPath("lists.top.0.title").stringValue(), "Zero");
  const Result<int, Error> missing = offMainQueue([&] { return blocking::getValue<int>(*model_, "videos.v0.rating"); });
  EXPECT_EQ(missing.error().code(), static_cast<std::int64_t>(AccessErrorCode::NoValue));
}

TEST_F(KelCallsTest, FormsThatCannotAnswerTwiceRefuseReturnCacheDataAndFetch) {
  const Result<Object, Error> refused = offMainQueue([&] {
    return blocking::get(*model_, {"lists.top.0.title"}, {.option = KelModelOption::ReturnCacheDataAndFetch});
  });
  EXPECT_EQ(refused.error().code(), static_cast<std::int64_t>(AccessErrorCode::UnsupportedOption));
  EXPECT_TRUE(dataSource_->gets().empty());

  std::optional<Result<Object, Error>> onMain;
  DispatchQueue::main()->async([&] { onMain = blocking::get(*model_, {"lists.top.0.title"}); });
  ASSERT_TRUE(DispatchQueue::main()->runUntil([&] { return onMain.has_value(); }, 10s));
  EXPECT_EQ(onMain->error().code(), static_cast<std::int64_t>(AccessErrorCode::OnMainQueue));
}

Detached readYear(KelModel& model, std::optional<Result<int, Error>>* year, bool* onMainQueue) {
  *year = co_await async::getValue<int>(model, "lists.top.1.year");
  *onMainQueue = DispatchQueue::main()->isCurrent();
}

TEST_F(KelCallsTest, CoroutinesResumeOnTheMainQueueWithTheValue) {
  std::optional<Result<int, Error>> year;
  bool onMainQueue = false;
  readYear(*model_, &year, &onMainQueue);
  ASSERT_TRUE(DispatchQueue::main()->runUntil([&] { return year.has_value(); }, 10s));
  EXPECT_EQ(year->value(), 1951);
  EXPECT_TRUE(onMainQueue);
}

}  // namespace
}  // namespace brivet
