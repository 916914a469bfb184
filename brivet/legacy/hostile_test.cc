// The legacy model fed references that fan out: answers and key paths whose key sets walk a cycle of references
// level by level, and responses whose many references lead to one large target. Each ends, with one error where
// a walk goes past its budget, and leaves the cache readable.
#include <gtest/gtest.h>

#include <string>

#include "brivet/legacy/internal/graph.h"
#include "brivet/legacy/model.h"
#include "brivet/legacy/testing/legacy_doubles.h"

namespace brivet {
namespace {

using ::brivet::testing::Completions;
using ::brivet::testing::json;
using ::brivet::testing::ScriptedDataSource;
using ::brivet::testing::ScriptedResponse;

const std::string kBudgetMessage = " ERROR: Reading the paths went past the walk budget of the cache (" +
                                   std::to_string(internal::kWalkStepBudget) + " steps plus 1 per key of the paths).";

class LegacyHostileTest : public ::testing::Test {
 protected:
  void SetUp() override { model->setDataSource(dataSource); }

  // Waits for the single completion and for the model's queue to finish the block that delivered it.
  Completions await(Completions done) {
    EXPECT_TRUE(done.waitFor(1));
    model->valueForKey("-");
    EXPECT_EQ(done.results().size(), 1u);
    return done;
  }
  Completions get(const std::string& keyPath, BrivetModelOption option) {
    Completions done;
    model->getKeyPaths(std::vector<std::string>{keyPath}, option, std::nullopt, done.callback());
    return await(done);
  }
  Completions call() {
    Completions done;
    model->callFunction(std::make_shared<BrivetFunctionCall>("lists.add", std::nullopt, std::nullopt, std::nullopt),
                        std::nullopt, done.callback());
    return await(done);
  }

  std::shared_ptr<BrivetModel> model = BrivetModel::create();
  std::shared_ptr<ScriptedDataSource> dataSource = std::make_shared<ScriptedDataSource>();
};

TEST_F(LegacyHostileTest, ACallAnswerWhosePathsFanOutThroughACycleEndsWithOneError) {
  std::string pathSet = R"(["a")";
  for (int i = 0; i < 40; ++i) pathSet += R"(, ["x", "y"])";
  pathSet += R"(, "t"])";
  dataSource->response = ScriptedResponse{
      json(R"({"value": {"a": {"x": ["a"], "y": ["a"], "t": 1}}, "paths": [)" + pathSet + "]}"), Object(), {}};
  const Completions done = call();
  ASSERT_TRUE(done.errors()[0].has_value());
  EXPECT_EQ(done.errors()[0]->localizedDescription(), "BrivetModel:callFunction" + kBudgetMessage);
  EXPECT_EQ(model->valueForKeyPath("a.t").asNumber()->int64Value(), 1);

  // The same answer read for five levels: every one of the 32 paths ends on a.t.
  pathSet = R"(["a", ["x", "y"], ["x", "y"], ["x", "y"], ["x", "y"], ["x", "y"], "t"])";
  dataSource->response = ScriptedResponse{
      json(R"({"value": {"a": {"x": ["a"], "y": ["a"], "t": 1}}, "paths": [)" + pathSet + "]}"), Object(), {}};
  const Completions five = call();
  EXPECT_FALSE(five.errors()[0].has_value());
  EXPECT_EQ(five.results()[0]["a"]["y"]["x"]["y"]["y"]["x"]["t"].asNumber()->int64Value(), 1);
}

TEST_F(LegacyHostileTest, AKeyPathFanningOutThroughRangesEndsWithOneError) {
  model->mergeJSONDictionaryIntoModel(json(R"({"a": {"0": ["a"], "1": ["a"], "t": 1}})"));
  std::string keyPath = "a";
  for (int i = 0; i < 40; ++i) keyPath += ".@range(0,1)";
  keyPath += ".t";
  // Collecting the misses goes past the budget: nothing is fetched.
  const Completions fetched = get(keyPath, BrivetModelOptionDefault);
  ASSERT_TRUE(fetched.errors()[0].has_value());
  EXPECT_EQ(fetched.errors()[0]->localizedDescription(), "BrivetModel:getKeyPaths" + kBudgetMessage);
  EXPECT_TRUE(dataSource->getParams().empty());
  // Reading the cache alone goes past it too.
  const Completions cached = get(keyPath, BrivetModelOptionReturnCacheDataDontFetch);
  ASSERT_TRUE(cached.errors()[0].has_value());
  EXPECT_EQ(cached.errors()[0]->localizedDescription(), "BrivetModel:getKeyPaths" + kBudgetMessage);
}

TEST_F(LegacyHostileTest, AMergeMergesATargetOnceHoweverManyReferencesLeadToIt) {
  // 20,000 references to one branch of 20,000 values: merged once per reference, that is 400 million stores.
  constexpr int kCount = 20000;
  std::string response = R"({"big": {)";
  for (int i = 0; i < kCount; ++i) response += (i > 0 ? ", " : "") + ("\"k" + std::to_string(i) + "\": " + std::to_string(i));
  response += R"(}, "refs": {)";
  for (int i = 0; i < kCount; ++i) response += (i > 0 ? ", " : "") + ("\"r" + std::to_string(i) + "\": [\"big\"]");
  response += "}}";
  model->mergeJSONDictionaryIntoModel(json(response));
  EXPECT_EQ(model->valueForKeyPath("refs.r19999.k19999").asNumber()->int64Value(), kCount - 1);

  // The same shape as a get's answer, over what the cache now holds.
  dataSource->response = ScriptedResponse{json(R"({"value": )" + response + "}"), Object(), {}};
  const Completions done = get("refs.r7.k7", BrivetModelOptionForceRemote);
  EXPECT_FALSE(done.errors()[0].has_value());
  EXPECT_EQ(done.results()[0]["refs"]["r7"]["k7"].asNumber()->int64Value(), 7);
}

}  // namespace
}  // namespace brivet
