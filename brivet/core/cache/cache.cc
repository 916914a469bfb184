#include "brivet/core/cache/cache.h"

#include <atomic>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "brivet/core/cache/internal/graph_walk.h"
#include "brivet/platform/identifier.h"
#include "brivet/platform/internal/mutex.h"
#include "brivet/platform/precondition.h"
#include "brivet/platform/uuid.h"

namespace brivet {

using internal::Slot;
using internal::SlotRef;

const std::shared_ptr<DispatchQueue>& cacheQueue() {
  // Shared by every core cache of the process: only writes run here (see cache.h).
  // Made on first use and never destroyed: blocks may still run while the process exits.
  static const auto* queue = new std::shared_ptr<DispatchQueue>(
      DispatchQueue::concurrent(std::string(kReverseDomain) + ".cache.queue." + UUID::random().uuidString()));
  return *queue;
}

Result<CacheValues, BrivetError> getValues(const JSONGraph& graph, const PathTree& pathTree, bool checkExpiry) {
  return internal::readValues(internal::slot(graph), pathTree, checkExpiry);
}

namespace {

struct PathHash {
  std::size_t operator()(const Path& path) const {
    std::size_t h = path.size();
    // A hash: on 32-bit targets the multiplier keeps its low half, on purpose.
    for (const KeySet& keys : path) h = h * static_cast<std::size_t>(0x9E3779B97F4A7C15ULL) + KeySetHash()(keys);
    return h;
  }
};

// The platform-JSON reads memoised for one graph. A graph replacement starts a
// new memo, so a store computed from an older graph lands in a memo nobody
// reads any more.
class Memo {
 public:
  Object find(const Path& path) const {
    internal::MutexLock lock(mu_);
    auto it = entries_.find(path);
    return it == entries_.end() ? Object() : it->second;
  }
  void store(const Path& path, Object dictionary) {
    internal::MutexLock lock(mu_);
    entries_[path] = std::move(dictionary);
  }

 private:
  mutable internal::Mutex mu_;
  std::unordered_map<Path, Object, PathHash> entries_ BRIVET_GUARDED_BY(mu_);
};

// One published state: the graph, its version and its memo, read together.
struct State {
  JSONGraph graph;
  std::uint64_t version;
  std::shared_ptr<Memo> memo = std::make_shared<Memo>();
};

// Versions stay within 0...kMaxCacheVersion, so that every snapshot restores (cache_envelope.h).
std::uint64_t nextVersion(std::uint64_t version) {
  if (version >= kMaxCacheVersion) BRIVET_FATAL("cache version stepped past its maximum");
  return version + 1;
}

// Lays dictionaries over each other in order: on a key both hold a dictionary
// under, the two merge; otherwise the later value is stored. The inputs are
// never written into (memo entries are shared by every later read): a
// dictionary of an input is copied, shallowly, the first time something must
// be merged into it, and the copy is written into from then on. Each input
// dictionary is therefore copied at most once where it lies in the result, and
// the merge costs what the inputs hold, however many there are.
class DictionaryMerge {
 public:
  explicit DictionaryMerge(const Object& first) : root_(writable(first)) {}

  void add(const Object& later) { mergeInto(*root_.asMutableDictionary(), *later.asDictionary()); }
  Object result() const { return root_; }

 private:
  Object writable(const Object& dictionary) {
    Object copy = dictionary.mutableCopy();
    written_.insert(copy.impl().get());
    return copy;
  }

  // Recursion is as deep as the values, which the graph bounds.
  void mergeInto(Dictionary& into, const Dictionary& later) {
    for (const auto& [key, value] : later) {
      const Object old = into.objectForKey(key);
      if (old.isDictionary() && value.isDictionary()) {
        Object target = old;
        if (!written_.contains(old.impl().get())) {
          target = writable(old);
          into.setObject(target, key);
        }
        mergeInto(*target.asMutableDictionary(), *value.asDictionary());
      } else {
        into.setObject(value, key);
      }
    }
  }

  std::unordered_set<const ObjectBase*> written_;
  Object root_;
};

std::optional<internal::KeyTextSet> toSet(const std::optional<std::vector<std::string>>& texts) {
  if (!texts) return std::nullopt;
  return internal::KeyTextSet(texts->begin(), texts->end());
}

class CacheImpl final : public Cache, public std::enable_shared_from_this<CacheImpl> {
 public:
  CacheImpl(JSONGraph graph, std::optional<internal::KeyTextSet> prefixes,
            std::optional<internal::KeyTextSet> optimizedPaths)
      : state_(std::make_shared<const State>(State{std::move(graph), 1})),
        prefixes_(std::move(prefixes)),
        optimizedPaths_(std::move(optimizedPaths)) {}

  std::int64_t cacheMaxSize() const override { return cacheMaxSize_.load(std::memory_order_relaxed); }
  void setCacheMaxSize(std::int64_t size) override { cacheMaxSize_.store(size, std::memory_order_relaxed); }
  float cacheCollectRatio() const override { return cacheCollectRatio_.load(std::memory_order_relaxed); }
  void setCacheCollectRatio(float ratio) override { cacheCollectRatio_.store(ratio, std::memory_order_relaxed); }

  JSONGraph jsonGraph() const override { return current()->graph; }
  std::uint64_t version() const override { return current()->version; }
  std::optional<std::unordered_set<std::string>> prefixes() const override { return prefixes_; }
  std::optional<std::unordered_set<std::string>> optimizedPaths() const override { return optimizedPaths_; }
  const std::shared_ptr<LRUPProtocol>& lru() const override { return lru_; }

  Result<CacheValues, BrivetError> getValues(const PathTree& pathTree, bool checkExpiry) const override {
    const std::shared_ptr<const State> state = current();
    if (prefixes_ && internal::treeTouches(pathTree, *prefixes_)) {
      // The raw sub-graph, handed over as a value in its wire form.
      Result<internal::Extraction, BrivetError> extracted =
          internal::extract(internal::slot(state->graph), pathTree.paths(), true);
      if (!extracted.ok()) return Failure{extracted.error()};
      return CacheValues{JSONValue::fromAny(internal::graphSlotToAny(extracted->graph.get())), PathTree(), PathTree()};
    }
    return internal::readValues(internal::slot(state->graph), pathTree, checkExpiry);
  }

  CacheEnvelope getCache(const std::optional<PathTree>& pathTree) const override {
    const std::shared_ptr<const State> state = current();
    if (!pathTree) return CacheEnvelope{state->graph, state->version};
    const bool includeBranches = prefixes_ && internal::treeTouches(*pathTree, *prefixes_);
    Result<internal::Extraction, BrivetError> extracted =
        internal::extract(internal::slot(state->graph), pathTree->paths(), includeBranches);
    if (!extracted.ok()) return CacheEnvelope{state->graph, state->version};
    return CacheEnvelope{internal::graphFromSlot(std::move(extracted->graph)), state->version};
  }

  Result<Object, BrivetError> getJSON(const std::vector<Path>& paths) const override {
    const std::shared_ptr<const State> state = current();
    const Slot root = internal::slot(state->graph);
    std::optional<DictionaryMerge> merged;
    Object only;  // the one dictionary, as long as there is only one
    for (const Path& path : paths) {
      Result<Object, BrivetError> found = readJSON(*state, root, path);
      if (!found.ok()) return Failure{found.error()};
      if (merged) {
        merged->add(found.value());
      } else if (only.isNil()) {
        only = std::move(found).value();
      } else {
        merged.emplace(only);
        merged->add(found.value());
      }
    }
    if (merged) return merged->result();
    return only.isNil() ? Object::dictionary() : only;
  }

  void merge(JSONGraph jsonGraph) override {
    write([graph = std::move(jsonGraph)](CacheImpl& cache) { cache.applyMerge(graph); });
  }
  void invalidate(PathTree pathTree) override {
    write([tree = std::move(pathTree)](CacheImpl& cache) { cache.applyInvalidation(tree); });
  }
  void restore(std::vector<NodeRestore> restores) override {
    write([restores = std::move(restores)](CacheImpl& cache) { cache.applyRestores(restores); });
  }
  void setCache(CacheEnvelope envelope) override {
    BRIVET_PRECONDITION(envelope.version <= kMaxCacheVersion, "cache version above kMaxCacheVersion");
    write([envelope = std::move(envelope)](CacheImpl& cache) { cache.publish(envelope.jsonGraph, envelope.version); });
  }

 private:
  // One path's platform dictionary: the raw sub-graph for a prefix, else the
  // memo's entry or the value read (memoised for an optimized path).
  Result<Object, BrivetError> readJSON(const State& state, Slot root, const Path& path) const {
    if (prefixes_ && !path.empty() && internal::keySetTouches(path[0], *prefixes_)) {
      Result<internal::Extraction, BrivetError> extracted = internal::extract(root, {path}, true);
      if (!extracted.ok()) return Failure{extracted.error()};
      const Object raw = internal::graphSlotToAny(extracted->graph.get());
      return raw.isDictionary() ? raw : Object::dictionary();
    }
    if (Object memoised = state.memo->find(path); memoised.isDictionary()) return memoised;
    Result<SlotRef, BrivetError> value = internal::readPathValue(root, path);
    if (!value.ok()) return Failure{value.error()};
    const Object read = value->get() == internal::kEmpty ? Object() : internal::valueSlotToAny(value->get());
    Object dictionary = read.isDictionary() ? read : Object::dictionary();
    if (optimizedPaths_ && !path.empty() && internal::keySetTouches(path[0], *optimizedPaths_)) {
      cacheQueue()->asyncBarrier([weak = weak_from_this(), memo = state.memo, path, dictionary] {
        if (weak.lock()) memo->store(path, dictionary);
      });
    }
    return dictionary;
  }

  // The published state. The lock is held only to copy the pointer: a reader
  // never waits for a write, only for another reader's or writer's copy.
  std::shared_ptr<const State> current() const {
    internal::MutexLock lock(stateMu_);
    return state_;
  }

  // A barrier block on the cache queue that holds the cache weakly.
  template <class F>
  void write(F block) {
    cacheQueue()->asyncBarrier([weak = weak_from_this(), block = std::move(block)] {
      if (std::shared_ptr<CacheImpl> self = weak.lock()) block(*self);
    });
  }

  // Writes run one at a time (barriers on the cache queue), so reading the
  // state and publishing its successor cannot interleave with another write.
  void publish(JSONGraph graph, std::uint64_t version) {
    std::shared_ptr<const State> next = std::make_shared<const State>(State{std::move(graph), version});
    std::shared_ptr<const State> previous;
    {
      internal::MutexLock lock(stateMu_);
      previous = std::exchange(state_, std::move(next));
    }
    previous.reset();  // the old graph is released here, outside the lock, unless a reader still holds it
  }
  // Replaces the graph when `replacement` is not the current graph itself (the
  // merge and the invalidation answer the old node wherever nothing changed).
  void replaceIfChanged(SlotRef replacement) {
    const std::shared_ptr<const State> state = current();
    if (replacement.get() == internal::slot(state->graph)) return;
    publish(internal::graphFromSlot(std::move(replacement)), nextVersion(state->version));
  }

  void applyMerge(const JSONGraph& incoming) {
    // The root stays an object branch: a response that is not one has nothing to merge into it.
    if (!incoming.isObject()) return;
    const std::shared_ptr<const State> state = current();
    replaceIfChanged(SlotRef(internal::mergeGraph(internal::slot(incoming), internal::slot(state->graph))));
  }

  void applyRestores(const std::vector<NodeRestore>& restores) {
    for (const NodeRestore& restore : restores) {
      const JSONGraph graph = current()->graph;
      const std::optional<JSONGraph> now = nodeAt(graph, restore.path);
      if (!now || !(*now == restore.written)) continue;  // newer than the write being undone: kept
      // Removed first, so that the merge's timestamp rule cannot keep the node being undone.
      replaceIfChanged(SlotRef(internal::invalidateGraph(
          internal::slot(graph), PathTree::fromGraph(graphWithNodeAt(restore.path, JSONGraphLeaf::undefined())))));
      if (restore.previous) applyMerge(graphWithNodeAt(restore.path, *restore.previous));
    }
  }

  void applyInvalidation(const PathTree& tree) {
    // First what the references on the way lead to, then the requested entries themselves.
    const std::vector<Path> refPaths = internal::referencePaths(internal::slot(current()->graph), tree.paths());
    if (!refPaths.empty()) {
      const PathTree refTree = PathTree::fromPaths(refPaths);
      replaceIfChanged(SlotRef(internal::invalidateGraph(internal::slot(current()->graph), refTree)));
    }
    replaceIfChanged(SlotRef(internal::invalidateGraph(internal::slot(current()->graph), tree)));
  }

  mutable internal::Mutex stateMu_;
  std::shared_ptr<const State> state_ BRIVET_GUARDED_BY(stateMu_);
  const std::optional<internal::KeyTextSet> prefixes_;
  const std::optional<internal::KeyTextSet> optimizedPaths_;
  const std::shared_ptr<LRUPProtocol> lru_ = std::make_shared<LRU>();
  std::atomic<std::int64_t> cacheMaxSize_{0};
  std::atomic<float> cacheCollectRatio_{0.0f};
};

}  // namespace

std::shared_ptr<Cache> Cache::create(std::optional<JSONGraph> jsonGraph,
                                     std::optional<std::vector<std::string>> prefixes,
                                     std::optional<std::vector<std::string>> optimizedPaths) {
  return std::make_shared<CacheImpl>(jsonGraph ? std::move(*jsonGraph) : JSONGraph::emptyObject(), toSet(prefixes),
                                     toSet(optimizedPaths));
}

std::optional<JSONGraph> nodeAt(const JSONGraph& graph, const std::vector<std::string>& path) {
  std::optional<JSONGraph> node = graph;
  for (const std::string& key : path) {
    if (node->isObject()) {
      node = node->find(key);
    } else if (node->isArray()) {
      // An array element is named by its index in decimal; anything else names nothing.
      if (key.empty() || key.size() > 9 || key.find_first_not_of("0123456789") != std::string::npos) {
        return std::nullopt;
      }
      std::size_t index = 0;
      for (char c : key) index = index * 10 + static_cast<std::size_t>(c - '0');
      node = node->at(index);
    } else {
      return std::nullopt;
    }
    if (!node) return std::nullopt;
  }
  return node;
}

JSONGraph graphWithNodeAt(const std::vector<std::string>& path, JSONGraph node) {
  for (auto key = path.rbegin(); key != path.rend(); ++key) {
    std::vector<std::pair<std::string, JSONGraph>> entries;
    entries.emplace_back(*key, std::move(node));
    node = JSONGraph::object(std::move(entries));
  }
  return node;
}

void CacheProtocol::restore(std::vector<NodeRestore> restores) {
  for (NodeRestore& restore : restores) {
    const std::optional<JSONGraph> now = nodeAt(jsonGraph(), restore.path);
    if (!now || !(*now == restore.written)) continue;
    invalidate(PathTree::fromGraph(graphWithNodeAt(restore.path, JSONGraphLeaf::undefined())));
    if (restore.previous) merge(graphWithNodeAt(restore.path, std::move(*restore.previous)));
  }
}

}  // namespace brivet
