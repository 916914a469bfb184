// The core model driven as an application drives it: through TovInternalModel,
// with a scripted HTTP client, a recording logging delegate and the main queue
// run by the test.
#include <gtest/gtest.h>

#include <chrono>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <regex>
#include <string>
#include <type_traits>
#include <vector>

#include "brivet/core/datasource/data_source.h"
#include "brivet/core/model/testing/tov_doubles.h"
#include "brivet/core/model/tov_model.h"
#include "brivet/platform/json.h"

namespace brivet {
namespace {

using namespace std::chrono_literals;
using testing::json;
using testing::Reply;
using testing::ScriptedHTTPClient;

constexpr const char* kURL = "https://graph.example/model.json";
constexpr const char* kCatalogue = R"({
  "lists": {"top": {"0": {"$type": "ref", "value": ["videos", "v0"]},
                    "1": {"$type": "ref", "value": ["videos", "v1"]}}},
  "videos": {"v0": {"title": "Title 0", "year": 1950}},
  "flag": true})";
// What the server answers for the missing video.
constexpr const char* kVideo1 = R"({"jsonGraph": {"videos": {"v1": {"title": "Title 1"}}}})";

// What a platform-facing subscriber saw, in order (touched on the main queue only).
struct Events {
  std::vector<Object> progress;
  std::vector<std::string> order;
  int completes = 0;
  std::vector<Error> failures;
  bool done() const { return completes + failures.size() > 0; }
};

// What a core subscriber saw.
struct CoreEvents {
  std::vector<JSONEnvelope> progress;
  std::optional<StreamError> failure;
  bool complete = false;
  bool done() const { return complete || failure.has_value(); }
};

::testing::AssertionResult equalsJSON(const Object& actual, const char* expected) {
  if (actual.isEqual(json(expected))) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << actual.description() << " is not " << expected;
}

class TovModelTest : public ::testing::Test {
 protected:
  void SetUp() override { model_ = makeModel(kCatalogue); }

  std::shared_ptr<TovInternalModel> makeModel(const char* cache, std::optional<std::string> url = kURL) {
    auto model = TovBrivet::createTovModelWithUrl(std::move(url), client_, cache ? json(cache) : Object());
    model->setLoggingDelegate(logger_);
    return model;
  }

  static bool waitFor(const std::function<bool()>& done) { return DispatchQueue::main()->runUntil(done, 10s); }
  // Lets every hop of a request (the model's queue, the task queue, the cache queue, the main queue) run out.
  void settle() {
    const std::shared_ptr<DispatchQueue> modelQueue = model_->internalModel().operationQueue();
    for (int round = 0; round < 6; ++round) {
      bool flushed = false;
      modelQueue->async([&] {
        taskQueue()->async(
            [&] { cacheQueue()->asyncBarrier([&] { DispatchQueue::main()->async([&] { flushed = true; }); }); });
      });
      waitFor([&] { return flushed; });
    }
  }

  static std::shared_ptr<TovSubscription> subscribe(const TovStream<JSONEnvelope>& stream, Events& events) {
    return stream.subscribeWithProgressBlock(
        [&events](const Object& dictionary) {
          events.progress.push_back(dictionary);
          events.order.push_back("progress");
        },
        [&events](const std::optional<Error>& error) {
          if (error) {
            events.failures.push_back(*error);
            events.order.push_back("failure");
          } else {
            ++events.completes;
            events.order.push_back("complete");
          }
        });
  }
  Events run(const TovStream<JSONEnvelope>& stream) {
    Events events;
    auto subscription = subscribe(stream, events);
    EXPECT_TRUE(waitFor([&] { return events.done(); }));
    settle();
    return events;
  }
  Events get(const std::vector<std::string>& keyPaths) { return run(model_->getWithKeyPaths(keyPaths)->asStream()); }
  CoreEvents runCore(const std::shared_ptr<Stream<JSONEnvelope>>& stream) {
    CoreEvents events;
    auto subscription = stream->subscribe([&events](const BrivetResult<JSONEnvelope>& result) {
      if (const JSONEnvelope* envelope = result.value()) events.progress.push_back(*envelope);
      if (const StreamError* error = result.error()) events.failure = *error;
      if (result.isComplete()) events.complete = true;
    });
    EXPECT_TRUE(waitFor([&] { return events.done(); }));
    return events;
  }
  CoreEvents getCore(const std::vector<std::string>& keyPaths) {
    return runCore(model_->internalModel().get(PathTree::fromKeyPaths(keyPaths)).asStream());
  }
  static const BrivetError::DataSourceFailureReason* dataSourceReason(const CoreEvents& events) {
    if (!events.failure || !events.failure->isBrivetError()) return nullptr;
    return events.failure->brivetError()->dataSourceReason();
  }

  std::shared_ptr<ScriptedHTTPClient> client_ = std::make_shared<ScriptedHTTPClient>();
  std::shared_ptr<testing::RecordingLoggingDelegate> logger_ = std::make_shared<testing::RecordingLoggingDelegate>();
  std::shared_ptr<TovInternalModel> model_;
};

// --- Get ---

TEST_F(TovModelTest, CachedPathsCompleteWithoutARequest) {
  Events events = get({"lists.top.0.title", "videos.v0.year"});
  EXPECT_EQ(events.order, (std::vector<std::string>{"progress", "complete"}));
  EXPECT_TRUE(equalsJSON(events.progress[0], R"({"lists": {"top": {"0": {"title": "Title 0"}}},
                                                  "videos": {"v0": {"year": 1950}}})"));
  EXPECT_EQ(client_->requestCount(), 0u);
}

TEST_F(TovModelTest, ACachedGetIsAnsweredInOneCrossingAndSeesEarlierWrites) {
  settle();
  // Both queues idle: a block that has run may still be finishing on its worker.
  model_->internalModel().operationQueue()->sync([] {});
  cacheQueue()->syncBarrier([] {});
  Events events;
  auto subscription = subscribe(model_->getWithKeyPaths({"videos.v0.year"})->asStream(), events);
  EXPECT_TRUE(events.order.empty());  // never inside subscribe
  EXPECT_EQ(DispatchQueue::main()->drain(), 1u);
  EXPECT_EQ(events.order, (std::vector<std::string>{"progress", "complete"}));

  // A write still on its way is seen by a get subscribed after it.
  for (int i = 0; i < 20; ++i) {
    model_->internalModel().cache()->merge(
        JSONGraph::fromAny(json((R"({"videos": {"v0": {"year": )" + std::to_string(2000 + i) + "}}}").c_str())));
    Events after = get({"videos.v0.year"});
    ASSERT_EQ(after.order, (std::vector<std::string>{"progress", "complete"}));
    EXPECT_TRUE(equalsJSON(after.progress[0], ("{\"videos\": {\"v0\": {\"year\": " + std::to_string(2000 + i) + "}}}").c_str()));
  }
  EXPECT_EQ(client_->requestCount(), 0u);
}

TEST_F(TovModelTest, ACachedErrorFailsAfterTheValue) {
  model_ = makeModel(R"({"videos": {"v0": {"title": {"$type": "error", "value": {"message": "gone"}}}}})");
  Events events = get({"videos.v0.title"});
  EXPECT_EQ(events.order, (std::vector<std::string>{"progress", "failure"}));
  EXPECT_EQ(events.failures[0].domain(), "BrivetCore.BrivetError");
  EXPECT_EQ(events.failures[0].code(), 1);
  ASSERT_EQ(logger_->errors().size(), 1u);
  EXPECT_EQ(logger_->errors()[0],
            "cache failure: responseJSONGraphFailed (pathBoundErrors): 1 error: at videos.v0.title: "
            "{\"message\":\"gone\"}");
  EXPECT_EQ(client_->requestCount(), 0u);
}

TEST_F(TovModelTest, MissingPathsAreFetchedMergedAndReadAgain) {
  client_->reply = {{json(kVideo1)}, std::nullopt};
  client_->preGET = json(R"({"trace": "t1"})");
  Events events = get({"lists.top.0.title", "lists.top.1.title"});
  EXPECT_EQ(events.order, (std::vector<std::string>{"progress", "complete"}));
  EXPECT_TRUE(equalsJSON(events.progress[0], R"({"lists": {"top": {"0": {"title": "Title 0"},
                                                                    "1": {"title": "Title 1"}}}})"));
  // The missing path as it lies in the graph, by GET, told to the pre-request hook first.
  ASSERT_EQ(client_->requestCount(), 1u);
  const testing::Request request = client_->requests()[0];
  EXPECT_EQ(request.method, "GET");
  EXPECT_EQ(request.url, kURL);
  EXPECT_TRUE(equalsJSON(request.parameters, R"({"path": [["videos", "v1", "title"]]})"));
  ASSERT_EQ(client_->preGETPathSets().size(), 1u);
  EXPECT_TRUE(equalsJSON(client_->preGETPathSets()[0], R"([["videos", "v1", "title"]])"));
  EXPECT_TRUE(equalsJSON(model_->valueForKeyPath("videos.v1.title"), R"("Title 1")"));
  EXPECT_TRUE(logger_->errors().empty());
}

TEST_F(TovModelTest, AProgressiveGetDeliversTheCachedValueFirst) {
  client_->reply = {{json(kVideo1)}, std::nullopt};
  client_->delivery = ScriptedHTTPClient::Delivery::Later;
  Events events = run(model_->getWithKeyPaths({"lists.top.0.title", "lists.top.1.title"})->progressively()->asStream());
  EXPECT_EQ(events.order, (std::vector<std::string>{"progress", "progress", "complete"}));
  EXPECT_TRUE(equalsJSON(events.progress[0].valueForKeyPath("lists.top.0"), R"({"title": "Title 0"})"));
  EXPECT_TRUE(events.progress[0].valueForKeyPath("lists.top.1.title").isNil());
  EXPECT_TRUE(equalsJSON(events.progress[1].valueForKeyPath("lists.top.1"), R"({"title": "Title 1"})"));
}

TEST_F(TovModelTest, PathErrorsInTheAnswerFailAfterItsValues) {
  client_->reply = {{json(R"({"jsonGraph": {"videos": {"v1": {"title": {"$type": "error", "value": "no rights"}},
                                                          "v2": {"title": "Title 2"}}}})")},
                    std::nullopt};
  CoreEvents events = getCore({"videos.v1.title", "videos.v2.title"});
  ASSERT_EQ(events.progress.size(), 1u);
  ASSERT_TRUE(events.failure && events.failure->isBrivetError());
  const BrivetError& error = *events.failure->brivetError();
  ASSERT_EQ(error.kind(), BrivetError::Kind::ResponseJSONGraphFailed);
  ASSERT_EQ(error.jsonGraphReason()->errors().size(), 1u);
  EXPECT_EQ(error.jsonGraphReason()->errors()[0].path, (std::vector<std::string>{"videos", "v1", "title"}));
  ASSERT_EQ(logger_->errors().size(), 1u);
  EXPECT_EQ(logger_->errors()[0], "dataSource failure: " + error.text());
}

TEST_F(TovModelTest, HTTPFailuresBecomeReasonsFromTheirBody) {
  client_->reply = {{}, httpFailure(400, json(R"({"code": "E42", "message": "bad paths"})"))};
  CoreEvents events1 = getCore({"videos.v1.title"});
  const auto* reason = dataSourceReason(events1);
  ASSERT_NE(reason, nullptr);
  EXPECT_EQ(reason->kind(), BrivetError::DataSourceFailureReason::Kind::BadRequest);
  EXPECT_EQ(reason->code(), "E42");

  client_->reply = {{}, httpFailure(500, json(R"({"error": {"message": "bad path", "pql": ["videos", "v1"]}})"))};
  CoreEvents events2 = getCore({"videos.v1.title"});
  reason = dataSourceReason(events2);
  ASSERT_NE(reason, nullptr);
  EXPECT_EQ(reason->kind(), BrivetError::DataSourceFailureReason::Kind::LegacyPathBoundError);
  EXPECT_EQ(reason->pathTree(), PathTree::fromKeyPaths({"videos.v1"}));

  // A status without a readable body: the status and the client's details.
  client_->reply = {{}, httpFailure(503, Object("<html>busy</html>"))};
  CoreEvents events3 = getCore({"videos.v1.title"});
  reason = dataSourceReason(events3);
  ASSERT_NE(reason, nullptr);
  EXPECT_EQ(reason->kind(), BrivetError::DataSourceFailureReason::Kind::HttpClientError);
  EXPECT_EQ(reason->statusCode(), 503);
  EXPECT_TRUE(equalsJSON(reason->userInfo()["errorBody"], R"("<html>busy</html>")"));
}

TEST_F(TovModelTest, ADataSourceFailureReachesTheApplication) {
  client_->reply = {{}, httpFailure(500, json(R"({"code": "E1", "message": "boom"})"))};
  Events events = run(model_->getWithKeyPaths({"lists.top.0.title", "lists.top.1.title"})->progressively()->asStream());
  EXPECT_EQ(events.order, (std::vector<std::string>{"progress", "failure"}));
  EXPECT_EQ(events.failures[0].domain(), "BrivetCore.BrivetError");
  EXPECT_EQ(events.failures[0].code(), 0);
  EXPECT_EQ(logger_->errors(),
            (std::vector<std::string>{
                "dataSource failure: responseDataSourceFailed (badRequest): code \"E1\", message \"boom\""}));

  // An error without HTTP details passes through as the client made it.
  client_->reply = {{}, Error("NetworkDomain", -1001)};
  events = get({"lists.top.1.title"});
  ASSERT_EQ(events.failures.size(), 1u);
  EXPECT_EQ(events.failures[0].domain(), "NetworkDomain");
  EXPECT_EQ(events.failures[0].code(), -1001);
}

TEST_F(TovModelTest, RefreshSendsTheWholeRequest) {
  client_->reply = {{json(R"({"jsonGraph": {"videos": {"v0": {"title": "Fresh"}}}})")}, std::nullopt};
  Events events = run(model_->getWithKeyPaths({"lists.top.0.title"})->refresh()->asStream());
  EXPECT_EQ(events.order, (std::vector<std::string>{"progress", "complete"}));
  EXPECT_TRUE(equalsJSON(events.progress[0], R"({"lists": {"top": {"0": {"title": "Fresh"}}}})"));
  ASSERT_EQ(client_->requestCount(), 1u);
  EXPECT_TRUE(equalsJSON(client_->requests()[0].parameters, R"({"path": [["lists", "top", "0", "title"]]})"));
}

TEST_F(TovModelTest, SkipMergeAnswersFromTheResponseAndLeavesTheCache) {
  client_->reply = {{json(R"({"jsonGraph": {"lists": {"top": {"1": {"$type": "ref", "value": ["videos", "v1"]}}},
                                            "videos": {"v1": {"title": "Title 1"}}}})")},
                    std::nullopt};
  const Object before = model_->getCacheWithKeyPaths(std::nullopt);
  Events events = run(model_->getWithKeyPaths({"lists.top.0.title", "lists.top.1.title"})->skipMerge()->asStream());
  ASSERT_EQ(events.completes, 1);
  EXPECT_TRUE(equalsJSON(events.progress.back(), R"({"lists": {"top": {"0": {"title": "Title 0"},
                                                                        "1": {"title": "Title 1"}}}})"));
  EXPECT_TRUE(model_->getCacheWithKeyPaths(std::nullopt).isEqual(before));
}

TEST_F(TovModelTest, TheAnswersContextTravelsWithItsValues) {
  client_->reply = {{json(R"({"jsonGraph": {"videos": {"v1": {"title": "Title 1"}}}, "context": {"page": 2}})")},
                    std::nullopt};
  Events events = get({"videos.v1.title"});
  ASSERT_EQ(events.progress.size(), 1u);
  EXPECT_TRUE(equalsJSON(events.progress[0], R"({"videos": {"v1": {"title": "Title 1"}}, "context": {"page": 2}})"));
}

TEST_F(TovModelTest, AnAnswerWithoutAGraphIsSkipped) {
  client_->reply = {{json(R"({"graph": {}})"), json(R"({"jsonGraph": [1]})")}, std::nullopt};
  Events events = run(model_->getWithKeyPaths({"videos.v1.title"})->progressively()->asStream());
  EXPECT_EQ(events.order, (std::vector<std::string>{"progress", "complete"}));
}

TEST_F(TovModelTest, NetworkTimingsNeedBothLoggingSwitches) {
  client_->reply = {{json(kVideo1)}, std::nullopt};
  get({"videos.v1.title"});
  EXPECT_TRUE(logger_->infos().empty());  // the network switch is not implemented
  logger_->network = true;
  run(model_->getWithKeyPaths({"videos.v1.title"})->refresh()->asStream());
  ASSERT_EQ(logger_->infos().size(), 1u);
  EXPECT_TRUE(std::regex_match(logger_->infos()[0], std::regex("get remote response, [0-9]+ milliseconds")));
  logger_->enabled = false;
  client_->reply = {{}, httpFailure(500)};
  get({"videos.v1.title"});
  EXPECT_EQ(logger_->infos().size(), 1u);
  EXPECT_TRUE(logger_->errors().empty());
}

// --- Cancellation and missing clients ---

TEST_F(TovModelTest, CancellingBeforeTheTaskRunsSendsNothing) {
  std::mutex gate;
  gate.lock();
  // Keeps the model's queue busy.
  model_->internalModel().operationQueue()->async([&] { std::lock_guard<std::mutex> hold(gate); });
  Events events;
  auto subscription = subscribe(model_->getWithKeyPaths({"lists.top.1.title"})->asStream(), events);
  subscription->cancel();
  gate.unlock();
  settle();
  EXPECT_TRUE(events.order.empty());
  EXPECT_EQ(client_->requestCount(), 0u);
}

TEST_F(TovModelTest, CancellingInFlightCancelsTheClientsRequest) {
  client_->delivery = ScriptedHTTPClient::Delivery::Held;
  client_->reply = {{json(kVideo1)}, std::nullopt};
  const std::uint64_t version = model_->version();
  Events events;
  auto subscription = subscribe(model_->getWithKeyPaths({"lists.top.1.title"})->asStream(), events);
  ASSERT_TRUE(waitFor([&] { return client_->heldCount() == 1; }));
  subscription->cancel();
  EXPECT_EQ(client_->aborted(), 1);
  client_->releaseHeld();
  settle();
  EXPECT_TRUE(events.order.empty());
  EXPECT_EQ(model_->version(), version);
}

TEST_F(TovModelTest, TheClientsCancelReleasesAFinishedRequest) {
  client_->reply = {{json(kVideo1)}, std::nullopt};
  get({"videos.v1.title"});
  EXPECT_EQ(client_->cancels(), 1);
  EXPECT_EQ(client_->aborted(), 0);
}

TEST_F(TovModelTest, AClientReleasedBeforeTheRequestFailsIt) {
  model_->internalModel();  // first used while the client lives: the model has a data source
  client_.reset();
  CoreEvents events4 = getCore({"lists.top.1.title"});
  const auto* reason = dataSourceReason(events4);
  ASSERT_NE(reason, nullptr);
  EXPECT_EQ(reason->kind(), BrivetError::DataSourceFailureReason::Kind::HttpClientNil);
  Events events = get({"lists.top.1.title"});
  ASSERT_EQ(events.failures.size(), 1u);
  EXPECT_EQ(events.failures[0].code(), 0);
  // Data still in the cache is answered as before.
  EXPECT_EQ(get({"lists.top.0.title"}).completes, 1);
}

TEST_F(TovModelTest, AModelFirstUsedWithoutItsClientIsCacheOnly) {
  client_.reset();
  Events events = get({"lists.top.0.title", "lists.top.1.title"});
  EXPECT_EQ(events.order, (std::vector<std::string>{"progress", "complete"}));
  EXPECT_TRUE(equalsJSON(events.progress[0].valueForKeyPath("lists.top.0.title"), R"("Title 0")"));
}

TEST_F(TovModelTest, AModelWithoutAURLAnswersFromItsCache) {
  model_ = makeModel(kCatalogue, std::nullopt);
  EXPECT_EQ(get({"lists.top.0.title"}).completes, 1);
  Events events = get({"lists.top.0.title", "lists.top.1.title"});
  EXPECT_EQ(events.order, (std::vector<std::string>{"progress", "complete"}));
  EXPECT_TRUE(events.progress[0].valueForKeyPath("lists.top.1.title").isNil());
  EXPECT_EQ(client_->requestCount(), 0u);
  EXPECT_FALSE(model_->url().has_value());
}

TEST_F(TovModelTest, WithoutDataSourceSharesTheCacheAndNeverFetches) {
  auto local = model_->withoutDataSource();
  ASSERT_NE(local, nullptr);
  EXPECT_EQ(local->loggingDelegate(), logger_);
  EXPECT_EQ(local->httpClient(), nullptr);
  Events events = run(local->getWithKeyPaths({"lists.top.1.title"})->asStream());
  EXPECT_EQ(events.order, (std::vector<std::string>{"progress", "complete"}));
  events = run(local->callFunctionWithKeyPath("lists.add", std::nullopt, std::nullopt, std::nullopt)->asStream());
  EXPECT_EQ(events.order, (std::vector<std::string>{"complete"}));
  local->setValueForKeyPath(Object("Title 9"), "videos.v9.title");
  EXPECT_TRUE(equalsJSON(model_->valueForKeyPath("videos.v9.title"), R"("Title 9")"));
  EXPECT_EQ(client_->requestCount(), 0u);
}

// --- Set ---

TEST_F(TovModelTest, ASetWritesAtOnceAndDeliversTheServersValue) {
  client_->reply = {{json(R"({"jsonGraph": {"videos": {"v0": {"title": "Server title"}}}})")}, std::nullopt};
  Events events = run(model_->setWithValue(json(R"({"videos": {"v0": {"title": "Mine"}}})"))->asStream());
  EXPECT_EQ(events.order, (std::vector<std::string>{"progress", "complete"}));
  EXPECT_TRUE(equalsJSON(events.progress[0], R"({"videos": {"v0": {"title": "Server title"}}})"));
  ASSERT_EQ(client_->requestCount(), 1u);
  EXPECT_EQ(client_->requests()[0].method, "POST");
  EXPECT_TRUE(equalsJSON(client_->requests()[0].parameters,
                         R"({"method": "set", "param": {"videos": {"v0": {"title": "Mine"}}}})"));
}

TEST_F(TovModelTest, AProgressiveSetSkipsAnAnswerThatChangesNothing) {
  const char* mine = R"({"jsonGraph": {"videos": {"v0": {"title": "Mine"}}}})";
  client_->reply = {{json(mine)}, std::nullopt};
  Events events =
      run(model_->setWithValue(json(R"({"videos": {"v0": {"title": "Mine"}}})"))->progressively()->asStream());
  EXPECT_EQ(events.order, (std::vector<std::string>{"progress", "complete"}));

  client_->reply = {{json(R"({"jsonGraph": {"videos": {"v0": {"title": "Theirs"}}}})")}, std::nullopt};
  events =
      run(model_->setWithValue(json(R"({"videos": {"v0": {"title": "Mine again"}}})"))->progressively()->asStream());
  EXPECT_EQ(events.order, (std::vector<std::string>{"progress", "progress", "complete"}));
  EXPECT_TRUE(equalsJSON(events.progress[0], R"({"videos": {"v0": {"title": "Mine again"}}})"));
  EXPECT_TRUE(equalsJSON(events.progress[1], R"({"videos": {"v0": {"title": "Theirs"}}})"));
}

TEST_F(TovModelTest, AFailedSetKeepsItsLocalWrite) {
  client_->reply = {{}, httpFailure(500)};
  Events events = run(model_->setWithValue(json(R"({"videos": {"v0": {"title": "Mine"}}})"))->asStream());
  EXPECT_EQ(events.order, (std::vector<std::string>{"failure"}));
  EXPECT_TRUE(equalsJSON(model_->valueForKeyPath("videos.v0.title"), R"("Mine")"));
}

TEST_F(TovModelTest, ASetWithoutADataSourceIsALocalWrite) {
  model_ = makeModel(kCatalogue, std::nullopt);
  Events events = run(model_->setWithValue(json(R"({"videos": {"v3": {"title": "Three"}}})"))->asStream());
  EXPECT_EQ(events.order, (std::vector<std::string>{"progress", "complete"}));
  EXPECT_TRUE(equalsJSON(model_->valueForKeyPath("videos.v3.title"), R"("Three")"));
}

TEST_F(TovModelTest, SetParametersThatAreNotJSONAreReportedAndSent) {
  client_->reply = {{}, std::nullopt};
  run(model_->setWithValue(Object::dictionary())->asStream());
  EXPECT_TRUE(equalsJSON(client_->requests()[0].parameters, R"({"method": "set", "param": {}})"));
  ::testing::internal::CaptureStdout();
  run(model_->setWithValue(Object::dictionary({{"ratio", Object(std::numeric_limits<double>::quiet_NaN())}}))
          ->asStream());
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "json serialization error\n");
  EXPECT_EQ(client_->requestCount(), 2u);
}

// --- Call ---

TEST_F(TovModelTest, CallParametersCarryTheArgumentsAndOptionalPaths) {
  client_->reply = {{}, std::nullopt};
  run(model_
          ->callFunctionWithKeyPath("lists.add", std::vector<Object>{json(R"({"name": "x"})"), Object("y"), Object(3)},
                                    std::vector<std::string>{"title"}, std::vector<std::string>{"length"})
          ->asStream());
  run(model_->callFunctionWithKeyPath("lists..add", std::nullopt, std::nullopt, std::nullopt)->asStream());
  ASSERT_EQ(client_->requestCount(), 2u);
  EXPECT_EQ(client_->requests()[0].method, "POST");
  EXPECT_TRUE(equalsJSON(client_->requests()[0].parameters, R"({"method": "call", "param": ["{\"name\":\"x\"}", "y", 3],
      "callPath": ["lists", "add"], "path": [["length"]], "pathSuffix": [["title"]]})"));
  EXPECT_TRUE(equalsJSON(client_->requests()[1].parameters,
                         R"({"method": "call", "param": [], "callPath": ["lists", "add"]})"));
}

TEST_F(TovModelTest, ACallInvalidatesBeforeItMergesAndReadsTheNamedPaths) {
  client_->reply = {{json(R"({"jsonGraph": {"videos": {"v0": {"title": "New"}}}, "paths": [["videos", "v0", "title"]],
                              "invalidated": [["videos", "v0"]]})")},
                    std::nullopt};
  Events events =
      run(model_->callFunctionWithKeyPath("videos.rename", std::nullopt, std::nullopt, std::nullopt)->asStream());
  EXPECT_EQ(events.order, (std::vector<std::string>{"progress", "complete"}));
  EXPECT_TRUE(equalsJSON(events.progress[0], R"({"videos": {"v0": {"title": "New"}}})"));
  EXPECT_TRUE(equalsJSON(model_->valueForKeyPath("videos.v0.title"), R"("New")"));
  EXPECT_TRUE(model_->valueForKeyPath("videos.v0.year").isNil());
}

// --- The completion-style calls ---

TEST_F(TovModelTest, OptionsChooseHowTheAnswerMeetsTheCache) {
  client_->reply = {{json(R"({"jsonGraph": {"lists": {"top": {"1": {"$type": "ref", "value": ["videos", "v1"]}}},
                                            "videos": {"v0": {"title": "Fresh"}, "v1": {"title": "Title 1"}}}})")},
                    std::nullopt};
  Object result;
  int completions = 0;
  auto remember = [&](const Object& dictionary, const std::optional<Error>& error) {
    EXPECT_FALSE(error.has_value());
    result = dictionary;
    ++completions;
  };
  const std::uint64_t version = model_->version();
  model_->getKeyPath("lists.top.1.title", TovModelOption::NoCache, remember);
  ASSERT_TRUE(waitFor([&] { return completions == 1; }));
  EXPECT_TRUE(equalsJSON(result.valueForKeyPath("lists.top.1.title"), R"("Title 1")"));
  EXPECT_EQ(model_->version(), version);  // not merged

  model_->getKeyPaths({"lists.top.0.title"}, TovModelOption::ForceRemote, remember);
  ASSERT_TRUE(waitFor([&] { return completions == 2; }));
  EXPECT_TRUE(equalsJSON(result, R"({"lists": {"top": {"0": {"title": "Fresh"}}}})"));
  EXPECT_TRUE(equalsJSON(client_->requests()[1].parameters, R"({"path": [["lists", "top", "0", "title"]]})"));

  model_->getKeyPaths({"lists.top.1.title"}, remember);
  ASSERT_TRUE(waitFor([&] { return completions == 3; }));
  EXPECT_TRUE(equalsJSON(model_->valueForKeyPath("videos.v1.title"), R"("Title 1")"));
  settle();
  EXPECT_EQ(completions, 3);

  EXPECT_EQ(tovModelOptionFromRawValue(2), TovModelOption::ForceRemote);
  EXPECT_FALSE(tovModelOptionFromRawValue(3).has_value());
  EXPECT_FALSE(tovModelOptionFromRawValue(-1).has_value());
}

TEST_F(TovModelTest, ACompletionGetsTheLastProgressOnce) {
  client_->reply = {{json(R"({"jsonGraph": {"videos": {"v1": {"title": "A"}}}})"),
                     json(R"({"jsonGraph": {"videos": {"v1": {"title": "B"}}}})")},
                    std::nullopt};
  client_->delivery = ScriptedHTTPClient::Delivery::Later;
  std::vector<Object> results;
  model_->getKeyPath("videos.v1.title",
                     [&](const Object& dictionary, const std::optional<Error>&) { results.push_back(dictionary); });
  ASSERT_TRUE(waitFor([&] { return !results.empty(); }));
  settle();
  ASSERT_EQ(results.size(), 1u);
  EXPECT_TRUE(equalsJSON(results[0], R"({"videos": {"v1": {"title": "B"}}})"));

  client_->reply = {{}, httpFailure(404)};
  std::optional<Error> failure;
  model_->getKeyPath("videos.v2.title", [&](const Object& dictionary, const std::optional<Error>& error) {
    EXPECT_TRUE(dictionary.isNil());
    failure = error;
  });
  ASSERT_TRUE(waitFor([&] { return failure.has_value(); }));
  EXPECT_EQ(failure->code(), 0);
}

TEST_F(TovModelTest, CallFunctionReportsTheNamedValues) {
  client_->reply = {{json(R"({"jsonGraph": {"lists": {"top": {"2": {"$type": "ref", "value": ["videos", "v0"]}}}},
                              "paths": [["lists", "top", "2", "title"]]})")},
                    std::nullopt};
  Object result;
  bool done = false;
  model_->callFunction(
      TovFunctionCall("lists.top.push", std::vector<Object>{Object("v0")}, std::vector<std::string>{"title"}),
      std::vector<std::string>{"length"}, [&](const Object& dictionary, const std::optional<Error>& error) {
        EXPECT_FALSE(error.has_value());
        result = dictionary;
        done = true;
      });
  ASSERT_TRUE(waitFor([&] { return done; }));
  EXPECT_TRUE(equalsJSON(result, R"({"lists": {"top": {"2": {"title": "Title 0"}}}})"));
  EXPECT_TRUE(equalsJSON(client_->requests()[0].parameters, R"({"method": "call", "param": ["v0"],
      "callPath": ["lists", "top", "push"], "path": [["length"]], "pathSuffix": [["title"]]})"));
}

// --- The cache, synchronously ---

TEST_F(TovModelTest, SynchronousReadsAnswerFromTheCacheOnly) {
  EXPECT_EQ(model_->valuesForKeyPaths({"lists.top.0.title", "lists.top.1.title"}, std::nullopt, true).size(), 2u);
  const std::vector<Object> filled = model_->valuesForKeyPaths({"lists.top.0.title", "lists.top.1.title"});
  EXPECT_TRUE(equalsJSON(filled[0], R"("Title 0")"));
  EXPECT_TRUE(filled[1].isNull());
  const std::vector<Object> skipped =
      model_->valuesForKeyPaths({"lists.top.0.title", "lists.top.1.title"}, std::nullopt, false);
  ASSERT_EQ(skipped.size(), 1u);
  // The cache is read for the optimised key paths; the key paths pick from what was read.
  const std::vector<Object> optimised = model_->valuesForKeyPaths(
      {"videos.v0.year"}, std::vector<std::string>{"videos.v0.title", "videos.v0.year"}, true);
  EXPECT_TRUE(equalsJSON(optimised[0], "1950"));
  EXPECT_TRUE(
      model_->valuesForKeyPaths({"videos.v0.year"}, std::vector<std::string>{"videos.v0.title"}, true)[0].isNull());
  EXPECT_TRUE(model_->valueForKeyPath("lists.top.@range(0,1).title").isNil());
  EXPECT_TRUE(model_->valueForKeyPath("videos.v0").isNil());  // a branch
  EXPECT_TRUE(equalsJSON(model_->valueForKey("flag"), "true"));
  EXPECT_EQ(client_->requestCount(), 0u);
}

TEST_F(TovModelTest, AnErrorLeafDoesNotHideOtherValues) {
  model_ = makeModel(R"({"videos": {"v0": {"title": {"$type": "error", "value": "gone"}, "year": 1950}}})");
  const std::vector<Object> values = model_->valuesForKeyPaths({"videos.v0.title", "videos.v0.year"});
  ASSERT_EQ(values.size(), 2u);
  EXPECT_TRUE(values[0].isNull());
  EXPECT_TRUE(equalsJSON(values[1], "1950"));
}

TEST_F(TovModelTest, SynchronousWritesAreSeenByTheNextRead) {
  const std::uint64_t version = model_->version();
  model_->setValueForKeyPath(Object("T5"), "videos.v5.title");
  EXPECT_TRUE(equalsJSON(model_->valueForKeyPath("videos.v5.title"), R"("T5")"));
  model_->setValueForKeyPath(Object(), "videos.v5.title");
  EXPECT_TRUE(model_->valueForKeyPath("videos.v5.title").isNil());
  model_->setValueForKeyPath(Object("x"), "lists.@range(0,1)");  // ignored
  model_->setValueForKey(Object(3), "count");
  EXPECT_TRUE(equalsJSON(model_->valueForKey("count"), "3"));
  model_->mergeJSONDictionaryIntoModel(json(R"({"videos": {"v7": {"title": {"$type": "atom", "value": "Seven"}}}})"));
  EXPECT_TRUE(equalsJSON(model_->valueForKeyPath("videos.v7.title"), R"("Seven")"));
  model_->invalidateWithKeyPaths({"videos.v7.title"});
  EXPECT_TRUE(model_->valueForKeyPath("videos.v7.title").isNil());
  EXPECT_GT(model_->version(), version);
}

TEST_F(TovModelTest, SnapshotsGoOutAndComeBack) {
  auto fresh = makeModel(nullptr);
  EXPECT_TRUE(equalsJSON(fresh->getCacheWithKeyPaths(std::nullopt), R"({"jsonGraph": {}, "$_version": 1})"));
  EXPECT_TRUE(equalsJSON(model_->getCacheWithKeyPaths(std::vector<std::string>{"videos.v0.year"}),
                         R"({"jsonGraph": {"videos": {"v0": {"year": 1950}}}, "$_version": 1})"));

  Result<std::string> text = model_->serializeCacheWithKeyPaths(std::nullopt);
  ASSERT_TRUE(text.ok());
  Result<SnapshotReport> restored = fresh->deserializeCache(text.value());
  ASSERT_TRUE(restored.ok());
  EXPECT_EQ(restored->description(), "restored");
  EXPECT_TRUE(equalsJSON(fresh->valueForKeyPath("lists.top.0.title"), R"("Title 0")"));

  // JSON, but no snapshot: ignored without an error; the report says why.
  Result<SnapshotReport> array = fresh->deserializeCache("[]");
  ASSERT_TRUE(array.ok());
  EXPECT_EQ(array->description(), "not restored: the snapshot is not a dictionary");
  Result<SnapshotReport> broken = fresh->deserializeCache("{\"jsonGraph\":");
  ASSERT_FALSE(broken.ok());
  EXPECT_EQ(broken.error().domain(), kJSONErrorDomain);

  EXPECT_EQ(fresh->setCache(json(R"({"jsonGraph": {}})")).refusal, "no \"$_version\" number");
  EXPECT_TRUE(equalsJSON(fresh->valueForKeyPath("lists.top.0.title"), R"("Title 0")"));
  EXPECT_TRUE(fresh->setCache(json(R"({"jsonGraph": {"a": 1}, "$_version": 0})")).restored());
  EXPECT_EQ(fresh->version(), 0u);
  EXPECT_TRUE(equalsJSON(fresh->valueForKey("a"), "1"));
}

TEST_F(TovModelTest, FactoryArgumentsReachTheModel) {
  auto model = TovBrivet::createTovModelWithUrl(kURL, client_, Object(), std::vector<std::string>{"raw", "config"});
  EXPECT_EQ(model->prefixes(), (std::vector<std::string>{"config", "raw"}));
  EXPECT_EQ(model->httpClient(), client_);
  EXPECT_EQ(model->url(), kURL);
  EXPECT_EQ(model->loggingDelegate(), nullptr);
  EXPECT_EQ(model->maxRetries(), 0);
  static_assert(!std::is_default_constructible_v<TovFunctionCall>);
  static_assert(!std::is_default_constructible_v<TovBrivet>);
  static_assert(!std::is_default_constructible_v<TovHTTPDataSourceResponseStream>);
}

}  // namespace
}  // namespace brivet
