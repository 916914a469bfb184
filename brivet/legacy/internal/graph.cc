#include "brivet/legacy/internal/graph.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <iterator>
#include <utility>
#include <vector>

#include "brivet/legacy/constants.h"
#include "brivet/legacy/path_reference.h"
#include "brivet/platform/internal/step_budget.h"
#include "brivet/platform/json.h"

namespace brivet::internal {
namespace {

// Ranges up to this size are always walked index by index.
constexpr std::uint64_t kDenseRangeLimit = 64;

// The integer a dictionary key stands for when it is the canonical decimal text of one ("7", "-3"; not "07").
std::optional<std::int64_t> canonicalInteger(std::string_view key) {
  if (key.empty()) return std::nullopt;
  const std::size_t digits = key[0] == '-' ? 1 : 0;
  if (key.size() == digits || (key[digits] == '0' && key.size() > digits + 1) || (digits == 1 && key[1] == '0')) {
    return std::nullopt;
  }
  std::int64_t value = 0;
  const auto [end, ec] = std::from_chars(key.data(), key.data() + key.size(), value);
  if (ec != std::errc() || end != key.data() + key.size()) return std::nullopt;
  return value;
}

std::uint64_t rangeSize(const BrivetKeySet::Range& r) {
  const std::uint64_t span = static_cast<std::uint64_t>(r.to) - static_cast<std::uint64_t>(r.from);
  return span == UINT64_MAX ? UINT64_MAX : span + 1;
}

// The ranges of a key set sorted by start, overlapping and adjacent ones joined.
std::vector<BrivetKeySet::Range> joinedRanges(const BrivetKeySet& keys) {
  std::vector<BrivetKeySet::Range> ranges;
  for (const BrivetKeySet::Element& element : keys.elements()) {
    if (const auto* range = std::get_if<BrivetKeySet::Range>(&element)) ranges.push_back(*range);
  }
  std::sort(ranges.begin(), ranges.end(), [](const auto& a, const auto& b) { return a.from < b.from; });
  std::vector<BrivetKeySet::Range> joined;
  for (const BrivetKeySet::Range& r : ranges) {
    if (!joined.empty() && (joined.back().to == INT64_MAX || r.from <= joined.back().to + 1)) {
      joined.back().to = std::max(joined.back().to, r.to);
    } else {
      joined.push_back(r);
    }
  }
  return joined;
}

bool inRanges(const std::vector<BrivetKeySet::Range>& ranges, std::int64_t v) {
  auto it = std::upper_bound(ranges.begin(), ranges.end(), v,
                             [](std::int64_t x, const BrivetKeySet::Range& r) { return x < r.from; });
  return it != ranges.begin() && v <= std::prev(it)->to;
}

// The key objects a read writes into its result, shared instead of made once per visit: a key of the paths (the
// same key set is visited once per node a walk reaches through it) gets one object per walk. A direct-mapped table
// on the key's address: a collision only costs a new object, and the table never grows.
class KeyObjects {
 public:
  const Object& of(const std::string& key) {
    Slot& slot = slots_[(reinterpret_cast<std::uintptr_t>(&key) >> 4) % kSlots];
    if (slot.key != &key) {
      slot.key = &key;
      slot.object = Object(std::string_view(key));
    }
    return slot.object;
  }

 private:
  static constexpr std::size_t kSlots = 256;
  struct Slot {
    const std::string* key = nullptr;
    Object object;
  };
  Slot slots_[kSlots];
};

// Calls `visit(key, object)` for every key of `keys` in order, the set's ranges (joined) where the first of them stands.
// Ranges naming more keys than the branch holds are answered from the branch's own keys (sorted by index), so a
// huge range costs what the branch holds, not what the range names. One budget step per key looked up (or per
// entry of the branch scanned); answers false once the budget is spent. `object` is the key as an object when one
// is at hand (the branch's own key, or the key set's through `shared`), else nullptr.
template <class Visit>
bool forEachKey(const BrivetKeySet& keys, const Dictionary& branch, StepBudget& budget, KeyObjects* shared,
                Visit&& visit) {
  char buffer[24];
  bool rangesVisited = false;
  for (const BrivetKeySet::Element& element : keys.elements()) {
    if (budget.exhausted()) return false;
    if (const std::string* key = std::get_if<std::string>(&element)) {
      if (!budget.spend(1)) return false;
      visit(std::string_view(*key), shared != nullptr ? &shared->of(*key) : nullptr);
      continue;
    }
    if (rangesVisited) continue;
    rangesVisited = true;
    const std::vector<BrivetKeySet::Range> ranges = joinedRanges(keys);
    std::uint64_t total = 0;
    for (const auto& r : ranges) total = rangeSize(r) > UINT64_MAX - total ? UINT64_MAX : total + rangeSize(r);
    if (total <= std::max<std::uint64_t>(kDenseRangeLimit, branch.size())) {
      for (const BrivetKeySet::Range& range : ranges) {
        for (std::int64_t i = range.from;; ++i) {
          if (!budget.spend(1)) return false;
          const auto end = std::to_chars(buffer, buffer + sizeof buffer, i).ptr;
          visit(std::string_view(buffer, static_cast<std::size_t>(end - buffer)), nullptr);
          if (i == range.to) break;
        }
      }
      continue;
    }
    if (!budget.spend(branch.size())) return false;
    std::vector<std::pair<std::int64_t, const Object*>> present;
    for (const auto& [key, value] : branch) {
      if (!key.isString()) continue;
      const auto index = canonicalInteger(key.stringValue());
      if (index && inRanges(ranges, *index)) present.emplace_back(*index, &key);
    }
    std::sort(present.begin(), present.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    for (const auto& entry : present) {
      if (budget.exhausted()) return false;
      visit(entry.second->stringValue(), entry.second);
    }
  }
  return !budget.exhausted();
}

// A leaf's payload: a fresh mutable dictionary of its entries without "$type" and "$expires".
Object leafPayload(const Object& leaf) {
  const Dictionary& entries = *leaf.asDictionary();
  std::vector<Object::Entry> payload;
  payload.reserve(entries.size());
  for (const auto& entry : entries) {
    const std::string_view key = entry.first.stringValue();
    if (entry.first.isString() && (key == BRIVET_NODE_TYPE_KEY || key == BRIVET_NODE_EXPIRES_KEY)) continue;
    payload.push_back(entry);
  }
  return Object::dictionaryWithDistinctKeys(std::move(payload), true);
}

Object getJSONAt(const Object& node, const BrivetPathProtocol* path, const Object& root, std::size_t references,
                 StepBudget& budget);

// What a leaf or a reference yields: a leaf its payload, a reference (with path left to read) its target read
// along that path.
Object processSentinal(const Object& node, const BrivetPathProtocol* slice, const Object& root,
                       std::size_t references, StepBudget& budget) {
  if (isLeafNode(node)) return leafPayload(node);
  if (const BrivetPathReference* reference = BrivetPathReference::cast(node)) {
    if (slice == nullptr || slice->pathCount() == 0) return Object();
    if (!budget.spend(1) || references >= kMaxReferencesPerPath) return Object::mutableDictionary();
    const Object target = reference->hardReference();
    if (target.isNil()) return Object::mutableDictionary();
    return getJSONAt(target, slice, root, references + 1, budget);
  }
  return Object();
}

Object getJSONAt(const Object& node, const BrivetPathProtocol* path, const Object& root, std::size_t references,
                 StepBudget& budget) {
  if (isLeafNode(node) || isPathReference(node)) {
    Object sentinel = processSentinal(node, path, root, references, budget);
    if (!sentinel.isNil()) return sentinel;
    return node.isEqual(root) ? Object::mutableDictionary() : Object();
  }
  Object result = Object::mutableDictionary();
  const Dictionary* branch = node.asDictionary();
  const BrivetKeySet* keys = path != nullptr ? path->firstPathKeySet() : nullptr;
  if (branch == nullptr || keys == nullptr) return result;
  Dictionary& out = *result.asMutableDictionary();
  const BrivetPathProtocol* next = path->nextPath();
  forEachKey(*keys, *branch, budget, nullptr, [&](std::string_view key, const Object*) {
    const Object child = branch->objectForKey(key);
    if (child.isNil()) return;
    if (const Dictionary* d = child.asDictionary(); d != nullptr && d->empty()) return;
    if (child.isDictionary() || isPathReference(child)) {
      Object value = getJSONAt(child, next, root, references, budget);
      if (!value.isNil()) out.setObject(std::move(value), key);
    } else {
      out.setObject(child, key);  // values, lists and anything else are answered as they are
    }
  });
  return result;
}

void mergeDictionaryAt(const Object& source, const Object& target, std::size_t depth) {
  Dictionary* into = target.asMutableDictionary();
  const Dictionary* from = source.asDictionary();
  if (into == nullptr || from == nullptr || source.isIdentical(target) || depth > kMaxJSONNestingDepth * 2) return;
  for (const auto& [key, value] : *from) {
    Object existing = into->objectForKey(key);
    if (value.isDictionary() && existing.isDictionary()) {
      if (existing.isIdentical(value)) continue;
      if (!existing.isMutableDictionary()) {
        existing = existing.mutableCopy();
        into->setObject(existing, key);
      }
      mergeDictionaryAt(value, existing, depth + 1);
    } else {
      into->setObject(value, key);
    }
  }
}

// --- Reading several paths into one result ---
//
// Reading each path into its own tree and deep-merging the trees builds and throws away one tree per path. The
// functions below write each path's values straight into the shared result instead, with the deep merge's rules
// at every key: two dictionaries merge, anything else replaces what was there. The result is the same.

// The mutable dictionary under `key` in `parent`, made (or copied from an immutable one) when needed.
Object mutableChild(Dictionary& parent, const Object& key) {
  Object existing = parent.objectForKey(key);
  if (existing.isMutableDictionary()) return existing;
  Object child = existing.isDictionary() ? existing.mutableCopy() : Object::mutableDictionary();
  parent.setObject(child, key);
  return child;
}

// Deep-merges a freshly read dictionary under `key`.
void mergeUnder(Dictionary& parent, const Object& key, Object value) {
  const Object existing = parent.objectForKey(key);
  if (!existing.isDictionary()) {
    parent.setObject(std::move(value), key);
    return;
  }
  mergeDictionaryAt(value, mutableChild(parent, key), 0);
}

// One read of several paths: its budget and the key objects it writes.
struct ReadWalk {
  StepBudget& budget;
  KeyObjects keys;
};

void readBranchInto(Dictionary& out, const Dictionary& branch, const BrivetPathProtocol* path, const Object& root,
                    std::size_t references, ReadWalk& walk);

// Merges what reading `node` along `path` yields under `key` (a read that yields nothing leaves it alone).
void readUnder(Dictionary& parent, const Object& key, const Object& node, const BrivetPathProtocol* path,
               const Object& root, std::size_t references, ReadWalk& walk) {
  if (isLeafNode(node)) {
    mergeUnder(parent, key, leafPayload(node));
    return;
  }
  if (const BrivetPathReference* reference = BrivetPathReference::cast(node)) {
    if (path == nullptr || path->pathCount() == 0) return;
    // A reference refused at the chain bound is a step too, so that a read fanning out past that bound still
    // spends its budget at every node it writes.
    const bool followed = walk.budget.spend(1) && references < kMaxReferencesPerPath;
    const Object target = followed ? reference->hardReference() : Object();
    if (target.isNil()) {
      mergeUnder(parent, key, Object::mutableDictionary());
    } else {
      readUnder(parent, key, target, path, root, references + 1, walk);
    }
    return;
  }
  const Object child = mutableChild(parent, key);
  if (const Dictionary* branch = node.asDictionary()) {
    readBranchInto(*child.asMutableDictionary(), *branch, path, root, references, walk);
  }
}

void readBranchInto(Dictionary& out, const Dictionary& branch, const BrivetPathProtocol* path, const Object& root,
                    std::size_t references, ReadWalk& walk) {
  const BrivetKeySet* keys = path != nullptr ? path->firstPathKeySet() : nullptr;
  if (keys == nullptr) return;
  const BrivetPathProtocol* next = path->nextPath();
  forEachKey(*keys, branch, walk.budget, &walk.keys, [&](std::string_view key, const Object* shared) {
    const Object child = branch.objectForKey(key);
    if (child.isNil()) return;
    if (const Dictionary* d = child.asDictionary(); d != nullptr && d->empty()) return;
    const Object keyObject = shared != nullptr ? *shared : Object(key);
    if (child.isDictionary() || isPathReference(child)) {
      readUnder(out, keyObject, child, next, root, references, walk);
    } else {
      out.setObject(child, keyObject);
    }
  });
}

Object serializableAt(const Object& node, std::span<const std::string> components, std::size_t depth) {
  const Dictionary* branch = node.asDictionary();
  if (branch == nullptr || depth >= kMaxJSONNestingDepth) return Object();
  const bool selecting = !components.empty();
  const bool wildcard = selecting && components.front() == BRIVET_KEY_PATH_WILDCARD;
  std::vector<Object::Entry> out;
  for (const auto& [key, value] : *branch) {
    if (selecting && !wildcard && !(key.isString() && key.stringValue() == components.front())) continue;
    if (value.isDictionary()) {
      const Object child = serializableAt(
          value, components.size() >= 2 ? components.subspan(1) : std::span<const std::string>(), depth + 1);
      if (child.count() > 0) out.emplace_back(key, child);
    } else if (const BrivetPathReference* reference = BrivetPathReference::cast(value)) {
      out.emplace_back(key, reference->path());
    } else if (value.isString() || value.isNumber() || isValidJSONObject(value)) {
      out.emplace_back(key, value);
    }
    if (selecting && !wildcard) break;  // a plain key matches at most one entry
  }
  return Object::dictionaryWithDistinctKeys(std::move(out), true);
}

bool isEnvelope(const Object& dictionary) {
  return dictionary[BRIVET_JSON_GRAPH_JSON_GRAPH_KEY].isMutableDictionary() &&
         dictionary[BRIVET_JSON_GRAPH_CACHE_VERSION_KEY].isNumber();
}

}  // namespace

bool isLeafNode(const Object& node) {
  const Dictionary* d = node.asDictionary();
  if (d == nullptr) return false;
  const Object type = d->objectForKey(BRIVET_NODE_TYPE_KEY);
  return type.isString() && type.stringValue() == BRIVET_LEAF_NODE_VALUE;
}

bool isPathReference(const Object& node) { return BrivetPathReference::cast(node) != nullptr; }

std::size_t walkBudget(std::span<const BrivetPathProtocol* const> paths) {
  std::size_t keys = 0;
  for (const BrivetPathProtocol* path : paths) {
    for (const BrivetPathProtocol* p = path; p != nullptr; p = p->nextPath()) {
      if (const BrivetKeySet* set = p->firstPathKeySet()) keys += set->elements().size();
    }
  }
  const std::size_t room = static_cast<std::size_t>(-1) - 1 - kWalkStepBudget;
  return kWalkStepBudget + (keys > room / kWalkStepsPerRequestKey ? room : keys * kWalkStepsPerRequestKey);
}

Object getJSON(const Object& node, const BrivetPathProtocol* path, const Object& root) {
  const BrivetPathProtocol* paths[] = {path};
  StepBudget budget(walkBudget(paths));
  return getJSONAt(node, path, root, 0, budget);
}

Object getJSONForPaths(const Object& root, std::span<const BrivetPathProtocol* const> paths, bool* exceeded) {
  StepBudget budget(walkBudget(paths));
  ReadWalk walk{budget, {}};
  Object result = Object::mutableDictionary();
  Dictionary& out = *result.asMutableDictionary();
  for (const BrivetPathProtocol* path : paths) {
    if (budget.exhausted()) break;
    if (const Dictionary* branch = root.asDictionary(); branch != nullptr && !isLeafNode(root)) {
      readBranchInto(out, *branch, path, root, 0, walk);
    } else {
      mergeDictionaryAt(getJSONAt(root, path, root, 0, budget), result, 0);  // a leaf or a reference as the root
    }
  }
  if (exceeded != nullptr) *exceeded = budget.exhausted();
  return result;
}

void mergeDictionary(const Object& source, const Object& target) { mergeDictionaryAt(source, target, 0); }

Object serializableDictionary(const Object& node, std::span<const std::string> components) {
  return serializableAt(node, components, 0);
}

Object cacheEnvelope(const Object& dictionary) {
  if (isEnvelope(dictionary)) return dictionary;
  return Object::dictionary({{Object(BRIVET_JSON_GRAPH_JSON_GRAPH_KEY), dictionary},
                             {Object(BRIVET_JSON_GRAPH_CACHE_VERSION_KEY), Object::integer(0)}});
}

Object removeCacheEnvelope(const Object& dictionary) {
  return isEnvelope(dictionary) ? dictionary[BRIVET_JSON_GRAPH_JSON_GRAPH_KEY] : dictionary;
}

std::string joinDescriptions(const Object& array, std::string_view separator) {
  std::string out;
  if (const Array* a = array.asArray()) {
    for (std::size_t i = 0; i < a->size(); ++i) {
      if (i > 0) out += separator;
      const Object& e = (*a)[i];
      out += e.isString() ? std::string(e.stringValue()) : e.description();
    }
  }
  return out;
}

std::string joinStrings(std::span<const std::string> strings, std::string_view separator) {
  std::string out;
  for (std::size_t i = 0; i < strings.size(); ++i) {
    if (i > 0) out += separator;
    out += strings[i];
  }
  return out;
}

}  // namespace brivet::internal
