// BrivetModel: the cache side (reading, misses, merging, expiry, snapshots) and the delegate properties.
#include "brivet/legacy/model.h"

#include <algorithm>
#include <charconv>

#include "brivet/legacy/constants.h"
#include "brivet/legacy/internal/graph.h"
#include "brivet/legacy/internal/range_fragment.h"
#include "brivet/legacy/path_reference.h"
#include "brivet/platform/date.h"
#include "brivet/platform/identifier.h"
#include "brivet/platform/json.h"

namespace brivet {
namespace {

using internal::isLeafNode;

// Ranges up to this size are looked up index by index when collecting misses.
constexpr std::int64_t kDenseMissLimit = 64;

std::vector<std::string_view> splitKeyPath(std::string_view keyPath) {
  std::vector<std::string_view> components;
  std::size_t start = 0;
  for (;;) {
    const std::size_t dot = keyPath.find('.', start);
    components.push_back(keyPath.substr(start, dot == std::string_view::npos ? dot : dot - start));
    if (dot == std::string_view::npos) return components;
    start = dot + 1;
  }
}

std::vector<std::string> splitKeyPathCopy(std::string_view keyPath) {
  std::vector<std::string> components;
  for (std::string_view c : splitKeyPath(keyPath)) components.emplace_back(c);
  return components;
}

std::string keyText(const Object& key) { return key.isString() ? std::string(key.stringValue()) : key.description(); }

bool keyEquals(const Object& key, std::string_view text) { return key.isString() && key.stringValue() == text; }

// Stores `value` under `key` in a graph node: a mutable dictionary, or a custom object (a reference forwards the
// write to its target). Other nodes cannot hold children and are left alone.
void setChild(const Object& node, const Object& key, const Object& value) {
  if (Dictionary* d = node.asMutableDictionary()) {
    d->setObject(value, key);
  } else if (node.isCustom()) {
    node.setValueForKey(value, keyText(key));
  }
}

Object childOf(const Object& node, const Object& key) {
  if (const Dictionary* d = node.asDictionary()) return d->objectForKey(key);
  return node.isCustom() ? node.valueForKey(keyText(key)) : Object();
}

// The cache writes into its dictionaries (merges, fetched answers, sets, invalidations), so every dictionary it
// holds must be mutable: an immutable one would silently drop every later write under it. Dictionaries that come
// in immutable are replaced by mutable copies where they enter; the helpers below do that.

// Whether `value` is a dictionary the cache cannot write into (inline: the merge asks for every value).
bool isFrozenDictionary(const Object& value) {
  const Dictionary* d = value.asDictionary();
  return d != nullptr && !d->isMutable();
}

// `value` itself when it is not an immutable dictionary, else a mutable (shallow) copy.
Object writable(const Object& value) { return isFrozenDictionary(value) ? value.mutableCopy() : value; }

// A copy of `value` in which every dictionary is a new mutable one (values of other kinds are shared). Nesting
// past the merge's bound is kept as it is.
Object deepWritableCopy(const Object& value, std::size_t depth = 0) {
  const Dictionary* d = value.asDictionary();
  if (d == nullptr || depth > internal::kMaxMergeDepth) return value;
  std::vector<Object::Entry> entries;
  entries.reserve(d->size());
  for (const auto& [key, child] : *d) entries.emplace_back(key, deepWritableCopy(child, depth + 1));
  return Object::dictionaryWithDistinctKeys(std::move(entries), true);
}

// Replaces, inside the mutable `dictionary`, every immutable dictionary below it by a mutable copy (for a node the
// cache adopts without merging it key by key: a leaf).
void makeNestedWritable(const Object& dictionary, std::size_t depth = 0) {
  const Dictionary* d = dictionary.asDictionary();
  if (d == nullptr || !d->isMutable() || depth > internal::kMaxMergeDepth) return;
  // Most leaves hold values only: nothing to do, nothing to allocate.
  if (std::none_of(d->begin(), d->end(), [](const Dictionary::Entry& e) { return e.second.isDictionary(); })) return;
  Dictionary* writableD = dictionary.asMutableDictionary();
  for (const Object& key : d->allKeys()) {
    Object child = d->objectForKey(key);
    if (!child.isDictionary()) continue;
    if (isFrozenDictionary(child)) {
      child = child.mutableCopy();
      writableD->setObject(child, key);
    }
    makeNestedWritable(child, depth + 1);
  }
}

// What `root.valueForKeyPath(keyPath)` finds, with every immutable dictionary on the way (the result included)
// replaced in its parent by a mutable copy, so that what the merge then adopts from there is writable and a
// reference made to it points at the very node the cache will hold. References on the way are followed, a
// bounded number of times.
Object writableValueForKeyPath(const Object& root, std::string_view keyPath) {
  Object node = root;
  std::size_t hops = 0;
  std::size_t start = 0;
  for (;;) {
    while (const BrivetPathReference* reference = BrivetPathReference::cast(node)) {
      if (++hops > BrivetPathReference::kMaxReferenceHops) return Object();
      node = reference->hardReference();
    }
    const Dictionary* d = node.asDictionary();
    if (d == nullptr) return Object();
    const std::size_t dot = keyPath.find('.', start);
    const std::string_view component = keyPath.substr(start, dot == std::string_view::npos ? dot : dot - start);
    Object child = d->objectForKey(component);
    if (d->isMutable() && isFrozenDictionary(child)) {
      child = child.mutableCopy();
      node.asMutableDictionary()->setObject(child, component);
    }
    if (dot == std::string_view::npos || child.isNil()) return child;
    node = std::move(child);
    start = dot + 1;
  }
}

std::string indexText(std::int64_t i) {
  char buffer[24];
  const auto end = std::to_chars(buffer, buffer + sizeof buffer, i).ptr;
  return std::string(buffer, end);
}

std::optional<std::int64_t> canonicalIndex(const Object& key) {
  if (!key.isString()) return std::nullopt;
  const std::string_view text = key.stringValue();
  if (text.empty() || (text.size() > 1 && text[0] == '0')) return std::nullopt;
  std::int64_t value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || value < 0) return std::nullopt;
  return value;
}

}  // namespace

// --- Construction and properties ---

std::shared_ptr<BrivetModel> BrivetModel::create(std::optional<std::vector<std::string>> prefixes) {
  return std::make_shared<BrivetModel>(Passkey{}, std::move(prefixes));
}

BrivetModel::BrivetModel(Passkey, std::optional<std::vector<std::string>> prefixes)
    : prefixes_(std::move(prefixes)),
      jsongModel_(Object::mutableDictionary()),
      queue_(DispatchQueue::concurrent(std::string(kReverseDomain) + "-model")) {}

std::shared_ptr<BrivetDataSource> BrivetModel::dataSource() const {
  MutexLock lock(delegatesMu_);
  return dataSource_.lock();
}

void BrivetModel::setDataSource(const std::shared_ptr<BrivetDataSource>& dataSource) {
  MutexLock lock(delegatesMu_);
  dataSource_ = dataSource;
}

std::shared_ptr<BrivetLoggerDelegate> BrivetModel::loggingDelegate() const {
  MutexLock lock(delegatesMu_);
  return loggingDelegate_.lock();
}

void BrivetModel::setLoggingDelegate(const std::shared_ptr<BrivetLoggerDelegate>& delegate) {
  MutexLock lock(delegatesMu_);
  loggingDelegate_ = delegate;
}

std::shared_ptr<BrivetPerformanceTraceDelegate> BrivetModel::performanceTraceDelegate() const {
  MutexLock lock(delegatesMu_);
  return performanceTraceDelegate_.lock();
}

void BrivetModel::setPerformanceTraceDelegate(const std::shared_ptr<BrivetPerformanceTraceDelegate>& delegate) {
  MutexLock lock(delegatesMu_);
  performanceTraceDelegate_ = delegate;
}

bool BrivetModel::isKeyPathWithRange(std::string_view keyPath) { return internal::containsRangeMarker(keyPath); }

// --- Reading ---

Object BrivetModel::valueForKeyPath(std::string_view keyPath) {
  if (isKeyPathWithRange(keyPath)) return Object();
  return valueForKey(keyPath);
}

Object BrivetModel::valueForKey(std::string_view key) {
  Object value;
  queue_->sync([&] { value = safeValueForKeyPath(key); });
  return value;
}

std::vector<Object> BrivetModel::valuesForKeyPaths(const std::vector<std::string>& keyPaths, bool fillEmptyWithNull) {
  std::vector<Object> values;
  values.reserve(keyPaths.size());
  queue_->sync([&] {
    for (const std::string& keyPath : keyPaths) {
      const Object value = isKeyPathWithRange(keyPath) ? Object() : safeValueForKeyPath(keyPath);
      if (!value.isNil()) {
        values.push_back(value);
      } else if (fillEmptyWithNull) {
        values.push_back(Object::null());
      }
    }
  });
  return values;
}

Object BrivetModel::safeValueForKeyPath(std::string_view keyPath) {
  const std::vector<std::string_view> components = splitKeyPath(keyPath);
  const bool prefixed =
      prefixes_.has_value() && std::find(prefixes_->begin(), prefixes_->end(), components.front()) != prefixes_->end();
  // Each step looks the next component up on the previous value: the same as looking the growing partial key
  // path up on the root, since a lookup walks one component at a time (through references).
  Object value = jsongModel_;
  bool passedLeaf = false;
  for (std::size_t i = 0; i < components.size(); ++i) {
    value = value.valueForKey(components[i]);
    if (value.isNil()) return Object();
    if (i + 1 == components.size()) break;
    if (value.isArray() || value.isNull()) return Object();
    if (isLeafNode(value)) passedLeaf = true;  // the remaining components read inside the leaf
  }
  if (!passedLeaf && value.isDictionary() && !prefixed && !isLeafNode(value)) {
    if (auto logger = enabledLogger()) {
      logger->logDebugUserInfo(*this, Object::dictionary({{"message", "Invalid Brivet Branch Node"},
                                                          {"keyPath", keyPath},
                                                          {"branch node", value.description()},
                                                          {"testPath", keyPath}}));
    }
  }
  return value;
}

// --- Writing ---

// A dictionary value is stored as a copy of mutable dictionaries: the cache can write under it, and the caller's
// own object is neither adopted nor written into.
void BrivetModel::setValueForKeyPath(const Object& value, std::string_view keyPath) {
  queue_->asyncBarrier([weak = weak_from_this(), value = deepWritableCopy(value), keyPath = std::string(keyPath)] {
    if (auto self = weak.lock()) self->jsongModel_.setValueForKeyPath(value, keyPath);
  });
}

void BrivetModel::setValueForKey(const Object& value, std::string_view key) {
  queue_->asyncBarrier([weak = weak_from_this(), value = deepWritableCopy(value), key = std::string(key)] {
    if (auto self = weak.lock()) self->jsongModel_.setValueForKey(value, key);
  });
}

void BrivetModel::invalidateForKeyPaths(const std::vector<std::string>& keyPaths) {
  for (const std::string& keyPath : keyPaths) setValueForKeyPath(Object(), keyPath);
}

void BrivetModel::mergeJSONDictionaryIntoModel(const Object& dictionary) {
  queue_->asyncBarrier([weak = weak_from_this(), dictionary] {
    if (auto self = weak.lock()) self->buildJSONGraph(self->jsongModel_, Object(), dictionary, Object());
  });
}

// --- Misses ---

void BrivetModel::collectCacheMissesInto(std::vector<std::string>* cacheMisses, const BrivetPath* path,
                                         std::optional<std::string_view> resolvedKeyPath) {
  std::vector<std::string> discarded;
  if (cacheMisses == nullptr) {
    logInfo("BrivetModel:collectCacheMissesInto ERROR: Invalid 'cacheMisses' argument.");
    cacheMisses = &discarded;
  }
  if (path == nullptr) {
    logInfo("BrivetModel:collectCacheMissesInto WARNING: 'path' argument not specified.");
    return;
  }
  collectMisses(*cacheMisses, path,
                resolvedKeyPath ? std::optional<std::string>(std::string(*resolvedKeyPath)) : std::nullopt);
}

void BrivetModel::collectMisses(std::vector<std::string>& misses, const BrivetPath* path,
                                std::optional<std::string> prefix) {
  // Plain fragments walk down in a loop; only a range fragment recurses (once per present index).
  while (path != nullptr && path->pathCount() > 0) {
    const std::string& first = path->pathFragments().front();
    const BrivetPath* next = path->nextPathFragment().get();
    if (internal::containsRangeMarker(first)) {
      collectRangeMisses(misses, first, next, prefix);
      return;
    }
    std::string candidate = prefix ? *prefix + "." + first : first;
    const Object value = jsongModel_.valueForKeyPath(candidate);
    const BrivetPathReference* reference = BrivetPathReference::cast(value);
    if (value.isNil() || (reference == nullptr && isLeafNodeExpired(value))) {
      if (next != nullptr) candidate += "." + std::string(next->keyPath());
      misses.push_back(std::move(candidate));
      return;
    }
    prefix = reference != nullptr ? reference->keyPath() : std::move(candidate);
    path = next;
  }
}

void BrivetModel::collectRangeMisses(std::vector<std::string>& misses, std::string_view fragment,
                                     const BrivetPath* next, const std::optional<std::string>& prefix) {
  const auto match = internal::matchRangeFragment(fragment, /*anchored=*/false);
  if (!match) {
    logInfo("Error parsing @range(x,y) path fragment.");
    return;
  }
  const std::int64_t from = internal::parseInt32Saturating(match->from);
  const std::int64_t to = internal::parseInt32Saturating(match->to);
  if (from > to) return;
  // Without a resolved prefix the indices are keys of the root itself.
  const std::string head = prefix ? *prefix + "." : std::string();
  const std::string rest = next != nullptr ? "." + std::string(next->keyPath()) : std::string();
  // Looking up "prefix.i" from the root is looking up "i" on the node at "prefix".
  const Object base = prefix ? jsongModel_.valueForKeyPath(*prefix) : jsongModel_;

  auto missingRun = [&](std::int64_t first, std::int64_t last) {
    if (first == last) {
      misses.push_back(head + indexText(first) + rest);
    } else {
      const std::string ranged = formatString(next != nullptr ? ".@range(%d,%d).%@" : ".@range(%d,%d)", first, last,
                                              next != nullptr ? next->keyPath() : std::string_view());
      misses.push_back(prefix ? *prefix + ranged : ranged.substr(1));
    }
  };
  auto present = [&](std::int64_t i, const Object& value) {
    if (next == nullptr) return;
    const BrivetPathReference* reference = BrivetPathReference::cast(value);
    collectMisses(misses, next, reference != nullptr ? reference->keyPath() : head + indexText(i));
  };

  // A range wider than the node is answered from the node's own keys, so its cost is what the cache holds.
  Object container = base;
  if (const BrivetPathReference* reference = BrivetPathReference::cast(base)) container = reference->hardReference();
  const Dictionary* keys = container.asDictionary();
  const bool sparse = to - from >= kDenseMissLimit && !container.isCustom() &&
                      (keys == nullptr || static_cast<std::uint64_t>(to - from) >= keys->size());
  if (!sparse) {
    std::optional<std::int64_t> runStart;
    for (std::int64_t i = from; i <= to; ++i) {
      const Object value = base.valueForKey(indexText(i));
      if (value.isNil()) {
        if (!runStart) {
          runStart = i;
          misses.push_back(head + indexText(i) + rest);
        } else {
          misses.pop_back();
          missingRun(*runStart, i);
        }
        continue;
      }
      runStart.reset();
      present(i, value);
    }
    return;
  }
  std::vector<std::pair<std::int64_t, Object>> found;
  if (keys != nullptr) {
    for (const auto& [key, value] : *keys) {
      const auto index = canonicalIndex(key);
      if (index && *index >= from && *index <= to) found.emplace_back(*index, value);
    }
  }
  std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  std::int64_t cursor = from;
  for (const auto& [index, value] : found) {
    if (index > cursor) missingRun(cursor, index - 1);
    present(index, value);
    cursor = index + 1;
  }
  if (cursor <= to) missingRun(cursor, to);
}

// --- Merging ---

void BrivetModel::buildJSONGraph(const Object& jsonGraphModel, const Object& jsonGraphNode, const Object& json,
                                 const Object& jsonNode) {
  if (jsonGraphModel.isNil()) {
    logInfo("BrivetModel:buildJSONGraph ERROR: Invalid 'jsonGraphModel' argument.");
    return;
  }
  // The merge makes the JSON it reads writable as it goes (and stores references into it): it needs a writable
  // root to start from.
  const Object root = writable(json);
  mergeNode(jsonGraphModel, jsonGraphNode, root, jsonNode.isNil() || jsonNode.isIdentical(json) ? root : jsonNode, 0,
            nullptr);
}

void BrivetModel::mergeNode(const Object& graphRoot, const Object& graphNodeIn, const Object& jsonRoot,
                            const Object& jsonNodeIn, std::size_t depth, std::size_t* leftOut) {
  if (depth > internal::kMaxMergeDepth) return;
  Object graphNode = graphNodeIn.isNil() ? graphRoot : graphNodeIn;
  Object jsonNode = jsonNodeIn.isNil() ? jsonRoot : jsonNodeIn;
  if (const BrivetPathReference* r = BrivetPathReference::cast(graphNode)) graphNode = r->hardReference();
  if (const BrivetPathReference* r = BrivetPathReference::cast(jsonNode)) jsonNode = r->hardReference();
  const Dictionary* source = jsonNode.asDictionary();
  if (source == nullptr) return;
  const bool sameNode = graphNode.isIdentical(jsonNode);
  // A snapshot of the keys: merging may replace values of this node (and, through references, of others).
  for (const Object& key : source->allKeys()) {
    Object value = source->objectForKey(key);
    if (isFrozenDictionary(value)) {
      // Whatever the cache adopts from here must be writable; the copy takes the original's place in the JSON
      // too, so that references resolved in the JSON later find the node the cache holds.
      value = value.mutableCopy();
      if (source->isMutable()) jsonNode.asMutableDictionary()->setObject(value, key);
    }
    if (const Array* array = value.asArray()) {
      if (!array->empty() && (*array)[0].isString()) {
        mergeReference(graphRoot, graphNode, jsonRoot, jsonNode, key, value, depth, leftOut);
      } else if (!sameNode) {
        setChild(graphNode, key,
                 keyEquals(key, BRIVET_NODE_PROFILES_KEY) ? arrayByReplacingNullsWithBlanks(value) : value);
      }
    } else if (value.isDictionary()) {
      if (isLeafNode(value) && !sameNode) {
        makeNestedWritable(value);
        setChild(graphNode, key, convertLeafToAbsoluteExpiration(value));
      } else if (sameNode) {
        mergeNode(graphRoot, value, jsonRoot, value, depth + 1, leftOut);
      } else {
        const Object existing = childOf(graphNode, key);
        if (existing.isNil()) {
          setChild(graphNode, key, value);
          mergeNode(graphRoot, value, jsonRoot, value, depth + 1, leftOut);
        } else if (!existing.isDictionary() || isFrozenDictionary(existing)) {
          // Not a dictionary (or, had one slipped in, an immutable one): a writable node takes its place.
          const Object fresh = existing.isDictionary() ? existing.mutableCopy() : Object::mutableDictionary();
          setChild(graphNode, key, fresh);
          mergeNode(graphRoot, fresh, jsonRoot, value, depth + 1, leftOut);
        } else {
          mergeNode(graphRoot, existing, jsonRoot, value, depth + 1, leftOut);
        }
      }
    } else if (value.isString() || value.isNumber()) {
      setChild(graphNode, key, keyEquals(key, BRIVET_NODE_EXPIRES_KEY) ? convertToAbsoluteExpiration(value) : value);
    } else if (leftOut != nullptr && !sameNode && !value.isCustom()) {
      ++*leftOut;  // (a node adopted as a whole keeps such values as they are)
    }
    // Anything else (null, a reference already built, dates, data) is not part of a response graph: ignored.
  }
}

void BrivetModel::mergeReference(const Object& graphRoot, const Object& graphNode, const Object& jsonRoot,
                                 const Object& jsonNode, const Object& key, const Object& path, std::size_t depth,
                                 std::size_t* leftOut) {
  const std::string keyPath = internal::joinDescriptions(path, BRIVET_KEY_PATH_SEPARATOR);
  const Object graphTarget = graphRoot.valueForKeyPath(keyPath);
  const Object jsonTarget = writableValueForKeyPath(jsonRoot, keyPath);
  if (jsonTarget.isNil()) {
    // The response does not hold the target: point the response at what the cache has (the cache keeps its
    // own value under the key).
    if (!graphTarget.isNil()) {
      setChild(jsonNode, key, graphTarget);
    } else if (leftOut != nullptr && !graphNode.isIdentical(jsonNode)) {
      ++*leftOut;  // a reference to nothing is not stored (a node adopted as a whole keeps it as a list)
    }
    return;
  }
  const Object reference = BrivetPathReference::make(path.copy(), jsonTarget, graphRoot);
  setChild(graphNode, key, reference);
  setChild(jsonNode, key, reference);
  if (graphTarget.isNil()) {
    mergeNode(graphRoot, jsonTarget, jsonRoot, jsonTarget, depth + 1, leftOut);
  } else if (!graphTarget.isArray()) {
    mergeNode(graphRoot, graphTarget, jsonRoot, jsonTarget, depth + 1, leftOut);
  }
}

// --- Expiry ---

bool BrivetModel::isCacheExpirationEnabled() {
  const auto source = dataSource();
  return source != nullptr && source->enableCacheExpiration(*this);
}

bool BrivetModel::isLeafNodeExpired(const Object& node) {
  if (!isLeafNode(node) || !isCacheExpirationEnabled()) return false;
  const Number* expires = node[BRIVET_NODE_EXPIRES_KEY].asNumber();
  if (expires == nullptr) return false;
  const std::int64_t value = expires->int64Value();
  if (value == BRIVET_EXPIRES_NOW) return true;
  if (value <= BRIVET_EXPIRES_NEVER) return false;  // 1 never expires; negative values are not absolute times
  return expires->doubleValue() / 1000.0 < timeIntervalSince1970(dateNow());
}

Object BrivetModel::convertToAbsoluteExpiration(const Object& value) {
  const Number* relative = value.asNumber();
  if (relative == nullptr || relative->int64Value() >= 0 || !isCacheExpirationEnabled()) return value;
  // -n means "n milliseconds after now".
  return Object::real((timeIntervalSince1970(dateNow()) - relative->doubleValue() / 1000.0) * 1000.0);
}

Object BrivetModel::convertLeafToAbsoluteExpiration(const Object& leaf) {
  Dictionary* d = leaf.asMutableDictionary();
  if (d == nullptr || !isLeafNode(leaf)) return leaf;
  const Object expires = d->objectForKey(BRIVET_NODE_EXPIRES_KEY);
  if (expires.isNumber()) d->setObject(convertToAbsoluteExpiration(expires), BRIVET_NODE_EXPIRES_KEY);
  return leaf;
}

// --- Snapshots ---

std::optional<std::string> BrivetModel::serializeCache(std::optional<Error>* error) {
  Object graph;
  queue_->sync([&] { graph = internal::serializableDictionary(jsongModel_, {}); });
  if (graph.isNil() || !isValidJSONObject(graph)) return std::nullopt;
  Result<std::string> text = writeJSON(internal::cacheEnvelope(graph));
  if (!text.ok()) {
    if (error != nullptr) *error = text.error();
    return std::nullopt;
  }
  return std::move(text).value();
}

std::optional<std::string> BrivetModel::serializeCacheWithKeyPaths(
    const std::optional<std::vector<std::string>>& keyPaths, std::optional<Error>* error) {
  if (!keyPaths || keyPaths->empty()) return serializeCache(error);
  Object graph;
  queue_->sync([&] {
    for (const std::string& keyPath : *keyPaths) {
      const std::vector<std::string> components = splitKeyPathCopy(keyPath);
      Object selected = internal::serializableDictionary(jsongModel_, components);
      if (graph.isNil()) {
        graph = std::move(selected);
      } else {
        internal::mergeDictionary(selected, graph);
      }
    }
  });
  if (graph.isNil()) return std::nullopt;
  Result<std::string> text = writeJSON(internal::cacheEnvelope(graph));
  if (!text.ok()) {
    if (error != nullptr) *error = text.error();
    return std::nullopt;
  }
  return std::move(text).value();
}

bool BrivetModel::deserializeCache(std::optional<std::string_view> data, std::optional<Error>* error,
                                   BrivetRestoreReport* report) {
  if (!data) return false;
  Result<Object> parsed = parseJSON(*data, JSONReadingOptions::MutableContainers);
  if (!parsed.ok()) {
    if (error != nullptr) *error = parsed.error();
    return false;
  }
  if (!parsed->isMutableDictionary()) return false;
  const Object graph = internal::removeCacheEnvelope(*parsed);
  if (report == nullptr) {
    mergeJSONDictionaryIntoModel(graph);
    return true;
  }
  *report = BrivetRestoreReport();
  queue_->syncBarrier([&] {
    mergeNode(jsongModel_, Object(), graph, Object(), 0, &report->leftOut);
    // The snapshot's nodes are the cache's now: its leaves are the ones restored.
    if (isCacheExpirationEnabled()) report->expiredLeaves = countExpiredLeaves(graph, 0);
  });
  return true;
}

std::size_t BrivetModel::countExpiredLeaves(const Object& node, std::size_t depth) {
  const Dictionary* d = node.asDictionary();
  if (d == nullptr || depth > internal::kMaxMergeDepth) return 0;
  if (isLeafNode(node)) return isLeafNodeExpired(node) ? 1 : 0;
  std::size_t count = 0;
  for (const auto& entry : *d) count += countExpiredLeaves(entry.second, depth + 1);
  return count;
}

std::string BrivetRestoreReport::description() const {
  if (leftOut == 0 && expiredLeaves == 0) return "nothing left out";
  std::string out;
  if (leftOut > 0) out = std::to_string(leftOut) + (leftOut == 1 ? " entry" : " entries") + " left out";
  if (expiredLeaves > 0) {
    out += (out.empty() ? "" : "; ") + std::to_string(expiredLeaves) +
           (expiredLeaves == 1 ? " leaf already expired" : " leaves already expired");
  }
  return out;
}

}  // namespace brivet
