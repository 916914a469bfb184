// The facade end to end, as an application uses it: its own data source answering from a JSON document, and a
// logger and a tracer that record what they receive.
#include "brivet/facade/kel_model.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <type_traits>

#include "brivet/facade/kel_model_mediator.h"
#include "brivet/facade/kel_snapshot_file.h"
#include "brivet/facade/testing/app_doubles.h"
#include "brivet/legacy/model.h"
#include "brivet/platform/file.h"
#include "brivet/platform/identifier.h"

namespace brivet {
namespace {

using ::brivet::testing::Answers;
using ::brivet::testing::AppLogger;
using ::brivet::testing::AppSubscription;
using ::brivet::testing::AppTracer;
using ::brivet::testing::DocumentDataSource;
using ::brivet::testing::parse;
using Strings = std::vector<std::string>;

constexpr std::string_view kDocument = R"({
  "lists": {"top": {"0": ["videos", "v0"], "1": ["videos", "v1"], "2": ["videos", "v2"]}},
  "videos": {
    "v0": {"title": "Zero", "year": 1950, "boxart": {"$type": "leaf", "url": "a.jpg", "$expires": 0}},
    "v1": {"title": "One", "year": 1951, "boxart": {"$type": "leaf", "url": "b.jpg", "$expires": -60000}},
    "v2": {"title": "Two", "year": 1952, "boxart": {"$type": "leaf", "url": "c.jpg"}}},
  "config": {"flag": true}
})";

class KelFacadeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    model->setDataSource(dataSource);
    model->setLoggingDelegate(logger);
    model->setPerformanceTraceDelegate(tracer);
  }

  Answers get(const Strings& keyPaths, std::optional<KelModelOption> option = std::nullopt, std::size_t count = 1) {
    Answers answers;
    if (option) {
      model->getKeyPaths(keyPaths, *option, std::nullopt, answers.callback());
    } else {
      model->getKeyPaths(keyPaths, std::nullopt, answers.callback());
    }
    EXPECT_TRUE(answers.waitFor(count));
    model->valueForKey("-");  // the response block ends its trace after the completion is queued
    return answers;
  }

  std::size_t fetches() const { return dataSource->gets().size(); }

  std::shared_ptr<KelModel> model = KelBrivet::createModel(Strings{"config"}, Strings{"lists.top"});
  std::shared_ptr<DocumentDataSource> dataSource = std::make_shared<DocumentDataSource>(kDocument);
  std::shared_ptr<AppLogger> logger = std::make_shared<AppLogger>();
  std::shared_ptr<AppTracer> tracer = std::make_shared<AppTracer>();
};

TEST_F(KelFacadeTest, GetsFetchWhatIsMissingAndThenAnswerFromTheCache) {
  dataSource->answerLater = true;
  const Answers first = get({"lists.top.@range(0,2).title", "lists.top.@range(0,1).year"});
  EXPECT_TRUE(first.result().isEqual(parse(R"({"lists": {"top": {"0": {"title": "Zero", "year": 1950},
      "1": {"title": "One", "year": 1951}, "2": {"title": "Two"}}}})")));
  EXPECT_FALSE(first.error().has_value());
  EXPECT_EQ(fetches(), 1u);
  EXPECT_EQ(dataSource->senders(), std::vector<const KelModel*>{model.get()});

  Answers second;
  EXPECT_EQ(model->getKeyPath("lists.top.1.title", "one title", second.callback()), nullptr);
  ASSERT_TRUE(second.waitFor(1));
  EXPECT_EQ(second.result().valueForKeyPath("lists.top.1.title").stringValue(), "One");
  EXPECT_EQ(fetches(), 1u);
  ASSERT_EQ(tracer->ends().size(), 2u);
  EXPECT_TRUE(tracer->ends()[1].cached);
  EXPECT_EQ(tracer->ends()[1].taskName, "one title");
  EXPECT_EQ(tracer->ends()[1].model, model.get());
}

TEST_F(KelFacadeTest, OptionsMapOntoTheLegacyOptionsAndOutOfRangeMeansDefault) {
  EXPECT_EQ(kelModelOptionFromRawValue(4), KelModelOption::ReturnCacheDataDontFetch);
  EXPECT_FALSE(kelModelOptionFromRawValue(5).has_value());
  EXPECT_FALSE(kelModelOptionFromRawValue(-1).has_value());
  EXPECT_EQ(kelModelTypeFromRawValue(1), KelModelType::Second);
  EXPECT_FALSE(kelModelTypeFromRawValue(2).has_value());
  static_assert(!std::is_default_constructible_v<KelFunctionCall>);

  get({"videos.v0.title"});
  const Strings both = {"videos.v0.title", "videos.v1.title"};
  const auto lastPaths = [&] { return dataSource->gets().back()["path"]; };
  get(both, static_cast<KelModelOption>(7));  // like the default: only the missing path is fetched
  EXPECT_TRUE(lastPaths().isEqual(parse(R"(["[\"videos\",\"v1\",\"title\"]"])")));
  get(both, KelModelOption::Default);  // everything is cached now
  EXPECT_EQ(fetches(), 2u);
  get(both, KelModelOption::ForceRemote);
  EXPECT_EQ(lastPaths().count(), 2u);
  get(both, KelModelOption::ReturnCacheDataAndFetch, 2);
  EXPECT_EQ(fetches(), 4u);
  get(both, KelModelOption::ReturnCacheDataDontFetch);
  EXPECT_EQ(fetches(), 4u);
  model->setValueForKeyPath(Object("Local"), "videos.v0.title");
  const Answers noCache = get({"videos.v0.title"}, KelModelOption::NoCache);
  EXPECT_EQ(noCache.result().valueForKeyPath("videos.v0.title").stringValue(), "Zero");
  EXPECT_EQ(model->valueForKeyPath("videos.v0.title").stringValue(), "Local");
  Answers single;
  model->getKeyPath("videos.v2.year", KelModelOption::ReturnCacheDataDontFetch, std::nullopt, single.callback());
  ASSERT_TRUE(single.waitFor(1));
  EXPECT_TRUE(single.result().isEqual(parse(R"({"videos": {}})")));  // nothing cached under v2
}

TEST_F(KelFacadeTest, SubscriptionsAreWrappedInNewObjects) {
  int cancels = 0;
  const auto own = std::make_shared<AnySubscriptionObject>([&] { ++cancels; });
  dataSource->subscription = Object(std::static_pointer_cast<CustomObject>(own));
  const auto wrapped = model->getKeyPaths({"videos.v0.title"}, std::nullopt, nullptr);
  ASSERT_NE(wrapped, nullptr);
  EXPECT_NE(static_cast<const void*>(wrapped.get()), static_cast<const void*>(own.get()));
  EXPECT_EQ(std::static_pointer_cast<AnySubscriptionObject>(wrapped)->cancelCallback(), own->cancelCallback());
  wrapped->cancel();
  wrapped->cancel();  // no once-only guard
  EXPECT_EQ(cancels, 2);

  const auto foreign = std::make_shared<AppSubscription>();
  dataSource->subscription = Object(std::static_pointer_cast<CustomObject>(foreign));
  model->callFunction(KelFunctionCall("lists.add", std::nullopt, std::nullopt), nullptr)->cancel();
  EXPECT_EQ(foreign->cancels, 1);

  dataSource->subscription = Object();
  EXPECT_EQ(model->getKeyPaths({"videos.v0.year"}, KelModelOption::ForceRemote, std::nullopt, nullptr), nullptr);

  EXPECT_FALSE(KelBrivet::conformsToSubscription(Object("plain")));
  EXPECT_FALSE(KelBrivet::conformsToSubscription(Object()));
  EXPECT_TRUE(KelBrivet::conformsToSubscription(Object(std::make_shared<AnySubscriptionObject>())));
  EXPECT_TRUE(KelBrivet::conformsToSubscription(Object(std::static_pointer_cast<CustomObject>(foreign))));
}

TEST_F(KelFacadeTest, WithoutADataSourceFetchesFailAndCancelNothing) {
  dataSource.reset();  // the model held it weakly: it is gone
  EXPECT_EQ(model->dataSource(), nullptr);
  Answers answers;
  const auto subscription = model->getKeyPaths({"videos.v0.title"}, std::nullopt, answers.callback());
  ASSERT_NE(subscription, nullptr);
  subscription->cancel();
  model->callFunction(KelFunctionCall("lists.add", std::nullopt, std::nullopt), answers.callback());
  ASSERT_TRUE(answers.waitFor(2));
  EXPECT_TRUE(answers.result(0).isNil());
  EXPECT_EQ(answers.error(0)->domain(), KelBrivet::errorDomain());
  EXPECT_EQ(answers.error(0)->code(), -999);
  EXPECT_EQ(answers.error(0)->localizedDescription(),
            "KelModel.brivet(getWithParams:) ERROR: 'data source' is not specified.");
  EXPECT_EQ(answers.error(1)->localizedDescription(),
            "KelModel.brivet(callWithParams:) ERROR: 'data source' is not specified.");
  EXPECT_EQ(KelBrivet::errorDomain(), kReverseDomain);
}

TEST_F(KelFacadeTest, LoggingReachesTheApplicationThroughItsGates) {
  const KelFunctionCall badArguments("f", std::vector<Object>{Object::dictionary({{"at", Object::date(dateNow())}})},
                                     std::nullopt);
  Answers answers;
  logger->enabled = false;
  model->callFunction(badArguments, answers.callback());
  EXPECT_TRUE(logger->lines().empty());
  logger->enabled = true;
  model->callFunction(badArguments, answers.callback());
  get({"videos.v0.title"});  // the network switch is not implemented: no remote lines
  EXPECT_EQ(logger->lines(), Strings{"error: BrivetLoader:callFunction ERROR: JSON serialization error in call "
                                     "arguments."});
  logger->network = true;
  get({"videos.v1.title"});
  ASSERT_EQ(logger->lines().size(), 3u);
  EXPECT_EQ(logger->lines()[1], "info: get remote request: path = (videos.v1.title)");
  model->valueForKeyPath("videos");  // a branch read as a value is reported
  model->valueForKeyPath("config");  // unless its first component is a prefix
  EXPECT_EQ(logger->lines().back(), "userInfo: Invalid Brivet Branch Node");
  for (const KelModel* sender : logger->senders()) EXPECT_EQ(sender, model.get());
  // The legacy model never logs debug lines itself; the mediator still forwards them.
  auto& legacy = *std::static_pointer_cast<KelModelMediator>(model)->legacyModel();
  legacy.loggingDelegate()->logDebug(legacy, "a debug line");
  EXPECT_EQ(logger->lines().back(), "debug: a debug line");
}

TEST_F(KelFacadeTest, TracesAndHooksReachTheApplication) {
  tracer->enabled = false;
  get({"videos.v0.title"});
  EXPECT_TRUE(tracer->begins().empty());
  tracer->enabled = true;
  dataSource->preGet = parse(R"({"locale": "fr"})");
  dataSource->preCall = parse(R"({"session": 7})");
  get({"videos.v1.title"});
  EXPECT_EQ(dataSource->gets()[0]["locale"], Object());
  EXPECT_EQ(dataSource->gets()[1]["locale"].stringValue(), "fr");
  Answers answers;
  model->callFunction(KelFunctionCall("lists.add", std::nullopt, std::nullopt, "adding"), answers.callback());
  ASSERT_TRUE(answers.waitFor(1));
  model->valueForKey("-");
  EXPECT_EQ(dataSource->calls()[0]["session"].asNumber()->int64Value(), 7);
  ASSERT_EQ(tracer->begins().size(), 2u);
  ASSERT_EQ(tracer->ends().size(), 2u);
  EXPECT_EQ(tracer->begins()[1].taskName, "adding");
  EXPECT_EQ(tracer->ends()[1].uuid, tracer->begins()[1].uuid);
  EXPECT_EQ(tracer->ends()[1].model, model.get());
}

TEST_F(KelFacadeTest, ExpiryFollowsTheApplicationsSwitch) {
  get({"lists.top.@range(0,1).boxart.url"});
  get({"lists.top.@range(0,1).boxart.url"});
  EXPECT_EQ(fetches(), 1u);  // expiry off: nothing is stale
  EXPECT_EQ(model->valueForKeyPath("videos.v1.boxart.$expires").asNumber()->int64Value(), -60000);
  dataSource->expiration = true;
  get({"lists.top.@range(0,1).boxart.url"}, KelModelOption::ForceRemote);
  EXPECT_GT(model->valueForKeyPath("videos.v1.boxart.$expires").asNumber()->doubleValue(), 1e12);
  get({"videos.v0.boxart.url", "videos.v1.boxart.url"});
  EXPECT_TRUE(dataSource->gets().back()["path"].isEqual(parse(R"(["[\"videos\",\"v0\",\"boxart\",\"url\"]"])")));
}

TEST_F(KelFacadeTest, CallsCarryTheFunctionAndAnswerItsPaths) {
  dataSource->callResponse = [](const Object&) {
    return parse(R"({"invalidated": [["lists", "length"]], "paths": [["lists", "top", 3, "title"]],
                     "value": {"lists": {"top": {"3": ["videos", "v3"]}}, "videos": {"v3": {"title": "Three"}}}})");
  };
  model->mergeJSONDictionaryIntoModel(parse(R"({"lists": {"length": 3}})"));
  ASSERT_EQ(model->valueForKeyPath("lists.length").asNumber()->int64Value(), 3);
  Answers answers;
  model->callFunction(
      KelFunctionCall("lists.add", std::vector<Object>{parse(R"({"id": 3})"), Object("x")}, Strings{"title"}, "adding"),
      Strings{"lists.length"}, answers.callback());
  ASSERT_TRUE(answers.waitFor(1));
  EXPECT_TRUE(answers.result().isEqual(parse(R"({"lists": {"top": {"3": {"title": "Three"}}}})")));
  EXPECT_TRUE(dataSource->calls()[0].isEqual(parse(R"({"callPath": "[\"lists\",\"add\"]",
      "param": ["{\"id\":3}", "\"x\""], "pathSuffix": "[\"title\"]", "path": ["[\"lists\",\"length\"]"],
      "method": "call"})")));
  EXPECT_TRUE(model->valueForKeyPath("lists.length").isNil());
  EXPECT_EQ(model->valueForKeyPath("lists.top.3.title").stringValue(), "Three");
}

TEST_F(KelFacadeTest, SynchronousCacheOperationsForward) {
  model->mergeJSONDictionaryIntoModel(
      Object::dictionary({{"a", parse(R"({"b": 1, "c": {"$type": "leaf", "d": 2}})")}}));
  model->mergeJSONDictionaryIntoModel(Object("not a dictionary"));
  model->setValueForKey(Object("top"), "t");
  EXPECT_EQ(model->valueForKey("t").stringValue(), "top");
  EXPECT_EQ(model->valueForKeyPath("a.c.d").asNumber()->int64Value(), 2);
  const std::vector<Object> filled = model->valuesForKeyPaths({"a.b", "a.zz"});
  ASSERT_EQ(filled.size(), 2u);
  EXPECT_TRUE(filled[1].isNull());
  for (const auto& optimized : {std::optional<Strings>(), std::optional<Strings>(Strings{"a", "whatever"})}) {
    const std::vector<Object> sparse = model->valuesForKeyPaths({"a.b", "a.zz"}, optimized, false);
    ASSERT_EQ(sparse.size(), 1u);
    EXPECT_EQ(sparse[0].asNumber()->int64Value(), 1);
  }
  model->invalidateWithKeyPaths({"a.b"});
  EXPECT_TRUE(model->valueForKeyPath("a.b").isNil());
  EXPECT_EQ(model->modelType(), KelModelType::First);
  model->setModelType(KelModelType::Second);
  EXPECT_EQ(model->modelType(), KelModelType::Second);
  EXPECT_EQ(std::static_pointer_cast<KelModelMediator>(model)->optimizedPaths(), Strings{"lists.top"});
}

TEST_F(KelFacadeTest, AFrozenDictionaryMergedByTheAppStaysWritable) {
  // The app's constant: immutable all the way down, as a literal would be.
  const Object constant = parseJSON(R"({"videos": {"v9": {"title": "Nine"}}})").value();
  model->mergeJSONDictionaryIntoModel(constant);
  // A get under that branch fetches once, and the answer lands in the cache.
  EXPECT_EQ(get({"videos.v1.title"}).result().valueForKeyPath("videos.v1.title").stringValue(), "One");
  EXPECT_EQ(fetches(), 1u);
  EXPECT_EQ(get({"videos.v1.title", "videos.v9.title"}).result().valueForKeyPath("videos.v9.title").stringValue(),
            "Nine");
  EXPECT_EQ(fetches(), 1u);
  model->setValueForKeyPath(Object(1999), "videos.v9.year");
  EXPECT_EQ(model->valueForKeyPath("videos.v9.year").asNumber()->int64Value(), 1999);
  EXPECT_TRUE(constant.isEqual(parseJSON(R"({"videos": {"v9": {"title": "Nine"}}})").value()));  // left alone
}

TEST_F(KelFacadeTest, SnapshotsRoundTripThroughTheFacade) {
  get({"lists.top.@range(0,2).title"});
  const Result<std::string> all = model->serializeCacheWithKeyPaths(std::nullopt);
  ASSERT_TRUE(all.ok());
  const auto restored = KelBrivet::createModel(std::nullopt, std::nullopt);
  ASSERT_TRUE(restored->deserializeCache(all.value()).ok());
  EXPECT_EQ(restored->valueForKeyPath("lists.top.2.title").stringValue(), "Two");
  const Result<std::string> videos = model->serializeCacheWithKeyPaths(Strings{"videos.@*"});
  ASSERT_TRUE(videos.ok());
  EXPECT_TRUE(parse(videos.value()).valueForKeyPath("jsonGraph.lists").isNil());

  const Result<void> garbage = restored->deserializeCache("{\"jsonGraph\":");
  ASSERT_FALSE(garbage.ok());
  EXPECT_EQ(garbage.error().domain(), kJSONErrorDomain);
  // The legacy model answers "no" without an error for these; the facade still reports a failure.
  const Result<void> notAnObject = restored->deserializeCache("[1]");
  ASSERT_FALSE(notAnObject.ok());
  EXPECT_EQ(notAnObject.error().domain(), KelBrivet::errorDomain());
  model->setValueForKey(Object(std::nan("")), "nan");
  EXPECT_FALSE(model->serializeCacheWithKeyPaths(std::nullopt).ok());
}

TEST_F(KelFacadeTest, SnapshotFilesRoundTripThroughTheFacade) {
  get({"lists.top.@range(0,2).title"});
  const std::string path = ::testing::TempDir() + "brivet-facade-cache-" + std::to_string(::getpid()) + ".json";
  ASSERT_TRUE(saveCacheToFile(*model, path).ok());
  const auto restored = KelBrivet::createModel(std::nullopt, std::nullopt);
  ASSERT_TRUE(restoreCacheFromFile(*restored, path).ok());
  EXPECT_EQ(restored->valueForKeyPath("lists.top.2.title").stringValue(), "Two");
  std::remove(path.c_str());
  const Result<void> missing = restoreCacheFromFile(*restored, path);
  ASSERT_FALSE(missing.ok());
  EXPECT_EQ(missing.error().domain(), kFileErrorDomain);
}

TEST_F(KelFacadeTest, DelegatesAreNeverKeptAliveByTheModel) {
  get({"lists.top.0.title"});
  const std::weak_ptr<KelDataSource> weakSource = dataSource;
  const std::weak_ptr<KelLoggerDelegate> weakLogger = logger;
  const std::weak_ptr<KelPerformanceTraceDelegate> weakTracer = tracer;
  dataSource.reset();
  logger.reset();
  tracer.reset();
  EXPECT_TRUE(weakSource.expired());
  EXPECT_TRUE(weakLogger.expired());
  EXPECT_TRUE(weakTracer.expired());
  EXPECT_EQ(model->loggingDelegate(), nullptr);
  EXPECT_EQ(model->performanceTraceDelegate(), nullptr);
  EXPECT_EQ(get({"videos.v2.title"}).error()->localizedDescription(),
            "KelModel.brivet(getWithParams:) ERROR: 'data source' is not specified.");
}

TEST(KelOwnershipTest, TheLastApplicationReferenceReleasesAllThree) {
  std::weak_ptr<KelModel> weakModel;
  std::weak_ptr<BrivetModel> weakLegacy;
  std::weak_ptr<BrivetDataSource> weakDelegateMediator;
  {
    const auto source = std::make_shared<DocumentDataSource>(kDocument);
    std::shared_ptr<KelModel> model = KelBrivet::createModel(std::nullopt, std::nullopt);
    model->setDataSource(source);
    Answers answers;
    model->getKeyPaths({"lists.top.0.title"}, std::nullopt, answers.callback());
    ASSERT_TRUE(answers.waitFor(1));
    model->valueForKey("-");  // lets the response block, which holds the legacy model while it runs, finish
    weakModel = model;
    weakLegacy = std::static_pointer_cast<KelModelMediator>(model)->legacyModel();
    weakDelegateMediator = weakLegacy.lock()->dataSource();
  }
  EXPECT_TRUE(weakModel.expired());
  EXPECT_TRUE(weakLegacy.expired());
  EXPECT_TRUE(weakDelegateMediator.expired());
}

TEST(KelDelegateMediatorTest, AnswersNothingOnceTheModelIsGone) {
  auto model = KelBrivet::createModel(std::nullopt, std::nullopt);
  const auto source = std::make_shared<DocumentDataSource>(kDocument);
  const auto logger = std::make_shared<AppLogger>();
  model->setDataSource(source);
  model->setLoggingDelegate(logger);
  const std::shared_ptr<BrivetModel> legacy = std::static_pointer_cast<KelModelMediator>(model)->legacyModel();
  const auto asSource = legacy->dataSource();
  const auto asLogger = legacy->loggingDelegate();
  const auto asTracer = legacy->performanceTraceDelegate();
  model.reset();
  bool called = false;
  EXPECT_FALSE(asSource->enableCacheExpiration(*legacy));
  EXPECT_TRUE(asSource
                  ->getWithParams(*legacy, Object::dictionary(), UUID::random(),
                                  [&](Object, Object, std::optional<Error>) { called = true; })
                  .isNil());
  EXPECT_FALSE(called);
  EXPECT_TRUE(asSource->preGetWithKeyPaths(*legacy, {"a"})->isEqual(Object::dictionary()));
  EXPECT_FALSE(asLogger->enableLoggingInBrivet(*legacy));
  EXPECT_FALSE(asLogger->enableExNetworkLoggingInBrivet(*legacy).value_or(true));
  asLogger->logError(*legacy, "lost");
  EXPECT_FALSE(asTracer->enablePerformanceTracing(*legacy));
  EXPECT_TRUE(logger->lines().empty());
  EXPECT_TRUE(source->gets().empty());
}

}  // namespace
}  // namespace brivet
