// Readers on several threads while writes run: every read sees one whole
// graph (never part of a write), versions only grow, and the memo never answers
// from a graph that was replaced. Run under ThreadSanitizer too (label tsan).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "brivet/core/cache/cache.h"
#include "brivet/core/values/internal/value_access.h"
#include "brivet/testing/catalogue.h"

namespace brivet {
namespace {

using namespace std::chrono_literals;

constexpr int kWrites = 200;
constexpr int kReaders = 3;

// {"a": {"n": n}, "b": {"n": n}, "list": {"0": ref to videos.v<n % 4>}, "videos": ...}:
// a write changes both counters at once.
JSONGraph step(int n) {
  Result<JSONGraph> g = JSONGraph::fromJSONText(
      R"({"a": {"n": )" + std::to_string(n) + R"(}, "b": {"n": )" + std::to_string(n) +
      R"(}, "list": {"0": {"$type": "ref", "value": ["videos", "v)" + std::to_string(n % 4) + R"("]}}})");
  return g.value();
}

std::int64_t counter(const JSONValue& v, const char* key) {
  return v.find(key)->find("n")->primitive().numberObject().asNumber()->int64Value();
}

class CacheConcurrencyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    JSONGraph start = step(0);
    start = internal::graphFromSlot(internal::SlotRef(internal::mergeValues(
        internal::slot(JSONGraph::fromAny(testing::catalogueVideos(0, 4, testing::Dialect::Core))), internal::slot(start))));
    cache_ = Cache::create(start, std::nullopt, std::vector<std::string>{"a", "b"});
  }
  // Runs `reader` on several threads until the writes are done (the cache reaches `finalVersion`).
  void readWhileWriting(const std::function<void()>& writes, const std::function<void()>& reader,
                        std::uint64_t finalVersion = 1 + kWrites) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < kReaders; ++t) {
      threads.emplace_back([&] {
        while (!stop.load()) reader();
      });
    }
    writes();
    const bool finished = DispatchQueue::main()->runUntil([&] { return cache_->version() == finalVersion; }, 20000ms);
    stop = true;
    for (auto& t : threads) t.join();
    ASSERT_TRUE(finished) << cache_->version();
  }

  std::shared_ptr<Cache> cache_;
  std::atomic<int> failures_{0};
};

TEST_F(CacheConcurrencyTest, ReadsSeeTheOldGraphOrTheNewNeverAMix) {
  const PathTree request = PathTree::fromKeyPaths({"a.n", "b.n", "list.0.title"});
  readWhileWriting(
      [&] {
        for (int n = 1; n <= kWrites; ++n) cache_->merge(step(n));
      },
      [&] {
        std::uint64_t lastVersion = 0;
        for (int i = 0; i < 20; ++i) {
          Result<CacheValues, BrivetError> r = cache_->getValues(request, true);
          const CacheEnvelope e = cache_->getCache(std::nullopt);
          const std::uint64_t version = cache_->version();
          const std::int64_t a = counter(r->value, "a");
          const std::int64_t b = counter(r->value, "b");
          const std::string title(r->value.find("list")->find("0")->find("title")->primitive().stringValue());
          const JSONGraph snapshotA = *e.jsonGraph.find("a");
          const bool consistent =
              a == b && title == "Title " + std::to_string(a % 4) &&
              e.version == static_cast<std::uint64_t>(
                               snapshotA.find("n")->leaf().primitive().numberObject().asNumber()->int64Value()) +
                               1 &&
              version >= lastVersion && version >= e.version;
          if (!consistent) ++failures_;
          lastVersion = version;
        }
      });
  EXPECT_EQ(failures_.load(), 0);
  EXPECT_EQ(counter(cache_->getValues(PathTree::fromKeyPaths({"a.n", "b.n"}), true)->value, "b"), kWrites);
}

TEST_F(CacheConcurrencyTest, TheVersionStepsOncePerChangingWriteInOrder) {
  std::vector<std::uint64_t> seen;
  readWhileWriting(
      [&] {
        for (int n = 1; n <= kWrites; ++n) {
          cache_->merge(step(n));
          cache_->merge(step(n));  // equal: no step
          if (n % 50 == 0) {
            cache_->invalidate(PathTree::fromKeyPaths({"nothing.here"}));  // no change: no step
            cacheQueue()->asyncBarrier([&] { seen.push_back(cache_->version()); });
          }
        }
      },
      [&] { (void)cache_->getJSON({PathTree::parsePath("a.n")}); });
  // The last recording block follows the last write: wait for it before reading `seen`.
  cacheQueue()->sync([] {});
  EXPECT_EQ(seen, (std::vector<std::uint64_t>{51, 101, 151, 201}));
}

TEST_F(CacheConcurrencyTest, TheMemoNeverAnswersFromAReplacedGraph) {
  const std::vector<Path> paths{PathTree::parsePath("a.n"), PathTree::parsePath("b.n")};
  readWhileWriting(
      [&] {
        for (int n = 1; n <= kWrites; ++n) {
          cache_->merge(step(n));
          if (n % 10 == 0) cache_->invalidate(PathTree::fromKeyPaths({"videos.v3.title"}));
          if (n % 10 == 0) cache_->merge(JSONGraph::fromAny(testing::catalogueVideos(3, 1, testing::Dialect::Core)));
        }
      },
      [&] {
        const std::uint64_t before = cache_->version();
        const Object json = cache_->getJSON(paths).valueOr(Object());
        const std::int64_t a = json["a"]["n"].asNumber()->int64Value();
        const std::int64_t b = json["b"]["n"].asNumber()->int64Value();
        // The counters belong to one graph, no older than the version seen before the read.
        if (a != b || a + 1 + 2 * (a / 10) < static_cast<std::int64_t>(before)) ++failures_;
      },
      1 + kWrites + 2 * (kWrites / 10));
  EXPECT_EQ(failures_.load(), 0);
  const Object last = cache_->getJSON(paths).valueOr(Object());
  EXPECT_EQ(last["a"]["n"].asNumber()->int64Value(), kWrites);
}

}  // namespace
}  // namespace brivet
