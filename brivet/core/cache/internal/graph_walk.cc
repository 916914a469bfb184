#include "brivet/core/cache/internal/graph_walk.h"

#include <algorithm>
#include <charconv>
#include <deque>
#include <iterator>
#include <optional>
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

// --- Key sets over a branch ---

// Ranges no wider than this are walked index by index even over a smaller branch.
constexpr std::uint64_t kDenseRangeLimit = 64;

struct IndexRange {
  std::int64_t from;
  std::int64_t to;  // from <= to
};

std::uint64_t widthOf(const IndexRange& r) {
  const std::uint64_t span = static_cast<std::uint64_t>(r.to) - static_cast<std::uint64_t>(r.from);
  return span == UINT64_MAX ? UINT64_MAX : span + 1;
}

// The ranges of a key set sorted by start, overlapping and adjacent ones joined
// (a reversed range names no key).
std::vector<IndexRange> joinedRanges(const KeySet& keys) {
  std::vector<IndexRange> ranges;
  for (const Key& k : keys) {
    if (k.kind() == Key::Kind::Range && k.from() <= k.to()) ranges.push_back({k.from(), k.to()});
  }
  std::sort(ranges.begin(), ranges.end(), [](const IndexRange& a, const IndexRange& b) { return a.from < b.from; });
  std::vector<IndexRange> joined;
  for (const IndexRange& r : ranges) {
    if (!joined.empty() && (joined.back().to == INT64_MAX || r.from <= joined.back().to + 1)) {
      joined.back().to = std::max(joined.back().to, r.to);
    } else {
      joined.push_back(r);
    }
  }
  return joined;
}

// The integer a key stands for when it is the decimal text a range yields for
// it ("7", "-3"; never "07", "+7" or "-0").
bool canonicalInteger(std::string_view key, std::int64_t* value) {
  const std::size_t sign = !key.empty() && key[0] == '-' ? 1 : 0;
  if (key.size() == sign || key.size() > 20 || key[sign] < '0' || key[sign] > '9') return false;
  if (key[sign] == '0' && (key.size() > 1)) return false;
  const auto r = std::from_chars(key.data(), key.data() + key.size(), *value);
  return r.ec == std::errc() && r.ptr == key.data() + key.size();
}

std::size_t branchSize(Slot branch) { return isObjectSlot(branch) ? objectSize(branch) : arrayOf(branch)->count; }

// A key's own slot when it is kept in place (a short text), else kEmpty: such
// a slot can be handed to a builder as it stands.
Slot inPlaceKey(const Slot& key) { return tagOf(key) == kTagShortString ? key : kEmpty; }

// The indices of `ranges` (sorted, disjoint) over a branch: `present(text,
// child, keySlot)` for each index the branch holds, in ascending order (false
// stops the walk; `keySlot` is the key kept in place, or kEmpty), `absent(from,
// to)` for each maximal run of indices it lacks. The
// cost follows the branch, not the ranges: when they name more indices than
// the branch holds, the branch's own integer keys are visited instead. One
// budget step per index looked up, or per entry of the branch scanned.
// Answers false when stopped.
template <class Present, class Absent>
bool forEachIndex(Slot branch, const std::vector<IndexRange>& ranges, WalkBudget& budget, Present& present,
                  Absent& absent) {
  char buffer[24];
  auto text = [&](std::int64_t v) {
    const auto r = std::to_chars(buffer, buffer + sizeof buffer, v);
    return std::string_view(buffer, static_cast<std::size_t>(r.ptr - buffer));
  };
  const std::size_t size = branchSize(branch);
  std::uint64_t total = 0;
  for (const IndexRange& r : ranges) total = widthOf(r) > UINT64_MAX - total ? UINT64_MAX : total + widthOf(r);
  if (total <= std::max<std::uint64_t>(kDenseRangeLimit, size)) {
    // Fits a size_t: no more than the branch holds, or 64.
    if (!budget.spend(static_cast<std::size_t>(total))) return false;
    const bool isObject = isObjectSlot(branch);
    const ArrayNode* array = isObject ? nullptr : arrayOf(branch);
    for (const IndexRange& r : ranges) {
      std::optional<std::int64_t> run;
      for (std::int64_t v = r.from;; ++v) {
        const KeyProbe probe(text(v));
        const Slot child = isObject ? objectFind(branch, probe)
                           : v >= 0 && static_cast<std::uint64_t>(v) < array->count ? array->items[v]
                                                                                     : kEmpty;
        if (child == kEmpty) {
          if (!run) run = v;
        } else {
          if (run) absent(*std::exchange(run, std::nullopt), v - 1);
          if (!present(probe.text, child, probe.inlineSlot)) return false;
        }
        if (v == r.to) break;
      }
      if (run) absent(*run, r.to);
    }
    return true;
  }
  if (isArraySlot(branch)) {
    const ArrayNode* a = arrayOf(branch);
    const std::int64_t last = static_cast<std::int64_t>(a->count) - 1;
    for (const IndexRange& r : ranges) {
      const std::int64_t lo = std::max<std::int64_t>(r.from, 0);
      const std::int64_t hi = std::min(r.to, last);
      if (lo > hi) {
        absent(r.from, r.to);
        continue;
      }
      if (r.from < lo) absent(r.from, lo - 1);
      for (std::int64_t v = lo; v <= hi; ++v) {
        if (!budget.spend(1)) return false;
        const KeyProbe probe(text(v));
        if (!present(probe.text, a->items[v], probe.inlineSlot)) return false;
      }
      if (hi < r.to) absent(hi + 1, r.to);
    }
    return true;
  }
  // The branch's integer keys, sorted: found once per walk, however many ranges go over the branch.
  auto known = budget.indices.find(branch);
  if (known == budget.indices.end()) {
    if (!budget.spend(size)) return false;
    std::vector<IndexedChild> all;
    forEachEntry(branch, [&](const Slot& key, const Slot& child) {
      std::int64_t v;
      if (canonicalInteger(stringOf(key), &v)) all.push_back({v, &key, child});
    });
    std::sort(all.begin(), all.end(), [](const IndexedChild& a, const IndexedChild& b) { return a.index < b.index; });
    known = budget.indices.emplace(branch, std::move(all)).first;
  }
  const std::vector<IndexedChild>& found = known->second;
  for (const IndexRange& r : ranges) {
    auto f = std::lower_bound(found.begin(), found.end(), r.from,
                              [](const IndexedChild& e, std::int64_t v) { return e.index < v; });
    std::int64_t next = r.from;
    bool more = true;  // indices after the last one visited remain in this range
    for (; f != found.end() && f->index <= r.to; ++f) {
      if (!budget.spend(1)) return false;
      if (f->index > next) absent(next, f->index - 1);
      if (!present(stringOf(*f->key), f->child, inPlaceKey(*f->key))) return false;
      more = f->index < r.to;
      if (more) next = f->index + 1;
    }
    if (more && next <= r.to) absent(next, r.to);
  }
  return true;
}

// The keys of a key set over a branch, in the set's order (its ranges, joined,
// where the first of them stands): `present(text, child, keySlot)` for each
// key the branch holds (false stops), `absentKey(text)` for each plain key it lacks,
// `absentRun(from, to)` for each run of range indices it lacks. Answers false
// when stopped or out of budget.
template <class Present, class AbsentKey, class AbsentRun>
bool forEachKeyIn(Slot branch, const KeySet& keys, WalkBudget& budget, Present&& present, AbsentKey&& absentKey,
                  AbsentRun&& absentRun) {
  bool rangesVisited = false;
  for (const Key& k : keys) {
    if (k.kind() != Key::Kind::Range) {
      if (!budget.spend(1)) return false;
      const KeyProbe probe(k.stringValue());
      const Slot child = childOf(branch, probe);
      if (child == kEmpty) {
        absentKey(probe.text);
      } else if (!present(probe.text, child, probe.inlineSlot)) {
        return false;
      }
      continue;
    }
    if (rangesVisited) continue;
    rangesVisited = true;
    if (!forEachIndex(branch, joinedRanges(keys), budget, present, absentRun)) return false;
  }
  return true;
}

// --- The value read ---

class ValueWalker {
 public:
  ValueWalker(Slot root, bool checkExpiry, double nowMs, WalkBudget& budget)
      : root_(root), checkExpiry_(checkExpiry), nowMs_(nowMs), budget_(budget) {}

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
  // Whether the walk stopped at its budget (the error is among `errors`).
  bool exhausted() const { return budget_.exhausted(); }

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
  bool stopped() const { return failure_.has_value() || budget_.exhausted(); }
  // Spends `n` steps; past the budget the walk ends with a path-bound error (once).
  bool spend(std::size_t n) {
    if (budget_.spend(n)) [[likely]] return true;
    reportExhausted();
    return false;
  }
  // Out of line: the budget runs out once per walk at most, and the hot loops stay small.
  [[gnu::noinline, gnu::cold]] void reportExhausted() {
    if (budgetReported_) return;
    budgetReported_ = true;
    errors.push_back({texts(requested_), budgetErrorValue(budget_.limit())});
  }

  // The optimized keys so far, then `extra` (when given), then the target keys
  // still pending (the one being consumed left out when `skipCurrent`), then
  // the request's key sets from `i`.
  Path optimizedPath(const Key* extra, bool skipCurrent, std::size_t i) const {
    Path p;
    for (std::size_t k = optimizedBase_; k < optimized_.size(); ++k) p.push_back({Key::string(std::string(optimized_[k]))});
    if (extra != nullptr) p.push_back({*extra});
    for (std::size_t f = pending_.size(); f-- > 0;) {
      const Pending& frame = pending_[f];
      std::uint32_t j = frame.next + ((skipCurrent && f + 1 == pending_.size()) ? 1 : 0);
      for (; j < frame.target->count; ++j) p.push_back({Key::string(std::string(stringOf(frame.target->items[j])))});
    }
    p.insert(p.end(), path_->begin() + static_cast<std::ptrdiff_t>(i), path_->end());
    return p;
  }
  Path requestedPath(const Key* extra, std::size_t i) const {
    Path p = singleKeys(requested_);
    if (extra != nullptr) p.push_back({*extra});
    p.insert(p.end(), path_->begin() + static_cast<std::ptrdiff_t>(i), path_->end());
    return p;
  }
  // Both missing paths are written out: each key of them is a step.
  bool report(Path requested, Path optimized) {
    if (!spend(requested.size() + optimized.size())) return false;
    missing.push_back(std::move(requested));
    missingOptimized.push_back(std::move(optimized));
    return true;
  }

  // Misses are written out of line, keeping the walk's loops small.
  // A key of the request's set `i` that the branch lacks (no target keys are pending then).
  [[gnu::noinline]] void missingRequested(const Key& key, std::size_t i) {
    report(requestedPath(&key, i + 1), optimizedPath(&key, false, i + 1));
  }
  // A run of range indices of set `i` that the branch lacks: one path for the
  // run, a plain key when it is a single index.
  [[gnu::noinline]] void missingRun(std::int64_t from, std::int64_t to, std::size_t i) {
    const Key key = from == to ? Key::string(std::to_string(from)) : Key::range(from, to);
    missingRequested(key, i);
  }
  // A target key that the branch lacks: the request goes on from set `i`.
  [[gnu::noinline]] void missingTarget(std::string_view key, std::size_t i) {
    const Key k = Key::string(std::string(key));
    report(requestedPath(nullptr, i), optimizedPath(&k, true, i));
  }
  // An expired leaf reached with set `i` next: fetched again like a missing one.
  [[gnu::noinline]] void missingExpired(std::size_t i) { report(requestedPath(nullptr, i), optimizedPath(nullptr, false, i)); }

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
        // A key of a reference's target (paid for when the reference was followed): one step down.
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
          // The reference and every key of its target are steps.
          if (!spend(1 + arrayOf(v.value)->count)) return kEmpty;
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
    auto visit = [&](std::string_view key, Slot child, Slot inlineKey) {
      requested_.push_back(key);
      optimized_.push_back(key);
      const Slot value = walk(child, i + 1);
      requested_.pop_back();
      optimized_.pop_back();
      if (value != kEmpty) builder.add(inlineKey != kEmpty ? inlineKey : makeString(key), value);
      return !stopped();
    };
    if (!probes_[i].empty() || (*path_)[i].empty()) {
      const KeySet& keys = (*path_)[i];
      if (!spend(probes_[i].size())) return kEmpty;
      for (std::size_t k = 0; k < probes_[i].size() && !stopped(); ++k) {
        const KeyProbe& probe = probes_[i][k];
        const Slot child = childOf(node, probe);
        if (child == kEmpty) {
          missingRequested(keys[k], i);
        } else {
          visit(probe.text, child, probe.inlineSlot);
        }
      }
    } else {
      const bool finished = forEachKeyIn(
          node, (*path_)[i], budget_, visit,
          [&](std::string_view key) { missingRequested(Key::string(std::string(key)), i); },
          [&](std::int64_t from, std::int64_t to) { missingRun(from, to, i); });
      if (!finished && budget_.exhausted()) reportExhausted();
    }
    if (stopped()) return kEmpty;
    return builder.build();
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
  WalkBudget& budget_;
  bool budgetReported_ = false;
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
  Extractor(Slot root, bool includeBranches, bool build, WalkBudget& budget)
      : root_(root), includeBranches_(includeBranches), build_(build), budget_(budget) {}

  // One path with its work list. On failure `failed()` holds; out of budget, `exhausted()`.
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
      if (budget_.exhausted()) {
        // Out of budget: like a cycle, the extraction ends with what earlier passes gathered.
        if (isObjectSlot(accumulated.get()) && objectSize(accumulated.get()) == 0) return SlotRef();
        return accumulated;
      }
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
  bool exhausted() const { return budget_.exhausted(); }

 private:
  bool stopped() const { return failed_ || budget_.exhausted(); }

  Slot walk(Slot node, const Path& path, std::size_t i, std::vector<Path>& found) {
    if (isBranch(node)) {
      if (i == path.size()) {
        if (includeBranches_) return build_ ? copySlot(node) : kEmpty;
        failed_ = true;
        return kEmpty;
      }
      auto ignoreKey = [](std::string_view) {};
      auto ignoreRun = [](std::int64_t, std::int64_t) {};
      if (isObjectSlot(node)) {
        ObjectBuilder builder;
        forEachKeyIn(
            node, path[i], budget_,
            [&](std::string_view key, Slot child, Slot keySlot) {
              const Slot part = walk(child, path, i + 1, found);
              if (build_ && !stopped()) {
                builder.add(keySlot != kEmpty ? keySlot : makeString(key), part);
              } else {
                release(part);
              }
              return !stopped();
            },
            ignoreKey, ignoreRun);
        if (stopped() || !build_) return kEmpty;
        return builder.build();
      }
      std::vector<std::pair<std::size_t, Slot>> parts;
      forEachKeyIn(
          node, path[i], budget_,
          [&](std::string_view key, Slot child, Slot) {
            std::size_t index;
            if (!parseIndex(key, &index)) return true;
            const Slot part = walk(child, path, i + 1, found);
            if (build_ && !stopped()) {
              parts.emplace_back(index, part);
            } else {
              release(part);
            }
            return !stopped();
          },
          ignoreKey, ignoreRun);
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
      if (stopped() || !build_) {
        for (Slot s : items) release(s);
        return kEmpty;
      }
      return buildArray(std::move(items));
    }
    LeafView v;
    viewLeaf(node, &v);
    if (v.kind == JSONGraphLeaf::Kind::Ref && i < path.size() && isArraySlot(v.value)) {
      const ArrayNode* target = arrayOf(v.value);
      // The path met is written out twice (the list returned and the work list): its keys are steps.
      if (!budget_.spend(2 * (target->count + path.size() - i))) return kEmpty;
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
  WalkBudget& budget_;
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

Slot invalidateArray(Slot array, const PathTree& tree, WalkBudget& budget);

// Calls `f(text)` for the keys of a set that a branch may hold: every plain
// key, and the range indices it does hold (never the width of a range). An
// invalidation follows no references, but a tree may hold many entries over
// one large branch: the budget bounds them all.
template <class F>
void forEachPresentKey(Slot branch, const KeySet& keys, WalkBudget& budget, F&& f) {
  forEachKeyIn(
      branch, keys, budget,
      [&](std::string_view key, Slot, Slot) {
        f(key);
        return true;
      },
      [&](std::string_view key) { f(key); }, [](std::int64_t, std::int64_t) {});
}

// What one entry of the tree does to a present child (owned result).
Slot invalidateChild(Slot child, const PathTree& sub, WalkBudget& budget) {
  switch (sub.kind()) {
    case PathTree::Kind::Target:
    case PathTree::Kind::Self: return kEmpty;
    case PathTree::Kind::Object:
      if (isObjectSlot(child)) return invalidateGraph(child, sub, budget);
      if (isArraySlot(child)) return invalidateArray(child, sub, budget);
      return keepOld(child);  // a leaf stays: references are not followed here
    case PathTree::Kind::KeySet: return keepOld(child);
  }
  return keepOld(child);
}

Slot invalidateArray(Slot array, const PathTree& tree, WalkBudget& budget) {
  const ArrayNode* a = arrayOf(array);
  std::vector<Slot> items(a->items, a->items + a->count);
  for (Slot s : items) retain(s);
  bool changed = false;
  for (const PathTree::Entry& entry : tree.entries()) {
    const PathTree& sub = entry.second;
    forEachPresentKey(array, entry.first, budget, [&](std::string_view key) {
      std::size_t index;
      if (!parseIndex(key, &index) || index >= items.size() || items[index] == kEmpty) return;
      const Slot next = invalidateChild(items[index], sub, budget);
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

Slot invalidateGraph(Slot graph, const PathTree& tree, WalkBudget& budget) {
  if (tree.kind() != PathTree::Kind::Object) return keepOld(graph);
  if (isArraySlot(graph)) return invalidateArray(graph, tree, budget);
  if (!isObjectSlot(graph)) return keepOld(graph);
  // Each change carries the index of its subtree as a number slot.
  std::vector<SlotRef> keyHolders;
  std::vector<Entry> changes;
  const auto& entries = tree.entries();
  for (std::size_t e = 0; e < entries.size(); ++e) {
    forEachPresentKey(graph, entries[e].first, budget, [&](std::string_view key) {
      keyHolders.emplace_back(makeString(key));
      changes.push_back({keyHolders.back().get(), makeSignedNumber(static_cast<std::int64_t>(e))});
    });
  }
  return objectUpdate(graph, changes, [&entries, &budget](Slot old, Slot index) -> Slot {
    if (old == kEmpty) return kEmpty;
    return invalidateChild(old, entries[static_cast<std::size_t>(intOf(index))].second, budget);
  });
}

Slot invalidateGraph(Slot graph, const PathTree& tree) {
  WalkBudget budget(walkBudget(tree));
  return invalidateGraph(graph, tree, budget);
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

constexpr std::string_view kBudgetMessagePrefix = "walk exceeded its budget of ";

JSONValue budgetErrorValue(std::size_t limit) {
  return JSONValue::object({{"message", JSONPrimitive::string(std::string(kBudgetMessagePrefix) +
                                                              std::to_string(limit) + " steps")}});
}

Result<CacheValues, BrivetError> readValues(Slot root, const PathTree& tree, bool checkExpiry) {
  const std::vector<Path> paths = tree.paths();
  WalkBudget budget(walkBudget(paths));
  ValueWalker walker(root, checkExpiry, nowMilliseconds(), budget);
  SlotRef value;
  for (const Path& path : paths) {
    SlotRef found(walker.walkPath(path));
    if (walker.failed()) return Failure{walker.failure()};
    if (walker.exhausted()) break;
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
  WalkBudget budget(walkBudget(std::vector<Path>{path}));
  ValueWalker walker(root, true, nowMilliseconds(), budget);
  SlotRef found(walker.walkPath(path));
  if (walker.failed()) return Failure{walker.failure()};
  if (walker.exhausted()) {
    return Failure{BrivetError::responseJSONGraphFailed(
        BrivetError::JSONGraphFailureReason::pathBoundErrors(std::move(walker.errors)))};
  }
  return found;
}

Result<Extraction, BrivetError> extract(Slot root, const std::vector<Path>& paths, bool includeBranches) {
  Extraction out;
  WalkBudget budget(walkBudget(paths));
  for (const Path& path : paths) {
    Extractor extractor(root, includeBranches, true, budget);
    SlotRef part = extractor.extractPath(path, out.refPaths);
    if (!part && extractor.exhausted()) {
      return Failure{BrivetError::responseJSONGraphFailed(
          BrivetError::JSONGraphFailureReason::pathBoundErrors({{{}, budgetErrorValue(budget.limit())}}))};
    }
    if (!part) return Failure{BrivetError::invalidAttempt()};
    out.graph = out.graph ? SlotRef(mergeGraph(part.get(), out.graph.get())) : std::move(part);
  }
  if (!out.graph) out.graph = SlotRef(emptyObject());
  return out;
}

std::vector<Path> referencePaths(Slot root, const std::vector<Path>& paths) {
  std::vector<Path> refPaths;
  WalkBudget budget(walkBudget(paths));
  for (const Path& path : paths) {
    Extractor extractor(root, true, false, budget);
    extractor.extractPath(path, refPaths);
    if (extractor.exhausted()) break;
  }
  return refPaths;
}

}  // namespace brivet::internal

namespace brivet {

std::size_t walkBudget(const std::vector<Path>& paths) {
  std::size_t keys = 0;
  for (const Path& path : paths) {
    for (const KeySet& set : path) keys += set.size();
  }
  // Saturating: a request cannot hold SIZE_MAX / 4 keys, but the sum stays exact below it.
  const std::size_t extra = keys > (SIZE_MAX - kWalkStepBudget) / kWalkStepsPerRequestKey
                                ? SIZE_MAX - kWalkStepBudget
                                : keys * kWalkStepsPerRequestKey;
  return kWalkStepBudget + extra;
}

std::size_t walkBudget(const PathTree& tree) { return walkBudget(tree.paths()); }

bool exceedsWalkBudget(const BrivetError& error) {
  const BrivetError::JSONGraphFailureReason* reason = error.jsonGraphReason();
  if (reason == nullptr || reason->kind() != BrivetError::JSONGraphFailureReason::Kind::PathBoundErrors) return false;
  for (const PathBoundError& e : reason->errors()) {
    const std::optional<JSONValue> message = e.value.find("message");
    if (message && message->isPrimitive() &&
        message->primitive().stringValue().rfind(internal::kBudgetMessagePrefix, 0) == 0) {
      return true;
    }
  }
  return false;
}

}  // namespace brivet
