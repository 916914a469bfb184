// The core model fed what a broken or hostile server sends: ranges as wide as
// 64 bits in a call answer's "paths" and "invalidated", key sets that fan out
// through cycles of references, and a model digesting such an answer while
// another model of the process serves a cached get.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "brivet/core/cache/cache.h"
#include "brivet/core/model/model.h"
#include "brivet/core/model/operations.h"
#include "brivet/core/model/testing/tov_doubles.h"
#include "brivet/core/model/tov_model.h"

namespace brivet {
namespace {

using namespace std::chrono_literals;
using testing::json;

constexpr const char* kURL = "https://graph.example/model.json";

bool waitFor(const std::function<bool()>& done) { return DispatchQueue::main()->runUntil(done, 10s); }

// A graph in which every level of `a` leads back to `a` twice, and the call
// answer paths that walk it 2^40 times.
constexpr const char* kCycle = R"({"a": {"x": {"$type": "ref", "value": ["a"]},
                                         "y": {"$type": "ref", "value": ["a"]}, "t": 1}})";
Object fanOutPaths(int levels) {
  std::vector<Object> steps{Object("a")};
  for (int i = 0; i < levels; ++i) steps.push_back(Object::array({Object("x"), Object("y")}));
  steps.push_back(Object("t"));
  return Object::array({Object::array(std::move(steps))});
}

// What a subscriber saw (touched on the main queue only).
struct Seen {
  int progress = 0;
  int completes = 0;
  std::vector<StreamError> failures;
  int terminals() const { return completes + static_cast<int>(failures.size()); }
};
std::shared_ptr<Subscription> record(const std::shared_ptr<Stream<JSONEnvelope>>& stream, Seen& seen) {
  return stream->subscribe([&seen](const BrivetResult<JSONEnvelope>& result) {
    if (result.isProgress()) ++seen.progress;
    if (result.isComplete()) ++seen.completes;
    if (const StreamError* error = result.error()) seen.failures.push_back(*error);
  });
}

// --- Answers through the platform-facing model ---

class HostileAnswerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    model_ = TovBrivet::createTovModelWithUrl(kURL, client_, json(R"({
        "lists": {"top": {"0": {"$type": "ref", "value": ["videos", "v0"]},
                          "1": {"$type": "ref", "value": ["videos", "v1"]}}},
        "videos": {"v0": {"title": "Title 0"}}})"));
  }
  Seen run(const std::shared_ptr<Stream<JSONEnvelope>>& stream) {
    Seen seen;
    auto subscription = record(stream, seen);
    EXPECT_TRUE(waitFor([&] { return seen.terminals() > 0; }));
    // Nothing may follow the terminal event.
    bool flushed = false;
    model_->internalModel().operationQueue()->async([&] { DispatchQueue::main()->async([&] { flushed = true; }); });
    EXPECT_TRUE(waitFor([&] { return flushed; }));
    EXPECT_EQ(seen.terminals(), 1);
    return seen;
  }
  std::shared_ptr<Stream<JSONEnvelope>> call() {
    return model_->internalModel().call({"lists", "add"}).asStream();
  }

  std::shared_ptr<testing::ScriptedHTTPClient> client_ = std::make_shared<testing::ScriptedHTTPClient>();
  std::shared_ptr<TovInternalModel> model_;
};

TEST_F(HostileAnswerTest, HugeRangesInACallAnswerCostWhatTheCacheHolds) {
  client_->reply = {{json(R"({"jsonGraph": {"lists": {"new": {"0": "a", "1": "b"}}},
                              "paths": [["lists", "new", {"from": 0, "to": 9223372036854775807}]],
                              "invalidated": [["lists", "top", {"from": 0, "to": 9223372036854775807}]]})")}};
  Seen seen = run(call());
  EXPECT_EQ(seen.completes, 1);
  EXPECT_TRUE(model_->getCacheWithKeyPaths(std::nullopt)["jsonGraph"].isEqual(json(R"({
      "lists": {"top": {}, "new": {"0": "a", "1": "b"}}, "videos": {"v0": {"title": "Title 0"}}})")));
}

TEST_F(HostileAnswerTest, AGetOfAHugeRangeAsksForTheMissingRunAsOneRange) {
  run(model_->internalModel().get(PathTree::fromKeyPaths({"lists.top.@range(0,9223372036854775807).title"})).asStream());
  ASSERT_EQ(client_->requestCount(), 1u);
  EXPECT_TRUE(client_->requests()[0].parameters.isEqual(json(R"({"path": [
      ["videos", "v1", "title"], ["lists", "top", {"from": 2, "to": 9223372036854775807}, "title"]]})")))
      << client_->requests()[0].parameters.description();
}

TEST_F(HostileAnswerTest, AnAnswerFanningOutThroughACycleFailsOnceWithThePathBoundError) {
  Object answer = Object::dictionary({{"jsonGraph", json(kCycle)}, {"paths", fanOutPaths(40)}});
  client_->reply = {{answer}};
  Seen seen = run(call());
  ASSERT_EQ(seen.failures.size(), 1u);
  ASSERT_TRUE(seen.failures[0].isBrivetError());
  EXPECT_TRUE(exceedsWalkBudget(*seen.failures[0].brivetError()));
  // The cache stays whole and readable.
  EXPECT_TRUE(model_->valueForKeyPath("a.t").isEqual(Object(1)));
}

// --- One model digesting while another serves ---

// A cache whose value reads wait at a gate until the test opens it: a read held
// there is a model in the middle of digesting an answer.
class GatedCache final : public CacheProtocol {
 public:
  explicit GatedCache(std::shared_ptr<Cache> inner) : inner_(std::move(inner)) {}

  std::int64_t cacheMaxSize() const override { return inner_->cacheMaxSize(); }
  void setCacheMaxSize(std::int64_t size) override { inner_->setCacheMaxSize(size); }
  float cacheCollectRatio() const override { return inner_->cacheCollectRatio(); }
  void setCacheCollectRatio(float ratio) override { inner_->setCacheCollectRatio(ratio); }
  JSONGraph jsonGraph() const override { return inner_->jsonGraph(); }
  std::uint64_t version() const override { return inner_->version(); }
  std::optional<std::unordered_set<std::string>> prefixes() const override { return inner_->prefixes(); }
  Result<CacheValues, BrivetError> getValues(const PathTree& pathTree, bool checkExpiry) const override {
    {
      std::unique_lock<std::mutex> lock(mu_);
      entered_ = true;
      opened_.wait(lock, [this] { return open_; });
    }
    return inner_->getValues(pathTree, checkExpiry);
  }
  CacheEnvelope getCache(const std::optional<PathTree>& pathTree) const override { return inner_->getCache(pathTree); }
  Result<Object, BrivetError> getJSON(const std::vector<Path>& paths) const override { return inner_->getJSON(paths); }
  void merge(JSONGraph jsonGraph) override { inner_->merge(std::move(jsonGraph)); }
  void invalidate(PathTree pathTree) override { inner_->invalidate(std::move(pathTree)); }
  void setCache(CacheEnvelope envelope) override { inner_->setCache(std::move(envelope)); }

  bool entered() const {
    std::lock_guard<std::mutex> lock(mu_);
    return entered_;
  }
  void open() {
    {
      std::lock_guard<std::mutex> lock(mu_);
      open_ = true;
    }
    opened_.notify_all();
  }

 private:
  const std::shared_ptr<Cache> inner_;
  mutable std::mutex mu_;
  mutable std::condition_variable opened_;
  mutable bool entered_ = false;
  bool open_ = false;
};

// Answers every call with one canned response.
class CannedDataSource final : public DataSource {
 public:
  explicit CannedDataSource(DataSourceCallResponse response) : response_(std::move(response)) {}
  std::shared_ptr<DataSourceLoggingDelegate> loggingDelegate() const override { return nullptr; }
  void setLoggingDelegate(const std::shared_ptr<DataSourceLoggingDelegate>&) override {}
  std::shared_ptr<Stream<DataSourceResponse>> get(const PathTree&) const override { return finished<DataSourceResponse>({}); }
  std::shared_ptr<Stream<DataSourceResponse>> set(const JSONGraph&) const override { return finished<DataSourceResponse>({}); }
  std::shared_ptr<Stream<DataSourceCallResponse>> call(const std::vector<std::string>&, const std::optional<JSONGraph>&,
                                                       const std::optional<PathTree>&,
                                                       const std::optional<PathTree>&) const override {
    return finished<DataSourceCallResponse>({response_});
  }

 private:
  template <class T>
  static std::shared_ptr<Stream<T>> finished(std::vector<T> answers) {
    return Stream<T>::create(
        [answers](typename Stream<T>::Observer observer) {
          for (const T& answer : answers) observer(BrivetResult<T>::progress(answer));
          observer(BrivetResult<T>::complete());
        },
        nullptr);
  }
  const DataSourceCallResponse response_;
};

TEST(ModelIsolationTest, ACachedGetCompletesWhileAnotherModelDigestsAHostileAnswer) {
  DataSourceCallResponse hostile;
  hostile.jsonGraph = JSONGraph::fromAny(json(kCycle));
  hostile.pathTree = PathTree::fromPathArrays(fanOutPaths(40));
  auto gated = std::make_shared<GatedCache>(Cache::create());
  const InternalModel digesting(gated, std::make_shared<CannedDataSource>(hostile));
  const InternalModel serving(Cache::create(JSONGraph::fromAny(json(R"({"videos": {"v0": {"title": "Title 0"}}})"))));

  Seen digested;
  auto call = record(digesting.call({"lists", "add"}).asStream(), digested);
  // The first model has merged the answer and is reading its paths (held at the gate).
  ASSERT_TRUE(waitFor([&] { return gated->entered(); }));

  Seen served;
  auto get = record(serving.get(PathTree::fromKeyPaths({"videos.v0.title"})).asStream(), served);
  EXPECT_TRUE(waitFor([&] { return served.terminals() > 0; }));
  EXPECT_EQ(served.completes, 1);
  // Neither the process-wide task queue nor the cache queue is held by the digest.
  bool flushed = false;
  taskQueue()->async([&] { cacheQueue()->asyncBarrier([&] { DispatchQueue::main()->async([&] { flushed = true; }); }); });
  EXPECT_TRUE(waitFor([&] { return flushed; }));
  EXPECT_EQ(digested.terminals(), 0);

  // Let the digest walk: it stops at its budget and fails once.
  gated->open();
  ASSERT_TRUE(waitFor([&] { return digested.terminals() > 0; }));
  ASSERT_EQ(digested.failures.size(), 1u);
  EXPECT_TRUE(exceedsWalkBudget(*digested.failures[0].brivetError()));
  EXPECT_EQ(digested.completes, 0);
}

}  // namespace
}  // namespace brivet
