#include "brivet/core/cache/cache_envelope.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <random>
#include <string>

#include "brivet/core/cache/cache.h"
#include "brivet/core/values/internal/value_access.h"
#include "brivet/platform/json.h"
#include "brivet/testing/catalogue.h"

namespace brivet {
namespace {

using namespace std::chrono_literals;

class CacheSnapshotTest : public ::testing::Test {
 protected:
  static void settle() {
    auto done = std::make_shared<std::atomic<bool>>(false);
    cacheQueue()->asyncBarrier([done] { *done = true; });
    ASSERT_TRUE(DispatchQueue::main()->runUntil([&] { return done->load(); }, 5000ms));
  }
  // What the model does with snapshot text: a parse error is reported, no envelope is ignored.
  static bool restore(Cache& cache, std::string_view text) {
    Result<std::optional<CacheEnvelope>> r = CacheEnvelope::fromJSONText(text);
    if (!r.ok()) return false;
    if (r.value()) cache.setCache(*r.value());
    settle();
    return true;
  }
};

TEST_F(CacheSnapshotTest, AFreshCacheSnapshotsAsAnEmptyGraphAtVersionOne) {
  const CacheEnvelope e = Cache::create()->getCache(std::nullopt);
  EXPECT_TRUE(e.toDictionary().isEqual(Object::dictionary({{"jsonGraph", Object::dictionary()}, {"$_version", 1}})));
  EXPECT_TRUE(e.toDictionary()["$_version"].asNumber()->type() == Number::Type::Unsigned);
  Result<Object> parsed = parseJSON(e.toJSONText().value());
  ASSERT_TRUE(parsed.ok());
  EXPECT_TRUE(parsed->isEqual(e.toDictionary()));
}

TEST_F(CacheSnapshotTest, TextAndDictionaryFormsRoundTrip) {
  const CacheEnvelope e{JSONGraph::fromAny(testing::catalogueDocument(20, 10, 3)), 42};
  const Result<std::optional<CacheEnvelope>> back = CacheEnvelope::fromJSONText(e.toJSONText().value());
  ASSERT_TRUE(back.ok());
  ASSERT_TRUE(back->has_value());
  EXPECT_EQ(**back, e);
  EXPECT_EQ(*CacheEnvelope::fromDictionary(e.toDictionary()), e);
  // A top-level "$type" does not hide the envelope.
  const auto typed = CacheEnvelope::fromJSONText(R"({"$type": "atom", "jsonGraph": {"a": 1}, "$_version": 3})");
  ASSERT_TRUE(typed.ok() && typed->has_value());
  EXPECT_EQ((*typed)->version, 3u);
}

TEST_F(CacheSnapshotTest, EveryStringAndNumberTheReaderAcceptsSurvivesASnapshot) {
  // Control characters at every offset of the writers' sixteen-byte scan, and numbers at the edges.
  std::string text = "{\"jsonGraph\": {\"s\": [";
  for (int c = 0; c < 0x20; ++c) {
    for (int at = 0; at < 20; ++at) {
      std::string value(24, 'v');
      value[static_cast<std::size_t>(at)] = static_cast<char>(c);
      text += writeJSON(Object(value), JSONWritingOptions::FragmentsAllowed).value() + ",";
    }
  }
  text += "\"\\ud83d\\ude00\"], \"n\": {\"$type\": \"atom\", \"value\": [0e400, 4.9e-324, 1.7976931348623157e308, "
          "18446744073709551615, -9223372036854775808, 0.1]}}, \"$_version\": 7}";
  const Result<std::optional<CacheEnvelope>> read = CacheEnvelope::fromJSONText(text);
  ASSERT_TRUE(read.ok()) << read.error().localizedDescription();
  ASSERT_TRUE(read->has_value());
  const Result<std::string> written = (*read)->toJSONText();
  ASSERT_TRUE(written.ok());
  const Result<std::optional<CacheEnvelope>> back = CacheEnvelope::fromJSONText(written.value());
  ASSERT_TRUE(back.ok()) << back.error().localizedDescription();
  EXPECT_EQ(**back, **read);
}

TEST_F(CacheSnapshotTest, RestoringReplacesGraphAndVersionAsTheyAre) {
  auto cache = Cache::create(JSONGraph::fromAny(testing::catalogueDocument(2, 2, 0)));
  cache->merge(JSONGraph::fromAny(testing::catalogueVideos(5, 1, testing::Dialect::Core)));
  settle();
  ASSERT_EQ(cache->version(), 2u);
  ASSERT_TRUE(restore(*cache, R"({"jsonGraph": {"a": {"$type": "atom", "value": 1}}, "$_version": 0})"));
  EXPECT_EQ(cache->version(), 0u);
  EXPECT_EQ(cache->jsonGraph().find("a")->leaf().value(), JSONValue(JSONPrimitive::integer(1)));
  ASSERT_TRUE(restore(*cache, R"({"$_version": true, "jsonGraph": {}})"));
  EXPECT_EQ(cache->version(), 1u);
}

TEST_F(CacheSnapshotTest, SnapshotsWithoutAnEnvelopeAreIgnoredWithoutAnError) {
  auto cache = Cache::create(JSONGraph::fromAny(testing::catalogueDocument(2, 2, 0)));
  const JSONGraph before = cache->jsonGraph();
  for (const char* text :
       {R"({"jsonGraph": {}})", "[]", "5", R"("text")", R"({"jsonGraph": [], "$_version": 1})",
        R"({"jsonGraph": {}, "$_version": "1"})", R"({"jsonGraph": {"$type": "atom", "value": 1}, "$_version": 1})",
        R"({"jsonGraph": {}, "$_version": -1})", R"({"jsonGraph": {}, "$_version": 9223372036854775808})",
        R"({"jsonGraph": {}, "$_version": 1e300})", R"({"jsonGraph": {"$type": "ref"}, "$_version": 1})"}) {
    ASSERT_TRUE(restore(*cache, text)) << text;
    EXPECT_EQ(cache->version(), 1u) << text;
  }
  EXPECT_EQ(internal::slot(cache->jsonGraph()), internal::slot(before));
  EXPECT_FALSE(CacheEnvelope::fromDictionary(
      Object::dictionary({{"jsonGraph", Object::dictionary({{Object(7), Object(1)}})}, {"$_version", 1}})));
  EXPECT_FALSE(CacheEnvelope::fromDictionary(Object(1)));
}

TEST_F(CacheSnapshotTest, EveryVersionTheCacheCanHoldRestoresInBothForms) {
  for (const std::uint64_t version : {std::uint64_t{0}, std::uint64_t{1}, kMaxCacheVersion - 1, kMaxCacheVersion}) {
    auto written = Cache::create(JSONGraph::fromAny(testing::catalogueDocument(2, 2, 0)));
    written->setCache({written->jsonGraph(), version});
    settle();
    const CacheEnvelope snapshot = written->getCache(std::nullopt);
    ASSERT_EQ(snapshot.version, version);

    auto fromText = Cache::create();
    SnapshotReport report;
    Result<std::optional<CacheEnvelope>> text = CacheEnvelope::fromJSONText(snapshot.toJSONText().value(), &report);
    ASSERT_TRUE(text.ok() && text->has_value()) << version << ": " << report.description();
    fromText->setCache(**text);
    const std::optional<CacheEnvelope> dictionary = CacheEnvelope::fromDictionary(snapshot.toDictionary(), &report);
    ASSERT_TRUE(dictionary.has_value()) << version << ": " << report.description();
    settle();
    EXPECT_EQ(fromText->version(), version);
    EXPECT_EQ(fromText->getCache(std::nullopt), snapshot);
    EXPECT_EQ(*dictionary, snapshot);
  }
}

TEST_F(CacheSnapshotTest, VersionsAboveTheRangeAreRefusedAndNeverWritten) {
  for (const char* text : {R"({"jsonGraph": {}, "$_version": 9223372036854775808})",
                           R"({"jsonGraph": {}, "$_version": 18446744073709551615})",
                           R"({"jsonGraph": {}, "$_version": -1})"}) {
    SnapshotReport report;
    Result<std::optional<CacheEnvelope>> r = CacheEnvelope::fromJSONText(text, &report);
    ASSERT_TRUE(r.ok()) << text;
    EXPECT_FALSE(r->has_value()) << text;
    EXPECT_NE(report.refusal.find("lies outside 0...9223372036854775807"), std::string::npos) << report.refusal;
  }
  EXPECT_FALSE(CacheEnvelope::fromDictionary(
      Object::dictionary({{"jsonGraph", Object::dictionary()}, {"$_version", Object::unsignedInteger(UINT64_MAX)}})));
  // The cache cannot be made to hold (and so to write) such a version, nor count past the top. The child of a
  // death test re-runs the test: a forked child would have no threads to run the cache's queue.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto cache = Cache::create();
  EXPECT_DEATH(cache->setCache({JSONGraph(), kMaxCacheVersion + 1}), "kMaxCacheVersion");
  EXPECT_DEATH((void)CacheEnvelope({JSONGraph(), kMaxCacheVersion + 1}).toJSONText(), "kMaxCacheVersion");
  EXPECT_DEATH(
      {
        cache->setCache({JSONGraph(), kMaxCacheVersion});
        cache->merge(JSONGraph::fromAny(testing::catalogueVideos(0, 1, testing::Dialect::Core)));
        cacheQueue()->sync([] {});
      },
      "stepped past its maximum");
}

TEST_F(CacheSnapshotTest, TheReportCountsWhatCouldNotBeReadAndWhatHadExpired) {
  // Two unreadable nodes (a "$type" that is no leaf, an error without its value), one expired atom, one fresh.
  const char* text = R"({"jsonGraph": {"a": {"$type": "bogus", "value": 1}, "b": {"$type": "error"},
                         "c": {"$type": "atom", "value": 1, "$expires": 1000},
                         "d": {"$type": "atom", "value": 2, "$expires": 1}, "e": [1, {"$type": "ref", "value": [1]}]},
                         "$_version": 4})";
  SnapshotReport fromText;
  Result<std::optional<CacheEnvelope>> r = CacheEnvelope::fromJSONText(text, &fromText);
  ASSERT_TRUE(r.ok() && r->has_value());
  EXPECT_EQ(fromText.unreadableEntries, 3u);
  EXPECT_EQ(fromText.expiredLeaves, 1u);
  EXPECT_EQ(fromText.description(),
            "restored; 3 entries could not be read (restored as null); 1 leaf had already expired (a read fetches "
            "them again)");
  SnapshotReport fromDictionary;
  ASSERT_TRUE(CacheEnvelope::fromDictionary(parseJSON(text).value(), &fromDictionary));
  EXPECT_EQ(fromDictionary.unreadableEntries, 3u);
  EXPECT_EQ(fromDictionary.expiredLeaves, 1u);
  // What lies beside the graph is not counted; a clean snapshot reports nothing.
  SnapshotReport clean;
  ASSERT_TRUE(CacheEnvelope::fromJSONText(R"({"x": {"$type": "bogus", "value": 1}, "jsonGraph": {"a": 1},
                                             "$_version": 1})", &clean).value());
  EXPECT_EQ(clean.description(), "restored");
  const Object withDate = Object::dictionary(
      {{"jsonGraph", Object::dictionary({{"when", Object::date(Date())}})}, {"$_version", 1}});
  ASSERT_TRUE(CacheEnvelope::fromDictionary(withDate, &clean));
  EXPECT_EQ(clean.unreadableEntries, 1u);
}

TEST_F(CacheSnapshotTest, TextThatIsNotJSONGivesTheParsersError) {
  for (const char* text : {"", "{", R"({"jsonGraph": {}, "$_version": 1} x)", "{\"a\": \"\xff\"}"}) {
    Result<std::optional<CacheEnvelope>> r = CacheEnvelope::fromJSONText(text);
    ASSERT_FALSE(r.ok()) << text;
    EXPECT_EQ(r.error(),
              parseJSON(text, JSONReadingOptions::MutableContainers | JSONReadingOptions::FragmentsAllowed).error());
  }
}

TEST_F(CacheSnapshotTest, NoDamagedTextCrashesTheRestore) {
  const std::string text =
      CacheEnvelope{JSONGraph::fromAny(testing::catalogueDocument(30, 10, 4)), 7}.toJSONText().value();
  auto cache = Cache::create();
  std::mt19937 random(12345);
  for (int round = 0; round < 300; ++round) {
    std::string damaged = text.substr(0, random() % text.size());
    if (round % 2 == 0) {
      damaged = text;
      for (int flips = 0; flips < 4; ++flips) damaged[random() % damaged.size()] = static_cast<char>(random() % 256);
    }
    Result<std::optional<CacheEnvelope>> r = CacheEnvelope::fromJSONText(damaged);
    if (r.ok() && r.value()) cache->setCache(*r.value());
  }
  // Nesting far past the parser's limit is an error, not a stack overflow.
  const std::string deep = R"({"jsonGraph": )" + std::string(100000, '[') + std::string(100000, ']') + "}";
  EXPECT_FALSE(CacheEnvelope::fromJSONText(deep).ok());
  settle();
}

TEST_F(CacheSnapshotTest, WritingAGraphThatCannotBeWrittenGivesTheWritersError) {
  const CacheEnvelope e{JSONGraph::object({{"x", JSONGraphLeaf::primitive(JSONPrimitive::real(1.0 / 0.0))}}), 1};
  Result<std::string> text = e.toJSONText();
  ASSERT_FALSE(text.ok());
  EXPECT_EQ(text.error(), writeJSON(e.toDictionary()).error());
}

}  // namespace
}  // namespace brivet
