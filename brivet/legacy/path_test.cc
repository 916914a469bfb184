#include "brivet/legacy/path.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "brivet/legacy/constants.h"
#include "brivet/legacy/path_reference.h"
#include "brivet/platform/json.h"

namespace brivet {
namespace {

using Keys = std::vector<std::string>;

Object json(std::string_view text) {
  Result<Object> parsed = parseJSON(text, JSONReadingOptions::MutableContainers | JSONReadingOptions::FragmentsAllowed);
  return parsed.ok() ? parsed.value() : Object();
}

Keys firstKeys(const BrivetPathProtocol& path) {
  const BrivetKeySet* keys = path.firstPathKeySet();
  return keys != nullptr ? keys->keys() : Keys{"<nil>"};
}

TEST(LegacyConstantsTest, ValuesArePartOfTheInterface) {
  EXPECT_EQ(BRIVET_MATCH_RANGE_FRAGMENT_REGEX, R"(\@range\((\d+),(\d+)\))");
  EXPECT_EQ(BRIVET_ERROR_DOMAIN, kReverseDomain);
  EXPECT_STREQ(BRIVET_REVERSE_DOMAIN, std::string(kReverseDomain).c_str());
  EXPECT_EQ(BRIVET_ERROR_CODE, -999);
  EXPECT_EQ(BRIVET_EXPIRES_NOW, 0);
  EXPECT_EQ(BRIVET_EXPIRES_NEVER, 1);
  EXPECT_EQ(BRIVET_JSON_GRAPH_CACHE_VERSION_KEY, "$_version");
  EXPECT_EQ(BRIVET_SIGNPOST_ENV_VAR, "SIGNPOSTS_FOR_BRIVET");
}

TEST(BrivetPathTest, SingleFragmentIsAOneLinkChain) {
  const auto path = BrivetPath::withKeyPath("a");
  EXPECT_EQ(path->pathCount(), 1u);
  EXPECT_EQ(path->nextPath(), nullptr);
  EXPECT_EQ(firstKeys(*path), Keys{"a"});
  EXPECT_EQ(path->previousPathFragment(), nullptr);
}

TEST(BrivetPathTest, RangeInTheMiddleExpandsAndLinksBack) {
  const auto head = BrivetPath::withKeyPath("a.@range(2,4).b");
  const auto& middle = head->nextPathFragment();
  ASSERT_NE(middle, nullptr);
  EXPECT_EQ(firstKeys(*middle), (Keys{"2", "3", "4"}));
  EXPECT_EQ(middle->previousPathFragment(), head);
  EXPECT_EQ(middle->keyPath(), "@range(2,4).b");
  EXPECT_EQ(middle->pathCount(), 2u);
  EXPECT_EQ(middle->nextPathFragment()->keyPath(), "b");
  EXPECT_EQ(head->keyPath(), "a.@range(2,4).b");
  EXPECT_EQ(head->description().substr(head->description().find(" : ")), " : keyPath = a.@range(2,4).b");
}

TEST(BrivetPathTest, RangeFragmentEdgeCases) {
  const auto backwards = BrivetPath::withKeyPath("@range(5,3)");
  ASSERT_TRUE(backwards->firstPathFragmentKeyOrRange().has_value());
  EXPECT_TRUE(backwards->firstPathFragmentKeyOrRange()->keys().empty());
  EXPECT_FALSE(BrivetPath::withKeyPath("@range(a,b)")->firstPathFragmentKeyOrRange().has_value());
  EXPECT_EQ(firstKeys(*BrivetPath::withKeyPath("xx@RANGE(1,2)yy")), Keys{"xx@RANGE(1,2)yy"});
  EXPECT_EQ(firstKeys(*BrivetPath::withKeyPath("xx@range(1,2)yy")), (Keys{"1", "2"}));
  EXPECT_EQ(firstKeys(*BrivetPath::withKeyPath("@range(1, 2)")), Keys{"<nil>"});  // no whitespace allowed
  // Bounds saturate like 32-bit integers; the range stays two numbers however wide it is.
  const auto huge = BrivetPath::withKeyPath("@range(0,99999999999)");
  EXPECT_EQ(huge->firstPathKeySet()->count(), 2147483648u);
}

TEST(BrivetPathTest, FragmentsAreJoinedAndLongChainsNeedNoRecursion) {
  const auto joined = BrivetPath::withPathFragments({"a", "@range(0,1)", "c"});
  EXPECT_EQ(joined->keyPath(), "a.@range(0,1).c");
  EXPECT_EQ(joined->pathFragments().size(), 3u);
  std::string keyPath = "k";
  for (int i = 0; i < 200000; ++i) keyPath += ".k";
  auto deep = BrivetPath::withKeyPath(keyPath);
  EXPECT_EQ(deep->pathCount(), 200001u);
  deep.reset();  // would overflow the stack if links destroyed each other recursively
}

TEST(BrivetPathSetTest, PositionsResolveKeysNumbersAndRanges) {
  EXPECT_EQ(firstKeys(*BrivetPathSet::withPathSets(json(R"([["a", {"from": 1, "length": 2}]])"))),
            (Keys{"a", "1", "2"}));
  EXPECT_EQ(firstKeys(*BrivetPathSet::withPathSets(json(R"([{"from": 1}])"))), Keys{"<nil>"});
  EXPECT_EQ(firstKeys(*BrivetPathSet::withPathSets(json(R"([["a", {"from": 1}, "b"]])"))), Keys{"a"});
  EXPECT_EQ(firstKeys(*BrivetPathSet::withPathSets(json(R"([[3, {"to": 1}, 2.0, true, null]])"))),
            (Keys{"3", "0", "1", "2", "1"}));
  const auto chain = BrivetPathSet::withPathSets(json(R"(["videos", {"from": 0, "to": 1}, "title"])"));
  EXPECT_EQ(chain->pathCount(), 3u);
  EXPECT_EQ(firstKeys(*chain->nextPath()), (Keys{"0", "1"}));
  EXPECT_EQ(firstKeys(*chain->nextPath()->nextPath()), Keys{"title"});
  EXPECT_EQ(chain->nextPath()->nextPath()->nextPath(), nullptr);
  EXPECT_NE(chain->description().find(" : pathSets = (videos, {from = 0; to = 1;}, title)"), std::string::npos);
}

TEST(BrivetPathSetTest, MalformedServerPathSetsAreContained) {
  EXPECT_EQ(BrivetPathSet::withPathSets(json(R"("a.b")")), nullptr);
  EXPECT_EQ(BrivetPathSet::withPathSets(json("[]"))->pathCount(), 0u);
  // Ranges wider than memory stay compact; sums that overflow saturate.
  const auto wide = BrivetPathSet::withPathSets(json(R"([{"from": 0, "to": 9000000000000000000}])"));
  EXPECT_EQ(wide->firstPathKeySet()->count(), 9000000000000000001u);
  const auto overflow = BrivetPathSet::withPathSets(json(R"([{"from": 9223372036854775000, "length": 5000}])"));
  EXPECT_EQ(overflow->firstPathKeySet()->count(), 808u);
  EXPECT_EQ(firstKeys(*BrivetPathSet::withPathSets(json(R"([{"from": "2", "length": "2"}])"))), (Keys{"2", "3"}));
  std::vector<Object> positions(100000, Object("k"));
  EXPECT_EQ(BrivetPathSet::withPathSets(Object::array(positions))->pathCount(), 100000u);
}

TEST(ConvertKeyPathToPQLTest, RangesAnchoredAtTheFragmentStartBecomeObjects) {
  EXPECT_EQ(convertKeyPathToPQL("a.b"), R"(["a","b"])");
  EXPECT_EQ(convertKeyPathToPQL("items.@range(0,2).name"), R"(["items",{"from":0,"to":2},"name"])");
  EXPECT_EQ(convertKeyPathToPQL("a.x@range(1,2)"), R"j(["a","x@range(1,2)"])j");
  // Bounds past 64 bits are the nearest double; past the double range the fragment stays text.
  const Result<Object> beyond64 = parseJSON(convertKeyPathToPQL("@range(0018446744073709551616,1)"));
  ASSERT_TRUE(beyond64.ok());
  EXPECT_EQ(beyond64.value()[0]["from"].asNumber()->doubleValue(), 18446744073709551616.0);
  const std::string huge = "@range(1" + std::string(400, '0') + ",2)";
  EXPECT_EQ(convertKeyPathToPQL("a." + huge), R"(["a",")" + huge + R"("])");
  EXPECT_EQ(convertKeyPathToPQL("@RANGE(3,4)tail"), R"([{"from":3,"to":4}])");
}

TEST(NullReplacementTest, NullsAtAnyDepthBecomeBlanks) {
  const Object input = json(R"([null, 1, "s", {"a": null, "b": [null, {"c": null}]}])");
  EXPECT_TRUE(arrayByReplacingNullsWithBlanks(input).isEqual(json(R"(["", 1, "s", {"a": "", "b": ["", {"c": ""}]}])")));
  EXPECT_TRUE(
      dictionaryByReplacingNullsWithBlanks(json(R"({"x": [null], "y": 2})")).isEqual(json(R"({"x": [""], "y": 2})")));
  EXPECT_FALSE(arrayByReplacingNullsWithBlanks(input).isMutableArray());
}

class BrivetPathReferenceTest : public ::testing::Test {
 protected:
  Object root = json(R"({"videos": {"v1": {"title": "One"}}})");
};

TEST_F(BrivetPathReferenceTest, ForwardsLookupsAndWritesToItsTarget) {
  const Object ref = BrivetPathReference::make(json(R"(["videos", "v1"])"), root["videos"]["v1"], root);
  root.setValueForKey(json(R"({"0": null})"), "lists");
  root["lists"].setValueForKey(ref, "0");
  EXPECT_EQ(BrivetPathReference::cast(ref)->keyPath(), "videos.v1");
  EXPECT_EQ(root.valueForKeyPath("lists.0.title").stringValue(), "One");
  root.setValueForKeyPath(Object("Uno"), "lists.0.title");
  EXPECT_EQ(root.valueForKeyPath("videos.v1.title").stringValue(), "Uno");
}

TEST_F(BrivetPathReferenceTest, ResolvesLazilyThroughTheRootWhenTheTargetIsGone) {
  const Object ref = BrivetPathReference::make(json(R"(["videos", "v2"])"), json(R"({"title": "Gone"})"), root);
  EXPECT_TRUE(ref.valueForKey("title").isNil());  // the temporary target died; v2 is not in the root
  root["videos"].setValueForKey(json(R"({"title": "Two"})"), "v2");
  EXPECT_EQ(ref.valueForKey("title").stringValue(), "Two");
  EXPECT_TRUE(BrivetPathReference::cast(ref)->hardReference().isIdentical(root["videos"]["v2"]));
}

TEST_F(BrivetPathReferenceTest, WithoutATargetReadsAreNilAndWritesAreDropped) {
  const Object dangling = BrivetPathReference::make(json(R"(["nowhere"])"), Object(), root);
  EXPECT_TRUE(dangling.valueForKeyPath("a.b").isNil());
  dangling.setValueForKey(Object(1), "a");  // no base-class fallback, and no endless retry either
  dangling.setValueForKeyPath(Object(1), "a.b");
  EXPECT_EQ(root.count(), 1u);
}

TEST_F(BrivetPathReferenceTest, CyclesEndAfterABoundedNumberOfHops) {
  const Object self = BrivetPathReference::make(json(R"(["loop"])"), Object(), root);
  root.setValueForKey(self, "loop");
  const Object ancestor = BrivetPathReference::make(json(R"(["a"])"), Object(), root);
  root.setValueForKey(Object::mutableDictionary({{"up", ancestor}}), "a");
  EXPECT_TRUE(root.valueForKeyPath("loop.x").isNil());
  root.setValueForKeyPath(Object(1), "loop.x");
  EXPECT_TRUE(root.valueForKeyPath("a.up.up.up.missing").isNil());
  EXPECT_TRUE(root.valueForKeyPath("a.up.up.up.up").isIdentical(ancestor));
}

// A root whose every lookup makes a new target, so a reference resolved against it finds its weak target gone on
// each access and replaces it.
class FreshTargets final : public CustomObject {
 public:
  Object valueForKeyPath(std::string_view /*keyPath*/) const override {
    return Object::mutableDictionary({{"title", Object("Fresh")}});
  }
};

// The model's concurrent readers may resolve one reference at once: each reads the cached target and, finding it
// gone, stores a new one (run under ThreadSanitizer, this is the race the reference's lock is there for).
TEST_F(BrivetPathReferenceTest, ConcurrentReadersResolveTheSameReference) {
  const Object freshRoot(std::make_shared<FreshTargets>());
  const Object ref = BrivetPathReference::make(json(R"(["videos", "v1"])"), Object(), freshRoot);
  constexpr int kReaders = 4;
  constexpr int kLookups = 2000;
  std::vector<int> found(kReaders, 0);
  std::vector<std::thread> readers;
  for (int r = 0; r < kReaders; ++r) {
    readers.emplace_back([&ref, &found, r] {
      for (int i = 0; i < kLookups; ++i) found[static_cast<std::size_t>(r)] += ref.valueForKey("title").stringValue() == "Fresh";
    });
  }
  for (std::thread& reader : readers) reader.join();
  for (int r = 0; r < kReaders; ++r) EXPECT_EQ(found[static_cast<std::size_t>(r)], kLookups) << "reader " << r;
}

}  // namespace
}  // namespace brivet
