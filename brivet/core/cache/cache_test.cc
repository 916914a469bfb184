#include "brivet/core/cache/cache.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <vector>

#include "brivet/core/cache/internal/graph_walk.h"
#include "brivet/platform/identifier.h"
#include "brivet/platform/json.h"
#include "brivet/platform/uuid.h"
#include "brivet/testing/catalogue.h"

namespace brivet {
namespace {

using namespace std::chrono_literals;

JSONGraph graph(std::string_view text) {
  Result<JSONGraph> g = JSONGraph::fromJSONText(text);
  EXPECT_TRUE(g.ok()) << text;
  return g.ok() ? g.value() : JSONGraph();
}
JSONValue value(std::string_view text) {
  Result<Object> o = parseJSON(text, JSONReadingOptions::FragmentsAllowed);
  EXPECT_TRUE(o.ok()) << text;
  return JSONValue::fromAny(o.ok() ? o.value() : Object());
}
PathTree tree(std::vector<std::string> keyPaths) { return PathTree::fromKeyPaths(keyPaths); }
Path path(std::string_view keyPath) { return PathTree::parsePath(keyPath); }

class CacheTest : public ::testing::Test {
 protected:
  // Lets every write queued so far on the cache queue run.
  static void settle() {
    auto done = std::make_shared<std::atomic<bool>>(false);
    cacheQueue()->asyncBarrier([done] { *done = true; });
    ASSERT_TRUE(DispatchQueue::main()->runUntil([&] { return done->load(); }, 5000ms));
  }
  static CacheValues read(const CacheProtocol& cache, std::vector<std::string> keyPaths, bool checkExpiry = true) {
    Result<CacheValues, BrivetError> r = cache.getValues(tree(std::move(keyPaths)), checkExpiry);
    EXPECT_TRUE(r.ok()) << (r.ok() ? "" : r.error().description());
    return r.ok() ? r.value() : CacheValues{};
  }
  static BrivetError readError(const CacheProtocol& cache, std::vector<std::string> keyPaths) {
    Result<CacheValues, BrivetError> r = cache.getValues(tree(std::move(keyPaths)), true);
    EXPECT_FALSE(r.ok());
    return r.ok() ? BrivetError::invalidAttempt() : r.error();
  }

  std::shared_ptr<Cache> catalogue_ =
      Cache::create(JSONGraph::fromAny(testing::catalogueDocument(4, 3, 0)), std::nullopt, std::nullopt);
};

// --- Construction and the queue ---

TEST_F(CacheTest, StartsEmptyAtVersionOneWithItsOwnLRU) {
  auto a = Cache::create();
  auto b = Cache::create(std::nullopt, std::vector<std::string>{"p"}, std::vector<std::string>{"o"});
  EXPECT_EQ(a->jsonGraph(), JSONGraph::emptyObject());
  EXPECT_EQ(a->version(), 1u);
  EXPECT_EQ(a->cacheMaxSize(), 0);
  EXPECT_EQ(a->cacheCollectRatio(), 0.0f);
  EXPECT_FALSE(a->prefixes().has_value());
  EXPECT_EQ(b->prefixes(), (std::unordered_set<std::string>{"p"}));
  EXPECT_EQ(b->optimizedPaths(), (std::unordered_set<std::string>{"o"}));
  ASSERT_NE(a->lru(), nullptr);
  EXPECT_NE(a->lru(), b->lru());
  a->setCacheMaxSize(10);
  a->setCacheCollectRatio(0.5f);
  EXPECT_EQ(a->cacheMaxSize(), 10);
  EXPECT_EQ(a->cacheCollectRatio(), 0.5f);
}

TEST_F(CacheTest, OneConcurrentQueueLabelledWithAFreshUUID) {
  const std::string prefix = std::string(kReverseDomain) + ".cache.queue.";
  const std::string& label = cacheQueue()->label();
  ASSERT_EQ(label.rfind(prefix, 0), 0u) << label;
  EXPECT_TRUE(UUID::fromString(label.substr(prefix.size())).has_value()) << label;
  EXPECT_TRUE(cacheQueue()->isConcurrent());
  EXPECT_EQ(cacheQueue().get(), cacheQueue().get());
}

TEST_F(CacheTest, WritesToAReleasedCacheDoNothing) {
  auto cache = Cache::create();
  std::weak_ptr<Cache> weak = cache;
  cache->merge(graph(R"({"a": 1})"));
  cache->invalidate(tree({"a"}));
  cache->setCache({graph("{}"), 9});
  cache.reset();
  settle();
  EXPECT_TRUE(weak.expired());
}

// --- Reads ---

using CacheReadTest = CacheTest;

TEST_F(CacheReadTest, FollowsReferencesAndSharesNothingItDoesNotOwn) {
  const CacheValues r = read(*catalogue_, testing::catalogueRequestPaths(3));
  EXPECT_EQ(r.value.find("lists")->find("top")->find("2")->find("title")->primitive().stringValue(), "Title 2");
  EXPECT_EQ(r.value.find("lists")->find("top")->find("1")->find("boxart")->find("w")->primitive().numberObject(),
            Object(150));
  EXPECT_EQ(r.value.find("lists")->find("top")->size(), 3u);
  EXPECT_EQ(r.missingPathTree, PathTree());
  EXPECT_EQ(r.missingOptimizedPathTree, PathTree());
}

TEST_F(CacheReadTest, AWholeRecordAndAPartOfItReadTheSame) {
  // All five fields (the record's own node is handed out) against four (built anew).
  const CacheValues all = read(
      *catalogue_, {"videos.v1.title", "videos.v1.rating", "videos.v1.year", "videos.v1.genre", "videos.v1.boxart"});
  const CacheValues some =
      read(*catalogue_, {"videos.v1.title", "videos.v1.rating", "videos.v1.year", "videos.v1.genre"});
  const JSONValue video = *all.value.find("videos")->find("v1");
  EXPECT_EQ(video, value(R"({"title": "Title 1", "rating": 0.1, "year": 1951, "genre": "Comedy",
                             "boxart": {"url": "https://img.example/1.jpg", "w": 150, "h": 200}})"));
  EXPECT_EQ(*some.value.find("videos")->find("v1"),
            value(R"({"title": "Title 1", "rating": 0.1, "year": 1951, "genre": "Comedy"})"));
}

TEST_F(CacheReadTest, AbsentKeysAreMissingAsRequestedAndAsTheyLieInTheGraph) {
  const CacheValues r = read(*catalogue_, {"lists.top.@range(2,4).title", "nothing.here"});
  EXPECT_EQ(r.value, value(R"({"lists": {"top": {"2": {"title": "Title 2"}}}})"));
  EXPECT_EQ(r.missingPathTree, tree({"lists.top.3.title", "lists.top.4.title", "nothing.here"}));
  EXPECT_EQ(r.missingOptimizedPathTree, tree({"lists.top.3.title", "lists.top.4.title", "nothing.here"}));
}

TEST_F(CacheReadTest, AllKeysAbsentGiveAnEmptyObjectAtTheirLevel) {
  const CacheValues r = read(*catalogue_, {"videos.@range(100,101)"});
  EXPECT_EQ(r.value, value(R"({"videos": {}})"));
  EXPECT_EQ(r.missingPathTree, tree({"videos.100", "videos.101"}));
}

TEST_F(CacheReadTest, AReferenceToAnAbsentTargetReportsTheTarget) {
  auto cache = Cache::create(graph(R"({"list": {"0": {"$type": "ref", "value": ["videos", "v9"]}}, "videos": {}})"));
  const CacheValues r = read(*cache, {"list.0.title"});
  EXPECT_EQ(r.value, value(R"({"list": {}})"));
  EXPECT_EQ(r.missingPathTree, tree({"list.0.title"}));
  EXPECT_EQ(r.missingOptimizedPathTree, tree({"videos.v9.title"}));
}

TEST_F(CacheReadTest, ChainsOfReferencesAreFollowed) {
  auto cache =
      Cache::create(graph(R"({"a": {"$type": "ref", "value": ["b"]}, "b": {"$type": "ref", "value": ["c", "d"]},
                                        "c": {"d": {"x": 1}}})"));
  EXPECT_EQ(read(*cache, {"a.x", "a.y"}).value, value(R"({"a": {"x": 1}})"));
  EXPECT_EQ(read(*cache, {"a.x", "a.y"}).missingOptimizedPathTree, tree({"c.d.y"}));
  EXPECT_EQ(read(*cache, {"a.y"}).missingPathTree, tree({"a.y"}));
}

TEST_F(CacheReadTest, LeavesEndThePathWhereTheyStand) {
  auto cache = Cache::create(graph(R"({"r": {"$type": "ref", "value": ["x", "y"]}, "s": "text",
                                        "atom": {"$type": "atom", "value": [1, 2]}, "u": {"$type": "atom"},
                                        "arr": [10, {"k": 20}]})"));
  EXPECT_EQ(read(*cache, {"r"}).value, value(R"({"r": ["x", "y"]})"));
  EXPECT_EQ(read(*cache, {"s.deeper"}).value, value(R"({"s": "text"})"));
  EXPECT_EQ(read(*cache, {"atom"}).value, value(R"({"atom": [1, 2]})"));
  EXPECT_EQ(read(*cache, {"u"}).value, value(R"({})"));
  EXPECT_EQ(read(*cache, {"arr.0", "arr.1.k", "arr.01"}).value, value(R"({"arr": {"0": 10, "1": {"k": 20}}})"));
  EXPECT_EQ(read(*cache, {"arr.01"}).missingPathTree, tree({"arr.01"}));
}

TEST_F(CacheReadTest, APathEndingOnABranchFailsWithTheKeysConsumed) {
  const BrivetError e = readError(*catalogue_, {"videos.v1.title", "lists.top"});
  ASSERT_EQ(e.kind(), BrivetError::Kind::ResponseJSONGraphFailed);
  ASSERT_EQ(e.jsonGraphReason()->kind(), BrivetError::JSONGraphFailureReason::Kind::InvalidAttempt);
  EXPECT_EQ(e.jsonGraphReason()->keys(), (std::vector<std::string>{"lists", "top"}));
}

TEST_F(CacheReadTest, ErrorLeavesFailTheReadWithEveryOneInWalkOrder) {
  auto cache = Cache::create(JSONGraph::fromAny(testing::catalogueDocument(4, 4, 2)));
  const BrivetError e = readError(*cache, {"lists.top.@range(0,3).rating"});
  ASSERT_EQ(e.jsonGraphReason()->kind(), BrivetError::JSONGraphFailureReason::Kind::PathBoundErrors);
  const auto& errors = e.jsonGraphReason()->errors();
  ASSERT_EQ(errors.size(), 2u);
  EXPECT_EQ(errors[0].path, (std::vector<std::string>{"lists", "top", "0", "rating"}));
  EXPECT_EQ(errors[1].path, (std::vector<std::string>{"lists", "top", "2", "rating"}));
  EXPECT_EQ(errors[1].value, value(R"({"message": "rating unavailable", "code": 503})"));
}

TEST_F(CacheReadTest, ExpiredLeavesAreMissingOnlyWhenExpiryIsChecked) {
  auto cache = Cache::create(graph(R"({
      "now": {"$type": "atom", "value": 1, "$expires": 0},
      "past": {"$type": "atom", "value": 2, "$expires": 1000},
      "later": {"$type": "atom", "value": 3, "$expires": -600000},
      "never": {"$type": "atom", "value": 4, "$expires": 1},
      "ref": {"$type": "ref", "value": ["x"], "$expires": 0}, "x": {"y": 5}})"));
  const CacheValues checked = read(*cache, {"now", "past", "later", "never", "ref.y"});
  EXPECT_EQ(checked.value, value(R"({"later": 3, "never": 4})"));
  EXPECT_EQ(checked.missingPathTree, tree({"now", "past", "ref.y"}));
  EXPECT_EQ(checked.missingOptimizedPathTree, tree({"now", "past", "ref.y"}));
  EXPECT_EQ(read(*cache, {"now", "past", "ref.y"}, false).value, value(R"({"now": 1, "past": 2, "ref": {"y": 5}})"));
}

TEST_F(CacheReadTest, AtomsExpiringThisVeryInstantAreExpired) {
  EXPECT_TRUE(internal::isExpired({.present = 1u << internal::kMetaExpires, .expires = 5000.0}, 5000.0));
  EXPECT_FALSE(internal::isExpired({.present = 1u << internal::kMetaExpires, .expires = 5000.5}, 5000.0));
}

TEST_F(CacheReadTest, PathsOverPrefixesAreAnsweredRawWithNothingMissing) {
  auto cache = Cache::create(graph(R"({"raw": {"a": {"$type": "atom", "value": 1, "$expires": 0}, "b": {"c": 2}},
                                        "other": {"x": 1}})"),
                             std::vector<std::string>{"raw"});
  const CacheValues r = read(*cache, {"raw.a", "raw.b", "raw.zzz"});
  EXPECT_EQ(r.value, value(R"({"raw": {"a": {"$type": "atom", "value": 1, "$expires": 0.0}, "b": {"c": 2}}})"));
  EXPECT_EQ(r.missingPathTree, PathTree());
  EXPECT_EQ(read(*cache, {"other.x"}).value, value(R"({"other": {"x": 1}})"));
}

TEST_F(CacheReadTest, StandAloneGraphsReadTheSameWay) {
  Result<CacheValues, BrivetError> r =
      getValues(JSONGraph::fromAny(testing::catalogueResponse(2, testing::Dialect::Core)),
                tree(testing::catalogueRequestPaths(3)), true);
  ASSERT_TRUE(r.ok());
  EXPECT_EQ(r->value.find("lists")->find("top")->size(), 2u);
  EXPECT_EQ(r->missingPathTree, tree({"lists.top.2.title", "lists.top.2.rating", "lists.top.2.year",
                                      "lists.top.2.genre", "lists.top.2.boxart"}));
}

TEST_F(CacheReadTest, ReferenceCyclesEndAsAPathBoundError) {
  auto cache = Cache::create(graph(R"({"self": {"$type": "ref", "value": ["self"]},
                                        "a": {"$type": "ref", "value": ["b"]}, "b": {"$type": "ref", "value": ["a"]},
                                        "up": {"down": {"$type": "ref", "value": ["up"]}}, "ok": 1})"));
  for (const char* p : {"self.x", "a.x", "b.x.y"}) {
    const BrivetError e = readError(*cache, {p, "ok"});
    ASSERT_EQ(e.jsonGraphReason()->kind(), BrivetError::JSONGraphFailureReason::Kind::PathBoundErrors) << p;
    ASSERT_EQ(e.jsonGraphReason()->errors().size(), 1u);
    EXPECT_EQ(e.jsonGraphReason()->errors()[0].value, value(R"({"message": "reference chain longer than 1024"})"));
  }
  // A reference to an ancestor is a cycle only while keys are left to walk.
  EXPECT_TRUE(cache->getValues(tree({"up.down.down.down.down"}), true).ok());
}

// --- Sub-graph extraction ---

using CacheExtractionTest = CacheTest;

TEST_F(CacheExtractionTest, TheWholeGraphWithoutATree) {
  const CacheEnvelope e = catalogue_->getCache(std::nullopt);
  EXPECT_EQ(internal::slot(e.jsonGraph), internal::slot(catalogue_->jsonGraph()));
  EXPECT_EQ(e.version, 1u);
}

TEST_F(CacheExtractionTest, CopiesWhatThePathsReachFollowingReferences) {
  const CacheEnvelope e = catalogue_->getCache(tree({"lists.top.@range(1,7).title"}));
  EXPECT_EQ(e.jsonGraph, graph(R"({"lists": {"top": {"1": {"$type": "ref", "value": ["videos", "v1"]},
                                                      "2": {"$type": "ref", "value": ["videos", "v2"]}}},
                                   "videos": {"v1": {"title": "Title 1"}, "v2": {"title": "Title 2"}}})"));
}

TEST_F(CacheExtractionTest, APathEndingOnABranchGivesTheWholeGraphUnlessItIsAPrefix) {
  EXPECT_EQ(internal::slot(catalogue_->getCache(tree({"videos.v1"})).jsonGraph), internal::slot(catalogue_->jsonGraph()));
  auto cache =
      Cache::create(JSONGraph::fromAny(testing::catalogueDocument(2, 1, 0)), std::vector<std::string>{"videos"});
  const CacheEnvelope e = cache->getCache(tree({"videos.v1"}));
  EXPECT_EQ(e.jsonGraph.find("videos")->find("v1")->find("year")->leaf().primitive().numberObject(), Object(1951));
  EXPECT_EQ(e.jsonGraph.size(), 1u);
}

TEST_F(CacheExtractionTest, ABranchMetAfterSomethingWasGatheredEndsTheExtraction) {
  auto cache = Cache::create(graph(R"({"r": {"$type": "ref", "value": ["t"]}, "t": {"x": {"deep": 1}}})"));
  EXPECT_EQ(cache->getCache(tree({"r.x"})).jsonGraph, graph(R"({"r": {"$type": "ref", "value": ["t"]}})"));
}

TEST_F(CacheExtractionTest, ArraysComeBackAsArraysInIndexOrder) {
  auto cache = Cache::create(graph(R"({"arr": [{"v": 0}, {"v": 1}, {"v": 2}]})"));
  const Path p{{Key::string("arr")}, {Key::string("2"), Key::string("0"), Key::string("9")}, {Key::string("v")}};
  EXPECT_EQ(cache->getCache(PathTree::fromPaths({p})).jsonGraph, graph(R"({"arr": [{"v": 0}, {"v": 2}]})"));
}

TEST_F(CacheExtractionTest, ReferenceCyclesStopAndKeepWhatWasGathered) {
  auto cache = Cache::create(graph(R"({"a": {"$type": "ref", "value": ["b"]}, "b": {"$type": "ref", "value": ["a"]},
                                        "s": {"$type": "ref", "value": ["s", "t"]}})"));
  EXPECT_EQ(cache->getCache(tree({"a.x"})).jsonGraph,
            graph(R"({"a": {"$type": "ref", "value": ["b"]}, "b": {"$type": "ref", "value": ["a"]}})"));
  EXPECT_EQ(cache->getCache(tree({"s.x"})).jsonGraph, graph(R"({"s": {"$type": "ref", "value": ["s", "t"]}})"));
}

// --- Merge ---

using CacheMergeTest = CacheTest;

TEST_F(CacheMergeTest, ChangingMergesStepTheVersionByOneAndEqualOnesDoNot) {
  auto cache = Cache::create();
  cache->merge(graph(R"({"a": {"b": 1}})"));
  settle();
  EXPECT_EQ(cache->version(), 2u);
  const JSONGraph before = cache->jsonGraph();
  cache->merge(graph(R"({"a": {"b": 1.0}})"));
  cache->merge(graph(R"({})"));
  cache->merge(graph(R"({"a": {}})"));
  settle();
  EXPECT_EQ(cache->version(), 2u);
  EXPECT_EQ(internal::slot(cache->jsonGraph()), internal::slot(before));
  cache->merge(graph(R"({"a": {"c": 2}})"));
  settle();
  EXPECT_EQ(cache->version(), 3u);
  EXPECT_EQ(cache->jsonGraph(), graph(R"({"a": {"b": 1, "c": 2}})"));
}

TEST_F(CacheMergeTest, LeafTimestampsDecideBetweenWrappedLeaves) {
  auto cache = Cache::create(graph(R"({"x": {"$type": "atom", "value": "old", "$timestamp": 2000}})"));
  cache->merge(graph(R"({"x": {"$type": "atom", "value": "older", "$timestamp": 1000}})"));
  settle();
  EXPECT_EQ(cache->version(), 1u);
  cache->merge(graph(R"({"x": {"$type": "atom", "value": "same time", "$timestamp": 2000}})"));
  settle();
  EXPECT_EQ(cache->jsonGraph().find("x")->leaf().value(), value(R"("same time")"));
  cache->merge(graph(R"({"x": {"$type": "error", "value": "no time"}})"));
  settle();
  EXPECT_EQ(cache->jsonGraph().find("x")->leaf().kind(), JSONGraphLeaf::Kind::Error);
  cache->merge(graph(R"({"x": 5})"));
  settle();
  EXPECT_EQ(cache->jsonGraph(), graph(R"({"x": 5})"));
  EXPECT_EQ(cache->version(), 4u);
}

TEST_F(CacheMergeTest, ABranchMergesIntoAnAtomHoldingAnObjectKeepingItsMetadata) {
  auto cache = Cache::create(graph(R"({"x": {"$type": "atom", "value": {"a": 1, "b": {"c": 2}}, "$timestamp": 5}})"));
  cache->merge(graph(R"({"x": {"b": {"d": 3}, "r": {"$type": "ref", "value": ["p"]}}})"));
  settle();
  EXPECT_EQ(cache->jsonGraph(), graph(R"({"x": {"$type": "atom", "$timestamp": 5, "value":
      {"a": 1, "b": {"c": 2, "d": 3}, "r": {"$type": "ref", "value": ["p"]}}}})"));
  cache->merge(graph(R"({"x": {"b": {"c": 2}}})"));
  cache->merge(graph(R"({"x": [1]})"));
  settle();
  EXPECT_EQ(cache->version(), 3u);
  EXPECT_EQ(cache->jsonGraph(), graph(R"({"x": [1]})"));
}

TEST_F(CacheMergeTest, ArraysMergeByIndexAndOtherKindsReplace) {
  auto cache = Cache::create(graph(R"({"arr": [{"a": 1}, 2, 3], "o": {"k": 1}, "leaf": 1})"));
  cache->merge(graph(R"({"arr": [{"b": 2}], "o": [1], "leaf": {"k": 2}})"));
  settle();
  EXPECT_EQ(cache->jsonGraph(), graph(R"({"arr": [{"a": 1, "b": 2}, 2, 3], "o": [1], "leaf": {"k": 2}})"));
  cache->merge(graph(R"({"arr": [{"a": 1}, 2, 3, 4]})"));
  settle();
  EXPECT_EQ(cache->jsonGraph().find("arr")->size(), 4u);
}

TEST_F(CacheMergeTest, AResponseThatIsNotABranchLeavesTheRootAlone) {
  auto cache = Cache::create(graph(R"({"a": 1})"));
  cache->merge(graph(R"([1, 2])"));
  cache->merge(JSONGraph(JSONGraphLeaf::primitive(JSONPrimitive::integer(3))));
  settle();
  EXPECT_EQ(cache->version(), 1u);
  EXPECT_EQ(cache->jsonGraph(), graph(R"({"a": 1})"));
}

TEST_F(CacheMergeTest, BatchAfterBatchIntoALargeBranchKeepsEveryRecord) {
  auto cache = Cache::create();
  for (std::size_t batch = 0; batch < 6; ++batch) {
    cache->merge(JSONGraph::fromAny(testing::catalogueVideos(batch * 1000, 1000, testing::Dialect::Core)));
  }
  cache->merge(JSONGraph::fromAny(testing::catalogueVideos(2500, 10, testing::Dialect::Core)));
  settle();
  EXPECT_EQ(cache->version(), 7u);
  const JSONGraph videos = *cache->jsonGraph().find("videos");
  EXPECT_EQ(videos.size(), 6000u);
  for (std::size_t i : {0u, 999u, 4096u, 5999u}) {
    EXPECT_EQ(videos.find("v" + std::to_string(i))->find("year")->leaf().primitive().numberObject(),
              Object(static_cast<std::int64_t>(1950 + i % 70)));
  }
}

// --- Invalidation ---

using CacheInvalidationTest = CacheTest;

TEST_F(CacheInvalidationTest, AnAbsentLastKeyChangesNothing) {
  catalogue_->invalidate(tree({"videos.v1.nothing", "nowhere.at.all"}));
  settle();
  EXPECT_EQ(catalogue_->version(), 1u);
}

TEST_F(CacheInvalidationTest, APathThroughAReferenceRemovesTheTargetToo) {
  catalogue_->invalidate(tree({"lists.top.1.title"}));
  settle();
  EXPECT_EQ(catalogue_->version(), 2u);  // the target's title; the reference itself is a leaf and stays
  EXPECT_FALSE(catalogue_->jsonGraph().find("videos")->find("v1")->find("title").has_value());
  EXPECT_TRUE(catalogue_->jsonGraph().find("lists")->find("top")->find("1").has_value());
  catalogue_->invalidate(tree({"lists.top.2.year", "lists.top.0"}));
  settle();
  EXPECT_EQ(catalogue_->version(), 4u);  // two passes, each a change
  EXPECT_FALSE(catalogue_->jsonGraph().find("videos")->find("v2")->find("year").has_value());
  EXPECT_FALSE(catalogue_->jsonGraph().find("lists")->find("top")->find("0").has_value());
}

TEST_F(CacheInvalidationTest, RemovesWholeBranchesAndArrayElements) {
  auto cache = Cache::create(graph(R"({"a": {"b": {"c": 1}, "d": 2}, "arr": [0, {"x": 1, "y": 2}, 2]})"));
  cache->invalidate(tree({"a.b", "arr.1.x", "arr.0"}));
  settle();
  EXPECT_EQ(cache->jsonGraph(), graph(R"({"a": {"d": 2}, "arr": [{"y": 2}, 2]})"));
  EXPECT_EQ(cache->version(), 2u);
}

TEST_F(CacheInvalidationTest, ReferenceCyclesCannotHangIt) {
  auto cache = Cache::create(graph(R"({"a": {"$type": "ref", "value": ["b"]}, "b": {"$type": "ref", "value": ["a"]},
                                        "c": 1})"));
  cache->invalidate(tree({"a.x", "c"}));
  settle();
  EXPECT_EQ(cache->jsonGraph(),
            graph(R"({"a": {"$type": "ref", "value": ["b"]}, "b": {"$type": "ref", "value": ["a"]}})"));
}

// --- Platform-JSON reads and their memo ---

class CacheJSONTest : public CacheTest {
 protected:
  static Object json(const CacheProtocol& cache, const std::vector<Path>& paths) {
    Result<Object, BrivetError> r = cache.getJSON(paths);
    EXPECT_TRUE(r.ok()) << (r.ok() ? "" : r.error().description());
    return r.ok() ? r.value() : Object();
  }
};

TEST_F(CacheJSONTest, MemoisesOptimizedPathsUntilTheGraphIsReplaced) {
  auto cache = Cache::create(JSONGraph::fromAny(testing::catalogueDocument(3, 3, 0)), std::nullopt,
                             std::vector<std::string>{"videos"});
  const std::vector<Path> paths{path("videos.v1.title")};
  const Object first = json(*cache, paths);
  EXPECT_TRUE(first.isEqual(
      Object::dictionary({{"videos", Object::dictionary({{"v1", Object::dictionary({{"title", "Title 1"}})}})}})));
  settle();
  EXPECT_TRUE(json(*cache, paths).isIdentical(first));
  cache->merge(graph(R"({"videos": {"v1": {"title": "Title 1"}}})"));  // equal: the memo stays
  settle();
  EXPECT_TRUE(json(*cache, paths).isIdentical(first));
  cache->merge(graph(R"({"videos": {"v2": {"title": "New"}}})"));
  settle();
  const Object afterMerge = json(*cache, paths);
  EXPECT_FALSE(afterMerge.isIdentical(first));
  settle();
  cache->invalidate(tree({"videos.v0"}));
  settle();
  EXPECT_FALSE(json(*cache, paths).isIdentical(afterMerge));
  settle();
  const Object memoised = json(*cache, paths);
  cache->setCache(cache->getCache(std::nullopt));
  settle();
  EXPECT_FALSE(json(*cache, paths).isIdentical(memoised));
}

TEST_F(CacheJSONTest, OtherPathsAndPrefixesAreNotMemoised) {
  auto cache = Cache::create(graph(R"({"p": {"x": 1}, "q": {"x": 2}})"), std::vector<std::string>{"p"},
                             std::vector<std::string>{"p"});
  const Object p = json(*cache, {path("p.x")});
  const Object q = json(*cache, {path("q.x")});
  settle();
  EXPECT_FALSE(json(*cache, {path("p.x")}).isIdentical(p));
  EXPECT_FALSE(json(*cache, {path("q.x")}).isIdentical(q));
  EXPECT_TRUE(q.isEqual(Object::dictionary({{"q", Object::dictionary({{"x", 2}})}})));
}

TEST_F(CacheJSONTest, PathsMergeKeyByKey) {
  const Object two = json(*catalogue_, {path("lists.top.1.title"), path("lists.top.1.year"), path("videos.v2.genre")});
  EXPECT_EQ(two["lists"]["top"]["1"]["title"].stringValue(), "Title 1");
  EXPECT_TRUE(two["lists"]["top"]["1"]["year"].isEqual(Object(1951)));
  EXPECT_EQ(two["videos"]["v2"]["genre"].stringValue(), "Action");
  // No paths: an empty dictionary, which is a success.
  EXPECT_TRUE(json(*catalogue_, {}).isDictionary());
  EXPECT_EQ(json(*catalogue_, {}).count(), 0u);
}

TEST_F(CacheJSONTest, AFailingPathFailsTheCallWithItsError) {
  // "videos.v2" ends on a branch: the error names the keys read up to it.
  Result<Object, BrivetError> branch = catalogue_->getJSON({path("videos.v2.genre"), path("videos.v2")});
  ASSERT_FALSE(branch.ok());
  EXPECT_EQ(branch.error(), BrivetError::responseJSONGraphFailed(
                                BrivetError::JSONGraphFailureReason::invalidAttempt({"videos", "v2"})));
  // Error leaves and missing entries are left out; that is no failure.
  auto cache = Cache::create(graph(R"({"a": {"b": {"$type": "error", "value": {"message": "gone"}}, "c": 1}})"));
  EXPECT_TRUE(json(*cache, {path("a.b"), path("a.c"), path("nothing.here")})
                  .isEqual(Object::dictionary({{"a", Object::dictionary({{"c", 1}})}})));
}

TEST_F(CacheJSONTest, MergingSeveralPathsLeavesTheMemoisedAnswersAsTheyWere) {
  auto cache = Cache::create(JSONGraph::fromAny(testing::catalogueDocument(3, 3, 0)), std::nullopt,
                             std::vector<std::string>{"videos"});
  const Object title = json(*cache, {path("videos.v1.title")});
  const Object year = json(*cache, {path("videos.v1.year")});
  settle();
  const Object titleText = Object(writeJSON(title, JSONWritingOptions::SortedKeys).value());
  const Object yearText = Object(writeJSON(year, JSONWritingOptions::SortedKeys).value());
  // Both answers come from the memo now; merging them must write into copies.
  const Object both = json(*cache, {path("videos.v1.title"), path("videos.v1.year"), path("videos.v2.title")});
  EXPECT_EQ(both["videos"]["v1"].count(), 2u);
  EXPECT_EQ(both["videos"].count(), 2u);
  EXPECT_TRUE(json(*cache, {path("videos.v1.title")}).isIdentical(title));
  EXPECT_EQ(writeJSON(title, JSONWritingOptions::SortedKeys).value(), titleText.stringValue());
  EXPECT_EQ(writeJSON(year, JSONWritingOptions::SortedKeys).value(), yearText.stringValue());
}

}  // namespace
}  // namespace brivet
