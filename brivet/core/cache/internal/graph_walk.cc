#include "brivet/core/cache/internal/graph_walk.h"

#include <algorithm>
#include <deque>
#include <utility>

#include "brivet/core/values/json_graph.h"
#include "brivet/core/values/json_value.h"
#include "brivet/platform/date.h"

namespace brivet::internal {
namespace {

// The child of a branch under a text key (arrays by index), borrowed; kEmpty when absent.
Slot childOf(Slot branch, std::string_view key) {
  if (isObjectSlot(branch)) return objectFind(branch, KeyProbe(key));
  std::size_t index;
  const ArrayNode* a = arrayOf(branch);
  if (!parseIndex(key, &index) || index >= a->count) return kEmpty;
  return a->items[index];
}

bool isBranch(Slot s) { return isObjectSlot(s) || isArraySlot(s); }

double nowMilliseconds() { return timeIntervalSince1970(dateNow()) * 1000.0; }

Path singleKeys(const std::vector<std::string_view>& keys) {
  Path p;
  p.reserve(keys.size());
  for (std::string_view k : keys) p.push_back({Key::string(std::string(k))});
  return p;
}
std::vector<std::string> texts(const std::vector<std::string_view>& keys) {
  return std::vector<std::string>(keys.begin(), keys.end());
}

// The probe of a key held in a slot (a reference's path): a short key is its own probe.
KeyProbe probeOf(const Slot& key) {
  if (tagOf(key) != kTagShortString) return KeyProbe(stringOf(key));
  KeyProbe probe(std::string_view{});
  probe.text = stringOf(key);
  probe.inlineSlot = key;
  return probe;
}
Slot childOf(Slot branch, const KeyProbe& key) {
  if (isObjectSlot(branch)) return objectFind(branch, key);
  return childOf(branch, key.text);
}

// A value that a read hands back as it stands: a primitive or a metadata-free
// atom (whose value it reads as), never a branch, a reference, an error or a
// leaf with metadata.
bool isTerminalPlain(Slot s) {
  switch (tagOf(s)) {
    case kTagRef: return false;
    case kTagAtom: return true;
    case kTagConstant: return s != kUndefined && s != kTombstone;
    case kTagPointer: {
      if (s == kEmpty) return false;
      const NodeKind k = nodeOf(s)->kind;
      return k == NodeKind::String || k == NodeKind::Number;
    }
    default: return true;
  }
}

JSONValue cycleErrorValue() {
  return JSONValue::object(
      {{"message", JSONPrimitive::string("reference chain longer than " + std::to_string(kMaxReferencesFollowed))}});
}

// --- The value read ---

class ValueWalker {
 public:
  ValueWalker(Slot root, bool checkExpiry, double nowMs) : root_(root), checkExpiry_(checkExpiry), nowMs_(nowMs) {}

  // The value found along `path` (owned, kEmpty when nothing); `failed()` when it ended on a branch.
  Slot walkPath(const Path& path) {
    path_ = &path;
    requested_.clear();
    optimized_.clear();
    optimizedBase_ = 0;
    pending_.clear();
    hops_ = 0;
    probes_.assign(path.size(), {});
    for (std::size_t i = 0; i < path.size(); ++i) {
      const KeySet& keys = path[i];
      if (std::any_of(keys.begin(), keys.end(), [](const Key& k) { return k.kind() == Key::Kind::Range; })) continue;
      probes_[i].reserve(keys.size());
      for (const Key& k : keys) probes_[i].emplace_back(k.stringValue());
    }
    return walk(root_, 0);
  }
  bool failed() const { return failure_.has_value(); }
  BrivetError failure() const { return *failure_; }

  std::vector<Path> missing;
  std::vector<Path> missingOptimized;
  std::vector<PathBoundError> errors;

 private:
  // Keys of a reference's target still to walk (they name places in the
  // graph, not in the request).
  struct Pending {
    const ArrayNode* target;
    std::uint32_t next;
  };

  bool keysLeft(std::size_t i) {
    dropSpentTargets();
    return !pending_.empty() || i < path_->size();
  }
  void dropSpentTargets() {
    while (!pending_.empty() && pending_.back().next >= pending_.back().target->count) pending_.pop_back();
  }

  // The optimized keys so far, then `extra` (when given), then the target keys
  // still pending (the one being consumed left out when `skipCurrent`), then
  // the request's key sets from `i`.
  Path optimizedPath(const std::string_view* extra, bool skipCurrent, std::size_t i) const {
    Path p;
    for (std::size_t k = optimizedBase_; k < optimized_.size(); ++k) p.push_back({Key::string(std::string(optimized_[k]))});
    if (extra != nullptr) p.push_back({Key::string(std::string(*extra))});
    for (std::size_t f = pending_.size(); f-- > 0;) {
      const Pending& frame = pending_[f];
      std::uint32_t j = frame.next + ((skipCurrent && f + 1 == pending_.size()) ? 1 : 0);
      for (; j < frame.target->count; ++j) p.push_back({Key::string(std::string(stringOf(frame.target->items[j])))});
    }
    p.insert(p.end(), path_->begin() + static_cast<std::ptrdiff_t>(i), path_->end());
    return p;
  }
  Path requestedPath(const std::string_view* extra, std::size_t i) const {
    Path p = singleKeys(requested_);
    if (extra != nullptr) p.push_back({Key::string(std::string(*extra))});
    p.insert(p.end(), path_->begin() + static_cast<std::ptrdiff_t>(i), path_->end());
    return p;
  }

  // A key of the request's set `i` that the branch lacks (no target keys are pending then).
  void missingRequested(std::string_view key, std::size_t i) {
    missing.push_back(requestedPath(&key, i + 1));
    missingOptimized.push_back(optimizedPath(&key, false, i + 1));
  }
  // A target key that the branch lacks: the request goes on from set `i`.
  void missingTarget(std::string_view key, std::size_t i) {
    missing.push_back(requestedPath(nullptr, i));
    missingOptimized.push_back(optimizedPath(&key, true, i));
  }
  // An expired leaf reached with set `i` next: fetched again like a missing one.
  void missingExpired(std::size_t i) {
    missing.push_back(requestedPath(nullptr, i));
    missingOptimized.push_back(optimizedPath(nullptr, false, i));
  }

  Slot walk(Slot node, std::size_t i) {
    const std::size_t savedOptimized = optimized_.size();
    const std::size_t savedBase = optimizedBase_;
    const std::size_t savedPending = pending_.size();
    const std::size_t savedHops = hops_;
    const Slot result = walkFrom(node, i);
    optimized_.resize(savedOptimized);
    optimizedBase_ = savedBase;
    pending_.resize(savedPending);
    hops_ = savedHops;
    return result;
  }

  Slot walkFrom(Slot node, std::size_t i) {
    for (;;) {
      const bool more = keysLeft(i);
      if (isBranch(node)) {
        if (!more) {
          failure_ =
              BrivetError::responseJSONGraphFailed(BrivetError::JSONGraphFailureReason::invalidAttempt(texts(requested_)));
          return kEmpty;
        }
        if (pending_.empty()) return walkKeySet(node, i);
        // A key of a reference's target: one step down, nothing to gather.
        Pending& frame = pending_.back();
        const Slot& keySlot = frame.target->items[frame.next];
        const std::string_view key = stringOf(keySlot);
        const Slot child = childOf(node, probeOf(keySlot));
        if (child == kEmpty) {
          missingTarget(key, i);
          return kEmpty;
        }
        ++frame.next;
        optimized_.emplace_back(key);
        node = child;
        continue;
      }
      LeafView v;
      viewLeaf(node, &v);
      const bool wrapped = v.kind == JSONGraphLeaf::Kind::Atom || v.kind == JSONGraphLeaf::Kind::Error ||
                           v.kind == JSONGraphLeaf::Kind::Ref;
      if (wrapped && checkExpiry_ && isExpired(v.metadata, nowMs_)) {
        missingExpired(i);
        return kEmpty;
      }
      switch (v.kind) {
        case JSONGraphLeaf::Kind::Error:
          errors.push_back({texts(requested_), internal::valueFromSlot(SlotRef(copySlot(v.value)))});
          return kEmpty;
        case JSONGraphLeaf::Kind::Ref:
          if (!more) return copySlot(v.value);
          if (!isArraySlot(v.value)) return kEmpty;
          if (hops_ >= kMaxReferencesFollowed) {
            errors.push_back({texts(requested_), cycleErrorValue()});
            return kEmpty;
          }
          ++hops_;
          pending_.push_back({arrayOf(v.value), 0});
          optimizedBase_ = optimized_.size();
          node = root_;
          continue;
        case JSONGraphLeaf::Kind::Atom: return copySlot(valueView(v.value));
        case JSONGraphLeaf::Kind::Primitive: return copySlot(node);
        case JSONGraphLeaf::Kind::Undefined: return kEmpty;
      }
      return kEmpty;
    }
  }

  // The request's key set `i` over a branch: an object of what each key gave.
  Slot walkKeySet(Slot node, std::size_t i) {
    if (i + 1 == path_->size() && !probes_[i].empty()) {
      const Slot shared = sharedWhole(node, probes_[i]);
      if (shared != kEmpty) return shared;
    }
    ObjectBuilder builder;
    auto visit = [&](const KeyProbe& probe) {
      if (failure_) return;
      const std::string_view key = probe.text;
      const Slot child = childOf(node, probe);
      if (child == kEmpty) {
        missingRequested(key, i);
        return;
      }
      requested_.push_back(key);
      optimized_.push_back(key);
      const Slot value = walk(child, i + 1);
      requested_.pop_back();
      optimized_.pop_back();
      if (value != kEmpty) builder.add(probe.inlineSlot != kEmpty ? probe.inlineSlot : makeString(key), value);
    };
    forEachProbe(i, visit);
    if (failure_) return kEmpty;
    return builder.build();
  }

  // Calls `f(probe)` for every key of the request's set `i`.
  template <class F>
  void forEachProbe(std::size_t i, F& f) const {
    if (!probes_[i].empty() || (*path_)[i].empty()) {
      for (const KeyProbe& probe : probes_[i]) f(probe);
      return;
    }
    forEachKey((*path_)[i], [&](std::string_view key) { f(KeyProbe(key)); });
  }

  // When the last key set names exactly the keys of a small object whose
  // values are all primitives or metadata-free atoms, the object read as a
  // JSON value is the answer itself: it is shared, not rebuilt.
  Slot sharedWhole(Slot node, const std::vector<KeyProbe>& probes) const {
    if (!isPlainNode(node, NodeKind::SmallObject)) return kEmpty;
    const auto* o = reinterpret_cast<const SmallObjectNode*>(nodeOf(node));
    const std::uint32_t n = o->shape->count;
    if (n == 0 || probes.size() > n) return kEmpty;
    std::uint32_t seen = 0;
    for (const KeyProbe& probe : probes) {
      std::uint32_t j = 0;
      while (j < n && !probe.matches(o->shape->keys[j])) ++j;
      if (j == n) return kEmpty;
      seen |= 1u << j;
    }
    if (seen != (n == 32 ? ~0u : (1u << n) - 1)) return kEmpty;
    for (std::uint32_t j = 0; j < n; ++j) {
      if (!isTerminalPlain(o->values[j])) return kEmpty;
    }
    retain(node);
    return node;
  }

  const Slot root_;
  const bool checkExpiry_;
  const double nowMs_;
  const Path* path_ = nullptr;
  // Keys consumed so far, as views: of the request's keys, of the range
  // expansion being walked (alive while its key is), or of reference paths in the graph.
  std::vector<std::string_view> requested_;
  std::vector<std::string_view> optimized_;
  // Probes of the request's key sets that hold no range, made once per path.
  std::vector<std::vector<KeyProbe>> probes_;
  std::size_t optimizedBase_ = 0;  // where the optimized keys of the innermost reference start
  std::vector<Pending> pending_;   // innermost reference last
  std::size_t hops_ = 0;
  std::optional<BrivetError> failure_;
};

// --- Extraction ---

class Extractor {
 public:
  Extractor(Slot root, bool includeBranches, bool build)
      : root_(root), includeBranches_(includeBranches), build_(build) {}

  // One path with its work list. On failure `failed()` holds.
  SlotRef extractPath(const Path& start, std::vector<Path>& refPaths) {
    std::deque<std::pair<Path, std::size_t>> work;
    work.emplace_back(start, 0);
    SlotRef accumulated(emptyObject());
    std::vector<Path> found;
    while (!work.empty()) {
      auto [path, hops] = std::move(work.front());
      work.pop_front();
      found.clear();
      SlotRef fragment(walk(root_, path, 0, found));
      if (failed_) {
        if (isObjectSlot(accumulated.get()) && objectSize(accumulated.get()) == 0) return SlotRef();
        failed_ = false;  // something was gathered: the error is dropped and the walk ends here
        return accumulated;
      }
      if (build_) accumulated = SlotRef(mergeGraph(fragment.get(), accumulated.get()));
      if (hops >= kMaxReferencesFollowed) continue;  // a chain this long is a cycle: stop following it
      for (Path& p : found) {
        refPaths.push_back(p);
        work.emplace_back(std::move(p), hops + 1);
      }
    }
    return accumulated;
  }
  bool failed() const { return failed_; }

 private:
  Slot walk(Slot node, const Path& path, std::size_t i, std::vector<Path>& found) {
    if (isBranch(node)) {
      if (i == path.size()) {
        if (includeBranches_) return build_ ? copySlot(node) : kEmpty;
        failed_ = true;
        return kEmpty;
      }
      if (isObjectSlot(node)) {
        ObjectBuilder builder;
        forEachKey(path[i], [&](std::string_view key) {
          if (failed_) return;
          const Slot child = objectFind(node, KeyProbe(key));
          if (child == kEmpty) return;
          const Slot part = walk(child, path, i + 1, found);
          if (build_ && !failed_) builder.add(makeString(key), part);
        });
        if (failed_ || !build_) return kEmpty;
        return builder.build();
      }
      const ArrayNode* a = arrayOf(node);
      std::vector<std::pair<std::size_t, Slot>> parts;
      forEachKey(path[i], [&](std::string_view key) {
        std::size_t index;
        if (failed_ || !parseIndex(key, &index) || index >= a->count) return;
        const Slot part = walk(a->items[index], path, i + 1, found);
        if (build_ && !failed_) parts.emplace_back(index, part);
      });
      // Back to an array in ascending index order; of a repeated index the last part counts.
      std::stable_sort(parts.begin(), parts.end(), [](const auto& x, const auto& y) { return x.first < y.first; });
      std::vector<Slot> items;
      for (std::size_t k = 0; k < parts.size(); ++k) {
        if (k + 1 < parts.size() && parts[k + 1].first == parts[k].first) {
          release(parts[k].second);
          continue;
        }
        items.push_back(parts[k].second);
      }
      if (failed_ || !build_) {
        for (Slot s : items) release(s);
        return kEmpty;
      }
      return buildArray(std::move(items));
    }
    LeafView v;
    viewLeaf(node, &v);
    if (v.kind == JSONGraphLeaf::Kind::Ref && i < path.size() && isArraySlot(v.value)) {
      const ArrayNode* target = arrayOf(v.value);
      Path next;
      next.reserve(target->count + path.size() - i);
      for (std::uint32_t k = 0; k < target->count; ++k) {
        next.push_back({Key::string(std::string(stringOf(target->items[k])))});
      }
      next.insert(next.end(), path.begin() + static_cast<std::ptrdiff_t>(i), path.end());
      found.push_back(std::move(next));
    }
    return build_ ? copySlot(node) : kEmpty;
  }

  const Slot root_;
  const bool includeBranches_;
  const bool build_;
  bool failed_ = false;
};

// --- Merge ---

Slot keepOld(Slot old) {
  retain(old);
  return old;
}

// `incoming` replaces `old`, unless the two are equal.
Slot replaceWith(Slot incoming, Slot old) {
  if (graphEqual(incoming, old)) return keepOld(old);
  return copySlot(incoming);
}

// The JSON value merge, answering `old` itself wherever the result equals it.
Slot mergeValueKeepingEqual(Slot incoming, Slot old) {
  const Slot in = valueView(incoming);
  const Slot was = valueView(old);
  if (!isObjectSlot(in) || !isObjectSlot(was)) {
    if (valueEqual(in, was)) return keepOld(old);
    return copySlot(in);
  }
  const Slot merged = objectUpdate(was, objectEntries(in), [](Slot o, Slot n) -> Slot {
    return o == kEmpty ? copySlot(n) : mergeValueKeepingEqual(n, o);
  });
  if (merged == was) {
    release(merged);
    return keepOld(old);
  }
  return merged;
}

bool hasTimestamp(const Metadata& m) { return (m.present & (1u << kMetaTimestamp)) != 0; }

// An old leaf with metadata (atom, error, reference) meets `incoming`.
Slot timestampRule(Slot incoming, Slot old, const LeafView& was) {
  LeafView in;
  if (!viewLeaf(incoming, &in) || in.kind == JSONGraphLeaf::Kind::Primitive ||
      in.kind == JSONGraphLeaf::Kind::Undefined) {
    return replaceWith(incoming, old);
  }
  if (!hasTimestamp(was.metadata) || !hasTimestamp(in.metadata)) return replaceWith(incoming, old);
  if (was.metadata.timestamp > in.metadata.timestamp) return keepOld(old);
  return replaceWith(incoming, old);
}

Slot mergeArrays(Slot incoming, Slot old) {
  const ArrayNode* in = arrayOf(incoming);
  const ArrayNode* was = arrayOf(old);
  const std::uint32_t n = std::max(in->count, was->count);
  std::vector<Slot> items(n);
  bool changed = in->count > was->count;
  for (std::uint32_t i = 0; i < n; ++i) {
    if (i < in->count && i < was->count) {
      items[i] = mergeGraph(in->items[i], was->items[i]);
      changed = changed || items[i] != was->items[i];
    } else if (i < was->count) {
      items[i] = keepOld(was->items[i]);
    } else {
      items[i] = copySlot(in->items[i]);
    }
  }
  if (!changed) {
    for (Slot s : items) release(s);
    return keepOld(old);
  }
  return buildArray(std::move(items));
}

}  // namespace

bool isExpired(const Metadata& m, double nowMs) {
  if ((m.present & (1u << kMetaExpires)) == 0) return false;
  switch (m.expiresKind) {
    case MetaDateKind::Never: return false;
    case MetaDateKind::Now: return true;
    case MetaDateKind::Date: return nowMs >= m.expires;
  }
  return false;
}

Slot mergeGraph(Slot incoming, Slot old) {
  if (isObjectSlot(old)) {
    if (!isObjectSlot(incoming)) return replaceWith(incoming, old);
    return objectUpdate(old, objectEntries(incoming),
                        [](Slot o, Slot n) -> Slot { return o == kEmpty ? copySlot(n) : mergeGraph(n, o); });
  }
  if (isArraySlot(old)) {
    if (!isArraySlot(incoming)) return replaceWith(incoming, old);
    return mergeArrays(incoming, old);
  }
  LeafView was;
  viewLeaf(old, &was);
  switch (was.kind) {
    case JSONGraphLeaf::Kind::Primitive:
    case JSONGraphLeaf::Kind::Undefined: return replaceWith(incoming, old);
    case JSONGraphLeaf::Kind::Atom:
      if (isObjectSlot(valueView(was.value))) {
        if (isObjectSlot(incoming)) {
          // The branch, as a JSON value (wrapped leaves in their wire form), merges into the atom's value.
          const SlotRef asValue(valueSlotFromAny(graphSlotToAny(incoming), kMaxDepth));
          const SlotRef merged(mergeValueKeepingEqual(asValue.get(), was.value));
          if (merged.get() == was.value) return keepOld(old);
          Metadata m = was.metadata;
          return makeLeaf(LeafKind::Atom, copySlot(merged.get()), m);
        }
        if (isArraySlot(incoming)) return replaceWith(incoming, old);
      }
      return timestampRule(incoming, old, was);
    case JSONGraphLeaf::Kind::Error:
    case JSONGraphLeaf::Kind::Ref: return timestampRule(incoming, old, was);
  }
  return replaceWith(incoming, old);
}

// --- Invalidation ---

namespace {

Slot invalidateArray(Slot array, const PathTree& tree);

// What one entry of the tree does to a present child (owned result).
Slot invalidateChild(Slot child, const PathTree& sub) {
  switch (sub.kind()) {
    case PathTree::Kind::Target:
    case PathTree::Kind::Self: return kEmpty;
    case PathTree::Kind::Object:
      if (isObjectSlot(child)) return invalidateGraph(child, sub);
      if (isArraySlot(child)) return invalidateArray(child, sub);
      return keepOld(child);  // a leaf stays: references are not followed here
    case PathTree::Kind::KeySet: return keepOld(child);
  }
  return keepOld(child);
}

Slot invalidateArray(Slot array, const PathTree& tree) {
  const ArrayNode* a = arrayOf(array);
  std::vector<Slot> items(a->items, a->items + a->count);
  for (Slot s : items) retain(s);
  bool changed = false;
  for (const PathTree::Entry& entry : tree.entries()) {
    const PathTree& sub = entry.second;
    forEachKey(entry.first, [&](std::string_view key) {
      std::size_t index;
      if (!parseIndex(key, &index) || index >= items.size() || items[index] == kEmpty) return;
      const Slot next = invalidateChild(items[index], sub);
      if (next != items[index]) changed = true;
      release(items[index]);
      items[index] = next;
    });
  }
  if (!changed) {
    for (Slot s : items) release(s);
    return keepOld(array);
  }
  items.erase(std::remove(items.begin(), items.end(), kEmpty), items.end());
  return buildArray(std::move(items));
}

}  // namespace

Slot invalidateGraph(Slot graph, const PathTree& tree) {
  if (tree.kind() != PathTree::Kind::Object) return keepOld(graph);
  if (isArraySlot(graph)) return invalidateArray(graph, tree);
  if (!isObjectSlot(graph)) return keepOld(graph);
  // Each change carries the index of its subtree as a number slot.
  std::vector<SlotRef> keyHolders;
  std::vector<Entry> changes;
  const auto& entries = tree.entries();
  for (std::size_t e = 0; e < entries.size(); ++e) {
    forEachKey(entries[e].first, [&](std::string_view key) {
      keyHolders.emplace_back(makeString(key));
      changes.push_back({keyHolders.back().get(), makeSignedNumber(static_cast<std::int64_t>(e))});
    });
  }
  return objectUpdate(graph, changes, [&entries](Slot old, Slot index) -> Slot {
    if (old == kEmpty) return kEmpty;
    return invalidateChild(old, entries[static_cast<std::size_t>(intOf(index))].second);
  });
}

// --- Reads ---

bool keySetTouches(const KeySet& keys, const KeyTextSet& texts) {
  for (const Key& k : keys) {
    if (k.kind() != Key::Kind::Range) {
      if (texts.count(k.stringValue()) != 0) return true;
      continue;
    }
    for (const std::string& t : texts) {
      std::int64_t v;
      const auto r = std::from_chars(t.data(), t.data() + t.size(), v);
      if (r.ec != std::errc() || r.ptr != t.data() + t.size()) continue;
      char buffer[24];
      const auto w = std::to_chars(buffer, buffer + sizeof buffer, v);
      if (std::string_view(buffer, static_cast<std::size_t>(w.ptr - buffer)) != t) continue;  // "007" is not 7
      if (v >= k.from() && v <= k.to()) return true;
    }
  }
  return false;
}

bool treeTouches(const PathTree& tree, const KeyTextSet& texts) {
  switch (tree.kind()) {
    case PathTree::Kind::KeySet: return keySetTouches(tree.keys(), texts);
    case PathTree::Kind::Object:
      for (const auto& entry : tree.entries()) {
        if (keySetTouches(entry.first, texts)) return true;
      }
      return false;
    default: return false;
  }
}

Result<CacheValues, BrivetError> readValues(Slot root, const PathTree& tree, bool checkExpiry) {
  ValueWalker walker(root, checkExpiry, nowMilliseconds());
  SlotRef value;
  for (const Path& path : tree.paths()) {
    SlotRef found(walker.walkPath(path));
    if (walker.failed()) return Failure{walker.failure()};
    if (!found) continue;
    value = value ? SlotRef(mergeValues(found.get(), value.get())) : std::move(found);
  }
  if (!walker.errors.empty()) {
    return Failure{BrivetError::responseJSONGraphFailed(
        BrivetError::JSONGraphFailureReason::pathBoundErrors(std::move(walker.errors)))};
  }
  if (!value) value = SlotRef(emptyObject());
  return CacheValues{internal::valueFromSlot(std::move(value)), PathTree::fromPaths(walker.missing),
                     PathTree::fromPaths(walker.missingOptimized)};
}

Result<SlotRef, BrivetError> readPathValue(Slot root, const Path& path) {
  ValueWalker walker(root, true, nowMilliseconds());
  SlotRef found(walker.walkPath(path));
  if (walker.failed()) return Failure{walker.failure()};
  return found;
}

Result<Extraction, BrivetError> extract(Slot root, const std::vector<Path>& paths, bool includeBranches) {
  Extraction out;
  for (const Path& path : paths) {
    Extractor extractor(root, includeBranches, true);
    SlotRef part = extractor.extractPath(path, out.refPaths);
    if (!part) return Failure{BrivetError::invalidAttempt()};
    out.graph = out.graph ? SlotRef(mergeGraph(part.get(), out.graph.get())) : std::move(part);
  }
  if (!out.graph) out.graph = SlotRef(emptyObject());
  return out;
}

std::vector<Path> referencePaths(Slot root, const std::vector<Path>& paths) {
  std::vector<Path> refPaths;
  for (const Path& path : paths) {
    Extractor extractor(root, true, false);
    extractor.extractPath(path, refPaths);
  }
  return refPaths;
}

}  // namespace brivet::internal
