// CacheProtocol and Cache: the core model's in-memory store of one JSON Graph.
//
// The model and its operations touch cached data only through `CacheProtocol`.
// `Cache` implements it over an immutable, structurally shared `JSONGraph`:
//
//  * Reads (`getValues`, `getCache`, `getJSON`, the accessors) run on the
//    caller's thread without taking any queue: they read the current graph
//    snapshot, so a read never sees half a write and never waits for one. A
//    caller that must see every write requested before it (the get pipeline's
//    re-read after a merge) first waits for earlier barrier blocks with an
//    empty `cacheQueue()->sync(...)`, then reads.
//  * Writes (`merge`, `invalidate`, `setCache`) return at once after putting
//    one barrier block on the process-wide `cacheQueue()`; writes therefore
//    apply one at a time in submission order. Each block holds the cache
//    weakly and does nothing when the cache is gone. Every replacement of the
//    graph empties the platform-JSON memo in the same block; `version` steps
//    by exactly 1 per merge or invalidation pass that changes the graph and
//    is set, not stepped, by `setCache`.
//
// A `Cache` is shared by reference (std::shared_ptr) between the model, its
// operations and every model derived from it. All members may be called from
// any thread.
//
// Walks are bounded by what the graph holds and by a budget:
//
//  * A range costs what the branch under it holds, never its width: a range
//    wider than the branch is answered from the branch's own integer keys, and
//    indices that are absent are reported back as ranges ("@range(10,99)"),
//    one missing path per run rather than one per index.
//  * A walk follows at most `kMaxReferencesFollowed` references along one
//    chain. A value read reports a path that goes past the bound as a
//    path-bound error (its value is {"message": "reference chain longer than
//    1024"}); an extraction, and so an invalidation, stops following there
//    and keeps what it gathered.
//  * The walks of one read, extraction or invalidation together take at most
//    `walkBudget(tree)` steps: `kWalkStepBudget` plus
//    `kWalkStepsPerRequestKey` for every key the request names. A step is one
//    key looked up in a branch, one reference followed, or one key of a
//    missing or reference path written out. Key sets that fan out through
//    cycles of references would otherwise cost exponentially more than the
//    request and the graph together. Past the budget a value read fails with
//    a path-bound error whose value is {"message": "walk exceeded its budget
//    of N steps"}; an extraction ends with what it gathered, like a cycle (and
//    fails when that is nothing: a snapshot then holds the whole graph); an
//    invalidation removes what it met before the budget ran out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "brivet/core/cache/cache_envelope.h"
#include "brivet/core/values/brivet_error.h"
#include "brivet/core/values/json_graph.h"
#include "brivet/core/values/json_value.h"
#include "brivet/core/values/path_tree.h"
#include "brivet/platform/dispatch_queue.h"
#include "brivet/platform/object.h"
#include "brivet/platform/result.h"

namespace brivet {

// References followed along one chain of one walk before it gives up.
inline constexpr std::size_t kMaxReferencesFollowed = 1024;
// The steps every walk may take, and the steps added per key of its request.
inline constexpr std::size_t kWalkStepBudget = std::size_t{1} << 18;
inline constexpr std::size_t kWalkStepsPerRequestKey = 4;
// The step budget of one walk over `tree`: kWalkStepBudget plus
// kWalkStepsPerRequestKey per key the tree names (a range counts as one key).
std::size_t walkBudget(const PathTree& tree);
std::size_t walkBudget(const std::vector<Path>& paths);
// Whether a read failed because its walk went past its budget.
bool exceedsWalkBudget(const BrivetError& error);

// The process-wide concurrent queue of every cache's writes, labelled with the
// library's identifier, ".cache.queue." and a fresh UUID; made on first use.
// Shared by every core model in the process: nothing but the writes
// themselves (and empty blocks that wait for them) runs on it.
const std::shared_ptr<DispatchQueue>& cacheQueue();

// What a value read found: the values (an object keyed like the request), the
// requested paths that are missing or expired, and the same paths as they lie
// in the graph (references on the way replaced by their targets: what a data
// source is asked for).
struct CacheValues {
  JSONValue value;
  PathTree missingPathTree;
  PathTree missingOptimizedPathTree;
};

class CacheProtocol {
 public:
  virtual ~CacheProtocol() = default;

  // Size limit and collection ratio: stored, used by no operation.
  virtual std::int64_t cacheMaxSize() const = 0;
  virtual void setCacheMaxSize(std::int64_t size) = 0;
  virtual float cacheCollectRatio() const = 0;
  virtual void setCacheCollectRatio(float ratio) = 0;

  virtual JSONGraph jsonGraph() const = 0;
  virtual std::uint64_t version() const = 0;
  virtual std::optional<std::unordered_set<std::string>> prefixes() const = 0;

  // The value read along `pathTree`, references followed; with `checkExpiry`
  // an expired leaf counts as missing. Error leaves met on the way fail the
  // whole read with `responseJSONGraphFailed(pathBoundErrors)`; a path that
  // ends on a branch fails it with `responseJSONGraphFailed(invalidAttempt)`.
  [[nodiscard]] virtual Result<CacheValues, BrivetError> getValues(const PathTree& pathTree,
                                                                   bool checkExpiry) const = 0;
  // The whole graph (no tree) or the sub-graph the tree reaches, with the version.
  virtual CacheEnvelope getCache(const std::optional<PathTree>& pathTree) const = 0;
  // Platform dictionaries read along each path (one key per level), deep-merged
  // in path order: where two hold a dictionary under one key they merge,
  // otherwise the later value wins; the cost is linear in what is read.
  // Missing and expired entries and error leaves are left out. A path that
  // ends on a branch fails the whole call with `responseJSONGraphFailed
  // (invalidAttempt)` naming the keys read; no paths, or paths that find
  // nothing, give an empty dictionary.
  [[nodiscard]] virtual Result<Object, BrivetError> getJSON(const std::vector<Path>& paths) const = 0;

  virtual void merge(JSONGraph jsonGraph) = 0;
  virtual void invalidate(PathTree pathTree) = 0;
  // Undoes an earlier write node by node: for each entry, when the graph still
  // holds `written` at `path` (one literal key per level, references not
  // followed), that node becomes `previous` again, or is removed when there was
  // none; where something else has been written since, the entry is skipped.
  // A write like `merge`. The default does the same through `jsonGraph`,
  // `invalidate` and `merge`, without being atomic; `Cache` does it as one write.
  struct NodeRestore {
    std::vector<std::string> path;
    JSONGraph written;
    std::optional<JSONGraph> previous;
  };
  virtual void restore(std::vector<NodeRestore> restores);
  // Precondition: `envelope.version` <= kMaxCacheVersion (the snapshot readers
  // give no other).
  virtual void setCache(CacheEnvelope envelope) = 0;
};

// The node at `path` (one literal key per level, references not followed), if any.
std::optional<JSONGraph> nodeAt(const JSONGraph& graph, const std::vector<std::string>& path);
// A graph of objects holding `node` at `path`.
JSONGraph graphWithNodeAt(const std::vector<std::string>& path, JSONGraph node);

// The same value read as `CacheProtocol::getValues`, over a stand-alone graph
// (a response that is not merged into any cache).
[[nodiscard]] Result<CacheValues, BrivetError> getValues(const JSONGraph& graph, const PathTree& pathTree,
                                                         bool checkExpiry);

// The cache's recency bookkeeping: kept by every cache, holding no data and
// taking part in no operation.
class LRUPProtocol {
 public:
  virtual ~LRUPProtocol() = default;
};
class LRU final : public LRUPProtocol {};

class Cache : public CacheProtocol {
 public:
  // `jsonGraph` absent means an empty object branch; version starts at 1.
  static std::shared_ptr<Cache> create(std::optional<JSONGraph> jsonGraph = std::nullopt,
                                       std::optional<std::vector<std::string>> prefixes = std::nullopt,
                                       std::optional<std::vector<std::string>> optimizedPaths = std::nullopt);

  // The cache's own LRU (a new one per cache) and the first-level keys whose
  // platform-JSON reads are memoised; both fixed at construction.
  virtual const std::shared_ptr<LRUPProtocol>& lru() const = 0;
  virtual std::optional<std::unordered_set<std::string>> optimizedPaths() const = 0;
};

}  // namespace brivet
