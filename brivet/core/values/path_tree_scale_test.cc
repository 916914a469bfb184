// The cost of listing, writing and reading back one long path grows with its length, not with its length squared.
// Counted in allocations and bytes allocated (this binary counts every operator new), not in time: a 512-level
// path costs about 8 times a 64-level one when the cost is linear (up to twice that, as strings grow by doubling),
// and 64 times as much when a prefix is copied at every level; the bound is 24. Sanitizer builds replace operator
// new themselves, so there the test is skipped.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>

#include "brivet/core/values/path_tree.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define BRIVET_ALLOCATIONS_COUNTED 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define BRIVET_ALLOCATIONS_COUNTED 0
#endif
#endif
#ifndef BRIVET_ALLOCATIONS_COUNTED
#define BRIVET_ALLOCATIONS_COUNTED 1
#endif

#if BRIVET_ALLOCATIONS_COUNTED
namespace {
std::atomic<std::size_t> gAllocations{0};
std::atomic<std::size_t> gBytes{0};
}  // namespace

void* operator new(std::size_t size) {
  gAllocations.fetch_add(1, std::memory_order_relaxed);
  gBytes.fetch_add(size, std::memory_order_relaxed);
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  std::abort();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
#endif

namespace brivet {
namespace {

struct Cost {
  std::size_t allocations;
  std::size_t bytes;
};

class PathTreeScaleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!BRIVET_ALLOCATIONS_COUNTED) GTEST_SKIP() << "allocations are not counted in sanitizer builds";
  }

  // One path of `levels` single keys, each longer than a string keeps inline.
  static PathTree longPath(std::size_t levels) {
    Path path;
    for (std::size_t i = 0; i < levels; ++i) {
      path.push_back({Key::string("a-key-of-thirty-two-bytes-" + std::to_string(i))});
    }
    return PathTree::fromPaths({path});
  }

#if BRIVET_ALLOCATIONS_COUNTED
  static Cost cost(const std::function<void()>& f) {
    const std::size_t allocations = gAllocations.load();
    const std::size_t bytes = gBytes.load();
    f();
    return {gAllocations.load() - allocations, gBytes.load() - bytes};
  }
#else
  static Cost cost(const std::function<void()>&) { return {0, 0}; }
#endif

  // `f` over a 512-level path against a 64-level one: at most 24 times the allocations and bytes.
  static void expectLinear(const char* what, const std::function<void(const PathTree&)>& f) {
    const PathTree shortTree = longPath(64);
    const PathTree longTree = longPath(512);
    const Cost small = cost([&] { f(shortTree); });
    const Cost large = cost([&] { f(longTree); });
    EXPECT_LE(large.allocations, 24 * small.allocations) << what;
    EXPECT_LE(large.bytes, 24 * small.bytes) << what;
  }
};

TEST_F(PathTreeScaleTest, ListingALongPathCostsItsLength) {
  expectLinear("paths", [](const PathTree& t) { EXPECT_EQ(t.paths().size(), 1u); });
  expectLinear("keyPathStrings", [](const PathTree& t) { EXPECT_EQ(t.keyPathStrings().size(), 1u); });
  expectLinear("description", [](const PathTree& t) { EXPECT_FALSE(t.description().empty()); });
}

TEST_F(PathTreeScaleTest, ALongPathComesBackFromItsArrayFormAtTheCostOfItsLength) {
  expectLinear("array form and back",
               [](const PathTree& t) { EXPECT_EQ(PathTree::fromPathArrays(t.toJSONArray()), t); });
}

}  // namespace
}  // namespace brivet
