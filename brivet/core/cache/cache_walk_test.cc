// The cache's walks over hostile requests and graphs: ranges as wide as 64
// bits, and key sets that fan out through cycles of references. Each must
// cost what the graph holds and the request names, never what a range spans
// or what the fan-out multiplies to.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <vector>

#include "brivet/core/cache/cache.h"
#include "brivet/platform/json.h"

namespace brivet {
namespace {

using namespace std::chrono_literals;

constexpr std::int64_t kMax = INT64_MAX;

JSONGraph graph(std::string_view text) {
  Result<JSONGraph> g = JSONGraph::fromJSONText(text);
  EXPECT_TRUE(g.ok()) << text;
  return g.ok() ? g.value() : JSONGraph();
}
JSONValue value(std::string_view text) {
  Result<Object> o = parseJSON(text);
  EXPECT_TRUE(o.ok()) << text;
  return JSONValue::fromAny(o.ok() ? o.value() : Object());
}
PathTree tree(std::vector<std::string> keyPaths) { return PathTree::fromKeyPaths(keyPaths); }
PathTree arrays(std::string_view pathArrays) {
  Result<Object> o = parseJSON(pathArrays);
  EXPECT_TRUE(o.ok()) << pathArrays;
  return PathTree::fromPathArrays(o.ok() ? o.value() : Object());
}
Path key(std::string k) { return {{Key::string(std::move(k))}}; }

// The path a, then `levels` times the key set [x, y], then t.
Path fanOut(int levels) {
  Path p = key("a");
  for (int i = 0; i < levels; ++i) p.push_back({Key::string("x"), Key::string("y")});
  p.push_back({Key::string("t")});
  return p;
}

class CacheWalkTest : public ::testing::Test {
 protected:
  static void settle() {
    auto done = std::make_shared<std::atomic<bool>>(false);
    cacheQueue()->asyncBarrier([done] { *done = true; });
    ASSERT_TRUE(DispatchQueue::main()->runUntil([&] { return done->load(); }, 5000ms));
  }
  static CacheValues read(const CacheProtocol& cache, const PathTree& request) {
    Result<CacheValues, BrivetError> r = cache.getValues(request, true);
    EXPECT_TRUE(r.ok()) << (r.ok() ? "" : r.error().description());
    return r.ok() ? r.value() : CacheValues{};
  }

  std::shared_ptr<Cache> sparse_ = Cache::create(graph(R"({
      "list": {"0": {"t": "a"}, "1": {"t": "b"}, "5": {"t": "f"}, "007": {"t": "no"}, "x": {"t": "no"}},
      "arr": [{"t": 0}, {"t": 1}],
      "gone": {"$type": "ref", "value": ["nowhere"]}})"));
  // Every level of `a` leads back to `a` twice.
  std::shared_ptr<Cache> cycle_ = Cache::create(graph(R"({"a": {"x": {"$type": "ref", "value": ["a"]},
                                                                "y": {"$type": "ref", "value": ["a"]}, "t": 1}})"));
};

TEST_F(CacheWalkTest, AHugeRangeReadsWhatTheBranchHoldsAndReportsItsGapsAsRanges) {
  const CacheValues r = read(*sparse_, tree({"list.@range(0,9223372036854775807).t"}));
  EXPECT_EQ(r.value, value(R"({"list": {"0": {"t": "a"}, "1": {"t": "b"}, "5": {"t": "f"}}})"));
  const PathTree missing = PathTree::fromPaths(
      {{{Key::string("list")}, {Key::range(2, 4)}, {Key::string("t")}},
       {{Key::string("list")}, {Key::range(6, kMax)}, {Key::string("t")}}});
  EXPECT_EQ(r.missingPathTree, missing);
  EXPECT_EQ(r.missingOptimizedPathTree, missing);

  const CacheValues a = read(*sparse_, tree({"arr.@range(1,9223372036854775807).t"}));
  EXPECT_EQ(a.value, value(R"({"arr": {"1": {"t": 1}}})"));
  EXPECT_EQ(a.missingPathTree,
            PathTree::fromPaths({{{Key::string("arr")}, {Key::range(2, kMax)}, {Key::string("t")}}}));
}

TEST_F(CacheWalkTest, ARangeOverAMissingBranchComesBackAsItWasAsked) {
  const PathTree request = tree({"nothing.@range(0,9223372036854775807).t"});
  EXPECT_EQ(read(*sparse_, request).missingPathTree, request);
  // Through a reference to an absent target: as asked, and where it lies in the graph.
  const CacheValues r = read(*sparse_, tree({"gone.@range(0,9223372036854775807).t"}));
  EXPECT_EQ(r.missingPathTree, tree({"gone.@range(0,9223372036854775807).t"}));
  EXPECT_EQ(r.missingOptimizedPathTree, tree({"nowhere.@range(0,9223372036854775807).t"}));
}

TEST_F(CacheWalkTest, RangesFromAServerAreJoinedWhereverTheyOverlap) {
  // Negative, overlapping and repeated ranges, as a call answer's "paths" may hold them.
  const CacheValues r = read(*sparse_, arrays(R"([["list", [{"from": -5, "to": 1}, {"from": 0, "to": 9223372036854775807},
                                                           {"from": 0, "to": 9223372036854775807}], "t"]])"));
  EXPECT_EQ(r.value, value(R"({"list": {"0": {"t": "a"}, "1": {"t": "b"}, "5": {"t": "f"}}})"));
  EXPECT_EQ(r.missingPathTree, PathTree::fromPaths({{{Key::string("list")}, {Key::range(-5, -1)}, {Key::string("t")}},
                                                    {{Key::string("list")}, {Key::range(2, 4)}, {Key::string("t")}},
                                                    {{Key::string("list")}, {Key::range(6, kMax)}, {Key::string("t")}}}));
}

TEST_F(CacheWalkTest, ExtractionAndInvalidationTakeOnlyWhatExists) {
  auto cache = Cache::create(graph(R"({"list": {"0": "a", "1": "b", "5": "f", "007": "no", "x": "no"},
                                        "arr": [0, 1, 2]})"));
  const PathTree request = tree({"list.@range(0,9223372036854775807)", "arr.@range(1,9223372036854775807)"});
  EXPECT_EQ(cache->getCache(request).jsonGraph, graph(R"({"list": {"0": "a", "1": "b", "5": "f"}, "arr": [1, 2]})"));
  cache->invalidate(request);
  settle();
  EXPECT_EQ(cache->jsonGraph(), graph(R"({"list": {"007": "no", "x": "no"}, "arr": [0]})"));
  EXPECT_EQ(cache->version(), 2u);
}

TEST_F(CacheWalkTest, KeySetsFanningOutThroughACycleStopAtTheBudget) {
  // Five levels read in full: 32 paths end on a.t.
  Result<CacheValues, BrivetError> small = cycle_->getValues(PathTree::fromPaths({fanOut(5)}), true);
  ASSERT_TRUE(small.ok());
  EXPECT_EQ(small->value.find("a")->find("x")->find("y")->find("x")->find("x")->find("y")->find("t"),
            value(R"({"t": 1})").find("t"));

  // Forty levels would be 2^40 walks.
  const PathTree hostile = PathTree::fromPaths({fanOut(40)});
  Result<CacheValues, BrivetError> r = cycle_->getValues(hostile, true);
  ASSERT_FALSE(r.ok());
  EXPECT_TRUE(exceedsWalkBudget(r.error()));
  const auto& errors = r.error().jsonGraphReason()->errors();
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].value, value(R"({"message": "walk exceeded its budget of )" +
                                   std::to_string(walkBudget(hostile)) + R"( steps"})"));
  EXPECT_FALSE(exceedsWalkBudget(BrivetError::invalidAttempt()));

  // An extraction keeps what it gathered; an invalidation ends.
  EXPECT_TRUE(cycle_->getCache(hostile).jsonGraph.find("a").has_value());
  cycle_->invalidate(hostile);
  settle();
  EXPECT_TRUE(cycle_->jsonGraph().find("a").has_value());
}

TEST_F(CacheWalkTest, TheBudgetGrowsWithTheKeysOfTheRequest) {
  EXPECT_EQ(walkBudget(tree({"a.b.c"})), kWalkStepBudget + 3 * kWalkStepsPerRequestKey);
  // A range is one key, however wide.
  EXPECT_EQ(walkBudget(tree({"a.@range(0,9223372036854775807)", "a.b"})),
            kWalkStepBudget + 3 * kWalkStepsPerRequestKey);
}

}  // namespace
}  // namespace brivet
