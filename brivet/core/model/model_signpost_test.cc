// The core operations' signposts. The core reads "SIGNPOSTS_FOR_BRIVET" once
// per process, so this binary sets it before anything reads it.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "brivet/core/model/testing/tov_doubles.h"
#include "brivet/core/model/tov_model.h"
#include "brivet/platform/internal/mutex.h"
#include "brivet/platform/signpost.h"

namespace brivet {
namespace {

using namespace std::chrono_literals;
using testing::json;

const bool kSignpostsOn = [] { return setenv("SIGNPOSTS_FOR_BRIVET", "", 1) == 0; }();

class CapturingSink final : public SignpostSink {
 public:
  void emit(SignpostPhase phase, std::string_view /*subsystem*/, std::string_view category, std::string_view name,
            std::uint64_t /*id*/, std::string_view message) override {
    const char* kind = phase == SignpostPhase::Begin ? "begin" : (phase == SignpostPhase::End ? "end" : "event");
    internal::MutexLock lock(mu_);
    lines_.push_back(std::string(category) + "/" + std::string(name) + " " + kind + ": " + std::string(message));
  }
  // Records which interval each nested one begins in ("Cache in Stream").
  void emitBegin(std::string_view subsystem, std::string_view category, std::string_view name, std::uint64_t id,
                 std::uint64_t parent, std::string_view message) override {
    {
      internal::MutexLock lock(mu_);
      categories_[id] = std::string(category);
      if (parent != 0) nesting_.push_back(std::string(category) + " in " + categories_[parent]);
    }
    emit(SignpostPhase::Begin, subsystem, category, name, id, message);
  }
  std::vector<std::string> take() {
    internal::MutexLock lock(mu_);
    return std::move(lines_);
  }
  std::vector<std::string> takeNesting() {
    internal::MutexLock lock(mu_);
    return std::move(nesting_);
  }

 private:
  internal::Mutex mu_;
  std::vector<std::string> lines_ BRIVET_GUARDED_BY(mu_);
  std::map<std::uint64_t, std::string> categories_ BRIVET_GUARDED_BY(mu_);
  std::vector<std::string> nesting_ BRIVET_GUARDED_BY(mu_);
};

class ModelSignpostTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(kSignpostsOn);
    setSignpostSink(sink_);
    model_ = TovBrivet::createTovModelWithUrl("https://graph.example/model.json", client_, json(R"({
        "lists": {"top": {"0": {"$type": "ref", "value": ["videos", "v0"]},
                          "1": {"$type": "ref", "value": ["videos", "v1"]}}},
        "videos": {"v0": {"title": "Title 0"}}})"));
  }
  void TearDown() override { setSignpostSink(nullptr); }

  void run(const TovStream<JSONEnvelope>& stream) {
    bool done = false;
    auto subscription = stream.subscribeWithProgressBlock(nullptr, [&](const std::optional<Error>&) { done = true; });
    ASSERT_TRUE(DispatchQueue::main()->runUntil([&] { return done; }, 10s));
    // Intervals close on the model's operation queue after the event is handed over.
    model_->internalModel().operationQueue()->sync([] {});
  }

  std::shared_ptr<CapturingSink> sink_ = std::make_shared<CapturingSink>();
  std::shared_ptr<testing::ScriptedHTTPClient> client_ = std::make_shared<testing::ScriptedHTTPClient>();
  std::shared_ptr<TovInternalModel> model_;
};

TEST_F(ModelSignpostTest, AGetMarksItsStreamCacheAndDataSourceIntervals) {
  client_->reply = {{json(R"({"jsonGraph": {"videos": {"v1": {"title": "Title 1"}}}})")}, std::nullopt};
  run(model_->getWithKeyPaths({"lists.top.0.title", "lists.top.1.title"})->progressively()->asStream());
  EXPECT_EQ(sink_->take(), (std::vector<std::string>{
                               "Stream/Stream begin: method=get, progressive=1, refresh=0, "
                               "path=lists.top.0.title, lists.top.1.title",
                               "Cache/Cache begin: method=get, path=lists.top.0.title, lists.top.1.title",
                               "Cache/Cache end: miss=1",
                               "Stream/Stream event: progressive=1, completed=0",
                               "DataSource/DataSource begin: method=get, path=videos.v1.title",
                               "Cache/Cache begin: method=get, path=videos.v1.title",
                               "Cache/Cache end: miss=0",
                               "DataSource/DataSource end: status=Complete",
                               "Stream/Stream end: status=Complete",
                           }));
  EXPECT_EQ(sink_->takeNesting(),
            (std::vector<std::string>{"Cache in Stream", "DataSource in Stream", "Cache in Stream"}));
}

TEST_F(ModelSignpostTest, SetCallAndSynchronousReadsAreMarkedToo) {
  auto local = model_->withoutDataSource();
  run(local->setWithValue(json(R"({"videos": {"v3": {"title": "Three"}}})"))->asStream());
  client_->reply = {{}, httpFailure(500)};
  run(model_->callFunctionWithKeyPath("lists.add", std::nullopt, std::nullopt, std::nullopt)->asStream());
  model_->valuesForKeyPaths({"videos.v0.title"});
  EXPECT_EQ(sink_->take(), (std::vector<std::string>{
                               "Stream/Stream begin: method=set, progressive=0, refresh=0, path=videos.v3.title",
                               "Cache/Cache begin: method=set, path=videos.v3.title",
                               "Cache/Cache end: miss=0",
                               "Stream/Stream event: progressive=0, completed=1",
                               "Stream/Stream end: status=Complete",
                               "Stream/Stream begin: method=call, progressive=0, refresh=0, path=lists.add",
                               "DataSource/DataSource begin: method=call, path=lists.add",
                               "DataSource/DataSource end: status=Error",
                               "Stream/Stream end: status=Error",
                               "Cache/Cache begin: method=getValues (sync), path=(videos.v0.title)",
                               "Cache/Cache end: miss=0",
                           }));
}

TEST_F(ModelSignpostTest, EachAttemptOfARetriedRequestIsItsOwnIntervalUnderTheStream) {
  int attempts = 0;
  client_->responder = [&attempts](const testing::Request&) {
    if (++attempts == 1) return testing::Reply({}, httpFailure(503));
    return testing::Reply({json(R"({"jsonGraph": {"videos": {"v1": {"title": "Title 1"}}}})")}, std::nullopt);
  };
  RetryPolicy policy;
  policy.baseDelay = std::chrono::milliseconds(1);  // the system timer: a real, short wait
  auto retrying = model_->withRetries(2, policy);
  model_ = retrying;
  run(retrying->getWithKeyPaths({"videos.v1.title"})->asStream());
  EXPECT_EQ(sink_->take(), (std::vector<std::string>{
                               "Stream/Stream begin: method=get, progressive=0, refresh=0, path=videos.v1.title",
                               "Cache/Cache begin: method=get, path=videos.v1.title",
                               "Cache/Cache end: miss=1",
                               "DataSource/DataSource begin: method=get, path=videos.v1.title, attempt=1",
                               "DataSource/DataSource end: status=Error",
                               "DataSource/DataSource begin: method=get, path=videos.v1.title, attempt=2",
                               "Cache/Cache begin: method=get, path=videos.v1.title",
                               "Cache/Cache end: miss=0",
                               "DataSource/DataSource end: status=Complete",
                               "Stream/Stream end: status=Complete",
                           }));
  EXPECT_EQ(sink_->takeNesting(), (std::vector<std::string>{"Cache in Stream", "DataSource in Stream",
                                                            "DataSource in Stream", "Cache in Stream"}));
}

}  // namespace
}  // namespace brivet
