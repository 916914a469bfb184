// The legacy model's requests: get options, data-source parameters, responses, errors and their delivery.
#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "brivet/legacy/model.h"
#include "brivet/legacy/testing/legacy_doubles.h"
#include "brivet/platform/identifier.h"

namespace brivet {
namespace {

using ::brivet::testing::Completions;
using ::brivet::testing::CountingOperation;
using ::brivet::testing::json;
using ::brivet::testing::RecordingLogger;
using ::brivet::testing::RecordingTracer;
using ::brivet::testing::ScriptedDataSource;
using ::brivet::testing::ScriptedResponse;
using Strings = std::vector<std::string>;

class LegacyLoaderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    model->setDataSource(dataSource);
    model->setLoggingDelegate(logger);
    model->setPerformanceTraceDelegate(tracer);
    model->mergeJSONDictionaryIntoModel(json(R"({"videos": {"v1": {"title": "One", "year": 2001}}})"));
  }

  void respondWith(std::string_view results) { dataSource->response = ScriptedResponse{json(results), Object(), {}}; }

  // The key paths of every get the data source received, as sent (the array-form texts).
  Strings fetchedPaths() {
    Strings paths;
    for (const Object& params : dataSource->getParams()) {
      for (const Object& path : *params["path"].asArray()) paths.emplace_back(path.stringValue());
    }
    return paths;
  }

  Object get(Strings keyPaths, BrivetModelOption option, std::size_t completions = 1) {
    Completions done;
    model->getKeyPaths(keyPaths, option, std::nullopt, done.callback());
    EXPECT_TRUE(done.waitFor(completions));
    EXPECT_TRUE(done.allOnMainQueue());
    flush();
    last = done;
    return done.results().empty() ? Object() : done.results().back();
  }

  // Completions reach the main queue before the response block has ended its trace; a read on the model's
  // queue waits for that block.
  void flush() { model->valueForKey("-"); }

  std::shared_ptr<BrivetModel> model = BrivetModel::create();
  std::shared_ptr<ScriptedDataSource> dataSource = std::make_shared<ScriptedDataSource>();
  std::shared_ptr<RecordingLogger> logger = std::make_shared<RecordingLogger>();
  std::shared_ptr<RecordingTracer> tracer = std::make_shared<RecordingTracer>();
  Completions last;
};

TEST_F(LegacyLoaderTest, MissingKeyPathsAreReportedAtOnceOnTheCallersThread) {
  bool called = false;
  const Object subscription = model->getKeyPaths(std::nullopt, BrivetModelOptionDefault, std::nullopt,
                                                 [&](Object result, std::optional<Error> error) {
                                                   called = true;
                                                   EXPECT_TRUE(result.isNil());
                                                   ASSERT_TRUE(error.has_value());
                                                   EXPECT_EQ(error->domain(), kReverseDomain);
                                                   EXPECT_EQ(error->code(), -999);
                                                   EXPECT_EQ(error->localizedDescription(),
                                                             "BrivetModel:getKeyPaths ERROR: 'keyPaths' argument not "
                                                             "specified.");
                                                 });
  EXPECT_TRUE(called);
  EXPECT_TRUE(subscription.isNil());
  EXPECT_EQ(logger->errors(), Strings{"BrivetModel:getKeyPaths ERROR: 'keyPaths' argument not specified."});
}

TEST_F(LegacyLoaderTest, DefaultOptionAnswersFromTheCacheWhenNothingIsMissing) {
  const Object result = get({"videos.v1.title", "videos.v1.year"}, BrivetModelOptionDefault);
  EXPECT_TRUE(result.isEqual(json(R"({"videos": {"v1": {"title": "One", "year": 2001}}})")));
  EXPECT_TRUE(dataSource->getParams().empty());
  ASSERT_EQ(tracer->ends().size(), 1u);
  EXPECT_TRUE(tracer->ends()[0].cached);
  EXPECT_EQ(tracer->ends()[0].taskName, "videos.v1.title, videos.v1.year");
  EXPECT_EQ(tracer->ends()[0].uuid, tracer->begins()[0].second);
}

TEST_F(LegacyLoaderTest, DefaultOptionFetchesOnlyMissingAndExpiredPaths) {
  dataSource->expiration = true;
  model->mergeJSONDictionaryIntoModel(json(R"({"videos": {"v1": {"art": {"$type": "leaf", "$expires": 0, "u": 1}}}})"));
  respondWith(R"({"value": {"videos": {"v1": {"art": {"$type": "leaf", "u": 2}}, "v2": {"title": "Two"}}}})");
  const Object subscription = model->getKeyPaths(Strings{"videos.v1.title", "videos.v1.art.u", "videos.v2.title"},
                                                 std::nullopt, last.callback());
  EXPECT_TRUE(subscription.isNil());  // the scripted source hands back no subscription object
  ASSERT_TRUE(last.waitFor(1));
  flush();
  EXPECT_EQ(fetchedPaths(), (Strings{R"(["videos","v1","art","u"])", R"(["videos","v2","title"])"}));
  EXPECT_TRUE(last.results()[0].isEqual(
      json(R"({"videos": {"v1": {"title": "One", "art": {"u": 2}}, "v2": {"title": "Two"}}})")));
  EXPECT_FALSE(tracer->ends()[0].cached);
}

TEST_F(LegacyLoaderTest, NoCacheAnswersFromTheResponseAndLeavesTheCacheAlone) {
  respondWith(R"({"value": {"videos": {"v1": {"title": "Fresh"}}}})");
  dataSource->response.extra = json(R"({"requestId": "r1"})");
  const Object result = get({"videos.v1.title"}, BrivetModelOptionNoCache);
  EXPECT_TRUE(result.isEqual(json(R"({"videos": {"v1": {"title": "Fresh"}}, "requestId": "r1"})")));
  EXPECT_EQ(model->valueForKeyPath("videos.v1.title").stringValue(), "One");
  EXPECT_EQ(fetchedPaths(), Strings{R"(["videos","v1","title"])"});
}

TEST_F(LegacyLoaderTest, ForceRemoteMergesAndAnswersFromTheCache) {
  respondWith(R"({"value": {"videos": {"v1": {"title": "Fresh"}}}})");
  const Object result = get({"videos.v1.title", "videos.v1.year"}, BrivetModelOptionForceRemote);
  EXPECT_TRUE(result.isEqual(json(R"({"videos": {"v1": {"title": "Fresh", "year": 2001}}})")));
  EXPECT_EQ(model->valueForKeyPath("videos.v1.title").stringValue(), "Fresh");
  EXPECT_EQ(fetchedPaths().size(), 2u);
}

TEST_F(LegacyLoaderTest, ReturnCacheDataAndFetchAnswersTwice) {
  respondWith(R"({"value": {"videos": {"v1": {"title": "Fresh"}}}})");
  dataSource->delivery = ScriptedDataSource::Delivery::Later;
  get({"videos.v1.title"}, BrivetModelOptionReturnCacheDataAndFetch, 2);
  ASSERT_EQ(last.results().size(), 2u);
  EXPECT_EQ(last.results()[0].valueForKeyPath("videos.v1.title").stringValue(), "One");
  EXPECT_EQ(last.results()[1].valueForKeyPath("videos.v1.title").stringValue(), "Fresh");
  EXPECT_EQ(model->valueForKeyPath("videos.v1.title").stringValue(), "Fresh");
}

TEST_F(LegacyLoaderTest, CacheOnlyAndOutOfRangeOptionsNeverFetch) {
  for (const auto option : {BrivetModelOptionReturnCacheDataDontFetch, static_cast<BrivetModelOption>(7),
                            static_cast<BrivetModelOption>(-1)}) {
    const Object result = get({"videos.v1.title", "videos.v9.title"}, option);
    EXPECT_TRUE(result.isEqual(json(R"({"videos": {"v1": {"title": "One"}}})")));
  }
  EXPECT_TRUE(dataSource->getParams().empty());
  // Without a completion, nothing is read at all.
  EXPECT_TRUE(
      model->getKeyPaths(Strings{"videos.v1.title"}, BrivetModelOptionReturnCacheDataDontFetch, std::nullopt, nullptr)
          .isNil());
}

TEST_F(LegacyLoaderTest, GetParametersCarryTheHookAndTheArrayFormOfEachPath) {
  dataSource->preGet = json(R"({"lang": "fr", "path": "overridden"})");
  dataSource->subscription = Object(std::make_shared<CountingOperation>());
  respondWith(R"({"value": {}})");
  const Object subscription =
      model->getKeyPaths(Strings{"lists.top.@range(0,2).title"}, BrivetModelOptionForceRemote, "task", nullptr);
  EXPECT_TRUE(subscription.isIdentical(dataSource->subscription));
  ASSERT_EQ(dataSource->getParams().size(), 1u);
  EXPECT_TRUE(dataSource->getParams()[0].isEqual(
      json(R"({"lang": "fr", "path": ["[\"lists\",\"top\",{\"from\":0,\"to\":2},\"title\"]"]})")));
  EXPECT_EQ(dataSource->preGetKeyPaths(), std::vector<Strings>{Strings{"lists.top.@range(0,2).title"}});
  EXPECT_EQ(tracer->begins()[0].first, "task");
}

TEST_F(LegacyLoaderTest, AnswersFromAnotherThreadArriveOnTheMainQueue) {
  respondWith(R"({"value": {"videos": {"v2": {"title": "Two"}}}})");
  dataSource->delivery = ScriptedDataSource::Delivery::Later;
  const Object result = get({"videos.v2.title"}, BrivetModelOptionDefault);
  EXPECT_EQ(result.valueForKeyPath("videos.v2.title").stringValue(), "Two");
}

TEST_F(LegacyLoaderTest, DataSourceErrorsPassThroughUnchanged) {
  const Error failure("network", 7);
  dataSource->response = ScriptedResponse{Object(), Object(), failure};
  get({"videos.v2.title"}, BrivetModelOptionDefault);
  EXPECT_TRUE(last.results()[0].isNil());
  EXPECT_EQ(last.errors()[0], failure);
  EXPECT_EQ(tracer->ends()[0].error, failure);
}

TEST_F(LegacyLoaderTest, WithoutADataSourceTheFetchFailsOnTheMainQueue) {
  model->setDataSource(nullptr);
  get({"videos.v2.title"}, BrivetModelOptionDefault);
  ASSERT_TRUE(last.errors()[0].has_value());
  EXPECT_EQ(last.errors()[0]->localizedDescription(),
            "BrivetLoader:fetchKeyPaths ERROR: 'data source' is not specified.");
  EXPECT_EQ(logger->errors(), Strings{"BrivetLoader:fetchKeyPaths ERROR: 'data source' is not specified."});
}

TEST_F(LegacyLoaderTest, PathBoundErrorsFailExceptOnTheConfigPath) {
  respondWith(R"({"error": {"message": "no such video", "pql": ["videos", "v2"]}, "value": {"x": 1}})");
  get({"videos.v2.title"}, BrivetModelOptionDefault);
  EXPECT_EQ(last.errors()[0]->localizedDescription(), "no such video");
  EXPECT_EQ(last.errors()[0]->code(), -999);
  EXPECT_TRUE(model->valueForKey("x").isNil());  // nothing merged after a failure

  respondWith(R"({"error": {"pql": ["videos"]}})");
  get({"videos.v2.title"}, BrivetModelOptionDefault);
  EXPECT_TRUE(last.errors()[0]->userInfo().isNil());

  respondWith(R"({"error": {"message": "ignored", "pql": ["config"]}, "value": {"videos": {"v2": {"title": "T"}}}})");
  EXPECT_EQ(get({"videos.v2.title"}, BrivetModelOptionDefault).valueForKeyPath("videos.v2.title").stringValue(), "T");
  EXPECT_FALSE(last.errors()[0].has_value());
}

// Responses a data source might hand back, however malformed: each gives an error or is ignored, never a crash.
TEST_F(LegacyLoaderTest, MalformedGetResponses) {
  const std::string valueError =
      "BrivetModel:valueFromResults ERROR: Value for results key 'value' is not null or of type MutableDictionary.";
  struct Case {
    const char* results;
    const char* error;  // the error's message; "" for an error without one; nullptr for none
    bool answered;      // a result dictionary was handed back
  };
  const Case cases[] = {
      {"null", nullptr, false},  // no "value" at all: neither a result nor an error
      {"[]", nullptr, false},
      {"{}", nullptr, false},
      {R"({"value": null})", nullptr, false},
      {R"({"value": "text"})", valueError.c_str(), false},
      {R"({"value": [1, 2]})", valueError.c_str(), false},
      {R"({"value": 3})", valueError.c_str(), false},
      {R"({"error": "a string", "value": {}})", nullptr, true},
      {R"({"error": {"pql": "config", "message": 5}})", "", false},
      {R"({"error": [], "value": {"videos": [1, {"a": null}]}})", nullptr, true},
      {R"({"value": {"videos": {"v1": {"title": null, "year": ["x"], "art": {"$type": 1}}}}})", nullptr, true},
      {R"({"value": {"videos": {"v1": ["videos", "v1"], "v2": [], "v3": [null, "x"]}}})", nullptr, true},
      {R"({"value": {"a": {"$expires": "soon", "$type": "leaf"}, "b": {"$expires": -1e308}}})", nullptr, true},
  };
  dataSource->expiration = true;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.results);
    respondWith(c.results);
    get({"videos.v1.title"}, BrivetModelOptionForceRemote);
    ASSERT_EQ(last.errors()[0].has_value(), c.error != nullptr);
    if (c.error != nullptr && *c.error != '\0') {
      EXPECT_EQ(last.errors()[0]->localizedDescription(), c.error);
    } else if (c.error != nullptr) {
      EXPECT_TRUE(last.errors()[0]->userInfo().isNil());
    }
    EXPECT_EQ(last.results()[0].isDictionary(), c.answered);
  }
  // An immutable dictionary is not accepted either.
  dataSource->response = ScriptedResponse{Object::dictionary({{"value", Object::dictionary()}}), Object(), {}};
  get({"videos.v1.title"}, BrivetModelOptionForceRemote);
  EXPECT_EQ(last.errors()[0]->localizedDescription(), valueError);
}

class LegacyCallTest : public LegacyLoaderTest {
 protected:
  Object call(std::shared_ptr<const BrivetFunctionCall> function, std::optional<Strings> fetch = std::nullopt) {
    Completions done;
    model->callFunction(std::move(function), fetch, done.callback());
    EXPECT_TRUE(done.waitFor(1));
    flush();
    last = done;
    return done.results().empty() ? Object() : done.results()[0];
  }
  static std::shared_ptr<const BrivetFunctionCall> function(std::optional<std::vector<Object>> arguments,
                                                            std::optional<Strings> suffixes = std::nullopt) {
    return std::make_shared<BrivetFunctionCall>("lists.add", std::move(arguments), std::move(suffixes), "adding");
  }
};

TEST_F(LegacyCallTest, CallParametersFollowTheTable) {
  dataSource->preCall = json(R"({"token": "t", "method": "overridden"})");
  respondWith(R"({"value": {}})");
  call(function(std::vector<Object>{json(R"({"a": 1})"), Object(5), Object("s")}, Strings{"name", "@range(0,1).x"}),
       Strings{"lists.length"});
  ASSERT_EQ(dataSource->callParams().size(), 1u);
  EXPECT_TRUE(dataSource->callParams()[0].isEqual(json(R"({
      "token": "t", "method": "call", "callPath": "[\"lists\",\"add\"]",
      "param": ["{\"a\":1}", "\"5\"", "\"s\""],
      "pathSuffix": "[\"name\"],[{\"from\":0,\"to\":1},\"x\"]",
      "path": ["[\"lists\",\"length\"]"]})")));
  EXPECT_EQ(tracer->begins()[0].first, "adding");

  call(function(std::nullopt));
  const Object bare = dataSource->callParams()[1];
  EXPECT_EQ(bare["param"].stringValue(), "null");
  EXPECT_TRUE(bare["pathSuffix"].isNil());
  EXPECT_TRUE(bare["path"].isNil());
}

TEST_F(LegacyCallTest, InvalidatedPathsAreClearedAndTheAnswerIsReadForThePaths) {
  model->mergeJSONDictionaryIntoModel(json(R"({"lists": {"length": 1, "0": ["videos", "v1"]}})"));
  respondWith(R"({"invalidated": [["lists", "length"], "not-a-path", [1]],
                  "value": {"lists": {"1": ["videos", "v3"]}, "videos": {"v3": {"title": "Three"}}},
                  "paths": [["lists", 1, "title"], "junk", [["lists"], {"from": 0, "to": 9000000000000}, "title"]]})");
  const Object answer = call(function(std::nullopt));
  EXPECT_TRUE(answer.isEqual(json(R"({"lists": {"1": {"title": "Three"}}})")));
  EXPECT_TRUE(model->valueForKeyPath("lists.length").isNil());
  EXPECT_EQ(model->valueForKeyPath("lists.1.title").stringValue(), "Three");
  EXPECT_EQ(model->valueForKeyPath("lists.0.title").stringValue(), "One");

  respondWith(R"({"value": {"x": 1}, "paths": "lists.0"})");
  EXPECT_TRUE(call(function(std::nullopt)).isEqual(json("{}")));
  respondWith(R"({"invalidated": {"a": 1}, "value": {"y": 2}})");
  EXPECT_TRUE(call(function(std::nullopt)).isEqual(json("{}")));
  EXPECT_EQ(model->valueForKey("y").asNumber()->int64Value(), 2);
}

TEST_F(LegacyCallTest, CallFailures) {
  EXPECT_EQ((call(nullptr), last.errors()[0]->localizedDescription()),
            "BrivetLoader:callFunction ERROR: 'brivetFunction' to be called is not specified.");
  call(std::make_shared<BrivetFunctionCall>(std::nullopt, std::nullopt, std::nullopt));
  EXPECT_EQ(last.errors()[0]->localizedDescription(),
            "BrivetLoader:callFunction ERROR: 'function.callKeyPath' must be specified.");
  call(function(std::vector<Object>{Object::dictionary({{"when", Object::date(dateNow())}})}));
  EXPECT_EQ(last.errors()[0]->domain(), kJSONErrorDomain);
  EXPECT_EQ(logger->errors().back(), "BrivetLoader:callFunction ERROR: JSON serialization error in call arguments.");

  respondWith(R"({"error": {"message": 42}, "value": {}})");
  call(function(std::nullopt));
  EXPECT_EQ(last.errors()[0]->localizedDescription(), "42");
  respondWith(R"({"value": []})");
  call(function(std::nullopt));
  EXPECT_EQ(last.errors()[0]->localizedDescription(),
            "BrivetModel:valueFromResults ERROR: Value for results key 'value' is not null or of type "
            "MutableDictionary.");

  model->setDataSource(nullptr);
  call(function(std::nullopt));
  EXPECT_EQ(last.errors()[0]->localizedDescription(),
            "BrivetLoader:callFunction ERROR: 'data source' is not specified.");
  EXPECT_EQ(tracer->ends().back().error, last.errors()[0]);
}

// Dictionaries that enter the cache immutable (app constants, a data source that builds its answers without
// mutable containers) must not freeze their branch: every later write under it has to land.
class LegacyFrozenBranchTest : public LegacyCallTest {
 protected:
  // JSON text as immutable containers, the way an application writes constants.
  static Object frozen(std::string_view text) { return parseJSON(text, JSONReadingOptions::FragmentsAllowed).value(); }
  // An answer whose "value" is mutable, as the model requires, with everything inside it immutable.
  static ScriptedResponse frozenAnswer(std::string_view graph) {
    return ScriptedResponse{Object::mutableDictionary({{"value", frozen(graph).mutableCopy()}}), Object(), {}};
  }

  // Every dictionary the cache holds can be written into.
  bool everyBranchWritable() {
    bool writable = true;
    std::function<void(const Object&)> visit = [&](const Object& node) {
      const Dictionary* d = node.asDictionary();
      if (d == nullptr) return;
      writable = writable && node.isMutableDictionary();
      for (const auto& entry : *d) visit(entry.second);
    };
    model->jsongModelAccessQueue()->sync([&] { visit(model->jsongModel()); });
    return writable;
  }

  // After `enter` put {"shows": {"s1": {"title": "One"}}} into the cache: a fetched answer, a merge and a set under
  // that branch all land, and a get of what they wrote is answered from the cache.
  void expectLaterWritesLand(const std::function<void()>& enter) {
    enter();
    flush();
    ASSERT_EQ(model->valueForKeyPath("shows.s1.title").stringValue(), "One");
    EXPECT_TRUE(everyBranchWritable());
    respondWith(R"({"value": {"shows": {"s2": {"title": "Two"}}}})");
    EXPECT_EQ(get({"shows.s2.title"}, BrivetModelOptionDefault).valueForKeyPath("shows.s2.title").stringValue(), "Two");
    const std::size_t requests = dataSource->getParams().size();
    model->mergeJSONDictionaryIntoModel(json(R"({"shows": {"s1": {"year": 2001}}})"));
    model->setValueForKeyPath(Object("Uno"), "shows.s1.title");
    const Object cached = get({"shows.s1.title", "shows.s1.year", "shows.s2.title"}, BrivetModelOptionDefault);
    EXPECT_EQ(dataSource->getParams().size(), requests);  // nothing fetched again
    EXPECT_TRUE(cached.isEqual(json(R"({"shows": {"s1": {"title": "Uno", "year": 2001}, "s2": {"title": "Two"}}})")))
        << cached.description();
  }
};

TEST_F(LegacyFrozenBranchTest, AMergedDictionary) {
  expectLaterWritesLand([&] { model->mergeJSONDictionaryIntoModel(frozen(R"({"shows": {"s1": {"title": "One"}}})")); });
}

TEST_F(LegacyFrozenBranchTest, AFetchedAnswer) {
  expectLaterWritesLand([&] {
    dataSource->response = frozenAnswer(R"({"shows": {"s1": {"title": "One"}}})");
    get({"shows.s1.title"}, BrivetModelOptionDefault);
  });
}

TEST_F(LegacyFrozenBranchTest, ACallAnswer) {
  expectLaterWritesLand([&] {
    dataSource->response = frozenAnswer(R"({"shows": {"s1": {"title": "One"}}})");
    call(function(std::nullopt));
  });
}

TEST_F(LegacyFrozenBranchTest, ASetDictionary) {
  expectLaterWritesLand([&] { model->setValueForKeyPath(frozen(R"({"s1": {"title": "One"}})"), "shows"); });
}

TEST_F(LegacyFrozenBranchTest, ARestoredSnapshot) {
  expectLaterWritesLand([&] {
    ASSERT_TRUE(model->deserializeCache(R"({"jsonGraph": {"shows": {"s1": {"title": "One"}}}, "$_version": 0})"));
  });
}

TEST_F(LegacyFrozenBranchTest, ReferencesIntoAFrozenAnswerPointAtWhatTheCacheHolds) {
  // The list is merged before the shows it refers to: the reference must lead to the cache's copy of "s1",
  // not to the application's immutable one, or later writes would not show through it.
  const Object answer = frozen(R"({"a": {"top": {"0": ["shows", "s1"]}}, "shows": {"s1": {"title": "One"}}})");
  model->mergeJSONDictionaryIntoModel(answer);
  model->setValueForKeyPath(Object(2001), "shows.s1.year");
  EXPECT_TRUE(get({"a.top.0.year"}, BrivetModelOptionReturnCacheDataDontFetch)
                  .isEqual(json(R"({"a": {"top": {"0": {"year": 2001}}}})")));
  EXPECT_TRUE(everyBranchWritable());
}

TEST_F(LegacyFrozenBranchTest, AFrozenLeafMergedIntoACachedBranchIsWritableInside) {
  model->mergeJSONDictionaryIntoModel(json(R"({"shows": {"s1": {"title": "One"}}})"));
  model->mergeJSONDictionaryIntoModel(frozen(R"({"shows": {"s1": {"box": {"$type": "leaf", "size": {"w": 1}}}}})"));
  model->setValueForKeyPath(Object(2), "shows.s1.box.size.h");
  EXPECT_EQ(model->valueForKeyPath("shows.s1.box.size.h").asNumber()->int64Value(), 2);
  EXPECT_TRUE(everyBranchWritable());
}

TEST_F(LegacyFrozenBranchTest, AFrozenLeafStillGetsItsAbsoluteExpiry) {
  dataSource->expiration = true;
  model->mergeJSONDictionaryIntoModel(frozen(R"({"shows": {"s1": {"box": {"$type": "leaf", "$expires": -60000}}}})"));
  flush();
  EXPECT_GT(model->valueForKeyPath("shows.s1.box.$expires").asNumber()->doubleValue(), 1e12);
}

TEST_F(LegacyLoaderTest, ReleasingTheModelDropsPendingAnswers) {
  respondWith(R"({"value": {"a": 1}})");
  dataSource->delivery = ScriptedDataSource::Delivery::Held;
  bool called = false;
  model->getKeyPaths(Strings{"a"}, BrivetModelOptionForceRemote, std::nullopt,
                     [&](Object, std::optional<Error>) { called = true; });
  const std::weak_ptr<BrivetModel> weak = model;
  model.reset();
  EXPECT_TRUE(weak.expired());  // requests in flight do not keep the model alive
  dataSource->releaseHeld();
  DispatchQueue::main()->runUntil([] { return false; }, std::chrono::milliseconds(50));
  EXPECT_FALSE(called);
}

}  // namespace
}  // namespace brivet
