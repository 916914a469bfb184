// The cache's graph algorithms, as pure functions over graph slots: the value
// read, the sub-graph extraction, the merge and the invalidation walk.
//
// All of them take the graph as a borrowed slot and answer owned slots. They
// never change a node: a merge or an invalidation copies the nodes on the paths
// it changes and shares everything else, and answers the old node itself
// wherever the result equals it, so "did anything change" is one comparison of
// slots. References are followed at most `kMaxReferencesFollowed` times along
// one chain; ranges cost what the branch under them holds; the reads and
// extractions stop at their step budget (see cache.h). Every function may run
// on any thread over a graph shared with readers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "brivet/core/cache/cache.h"
#include "brivet/core/values/brivet_error.h"
#include "brivet/core/values/internal/node.h"
#include "brivet/core/values/internal/value_access.h"
#include "brivet/core/values/path_tree.h"
#include "brivet/platform/internal/step_budget.h"
#include "brivet/platform/result.h"

namespace brivet::internal {

// A child of a large object whose key is the decimal text of an integer.
struct IndexedChild {
  std::int64_t index;
  const Slot* key;  // in the object's own storage
  Slot child;
};
// The steps one walk may still take (see `walkBudget` in cache.h), and the
// integer keys of the large objects its ranges went over, sorted: a walk
// sorts a branch once, however many ranges go over it. Belongs to one walk
// over one graph (the graph outlives it).
class WalkBudget : public StepBudget {
 public:
  using StepBudget::StepBudget;
  std::unordered_map<Slot, std::vector<IndexedChild>> indices;
};
// {"message": "walk exceeded its budget of N steps"}
JSONValue budgetErrorValue(std::size_t limit);

using KeyTextSet = std::unordered_set<std::string>;

// Whether some key of the set, in string form, is in `texts` (ranges are
// checked against the texts, never expanded).
bool keySetTouches(const KeySet& keys, const KeyTextSet& texts);
// A key set tree: one of its keys; an object tree: a key of a first-level key set.
bool treeTouches(const PathTree& tree, const KeyTextSet& texts);

// The value read along every path of `tree`, folded as the cache answers it.
[[nodiscard]] Result<CacheValues, BrivetError> readValues(Slot root, const PathTree& tree, bool checkExpiry);
// The value read along one path with expiry checked (kEmpty when nothing was
// found); missing paths and error leaves are left out. Fails only when the
// path ends on a branch.
[[nodiscard]] Result<SlotRef, BrivetError> readPathValue(Slot root, const Path& path);

struct Extraction {
  SlotRef graph;               // an object branch (arrays on the way stay arrays)
  std::vector<Path> refPaths;  // the paths the references met on the way led to
};
// The sub-graph that `paths` reach, references followed through a work list.
// A path ending on a branch copies it with `includeBranches`, otherwise fails
// with `invalidAttempt` unless something was gathered for that path already.
// Past the step budget it ends with what it gathered, like a cycle, and fails
// with a path-bound error when that is nothing.
[[nodiscard]] Result<Extraction, BrivetError> extract(Slot root, const std::vector<Path>& paths, bool includeBranches);
// Only the reference paths that `extract(root, paths, true)` would meet
// (those met before the budget ran out).
std::vector<Path> referencePaths(Slot root, const std::vector<Path>& paths);

// The merge of `incoming` into `old` (owned; `old` itself when the result equals it).
Slot mergeGraph(Slot incoming, Slot old);
// `graph` without the entries `tree` addresses (owned; `graph` itself when
// nothing was removed). References are not followed. Past the step budget
// the entries met so far are removed and the rest stay.
Slot invalidateGraph(Slot graph, const PathTree& tree);
Slot invalidateGraph(Slot graph, const PathTree& tree, WalkBudget& budget);

// Whether a leaf's metadata says it has expired at `nowMs` (milliseconds since 1970).
bool isExpired(const Metadata& metadata, double nowMs);

}  // namespace brivet::internal
