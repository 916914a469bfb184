#include "brivet/core/values/path_tree.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "brivet/core/values/brivet_error.h"
#include "brivet/core/values/json_graph.h"
#include "brivet/platform/json.h"

namespace brivet {
namespace {

KeySet keys(std::initializer_list<const char*> names) {
  KeySet out;
  for (const char* n : names) out.push_back(Key::string(n));
  return out;
}
PathTree obj(std::vector<PathTree::Entry> entries) { return PathTree::object(std::move(entries)); }
std::vector<std::string> iterate(const KeySet& set) {
  std::vector<std::string> out;
  KeyIterator it(set);
  while (std::optional<std::string_view> k = it.next()) out.emplace_back(*k);
  EXPECT_FALSE(it.next().has_value());
  return out;
}

TEST(PathGrammarTest, ComponentsRangesAndText) {
  EXPECT_EQ(PathTree::fromKeyPaths({""}), PathTree());
  EXPECT_EQ(PathTree::fromKeyPaths({"..."}), PathTree());
  EXPECT_EQ(PathTree::fromKeyPaths({"a..b"}), PathTree::fromKeyPaths({"a.b"}));
  EXPECT_EQ(PathTree::fromKeyPaths({"list.@range(0,2)"}),
            obj({{keys({"list"}), obj({{KeySet{Key::range(0, 2)}, PathTree::self()}})}}));
  EXPECT_EQ(PathTree::parsePath("list.@RANGE(1,1)")[1][0], Key::range(1, 1));
  EXPECT_EQ(PathTree::parsePath("list.@range(1, 2)")[1][0], Key::string("@range(1, 2)"));
  EXPECT_EQ(PathTree::parsePath("list.@range(1,2)x")[1][0], Key::range(1, 2));
  EXPECT_EQ(PathTree::parsePath("x@range(1,2)")[0][0], Key::string("x@range(1,2)"));
  EXPECT_EQ(PathTree::parsePath("@range(99999999999999999999,1)")[0][0], Key::string("@range(99999999999999999999,1)"));
  EXPECT_EQ(PathTree::parsePath("@range(5,2)")[0][0], Key::range(5, 2));   // accepted here, checked when iterated
  EXPECT_EQ(PathTree::parsePath("videos.123")[1][0], Key::string("123"));  // digits give text keys
  std::string tooLong;
  for (int i = 0; i < 600; ++i) tooLong += "a.";
  EXPECT_TRUE(PathTree::parsePath(tooLong).empty());
}

TEST(PathTreeMergeTest, Precedences) {
  const PathTree deep = obj({{keys({"a"}), obj({{keys({"b"}), obj({{keys({"c"}), PathTree::self()}})}})}});
  EXPECT_EQ(PathTree::fromKeyPaths({"a.b", "a.b.c"}), deep);
  EXPECT_EQ(PathTree::fromKeyPaths({"a.b.c", "a.b"}), deep);
  EXPECT_EQ(PathTree::fromKeyPaths({"a.b", "a.c"}),
            obj({{keys({"a"}), obj({{keys({"b"}), PathTree::self()}, {keys({"c"}), PathTree::self()}})}}));
  // A key set or a target already accumulated is never replaced.
  const PathTree withTarget = obj({{keys({"a"}), PathTree::target()}});
  EXPECT_EQ(PathTree::merge(PathTree::fromKeyPaths({"a.b"}), withTarget), withTarget);
  const PathTree withKeySet = obj({{keys({"a"}), PathTree::keySet(keys({"x"}))}});
  EXPECT_EQ(PathTree::merge(PathTree::fromKeyPaths({"a.b"}), withKeySet), withKeySet);
  EXPECT_EQ(PathTree::merge(PathTree::self(), PathTree::fromKeyPaths({"a"})), PathTree::fromKeyPaths({"a"}));
  EXPECT_EQ(PathTree::merge(deep, PathTree::self()), deep);
  EXPECT_EQ(PathTree::merge(PathTree::target(), PathTree::self()), PathTree::self());
  // Whole key sets are map keys.
  const PathTree sets = PathTree::fromPaths({{keys({"a", "b"}), keys({"x"})}, {keys({"b", "a"}), keys({"y"})}});
  EXPECT_EQ(sets.entries().size(), 2u);
}

TEST(PathTreeMergeTest, ManyPathsBuildOneTree) {
  std::vector<std::string> paths;
  for (int i = 0; i < 3000; ++i)
    paths.push_back("videos.v" + std::to_string(i % 1000) + ".f" + std::to_string(i / 1000));
  const PathTree tree = PathTree::fromKeyPaths(paths);
  const PathTree* videos = tree.find(keys({"videos"}));
  ASSERT_NE(videos, nullptr);
  EXPECT_EQ(videos->entries().size(), 1000u);
  EXPECT_EQ(videos->find(keys({"v999"}))->entries().size(), 3u);
}

TEST(PathTreeFlattenTest, SelvesGatherPerLevel) {
  const PathTree tree = PathTree::fromKeyPaths(
      {"lists.top.@range(0,9).title", "lists.top.@range(0,9).rating", "videos.v1", "videos.v2.title"});
  const std::vector<Path> paths = tree.paths();
  ASSERT_EQ(paths.size(), 3u);
  EXPECT_EQ(paths[0], (Path{keys({"lists"}), keys({"top"}), KeySet{Key::range(0, 9)}, keys({"title", "rating"})}));
  EXPECT_EQ(paths[1], (Path{keys({"videos"}), keys({"v1"})}));
  EXPECT_EQ(paths[2], (Path{keys({"videos"}), keys({"v2"}), keys({"title"})}));
  EXPECT_EQ(tree.keyPathStrings(),
            (std::vector<std::string>{"lists.top.@range(0,9).title", "lists.top.@range(0,9).rating", "videos.v1",
                                      "videos.v2.title"}));
  // Targets are not listed; a key set below an entry follows that entry's key set.
  const PathTree mixed = obj({{keys({"r"}), PathTree::target()}, {keys({"k"}), PathTree::keySet(keys({"x", "y"}))}});
  EXPECT_EQ(mixed.paths(), (std::vector<Path>{{keys({"k"}), keys({"x", "y"})}}));
  EXPECT_TRUE(PathTree().paths().empty());
  EXPECT_TRUE(PathTree::self().paths().empty());
}

TEST(PathArrayTest, ArraysRangesAndInvalidRanges) {
  const Object paths = parseJSON(R"([
      ["lists", "top", {"from": 0, "to": 2}, ["title", "rating"]],
      ["videos", {"length": 2}],
      ["videos", 7, {"from": 3, "length": 2}],
      ["stops", {"nothing": 1}, "ignored"],
      ["bad", {"from": 5, "to": 2}],
      ["overflow", {"from": 9223372036854775807, "length": 2}],
      ["empty", {"from": 5, "length": 0}],
      "not a path",
      []
    ])")
                           .value();
  const PathTree tree = PathTree::fromPathArrays(paths);
  EXPECT_EQ(tree.entries().size(), 3u);  // lists, videos, stops
  EXPECT_EQ(tree.find(keys({"bad"})), nullptr);
  EXPECT_EQ(tree.find(keys({"overflow"})), nullptr);
  EXPECT_EQ(tree.find(keys({"empty"})), nullptr);
  EXPECT_EQ(*tree.find(keys({"stops"})), PathTree::self());
  const PathTree* videos = tree.find(keys({"videos"}));
  ASSERT_NE(videos, nullptr);
  EXPECT_EQ(*videos->find(KeySet{Key::range(0, 1)}), PathTree::self());
  EXPECT_EQ(*videos->find(KeySet{Key::number(Object(7))})->find(KeySet{Key::range(3, 4)}), PathTree::self());
  // The JSON array form reads back to the same tree.
  EXPECT_EQ(PathTree::fromPathArrays(tree.toJSONArray()), tree);
  EXPECT_EQ(writeJSON(PathTree::fromKeyPaths({"a.@range(1,2).b"}).toJSONArray()).value(),
            R"([["a",{"from":1,"to":2},"b"]])");
}

TEST(PathTreeDepthTest, TreesNeverNestPastTheLimit) {
  // Built by hand, a hundred thousand levels: entries past 512 levels are dropped.
  PathTree deep = PathTree::self();
  for (int i = 0; i < 100000; ++i) deep = PathTree::object({{{Key::string("k")}, deep}});
  EXPECT_LE(deep.depth(), 512u);
  EXPECT_EQ(deep, deep);
  EXPECT_FALSE(deep.description().empty());
  EXPECT_TRUE(deep.paths().empty() || deep.paths().front().size() <= 512);
  // The readers' longest paths fit exactly.
  std::string keyPath = "a";
  for (int i = 1; i < 512; ++i) keyPath += ".a";
  const PathTree longest = PathTree::fromKeyPaths({keyPath});
  EXPECT_EQ(longest.depth(), 512u);
  EXPECT_EQ(longest.paths().front().size(), 512u);
  EXPECT_EQ(PathTree::fromKeyPaths({keyPath + ".a"}), PathTree());
  EXPECT_EQ(PathTree::object({{{Key::string("x")}, longest}}).entries().size(), 0u);
}

TEST(PathTreeGraphTest, TreeCoversEveryNode) {
  const JSONGraph g = JSONGraph::fromAny(parseJSON(R"({"a": {"b": 1, "r": {"$type": "ref", "value": ["x"]}},
                                                         "list": [{"$type": "atom", "value": 2}, 3]})")
                                             .value());
  EXPECT_EQ(PathTree::fromGraph(g),
            obj({{keys({"a"}), obj({{keys({"b"}), PathTree::self()}, {keys({"r"}), PathTree::target()}})},
                 {keys({"list"}), obj({{keys({"0"}), PathTree::self()}, {keys({"1"}), PathTree::self()}})}}));
  EXPECT_EQ(PathTree::fromGraph(JSONGraph()), PathTree());
}

TEST(KeyIteratorTest, ExpandsInOrder) {
  EXPECT_EQ(iterate(KeySet{Key::range(0, 2)}), (std::vector<std::string>{"0", "1", "2"}));
  EXPECT_EQ(iterate(KeySet{Key::string("a"), Key::number(Object(3)), Key::range(7, 7), Key::string("b")}),
            (std::vector<std::string>{"a", "3", "7", "b"}));
  EXPECT_EQ(iterate(KeySet{Key::range(INT64_MAX - 1, INT64_MAX)}).size(), 2u);
  EXPECT_TRUE(iterate(KeySet{}).empty());
}

TEST(KeyIteratorDeathTest, ReversedRangeStops) {
  EXPECT_DEATH(iterate(KeySet{Key::range(2, 1)}), "end lies before its start");
}

TEST(KeyTest, EqualityHashingAndDescription) {
  EXPECT_NE(Key::string("1"), Key::number(Object(1)));
  EXPECT_NE(Key::number(Object(1)), Key::range(1, 1));
  EXPECT_EQ(Key::number(Object(1)), Key::number(Object(1.0)));
  EXPECT_EQ(Key::number(Object(1)).hash(), Key::number(Object(1.0)).hash());
  EXPECT_EQ(Key::string("a").description(), "\"a\"");
  EXPECT_EQ(Key::number(Object(3)).description(), "3");
  EXPECT_EQ(Key::range(1, 2).description(), "{from: 1, to: 2}");
  // A number key 3 and a string key 3 are different map keys that iterate alike.
  const PathTree both = obj({{KeySet{Key::number(Object(3))}, PathTree::self()}, {keys({"3"}), PathTree::self()}});
  EXPECT_EQ(both.entries().size(), 2u);
  EXPECT_EQ(PathTree::target().description(), "`target`");
  EXPECT_EQ(PathTree::fromKeyPaths({"a"}).description(), "[[\"a\"]: `self`]");
}

// --- Errors ---

using Reason = BrivetError::DataSourceFailureReason;
using GraphReason = BrivetError::JSONGraphFailureReason;

BrivetError pathErrors(std::vector<std::string> path) {
  return BrivetError::responseJSONGraphFailed(
      GraphReason::pathBoundErrors({{std::move(path), JSONPrimitive::integer(1)}}));
}

TEST(BrivetErrorTest, CombinationTable) {
  const BrivetError a = pathErrors({"a"});
  const BrivetError b = pathErrors({"b"});
  EXPECT_EQ(a.combined(b).jsonGraphReason()->errors().size(), 2u);
  EXPECT_EQ(a.combined(b).jsonGraphReason()->errors()[1].path, (std::vector<std::string>{"b"}));
  const BrivetError attemptX = BrivetError::responseJSONGraphFailed(GraphReason::invalidAttempt({"x"}));
  const BrivetError attemptY = BrivetError::responseJSONGraphFailed(GraphReason::invalidAttempt({"y"}));
  EXPECT_EQ(attemptX.combined(attemptY), attemptY);
  EXPECT_EQ(a.combined(attemptY), a);
  EXPECT_EQ(attemptX.combined(a), attemptX);
  const BrivetError nil = BrivetError::responseDataSourceFailed(Reason::httpClientNil());
  const BrivetError bad = BrivetError::responseDataSourceFailed(Reason::badRequest("c", "m"));
  EXPECT_EQ(nil.combined(bad), bad);
  const BrivetError model = BrivetError::responseModelFailed(BrivetError::ModelFailureReason::serializationFailed);
  const BrivetError model2 = BrivetError::responseModelFailed(BrivetError::ModelFailureReason::deserializationFailed);
  EXPECT_EQ(model.combined(model2), model2);
  EXPECT_EQ(BrivetError::invalidAttempt().combined(BrivetError::invalidAttempt()), BrivetError::invalidAttempt());
  EXPECT_EQ(nil.combined(a), nil);
  EXPECT_EQ(a.combined(nil), a);
}

TEST(BrivetErrorTest, PlatformErrorCarriesDomainAndCaseOnly) {
  const Error attempt = BrivetError::invalidAttempt().toError();
  EXPECT_EQ(attempt.domain(), "BrivetCore.BrivetError");
  EXPECT_EQ(attempt.code(), 3);
  EXPECT_TRUE(attempt.userInfo().isDictionary());
  EXPECT_EQ(attempt.userInfo().count(), 0u);
  const Error http =
      BrivetError::responseDataSourceFailed(Reason::httpClientError(500, Object::dictionary({{"k", "v"}}))).toError();
  EXPECT_EQ(http, BrivetError::responseDataSourceFailed(Reason::httpClientNil()).toError());
  EXPECT_EQ(http.code(), 0);
  EXPECT_EQ(pathErrors({"a"}).toError().code(), 1);
  EXPECT_EQ(BrivetError::responseModelFailed(BrivetError::ModelFailureReason::serializationFailed).toError().code(), 2);
  EXPECT_EQ(hashValue(BrivetError::ModelFailureReason::deserializationFailed), 1u);
  // Path-bound errors compare their values as JSON values do.
  EXPECT_EQ((PathBoundError{{"p"}, JSONPrimitive::integer(1)}), (PathBoundError{{"p"}, JSONPrimitive::real(1.0)}));
}

TEST(BrivetErrorTest, DescriptionsNameTheCaseAndReason) {
  EXPECT_EQ(BrivetError::invalidAttempt().description(), "invalidAttempt");
  EXPECT_EQ(BrivetError::responseDataSourceFailed(Reason::httpClientNil()).description(),
            "responseDataSourceFailed(reason: httpClientNil)");
  EXPECT_EQ(BrivetError::responseDataSourceFailed(Reason::badRequest("E1", "bad")).description(),
            "responseDataSourceFailed(reason: badRequest(code: \"E1\", message: \"bad\"))");
  EXPECT_EQ(BrivetError::responseModelFailed(BrivetError::ModelFailureReason::deserializationFailed).description(),
            "responseModelFailed(reason: deserializationFailed)");
  EXPECT_EQ(pathErrors({"a", "b"}).description(),
            "responseJSONGraphFailed(reason: pathBoundErrors([PathBoundError(path: [\"a\", \"b\"], value: 1)]))");
}

TEST(BrivetErrorTest, TextNamesTheCaseTheReasonAndThePayload) {
  EXPECT_EQ(pathErrors({"videos", "v1", "title"}).text(),
            "responseJSONGraphFailed (pathBoundErrors): 1 error: at videos.v1.title: 1");
  EXPECT_EQ(BrivetError::responseJSONGraphFailed(GraphReason::invalidAttempt({"lists", "top"})).text(),
            "responseJSONGraphFailed (invalidAttempt): the path ends on a branch, not a value, at lists.top");
  EXPECT_EQ(BrivetError::responseDataSourceFailed(Reason::badRequest("E42", "no such list")).text(),
            "responseDataSourceFailed (badRequest): code \"E42\", message \"no such list\"");
  EXPECT_EQ(BrivetError::responseDataSourceFailed(
                Reason::httpClientError(503, Object::dictionary({{"statusCode", 503}, {"errorBody", "busy"}})))
                .text(),
            "responseDataSourceFailed (httpClientError): HTTP status 503, {\"errorBody\":\"busy\",\"statusCode\":503}");
  EXPECT_EQ(BrivetError::responseDataSourceFailed(
                Reason::legacyPathBoundInnerError({{"m1", PathTree::fromKeyPaths({"a.b"})}, {"m2", std::nullopt}}))
                .text(),
            "responseDataSourceFailed (legacyPathBoundInnerError): 2 errors: \"m1\" at a.b; \"m2\" at no path");
  EXPECT_EQ(BrivetError::responseModelFailed(BrivetError::ModelFailureReason::deserializationFailed).text(),
            "responseModelFailed (deserializationFailed): the cache snapshot could not be read");
}

TEST(BrivetErrorTest, TextStaysOneBoundedLineWhateverTheServerSent) {
  // Keys that are not plain are quoted; control characters are escaped.
  const BrivetError odd = BrivetError::responseJSONGraphFailed(GraphReason::pathBoundErrors(
      {{{"a.b", "line\nbreak"}, JSONValue::fromAny(Object::dictionary({{"message", "x\ny"}}))}}));
  EXPECT_EQ(odd.text(),
            "responseJSONGraphFailed (pathBoundErrors): 1 error: at [\"a.b\", \"line\\nbreak\"]: "
            "{\"message\":\"x\\ny\"}");
  // A megabyte of message and a thousand errors still give one short line.
  const BrivetError huge = BrivetError::responseDataSourceFailed(Reason::badRequest("E", std::string(1 << 20, 'm')));
  std::vector<PathBoundError> many(1000, PathBoundError{{"p"}, JSONPrimitive::integer(1)});
  const BrivetError lots = BrivetError::responseJSONGraphFailed(GraphReason::pathBoundErrors(many));
  for (const BrivetError& e : {huge, lots, odd}) {
    EXPECT_EQ(e.text().find('\n'), std::string::npos);
    EXPECT_LT(e.text().size(), 4096u);
  }
  EXPECT_NE(lots.text().find("1000 errors: "), std::string::npos);
  EXPECT_NE(lots.text().find("and 992 more"), std::string::npos);
}

TEST(BrivetErrorTest, ReasonsFromErrorBodies) {
  auto read = [](const char* json) { return Reason::fromErrorBody(parseJSON(json).value()); };
  EXPECT_EQ(read(R"({"code": "E1", "message": "bad", "error": {"message": "x"}})"), Reason::badRequest("E1", "bad"));
  const std::optional<Reason> bound = read(R"({"error": {"message": "boom", "pql": ["a", {"from": 0, "to": 1}]}})");
  ASSERT_TRUE(bound && bound->kind() == Reason::Kind::LegacyPathBoundError);
  EXPECT_EQ(bound->pathTree(), PathTree::fromKeyPaths({"a.@range(0,1)"}));
  EXPECT_EQ(read(R"({"error": {"message": "boom"}})"), Reason::legacyPathBoundError("boom", std::nullopt));
  // A reversed range from a server never reaches an iterator: the path is dropped.
  EXPECT_EQ(read(R"({"error": {"message": "boom", "pql": ["a", {"from": 3, "to": 1}]}})"),
            Reason::legacyPathBoundError("boom", std::nullopt));
  const std::optional<Reason> inner = read(
      R"({"error": {"innerErrors": [{"message": "m1", "pql": ["x"]}, {"message": 2}, {"message": "m3", "pql": ["y"]}]}})");
  ASSERT_TRUE(inner && inner->kind() == Reason::Kind::LegacyPathBoundInnerError);
  ASSERT_EQ(inner->innerErrors().size(), 2u);
  EXPECT_EQ(inner->innerErrors()[1].message, "m3");
  EXPECT_EQ(inner->innerErrors()[1].pathTree, PathTree::fromKeyPaths({"y"}));
  EXPECT_FALSE(read(R"({"message": "only"})").has_value());
  EXPECT_FALSE(Reason::fromErrorBody(Object("text")).has_value());
}

}  // namespace
}  // namespace brivet
