#include "brivet/core/values/path_tree.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <unordered_map>

#include "brivet/core/values/internal/value_access.h"
#include "brivet/core/values/json_graph.h"
#include "brivet/platform/key_path.h"
#include "brivet/platform/precondition.h"

namespace brivet {

namespace {
constexpr std::size_t kMaxPathLength = internal::kMaxDepth;
constexpr std::size_t kIndexedEntries = 8;
}  // namespace

// --- Key ---

Key Key::string(std::string text) {
  Key k;
  k.kind_ = Kind::String;
  k.text_ = std::move(text);
  return k;
}

Key Key::number(const Object& number) {
  Key k;
  k.kind_ = Kind::Number;
  k.number_ = number;
  k.text_ = number.description();
  return k;
}

Key Key::range(std::int64_t from, std::int64_t to) {
  Key k;
  k.kind_ = Kind::Range;
  k.from_ = from;
  k.to_ = to;
  return k;
}

std::string Key::description() const {
  switch (kind_) {
    case Kind::String: return "\"" + text_ + "\"";
    case Kind::Number: return text_;
    case Kind::Range: return "{from: " + std::to_string(from_) + ", to: " + std::to_string(to_) + "}";
  }
  return {};
}

std::size_t Key::hash() const {
  // The case's discriminator first (string 0, number 1, range 2), then the payload.
  auto feed = [](std::size_t h, std::size_t v) { return h ^ (v + 0x9e3779b9 + (h << 6) + (h >> 2)); };
  switch (kind_) {
    case Kind::String: return feed(feed(0, 0), String::hashText(text_));
    case Kind::Number: return feed(feed(0, 1), number_.hash());
    case Kind::Range: return feed(feed(feed(0, 2), std::hash<std::int64_t>()(from_)), std::hash<std::int64_t>()(to_));
  }
  return 0;
}

bool operator==(const Key& a, const Key& b) {
  if (a.kind_ != b.kind_) return false;
  switch (a.kind_) {
    case Key::Kind::String: return a.text_ == b.text_;
    case Key::Kind::Number: return a.number_.isEqual(b.number_);
    case Key::Kind::Range: return a.from_ == b.from_ && a.to_ == b.to_;
  }
  return false;
}

std::size_t KeySetHash::operator()(const KeySet& keys) const {
  std::size_t h = keys.size();
  // A hash: on 32-bit targets the multiplier keeps its low half, on purpose.
  for (const Key& k : keys) h = h * static_cast<std::size_t>(0x9E3779B97F4A7C15ULL) + k.hash();
  return h;
}

// --- Nodes ---

struct PathTree::Node {
  Kind kind = Kind::Object;
  std::vector<Entry> entries;
  KeySet keys;
  std::unordered_map<KeySet, std::size_t, KeySetHash> index;  // large objects only
  std::size_t depth = 0;  // objects nested from here down, this one included
};

namespace {

using Node = PathTree::Node;

const std::shared_ptr<const Node>& leafNode(PathTree::Kind kind) {
  static const auto* target =
      new std::shared_ptr<const Node>(std::make_shared<Node>(Node{PathTree::Kind::Target, {}, {}, {}, 0}));
  static const auto* self =
      new std::shared_ptr<const Node>(std::make_shared<Node>(Node{PathTree::Kind::Self, {}, {}, {}, 0}));
  return kind == PathTree::Kind::Target ? *target : *self;
}

// A tree under construction: mutable objects whose untouched parts stay frozen trees.
struct Builder {
  std::optional<PathTree> frozen;  // set: this subtree is taken as it stands
  std::vector<std::pair<KeySet, std::unique_ptr<Builder>>> entries;
  std::unordered_map<KeySet, std::size_t, KeySetHash> index;

  Builder* find(const KeySet& keys) {
    if (!index.empty()) {
      auto it = index.find(keys);
      return it == index.end() ? nullptr : entries[it->second].second.get();
    }
    for (auto& [k, child] : entries) {
      if (k == keys) return child.get();
    }
    return nullptr;
  }
  Builder* add(const KeySet& keys, std::unique_ptr<Builder> child) {
    entries.emplace_back(keys, std::move(child));
    if (!index.empty()) {
      index.emplace(keys, entries.size() - 1);
    } else if (entries.size() > kIndexedEntries) {
      for (std::size_t i = 0; i < entries.size(); ++i) index.emplace(entries[i].first, i);
    }
    return entries.back().second.get();
  }
  static std::unique_ptr<Builder> of(const PathTree& tree) {
    auto b = std::make_unique<Builder>();
    b->frozen = tree;
    return b;
  }
  bool isObject() const { return !frozen || frozen->kind() == PathTree::Kind::Object; }
  // Turns a frozen object into a mutable one, one level deep.
  void thaw() {
    if (!frozen || frozen->kind() != PathTree::Kind::Object) return;
    const PathTree tree = std::move(*frozen);
    frozen.reset();
    for (const auto& [keys, child] : tree.entries()) add(keys, of(child));
  }
};

std::shared_ptr<const Node> objectNode(std::vector<PathTree::Entry> entries) {
  auto node = std::make_shared<Node>();
  node->kind = PathTree::Kind::Object;
  // Every walk over a tree recurses once per level: an entry whose subtree
  // would nest the tree past kMaxPathLength levels is dropped, as the readers
  // drop paths longer than that.
  std::erase_if(entries, [](const PathTree::Entry& e) { return e.second.depth() >= kMaxPathLength; });
  for (const PathTree::Entry& e : entries) node->depth = std::max(node->depth, e.second.depth());
  ++node->depth;
  node->entries = std::move(entries);
  if (node->entries.size() > kIndexedEntries) {
    for (std::size_t i = 0; i < node->entries.size(); ++i) node->index.emplace(node->entries[i].first, i);
  }
  return node;
}

// merge(new, accumulated) into a builder.
void mergeInto(Builder& acc, const PathTree& incoming) {
  if (acc.frozen) {
    switch (acc.frozen->kind()) {
      case PathTree::Kind::KeySet:
      case PathTree::Kind::Target: return;
      case PathTree::Kind::Self:
        if (incoming.kind() == PathTree::Kind::Object) acc.frozen = incoming;
        return;
      case PathTree::Kind::Object:
        if (incoming.kind() != PathTree::Kind::Object) return;
        acc.thaw();
        break;
    }
  }
  if (incoming.kind() != PathTree::Kind::Object) return;
  for (const auto& [keys, sub] : incoming.entries()) {
    if (Builder* existing = acc.find(keys)) {
      mergeInto(*existing, sub);
    } else {
      acc.add(keys, Builder::of(sub));
    }
  }
}

// Adds one path (as its own tree would be merged in) below `node`, an object builder.
void insertPath(Builder& node, const Path& path, std::size_t i) {
  if (i + 1 == path.size()) {
    for (const Key& k : path[i]) {
      const KeySet single{k};
      if (node.find(single) == nullptr) node.add(single, Builder::of(PathTree::self()));
    }
    return;
  }
  Builder* child = node.find(path[i]);
  if (child == nullptr) {
    child = node.add(path[i], std::make_unique<Builder>());
  } else if (child->frozen) {
    const PathTree::Kind kind = child->frozen->kind();
    if (kind == PathTree::Kind::KeySet || kind == PathTree::Kind::Target) return;
    if (kind == PathTree::Kind::Self) {
      child->frozen.reset();
    } else {
      child->thaw();
    }
  }
  insertPath(*child, path, i + 1);
}

PathTree freeze(Builder& b) {
  if (b.frozen) return *b.frozen;
  std::vector<PathTree::Entry> entries;
  entries.reserve(b.entries.size());
  for (auto& [keys, child] : b.entries) entries.emplace_back(std::move(keys), freeze(*child));
  return PathTree::objectWithDistinctKeySets(std::move(entries));
}

PathTree freezeTree(Builder& b) { return freeze(b); }

// The platform's integerValue of a number or a numeric text; 0 otherwise.
std::int64_t integerValue(const Object& o) {
  if (const Number* n = o.asNumber()) return n->int64Value();
  const std::string_view s = o.stringValue();
  std::size_t i = 0;
  while (i < s.size() && (s[i] == ' ' || s[i] == '\t' || s[i] == '\n' || s[i] == '\r')) ++i;
  bool negative = false;
  if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
  std::int64_t v = 0;
  for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
    const int d = s[i] - '0';
    if (v > (INT64_MAX - d) / 10) return negative ? INT64_MIN : INT64_MAX;
    v = v * 10 + d;
  }
  return negative ? -v : v;
}

enum class ItemResult { Key, Skip, Invalid };

ItemResult keyFromItem(const Object& item, std::optional<Key>* out) {
  if (const Dictionary* d = item.asDictionary()) {
    const Object fromObject = d->objectForKey("from");
    const std::int64_t from = fromObject.isNil() ? 0 : integerValue(fromObject);
    std::int64_t to;
    const Object toObject = d->objectForKey("to");
    const Object lengthObject = d->objectForKey("length");
    if (!toObject.isNil()) {
      to = integerValue(toObject);
    } else if (!lengthObject.isNil()) {
      if (__builtin_add_overflow(from, integerValue(lengthObject), &to) || __builtin_sub_overflow(to, 1, &to)) {
        return ItemResult::Invalid;
      }
    } else {
      return ItemResult::Skip;
    }
    if (to < from) return ItemResult::Invalid;
    *out = Key::range(from, to);
    return ItemResult::Key;
  }
  if (item.isString()) {
    *out = Key::string(std::string(item.stringValue()));
    return ItemResult::Key;
  }
  if (item.isNumber()) {
    *out = Key::number(item);
    return ItemResult::Key;
  }
  return ItemResult::Skip;
}

// Lists the paths below `tree` with `prefix` (the key sets leading to it) in front. One prefix is grown and shrunk
// along the walk, so a path of n levels costs n key copies when it is listed, not one copy of its prefix per
// level (n^2 / 2 for a long path).
void flatten(const PathTree& tree, Path& prefix, std::vector<Path>& out) {
  if (tree.kind() != PathTree::Kind::Object || tree.entries().empty()) return;
  KeySet selves;
  for (const auto& [keys, sub] : tree.entries()) {
    if (sub.kind() == PathTree::Kind::Self) selves.insert(selves.end(), keys.begin(), keys.end());
  }
  auto emit = [&](const KeySet& last, const KeySet* after) {
    Path path;
    path.reserve(prefix.size() + (after != nullptr ? 2 : 1));
    path.insert(path.end(), prefix.begin(), prefix.end());
    path.push_back(last);
    if (after != nullptr) path.push_back(*after);
    out.push_back(std::move(path));
  };
  if (!selves.empty()) emit(selves, nullptr);
  for (const auto& [keys, sub] : tree.entries()) {
    switch (sub.kind()) {
      case PathTree::Kind::Object:
        prefix.push_back(keys);
        flatten(sub, prefix, out);
        prefix.pop_back();
        break;
      case PathTree::Kind::KeySet:
        // At the top level as below it: the entry's key set followed by the subtree's keys.
        emit(keys, &sub.keys());
        break;
      default: break;
    }
  }
}

Object keyToJSON(const Key& k) {
  switch (k.kind()) {
    case Key::Kind::String: return Object(k.stringValue());
    case Key::Kind::Number: return k.numberValue();
    case Key::Kind::Range:
      return Object::dictionaryWithDistinctKeys(
          {{Object("from"), Object::integer(k.from())}, {Object("to"), Object::integer(k.to())}}, false);
  }
  return Object::null();
}

std::string keyText(const Key& k) {
  if (k.kind() == Key::Kind::Range) return "@range(" + std::to_string(k.from()) + "," + std::to_string(k.to()) + ")";
  return k.stringValue();
}

void describeKeySet(const KeySet& keys, std::string& out) {
  out += '[';
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if (i > 0) out += ", ";
    out += keys[i].description();
  }
  out += ']';
}

void describeTree(const PathTree& t, std::string& out) {
  switch (t.kind()) {
    case PathTree::Kind::Target: out += "`target`"; return;
    case PathTree::Kind::Self: out += "`self`"; return;
    case PathTree::Kind::KeySet: describeKeySet(t.keys(), out); return;
    case PathTree::Kind::Object: break;
  }
  if (t.entries().empty()) {
    out += "[:]";
    return;
  }
  out += '[';
  bool first = true;
  for (const auto& [keys, sub] : t.entries()) {
    if (!first) out += ", ";
    first = false;
    describeKeySet(keys, out);
    out += ": ";
    describeTree(sub, out);
  }
  out += ']';
}

PathTree treeOfGraphSlot(internal::Slot s);

}  // namespace

// --- PathTree ---

PathTree::PathTree() : node_(objectNode({})) {}

PathTree PathTree::object(std::vector<Entry> entries) {
  // Key sets are map keys: a later entry replaces an earlier equal one in place.
  std::vector<Entry> unique;
  unique.reserve(entries.size());
  std::unordered_map<KeySet, std::size_t, KeySetHash> seen;
  for (Entry& e : entries) {
    auto [it, inserted] = seen.emplace(e.first, unique.size());
    if (inserted) {
      unique.push_back(std::move(e));
    } else {
      unique[it->second].second = std::move(e.second);
    }
  }
  return PathTree(objectNode(std::move(unique)));
}

PathTree PathTree::objectWithDistinctKeySets(std::vector<Entry> entries) {
  return PathTree(objectNode(std::move(entries)));
}

std::size_t PathTree::depth() const { return node_->depth; }

PathTree PathTree::keySet(KeySet keys) {
  auto node = std::make_shared<Node>();
  node->kind = Kind::KeySet;
  node->keys = std::move(keys);
  return PathTree(std::move(node));
}

PathTree PathTree::target() { return PathTree(leafNode(Kind::Target)); }
PathTree PathTree::self() { return PathTree(leafNode(Kind::Self)); }

Path PathTree::parsePath(std::string_view keyPath) {
  // The grammar is the one KeyPath checks against: each component is a range
  // when it starts with "@range(from,to)" (any case, text after ")" ignored,
  // bounds that fit 64 bits), else a text key; empty components drop out.
  Path path;
  bool tooLong = false;
  detail::forEachKeyPathComponent(keyPath, [&](std::string_view component) {
    if (const detail::KeyPathRange r = detail::matchKeyPathRange(component); r.matched) {
      path.push_back({Key::range(r.from, r.to)});
    } else if (!component.empty()) {
      path.push_back({Key::string(std::string(component))});
    }
    tooLong = path.size() > kMaxPathLength;
    return !tooLong;
  });
  if (tooLong) return {};
  return path;
}

PathTree PathTree::fromPaths(const std::vector<Path>& paths) {
  Builder root;
  for (const Path& path : paths) {
    if (path.empty() || path.size() > kMaxPathLength) continue;
    insertPath(root, path, 0);
  }
  return freezeTree(root);
}

PathTree PathTree::fromKeyPaths(const std::vector<std::string>& keyPaths) {
  Builder root;
  for (const std::string& keyPath : keyPaths) {
    const Path path = parsePath(keyPath);
    if (!path.empty()) insertPath(root, path, 0);
  }
  return freezeTree(root);
}

std::optional<Path> PathTree::pathFromArray(const Object& array) {
  const Array* steps = array.asArray();
  if (steps == nullptr) return std::nullopt;
  Path path;
  for (const Object& step : *steps) {
    KeySet keys;
    auto addItem = [&](const Object& item) {
      std::optional<Key> key;
      const ItemResult r = keyFromItem(item, &key);
      if (r == ItemResult::Key) keys.push_back(std::move(*key));
      return r != ItemResult::Invalid;
    };
    if (const Array* items = step.asArray()) {
      for (const Object& item : *items) {
        if (!addItem(item)) return std::nullopt;
      }
    } else if (!addItem(step)) {
      return std::nullopt;
    }
    if (keys.empty()) break;
    path.push_back(std::move(keys));
    if (path.size() > kMaxPathLength) return std::nullopt;
  }
  if (path.empty()) return std::nullopt;
  return path;
}

PathTree PathTree::fromPathArrays(const Object& paths) {
  std::vector<Path> all;
  if (const Array* a = paths.asArray()) {
    for (const Object& p : *a) {
      if (std::optional<Path> path = pathFromArray(p)) all.push_back(std::move(*path));
    }
  }
  return fromPaths(all);
}

namespace {
PathTree treeOfGraphSlot(internal::Slot s) {
  internal::LeafView v;
  if (internal::viewLeaf(s, &v)) return v.kind == JSONGraphLeaf::Kind::Ref ? PathTree::target() : PathTree::self();
  std::vector<PathTree::Entry> entries;
  if (internal::isObjectSlot(s)) {
    entries.reserve(internal::objectSize(s));
    internal::objectForEach(s, [&](const internal::Slot& k, const internal::Slot& child) {
      entries.emplace_back(KeySet{Key::string(std::string(internal::stringOf(k)))}, treeOfGraphSlot(child));
    });
  } else {
    const internal::ArrayNode* a = internal::arrayOf(s);
    entries.reserve(a->count);
    for (std::uint32_t i = 0; i < a->count; ++i) {
      entries.emplace_back(KeySet{Key::string(std::to_string(i))}, treeOfGraphSlot(a->items[i]));
    }
  }
  return PathTree::objectWithDistinctKeySets(std::move(entries));
}
}  // namespace

PathTree PathTree::fromGraph(const JSONGraph& graph) { return treeOfGraphSlot(internal::slot(graph)); }

PathTree PathTree::merge(const PathTree& newTree, const PathTree& accumulated) {
  Builder acc;
  acc.frozen = accumulated;
  mergeInto(acc, newTree);
  return freezeTree(acc);
}

PathTree::Kind PathTree::kind() const { return node_->kind; }
const std::vector<PathTree::Entry>& PathTree::entries() const { return node_->entries; }
const KeySet& PathTree::keys() const { return node_->keys; }

const PathTree* PathTree::find(const KeySet& keys) const {
  if (!node_->index.empty()) {
    auto it = node_->index.find(keys);
    return it == node_->index.end() ? nullptr : &node_->entries[it->second].second;
  }
  for (const auto& [k, sub] : node_->entries) {
    if (k == keys) return &sub;
  }
  return nullptr;
}

std::vector<Path> PathTree::paths() const {
  std::vector<Path> out;
  Path prefix;
  flatten(*this, prefix, out);
  return out;
}

Object PathTree::toJSONArray() const {
  std::vector<Object> all;
  for (const Path& path : paths()) {
    std::vector<Object> steps;
    steps.reserve(path.size());
    for (const KeySet& keys : path) {
      if (keys.size() == 1) {
        steps.push_back(keyToJSON(keys[0]));
      } else {
        std::vector<Object> items;
        items.reserve(keys.size());
        for (const Key& k : keys) items.push_back(keyToJSON(k));
        steps.push_back(Object::array(std::move(items)));
      }
    }
    all.push_back(Object::array(std::move(steps)));
  }
  return Object::array(std::move(all));
}

std::vector<std::string> PathTree::keyPathStrings(std::size_t limit) const {
  std::vector<std::string> out;
  for (const Path& path : paths()) {
    if (out.size() >= limit) break;
    // Every prefix grows into at least one string (key sets are never empty), so
    // no level needs more prefixes than strings are still wanted.
    const std::size_t wanted = limit - out.size();
    std::vector<std::string> partial{""};
    for (const KeySet& keys : path) {
      if (keys.size() == 1) {  // appended in place: a long path of single keys is not copied once per level
        const std::string text = keyText(keys[0]);
        for (std::string& prefix : partial) {
          if (!prefix.empty()) prefix += '.';
          prefix += text;
        }
        continue;
      }
      std::vector<std::string> next;
      next.reserve(std::min(wanted, partial.size() * keys.size()));
      for (const std::string& prefix : partial) {
        for (const Key& k : keys) {
          if (next.size() == wanted) break;
          next.push_back(prefix.empty() ? keyText(k) : prefix + "." + keyText(k));
        }
      }
      partial = std::move(next);
    }
    out.insert(out.end(), partial.begin(), partial.end());
  }
  return out;
}

std::string PathTree::description() const {
  std::string out;
  describeTree(*this, out);
  return out;
}

bool operator==(const PathTree& a, const PathTree& b) {
  if (a.node_ == b.node_) return true;
  if (a.kind() != b.kind()) return false;
  switch (a.kind()) {
    case PathTree::Kind::Target:
    case PathTree::Kind::Self: return true;
    case PathTree::Kind::KeySet: return a.keys() == b.keys();
    case PathTree::Kind::Object: {
      if (a.entries().size() != b.entries().size()) return false;
      for (const auto& [keys, sub] : a.entries()) {
        const PathTree* other = b.find(keys);
        if (other == nullptr || !(*other == sub)) return false;
      }
      return true;
    }
  }
  return false;
}

// --- KeyIterator ---

std::optional<std::string_view> KeyIterator::next() {
  for (;;) {
    if (index_ >= static_cast<std::ptrdiff_t>(currentSlice_.size())) return std::nullopt;
    const Key& key = currentSlice_[static_cast<std::size_t>(index_)];
    if (key.kind() != Key::Kind::Range) {
      ++index_;
      return std::string_view(key.stringValue());
    }
    if (!iterator_) {
      BRIVET_PRECONDITION(key.to() >= key.from(), "KeyIterator given a range whose end lies before its start");
      iterator_ = Cursor{key.from(), key.to(), false};
    }
    if (iterator_->done) {
      iterator_.reset();
      ++index_;
      continue;
    }
    const std::int64_t value = iterator_->next;
    if (value == iterator_->last) {
      iterator_->done = true;
    } else {
      ++iterator_->next;
    }
    const auto r = std::to_chars(buffer_, buffer_ + sizeof buffer_, value);
    return std::string_view(buffer_, static_cast<std::size_t>(r.ptr - buffer_));
  }
}

}  // namespace brivet
