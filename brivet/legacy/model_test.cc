// The legacy model's cache, exercised the way an application uses it: merges, reads, misses, expiry, snapshots.
#include "brivet/legacy/model.h"

#include <gtest/gtest.h>

#include "brivet/legacy/path_reference.h"
#include "brivet/legacy/testing/legacy_doubles.h"
#include "brivet/platform/date.h"
#include "brivet/testing/catalogue.h"

namespace brivet {
namespace {

using ::brivet::testing::Completions;
using ::brivet::testing::json;
using ::brivet::testing::RecordingLogger;
using ::brivet::testing::ScriptedDataSource;

class LegacyCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    model->setDataSource(dataSource);
    model->setLoggingDelegate(logger);
  }

  // What a get answering from the cache alone hands back.
  Object read(std::vector<std::string> keyPaths) {
    Completions done;
    model->getKeyPaths(std::move(keyPaths), BrivetModelOptionReturnCacheDataDontFetch, std::nullopt, done.callback());
    EXPECT_TRUE(done.waitFor(1));
    return done.results().empty() ? Object() : done.results()[0];
  }

  std::vector<std::string> misses(const std::string& keyPath) {
    std::vector<std::string> found;
    const auto path = BrivetPath::withKeyPath(keyPath);
    model->jsongModelAccessQueue()->sync([&] { model->collectCacheMissesInto(&found, path.get(), std::nullopt); });
    return found;
  }

  Object stored(std::string_view keyPath) {  // the raw node, references not followed at the last step
    Object node;
    model->jsongModelAccessQueue()->sync([&] { node = model->jsongModel().valueForKeyPath(keyPath); });
    return node;
  }

  std::shared_ptr<BrivetModel> model = BrivetModel::create(std::vector<std::string>{"config"});
  std::shared_ptr<ScriptedDataSource> dataSource = std::make_shared<ScriptedDataSource>();
  std::shared_ptr<RecordingLogger> logger = std::make_shared<RecordingLogger>();
};

TEST_F(LegacyCacheTest, ReferencesAreBuiltOnMergeAndFollowedOnRead) {
  model->mergeJSONDictionaryIntoModel(
      json(R"({"a": ["b", "c"], "b": {"c": {"$type": "leaf", "value": 1}}, "r": ["b"]})"));
  const BrivetPathReference* ref = BrivetPathReference::cast(stored("a"));
  ASSERT_NE(ref, nullptr);
  EXPECT_EQ(ref->keyPath(), "b.c");
  EXPECT_TRUE(ref->hardReference().isIdentical(stored("b.c")));
  // A reference to a leaf answers the leaf's payload whatever path remains; one to a branch reads along it.
  EXPECT_TRUE(read({"a.x"}).isEqual(json(R"({"a": {"value": 1}})")));
  EXPECT_TRUE(read({"r.x"}).isEqual(json(R"({"r": {}})")));
  EXPECT_TRUE(read({"a"}).isEqual(json("{}")));  // a reference at the end of a path gives nothing
}

TEST_F(LegacyCacheTest, ReferenceWhoseTargetIsOnlyInTheCacheKeepsTheCachedValue) {
  model->mergeJSONDictionaryIntoModel(json(R"({"lists": {"top": {"0": ["videos", "v1"]}},
                                              "videos": {"v1": {"title": "Old"}}})"));
  const Object before = stored("lists.top.0");
  model->mergeJSONDictionaryIntoModel(json(R"({"lists": {"top": {"0": ["videos", "v1"], "1": ["videos", "v9"]}}})"));
  EXPECT_TRUE(stored("lists.top.0").isIdentical(before));
  EXPECT_TRUE(stored("lists.top.1").isNil());  // a target in neither is not stored at all
  EXPECT_TRUE(read({"lists.top.@range(0,1).title"}).isEqual(json(R"({"lists": {"top": {"0": {"title": "Old"}}}})")));
}

TEST_F(LegacyCacheTest, CatalogueResponseReadsBackThroughTheList) {
  model->mergeJSONDictionaryIntoModel(brivet::testing::catalogueResponse(20, brivet::testing::Dialect::Legacy));
  const Object result = read(brivet::testing::catalogueRequestPaths(20));
  const Object item = result.valueForKeyPath("lists.top.7");
  EXPECT_EQ(result.valueForKeyPath("lists.top").count(), 20u);
  EXPECT_EQ(item["title"].stringValue(), "Title 7");
  EXPECT_EQ(item["genre"].stringValue(), "Romance");
  EXPECT_TRUE(item["boxart"].isEqual(json(R"({"url": "https://img.example/7.jpg", "w": 150, "h": 200})")));
}

TEST_F(LegacyCacheTest, MergeRulesForListsValuesAndReplacedNodes) {
  model->mergeJSONDictionaryIntoModel(json(R"({"p": {"s": "x", "b": 1}})"));
  model->mergeJSONDictionaryIntoModel(json(R"({"p": {"profilesList": [null, {"n": null}], "list": [1, null],
                                              "n": null}})"));
  EXPECT_TRUE(stored("p.profilesList").isEqual(json(R"(["", {"n": ""}])")));
  EXPECT_TRUE(stored("p.list").isEqual(json("[1, null]")));
  EXPECT_TRUE(stored("p.n").isNil());  // nulls are not merged
  model->mergeJSONDictionaryIntoModel(json(R"({"p": {"s": {"now": "a branch"}, "b": {"$type": "leaf", "v": 2}}})"));
  EXPECT_EQ(stored("p.s.now").stringValue(), "a branch");
  EXPECT_EQ(model->valueForKeyPath("p.b.v").asNumber()->int64Value(), 2);
}

TEST_F(LegacyCacheTest, RelativeExpiryBecomesAbsoluteOnlyWhenExpiryIsOn) {
  const double before = timeIntervalSince1970(dateNow()) * 1000.0;
  dataSource->expiration = true;
  model->mergeJSONDictionaryIntoModel(json(R"({"a": {"$type": "leaf", "$expires": -60000, "v": 1},
                                              "b": {"c": {"$type": "leaf", "$expires": -1000}}})"));
  const double expires = stored("a.$expires").asNumber()->doubleValue();  // waits for the merge
  const double after = timeIntervalSince1970(dateNow()) * 1000.0;
  EXPECT_GE(expires, before + 60000);
  EXPECT_LE(expires, after + 60000);
  EXPECT_GT(stored("b.c.$expires").asNumber()->doubleValue(), before);
  dataSource->expiration = false;
  model->mergeJSONDictionaryIntoModel(json(R"({"d": {"$type": "leaf", "$expires": -1000}})"));
  EXPECT_EQ(stored("d.$expires").asNumber()->int64Value(), -1000);
}

TEST_F(LegacyCacheTest, ExpiredLeavesAreMissesOnlyWhenExpiryIsOn) {
  model->mergeJSONDictionaryIntoModel(json(R"({"v": {"now": {"$type": "leaf", "$expires": 0},
      "never": {"$type": "leaf", "$expires": 1}, "past": {"$type": "leaf", "$expires": 1000},
      "future": {"$type": "leaf", "$expires": 99999999999999}, "odd": {"$type": "leaf", "$expires": "0"}}})"));
  for (const char* key : {"now", "never", "past", "future", "odd"})
    EXPECT_TRUE(misses(std::string("v.") + key).empty());
  dataSource->expiration = true;
  EXPECT_EQ(misses("v.now.x"), std::vector<std::string>{"v.now.x"});
  EXPECT_EQ(misses("v.past"), std::vector<std::string>{"v.past"});
  for (const char* key : {"never", "future", "odd"}) EXPECT_TRUE(misses(std::string("v.") + key).empty());
}

TEST_F(LegacyCacheTest, MissesCollapseConsecutiveIndicesAndFollowReferences) {
  model->mergeJSONDictionaryIntoModel(json(R"({"list": {"0": {"name": "a"}, "3": {"name": "d"}, "5": ["items", "x"]},
                                              "items": {"x": {"name": "x"}}})"));
  EXPECT_EQ(misses("list.@range(0,5).name"), (std::vector<std::string>{"list.@range(1,2).name", "list.4.name"}));
  EXPECT_EQ(misses("list.@range(0,7).missing"),
            (std::vector<std::string>{"list.0.missing", "list.@range(1,2).missing", "list.3.missing", "list.4.missing",
                                      "items.x.missing", "list.@range(6,7).missing"}));
  EXPECT_EQ(misses("list.@range(6,9)"), std::vector<std::string>{"list.@range(6,9)"});
  EXPECT_EQ(misses("list.5.name"), std::vector<std::string>{});
  EXPECT_EQ(misses("list.5.other.deeper"), std::vector<std::string>{"items.x.other.deeper"});
  EXPECT_EQ(misses("nothing.here"), std::vector<std::string>{"nothing.here"});
  EXPECT_EQ(misses("@range(0,1).x"), std::vector<std::string>{"@range(0,1).x"});
  EXPECT_TRUE(misses("list.@range(3,1)").empty());
  EXPECT_TRUE(misses("list.@range(x,1)").empty());
  EXPECT_EQ(logger->infos(), std::vector<std::string>{"Error parsing @range(x,y) path fragment."});
}

TEST_F(LegacyCacheTest, HugeRangesCostWhatTheCacheHolds) {
  model->mergeJSONDictionaryIntoModel(json(R"({"list": {"0": {"n": 0}, "7": {"n": 7}, "2000000000": {"n": 1}}})"));
  EXPECT_EQ(misses("list.@range(0,2147483647).n"),
            (std::vector<std::string>{"list.@range(1,6).n", "list.@range(8,1999999999).n",
                                      "list.@range(2000000001,2147483647).n"}));
  EXPECT_TRUE(read({"list.@range(0,2147483647).n"})
                  .isEqual(json(R"({"list": {"0": {"n": 0}, "7": {"n": 7}, "2000000000": {"n": 1}}})")));
}

TEST_F(LegacyCacheTest, ValueForKeyPathReadsInsideLeavesAndReportsBranches) {
  model->mergeJSONDictionaryIntoModel(json(R"({"a": {"leaf": {"$type": "leaf", "value": 3}, "list": [1]},
                                              "config": {"x": 1}, "r": ["a"]})"));
  EXPECT_EQ(model->valueForKeyPath("a.leaf.value").asNumber()->int64Value(), 3);
  EXPECT_TRUE(model->valueForKeyPath("a.list.0").isNil());  // arrays end a key path
  EXPECT_TRUE(model->valueForKeyPath("a.@range(0,1)").isNil());
  EXPECT_EQ(model->valueForKeyPath("r.leaf.value").asNumber()->int64Value(), 3);
  EXPECT_TRUE(logger->userInfos().empty());
  EXPECT_TRUE(model->valueForKeyPath("config").isDictionary());  // a prefix: no report
  EXPECT_TRUE(model->valueForKeyPath("a.leaf").isDictionary());  // a leaf: no report
  EXPECT_TRUE(model->valueForKeyPath("a").isDictionary());
  ASSERT_EQ(logger->userInfos().size(), 1u);
  const Object report = logger->userInfos()[0];
  EXPECT_EQ(report["message"].stringValue(), "Invalid Brivet Branch Node");
  EXPECT_EQ(report["keyPath"].stringValue(), "a");
  EXPECT_EQ(report["testPath"].stringValue(), "a");
  EXPECT_EQ(report["branch node"].stringValue(), stored("a").description());
  EXPECT_EQ(model->valuesForKeyPaths({"a.leaf.value", "zz", "a.@range(0,1)"}).size(), 3u);
  const auto sparse = model->valuesForKeyPaths({"a.leaf.value", "zz", "a.@range(0,1)"}, false);
  ASSERT_EQ(sparse.size(), 1u);
  EXPECT_EQ(sparse[0].asNumber()->int64Value(), 3);
}

TEST_F(LegacyCacheTest, SetsAndInvalidationsAreOrderedWrites) {
  model->mergeJSONDictionaryIntoModel(json(R"({"a": {"b": 1, "c": 2}, "r": ["a"]})"));
  model->setValueForKeyPath(Object("x"), "a.d");
  model->setValueForKey(Object(5), "top");
  model->invalidateForKeyPaths({"a.b", "r.c"});
  EXPECT_EQ(model->valueForKeyPath("a.d").stringValue(), "x");
  EXPECT_EQ(model->valueForKey("top").asNumber()->int64Value(), 5);
  EXPECT_TRUE(model->valueForKeyPath("a.b").isNil());
  EXPECT_TRUE(model->valueForKeyPath("a.c").isNil());  // removed through the reference
}

TEST_F(LegacyCacheTest, SnapshotsWriteEveryControlCharacterEscaped) {
  Object strings = Object::mutableDictionary();
  for (int c = 0; c < 0x20; ++c) {
    for (int at = 0; at < 20; ++at) {
      std::string value(24, 'v');
      value[static_cast<std::size_t>(at)] = static_cast<char>(c);
      strings.asMutableDictionary()->setObject(Object(value), "k" + std::to_string(c * 20 + at));
    }
  }
  model->mergeJSONDictionaryIntoModel(Object::mutableDictionary({{"s", strings}}));
  const auto snapshot = model->serializeCache();
  ASSERT_TRUE(snapshot.has_value());
  const auto restored = BrivetModel::create();
  std::optional<Error> error;
  ASSERT_TRUE(restored->deserializeCache(*snapshot, &error)) << error->localizedDescription();
  EXPECT_EQ(restored->serializeCache(), snapshot);
  EXPECT_EQ(restored->valueForKeyPath("s.k0").stringValue(), std::string_view("\0vvvvvvvvvvvvvvvvvvvvvvv", 24));
  EXPECT_EQ(restored->valueForKeyPath("s.k639").stringValue(), std::string(19, 'v') + "\x1f" + std::string(4, 'v'));
}

TEST_F(LegacyCacheTest, SnapshotRoundTripRestoresReferences) {
  model->mergeJSONDictionaryIntoModel(brivet::testing::catalogueResponse(3, brivet::testing::Dialect::Legacy));
  std::optional<Error> error;
  const auto snapshot = model->serializeCache(&error);
  ASSERT_TRUE(snapshot.has_value());
  const Object envelope = json(*snapshot);
  EXPECT_EQ(envelope["$_version"].asNumber()->int64Value(), 0);
  EXPECT_TRUE(envelope.valueForKeyPath("jsonGraph.lists.top.1").isEqual(json(R"(["videos", "v1"])")));
  EXPECT_EQ(envelope.valueForKeyPath("jsonGraph.videos.v1.boxart.$type").stringValue(), "leaf");

  const auto restored = BrivetModel::create();
  ASSERT_TRUE(restored->deserializeCache(*snapshot, &error));
  Object node;
  restored->jsongModelAccessQueue()->sync([&] { node = restored->jsongModel().valueForKeyPath("lists.top.1"); });
  EXPECT_NE(BrivetPathReference::cast(node), nullptr);
  EXPECT_EQ(restored->valueForKeyPath("lists.top.1.title").stringValue(), "Title 1");
  EXPECT_EQ(restored->serializeCache(), snapshot);
}

TEST_F(LegacyCacheTest, SnapshotsSelectSubtreesByKeyPath) {
  model->mergeJSONDictionaryIntoModel(json(R"({"a": {"b": {"x": 1}, "c": {"y": 2}, "e": {}}, "z": 3})"));
  const auto wildcard = model->serializeCacheWithKeyPaths(std::vector<std::string>{"a.@*"});
  EXPECT_TRUE(json(*wildcard)["jsonGraph"].isEqual(json(R"({"a": {"b": {"x": 1}, "c": {"y": 2}}})")));
  const auto plain = model->serializeCacheWithKeyPaths(std::vector<std::string>{"a.b", "z"});
  EXPECT_TRUE(json(*plain)["jsonGraph"].isEqual(json(R"({"a": {"b": {"x": 1}}, "z": 3})")));
  EXPECT_EQ(model->serializeCacheWithKeyPaths(std::vector<std::string>{}), model->serializeCache());
}

TEST_F(LegacyCacheTest, RestoringRejectsWhatIsNotASnapshot) {
  std::optional<Error> error;
  EXPECT_FALSE(model->deserializeCache(std::nullopt, &error));
  EXPECT_FALSE(model->deserializeCache("[1, 2]", &error));
  EXPECT_FALSE(error.has_value());
  EXPECT_FALSE(model->deserializeCache("{\"jsonGraph\": ", &error));
  ASSERT_TRUE(error.has_value());
  EXPECT_EQ(error->domain(), kJSONErrorDomain);
  EXPECT_TRUE(model->deserializeCache(R"({"bare": {"graph": 1}})", &error));  // no envelope: merged as it is
  EXPECT_EQ(model->valueForKeyPath("bare.graph").asNumber()->int64Value(), 1);
}

TEST_F(LegacyCacheTest, SnapshotsOfAnyVersionRestore) {
  // The model writes version 0; a snapshot of any number, the core's largest included, is unwrapped alike.
  ASSERT_EQ(json(*model->serializeCache())["$_version"].asNumber()->int64Value(), 0);
  for (const char* version : {"0", "9223372036854775807", "18446744073709551615", "-1", "2.5"}) {
    auto restored = BrivetModel::create();
    ASSERT_TRUE(restored->deserializeCache(std::string(R"({"jsonGraph": {"a": {"b": 1}}, "$_version": )") + version +
                                           "}"));
    EXPECT_EQ(restored->valueForKeyPath("a.b").asNumber()->int64Value(), 1) << version;
    EXPECT_TRUE(restored->valueForKey("jsonGraph").isNil()) << version;
  }
}

TEST_F(LegacyCacheTest, ARestoreReportsWhatItLeftOut) {
  dataSource->expiration = true;
  model->mergeJSONDictionaryIntoModel(json(R"({"a": {"ok": 0}})"));
  // Merged into the cached "a": the null and the reference to nothing are not stored.
  BrivetRestoreReport report;
  ASSERT_TRUE(model->deserializeCache(R"({"jsonGraph": {"a": {"gone": null, "ref": ["nowhere", "x"], "ok": 1,
      "old": {"$type": "leaf", "$expires": 1000, "v": 1}, "new": {"$type": "leaf", "$expires": 1, "v": 2}}},
      "$_version": 0})", nullptr, &report));
  EXPECT_EQ(report.leftOut, 2u);
  EXPECT_EQ(report.expiredLeaves, 1u);
  EXPECT_EQ(report.description(), "2 entries left out; 1 leaf already expired");
  EXPECT_EQ(stored("a.ok").asNumber()->int64Value(), 1);  // the restore completed before the call returned
  EXPECT_TRUE(stored("a.ref").isNil());
  auto fresh = BrivetModel::create();
  ASSERT_TRUE(fresh->deserializeCache(*model->serializeCache(), nullptr, &report));
  EXPECT_EQ(report.description(), "nothing left out");  // expiry is the data source's switch, and it has none
}

TEST_F(LegacyCacheTest, ReferenceCyclesNeitherHangNorOverflowTheStack) {
  model->mergeJSONDictionaryIntoModel(
      json(R"({"self": ["self"], "a": {"up": ["a"], "v": 1}, "p": ["q"], "q": ["p"]})"));
  EXPECT_TRUE(read({"self.x"}).isEqual(json(R"({"self": {}})")));
  EXPECT_TRUE(read({"a.up.up.up.v"}).isEqual(json(R"({"a": {"up": {"up": {"up": {"v": 1}}}}})")));
  EXPECT_TRUE(model->valueForKeyPath("self.x").isNil());
  EXPECT_TRUE(model->valueForKeyPath("p.x").isNil());
  EXPECT_TRUE(misses("self.x").size() <= 1);
  // A chain of references far longer than any graph needs, each target referring on to the next.
  std::string text = R"({"k0": ["k1"])";
  for (int i = 1; i < 5000; ++i)
    text += ",\"k" + std::to_string(i) + R"(": {"x": ["k)" + std::to_string(i + 1) + "\"]}";
  model->mergeJSONDictionaryIntoModel(json(text + "}"));
  std::string longPath = "k1";
  for (int i = 0; i < 3000; ++i) longPath += ".x";
  EXPECT_TRUE(read({longPath}).isDictionary());
  EXPECT_TRUE(model->serializeCache().has_value());
}

}  // namespace
}  // namespace brivet
