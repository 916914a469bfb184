#include "brivet/core/values/internal/node.h"

#include <algorithm>
#include <new>

#include "brivet/platform/precondition.h"

namespace brivet::internal {
namespace {

constexpr unsigned kTrieBits = 5;
constexpr unsigned kTrieLevels = 12;  // 60 of the 64 hash bits; then collision lists

template <class T>
T* allocateNode(std::size_t bytes, NodeKind kind, std::uint16_t depth) {
  void* memory = ::operator new(bytes);
  auto* node = static_cast<T*>(memory);
  new (&node->header) Node{};
  node->header.kind = kind;
  node->header.depth = depth;
  return node;
}
void freeNode(Node* n) { ::operator delete(static_cast<void*>(n)); }

inline std::uint16_t clampDepth(std::size_t d) { return static_cast<std::uint16_t>(d > 0xFFFF ? 0xFFFF : d); }

// --- Shapes ---

ShapeNode* newShape(const Slot* keys, std::uint32_t count, std::uint32_t hash) {
  const std::size_t bytes = offsetof(ShapeNode, keys) + sizeof(Slot) * std::max<std::uint32_t>(count, 1);
  auto* shape = allocateNode<ShapeNode>(bytes, NodeKind::Shape, 0);
  shape->count = count;
  shape->hash = hash;
  for (std::uint32_t i = 0; i < count; ++i) {
    shape->keys[i] = keys[i];
    retain(keys[i]);
  }
  return shape;
}

std::uint32_t shapeHash(const Entry* entries, std::size_t count) {
  std::uint64_t h = 0x9E3779B97F4A7C15ULL ^ count;
  for (std::size_t i = 0; i < count; ++i) {
    const Slot k = entries[i].key;
    const std::uint64_t part = tagOf(k) == kTagShortString ? k : keyHash(stringOf(entries[i].key));
    h = (h ^ part) * 0x9FB21C651E98DF25ULL;
    h ^= h >> 29;
  }
  return static_cast<std::uint32_t>(h ^ (h >> 32));
}

// Records built one after another share their shape: each thread keeps the
// shapes it used last, so a thousand videos converted in a row hold one key list.
class ShapeCache {
 public:
  ~ShapeCache() {
    for (ShapeNode* s : slots_) {
      if (s != nullptr) release(slotOf(&s->header));
    }
  }
  // A retained shape for the keys of `entries`.
  const ShapeNode* shapeFor(const Entry* entries, std::uint32_t count) {
    const std::uint32_t hash = shapeHash(entries, count);
    ShapeNode*& cached = slots_[hash % kSlots];
    if (cached != nullptr && cached->hash == hash && cached->count == count) {
      bool same = true;
      for (std::uint32_t i = 0; i < count && same; ++i) same = keysEqual(cached->keys[i], entries[i].key);
      if (same) {
        cached->header.refs.fetch_add(1, std::memory_order_relaxed);
        return cached;
      }
    }
    std::vector<Slot> keys(count);
    for (std::uint32_t i = 0; i < count; ++i) keys[i] = entries[i].key;
    ShapeNode* shape = newShape(keys.data(), count, hash);
    if (cached != nullptr) release(slotOf(&cached->header));
    cached = shape;
    shape->header.refs.fetch_add(1, std::memory_order_relaxed);
    return shape;
  }

 private:
  static constexpr std::size_t kSlots = 64;
  ShapeNode* slots_[kSlots] = {};
};

const ShapeNode* shapeFor(const Entry* entries, std::uint32_t count) {
  thread_local ShapeCache cache;
  return cache.shapeFor(entries, count);
}

// Builders borrow their entry vectors from a per-thread pool, so building a
// node costs no allocation beyond the node itself.
class EntryPool {
 public:
  std::vector<Entry> take() {
    if (free_.empty()) {
      std::vector<Entry> v;
      v.reserve(16);
      return v;
    }
    std::vector<Entry> v = std::move(free_.back());
    free_.pop_back();
    return v;
  }
  void give(std::vector<Entry>&& v) {
    if (v.capacity() > 4096 || free_.size() >= 64) return;
    v.clear();
    free_.push_back(std::move(v));
  }

 private:
  std::vector<std::vector<Entry>> free_;
};
EntryPool& entryPool() {
  thread_local EntryPool pool;
  return pool;
}

// Texts waiting to be copied into the object that will hold them: chunks that
// never move, used as a stack.
class ScratchArea {
 public:
  std::size_t mark() const { return chunk_ * kChunk + offset_; }
  void reset(std::size_t mark) {
    chunk_ = mark / kChunk;
    offset_ = mark % kChunk;
  }
  unsigned char* store(std::string_view text) {
    const std::size_t size = (text.size() + 1 + 7) & ~std::size_t{7};
    if (offset_ + size > kChunk) {
      ++chunk_;
      offset_ = 0;
    }
    while (chunks_.size() <= chunk_) chunks_.push_back(std::make_unique<std::uint64_t[]>(kChunk / 8));
    auto* p = reinterpret_cast<unsigned char*>(chunks_[chunk_].get()) + offset_;
    p[0] = static_cast<unsigned char>(text.size());
    std::memcpy(p + 1, text.data(), text.size());
    offset_ += size;
    return p;
  }

 private:
  static constexpr std::size_t kChunk = 64 * 1024;
  std::vector<std::unique_ptr<std::uint64_t[]>> chunks_;
  std::size_t chunk_ = 0;
  std::size_t offset_ = 0;
};
ScratchArea& scratch() {
  thread_local ScratchArea area;
  return area;
}

// --- Small objects ---

// A string value this object can keep in its own allocation: an embedded
// string of another object (still alive while this one is built), or a string
// node nobody else holds.
bool embeddable(Slot v) {
  if (tagOf(v) == kTagEmbedded) return true;
  if (!isPlainNode(v, NodeKind::String)) return false;
  const Node* n = nodeOf(v);
  return n->refs.load(std::memory_order_relaxed) == 1 &&
         reinterpret_cast<const StringNode*>(n)->text().size() <= kMaxEmbeddedString;
}
constexpr std::size_t embeddedSize(std::size_t length) { return (length + 1 + 7) & ~std::size_t{7}; }

// Adopts the values of `entries` (keys are only read; embedded values are
// borrowed and copied in); the shape is retained by the caller.
Slot newSmallObject(const ShapeNode* shape, const Entry* entries) {
  const std::uint32_t n = shape->count;
  const std::size_t base = offsetof(SmallObjectNode, values) + sizeof(Slot) * std::max<std::uint32_t>(n, 1);
  std::size_t tail = 0;
  std::size_t depth = 0;
  for (std::uint32_t i = 0; i < n; ++i) {
    const Slot v = entries[i].value;
    depth = std::max<std::size_t>(depth, depthOf(v));
    if (embeddable(v)) tail += embeddedSize(stringOf(entries[i].value).size());
  }
  auto* node = allocateNode<SmallObjectNode>(base + tail, NodeKind::SmallObject, clampDepth(depth + 1));
  node->shape = shape;
  bool plain = true;
  for (std::uint32_t i = 0; i < n && plain; ++i) plain = isPlain(entries[i].value);
  if (plain) node->header.flags |= kFlagPlain;
  auto* cursor = reinterpret_cast<unsigned char*>(node) + base;
  for (std::uint32_t i = 0; i < n; ++i) {
    const Slot v = entries[i].value;
    if (!embeddable(v)) {
      node->values[i] = v;
      continue;
    }
    const std::string_view text = stringOf(entries[i].value);
    cursor[0] = static_cast<unsigned char>(text.size());
    std::memcpy(cursor + 1, text.data(), text.size());
    node->values[i] = slotOf(reinterpret_cast<const Node*>(cursor), kTagEmbedded);
    cursor += embeddedSize(text.size());
    release(v);  // a string node we held alone; an embedded string owns nothing
  }
  return slotOf(&node->header);
}

// --- Hash tries ---

inline unsigned chunkOf(std::uint64_t hash, unsigned level) {
  return static_cast<unsigned>(hash >> (64 - kTrieBits * (level + 1))) & 31u;
}
inline std::uint32_t entryCount(const TrieNode* t) {
  return t->header.kind == NodeKind::Collision ? t->bitmap : popcount32(t->bitmap);
}

// Owned entries in; each a key/value or (kEmpty, sub-trie).
TrieNode* newTrie(NodeKind kind, std::uint32_t bitmap, const Entry* entries, std::size_t n) {
  const std::size_t bytes = offsetof(TrieNode, entries) + sizeof(Entry) * std::max<std::size_t>(n, 1);
  std::size_t depth = 0;
  for (std::size_t i = 0; i < n; ++i) depth = std::max<std::size_t>(depth, depthOf(entries[i].value));
  auto* t = allocateNode<TrieNode>(bytes, kind, clampDepth(depth));
  bool plain = true;
  for (std::size_t i = 0; i < n && plain; ++i) plain = isPlain(entries[i].value);
  if (plain) t->header.flags |= kFlagPlain;
  t->bitmap = kind == NodeKind::Collision ? static_cast<std::uint32_t>(n) : bitmap;
  t->pad = 0;
  for (std::size_t i = 0; i < n; ++i) t->entries[i] = entries[i];
  return t;
}

TrieNode* newTrie(NodeKind kind, std::uint32_t bitmap, const std::vector<Entry>& entries) {
  return newTrie(kind, bitmap, entries.data(), entries.size());
}

Slot trieFind(const TrieNode* t, const KeyProbe& key, std::uint64_t hash) {
  for (unsigned level = 0;; ++level) {
    if (t->header.kind == NodeKind::Collision) {
      for (std::uint32_t i = 0; i < t->bitmap; ++i) {
        if (key.matches(t->entries[i].key)) return t->entries[i].value;
      }
      return kEmpty;
    }
    const std::uint32_t bit = 1u << chunkOf(hash, level);
    if ((t->bitmap & bit) == 0) return kEmpty;
    const Entry& e = t->entries[popcount32(t->bitmap & (bit - 1))];
    if (e.key == kEmpty) {
      t = reinterpret_cast<const TrieNode*>(nodeOf(e.value));
      continue;
    }
    return key.matches(e.key) ? e.value : kEmpty;
  }
}

}  // namespace

Slot trieLookup(const TrieNode* t, const Slot& key) {
  const std::string_view text = stringOf(key);
  return trieFind(t, KeyProbe(text), keyHash(text));
}

namespace {

void trieForEach(const TrieNode* t, const std::function<void(const Slot&, const Slot&)>& f) {
  const std::uint32_t n = entryCount(t);
  for (std::uint32_t i = 0; i < n; ++i) {
    const Entry& e = t->entries[i];
    if (e.key == kEmpty) {
      trieForEach(reinterpret_cast<const TrieNode*>(nodeOf(e.value)), f);
    } else {
      f(e.key, e.value);
    }
  }
}

struct Change {
  std::uint64_t hash;
  Slot key;            // borrowed
  Slot value;          // borrowed
  std::size_t order;   // position in the input: equal keys apply in this order
  Slot base = kEmpty;  // overlay updates: the key's value in the base (borrowed)
};
using ChangeCombine = std::function<Slot(Slot old, const Change& change)>;
bool byHashThenOrder(const Change& a, const Change& b) {
  return a.hash != b.hash ? a.hash < b.hash : a.order < b.order;
}

// Applies changes[0..n), all of one key, one after another to `old` (borrowed).
// Answers an owned slot (kEmpty: the key is gone).
Slot combineRun(Slot old, const Change* changes, std::size_t n, const ChangeCombine& combine) {
  retain(old);
  Slot current = old;
  for (std::size_t i = 0; i < n; ++i) {
    Slot next = combine(current, changes[i]);
    release(current);
    current = next;
  }
  return ownSlot(current);  // a trie keeps no embedded strings
}

bool sameKeyRun(const Change* b, const Change* e, const Slot* existingKey) {
  for (const Change* c = b + 1; c < e; ++c) {
    if (c->hash != b->hash || !keysEqual(c->key, b->key)) return false;
  }
  return existingKey == nullptr || keysEqual(*existingKey, b->key);
}

TrieNode* trieUpdate(const TrieNode* t, const Change* begin, const Change* end, unsigned level,
                     const ChangeCombine& combine, std::int64_t& delta);

// A trie one level down holding only `e` (retained), for a key that now shares its prefix.
TrieNode* pushDown(const Entry& e, unsigned level) {
  retain(e.key);
  retain(e.value);
  if (level >= kTrieLevels) return newTrie(NodeKind::Collision, 0, {e});
  const std::uint64_t h = keyHash(stringOf(e.key));
  return newTrie(NodeKind::Trie, 1u << chunkOf(h, level), {e});
}

TrieNode* collisionUpdate(const TrieNode* t, const Change* begin, const Change* end, const ChangeCombine& combine,
                          std::int64_t& delta) {
  std::vector<Entry> out;
  bool changed = false;
  if (t != nullptr) {
    for (std::uint32_t i = 0; i < t->bitmap; ++i) {
      Entry e = t->entries[i];
      retain(e.key);
      retain(e.value);
      out.push_back(e);
    }
  }
  for (const Change* c = begin; c < end; ++c) {
    auto it = std::find_if(out.begin(), out.end(), [&](const Entry& e) { return keysEqual(e.key, c->key); });
    const Slot old = it == out.end() ? kEmpty : it->value;
    const Slot combined = combine(old, *c);
    if (combined == old) {
      release(combined);
      continue;
    }
    const Slot next = ownSlot(combined);
    changed = true;
    if (it == out.end()) {
      if (next != kEmpty) {
        retain(c->key);
        out.push_back({c->key, next});
        ++delta;
      }
    } else if (next == kEmpty) {
      release(it->key);
      release(it->value);
      out.erase(it);
      --delta;
    } else {
      release(it->value);
      it->value = next;
    }
  }
  if (!changed) {
    for (Entry& e : out) {
      release(e.key);
      release(e.value);
    }
    if (t != nullptr) retain(slotOf(&t->header));
    return const_cast<TrieNode*>(t);
  }
  if (out.empty()) return nullptr;
  return newTrie(NodeKind::Collision, 0, out);
}

// Changes are sorted by hash (equal keys in their original order). Answers the
// updated trie (owned; `t` itself, retained, when nothing changed; nullptr when empty).
TrieNode* trieUpdate(const TrieNode* t, const Change* begin, const Change* end, unsigned level,
                     const ChangeCombine& combine, std::int64_t& delta) {
  if (level >= kTrieLevels || (t != nullptr && t->header.kind == NodeKind::Collision)) {
    return collisionUpdate(t, begin, end, combine, delta);
  }
  std::vector<Entry> out = entryPool().take();
  struct Give {
    std::vector<Entry>& v;
    ~Give() { entryPool().give(std::move(v)); }
  } give{out};
  std::uint32_t bitmap = 0;
  bool changed = false;
  const Change* c = begin;
  for (unsigned chunk = 0; chunk < 32; ++chunk) {
    const std::uint32_t bit = 1u << chunk;
    const Entry* existing = nullptr;
    if (t != nullptr && (t->bitmap & bit) != 0) existing = &t->entries[popcount32(t->bitmap & (bit - 1))];
    const Change* runEnd = c;
    while (runEnd < end && chunkOf(runEnd->hash, level) == chunk) ++runEnd;
    if (runEnd == c) {
      if (existing != nullptr) {
        retain(existing->key);
        retain(existing->value);
        out.push_back(*existing);
        bitmap |= bit;
      }
      continue;
    }
    Entry result{kEmpty, kEmpty};
    if (existing != nullptr && existing->key == kEmpty) {
      const auto* sub = reinterpret_cast<const TrieNode*>(nodeOf(existing->value));
      TrieNode* updated = trieUpdate(sub, c, runEnd, level + 1, combine, delta);
      if (updated != sub) changed = true;
      if (updated != nullptr) result = {kEmpty, slotOf(&updated->header)};
    } else if (sameKeyRun(c, runEnd, existing != nullptr ? &existing->key : nullptr)) {
      const Slot old = existing != nullptr ? existing->value : kEmpty;
      const Slot next = combineRun(old, c, static_cast<std::size_t>(runEnd - c), combine);
      if (next != old) changed = true;
      if (next != kEmpty) {
        const Slot key = existing != nullptr ? existing->key : c->key;
        retain(key);
        result = {key, next};
      }
      if (existing == nullptr && next != kEmpty) ++delta;
      if (existing != nullptr && next == kEmpty) --delta;
    } else {
      TrieNode* below = existing != nullptr ? pushDown(*existing, level + 1) : nullptr;
      TrieNode* updated = trieUpdate(below, c, runEnd, level + 1, combine, delta);
      if (below != nullptr) release(slotOf(&below->header));
      changed = true;
      if (updated != nullptr) result = {kEmpty, slotOf(&updated->header)};
    }
    // A sub-trie left with a single key/value collapses into this level.
    if (result.key == kEmpty && result.value != kEmpty) {
      auto* sub = reinterpret_cast<TrieNode*>(nodeOf(result.value));
      if (entryCount(sub) == 1 && sub->entries[0].key != kEmpty) {
        Entry only = sub->entries[0];
        retain(only.key);
        retain(only.value);
        release(result.value);
        result = only;
        changed = true;
      }
    }
    if (result.value != kEmpty) {
      out.push_back(result);
      bitmap |= bit;
    }
    c = runEnd;
  }
  if (!changed) {
    for (Entry& e : out) {
      release(e.key);
      release(e.value);
    }
    if (t == nullptr) return nullptr;
    retain(slotOf(&t->header));
    return const_cast<TrieNode*>(t);
  }
  if (out.empty()) return nullptr;
  return newTrie(NodeKind::Trie, bitmap, out);
}

// A trie of distinct keys sorted by hash (borrowed), built bottom-up.
TrieNode* buildTrie(const Change* begin, const Change* end, unsigned level) {
  std::vector<Entry> out;
  if (level >= kTrieLevels) {
    for (const Change* c = begin; c < end; ++c) {
      retain(c->key);
      out.push_back({c->key, copySlot(c->value)});
    }
    return newTrie(NodeKind::Collision, 0, out);
  }
  Entry local[32];
  std::uint32_t n = 0;
  std::uint32_t bitmap = 0;
  for (const Change* c = begin; c < end;) {
    const unsigned chunk = chunkOf(c->hash, level);
    const Change* runEnd = c + 1;
    while (runEnd < end && chunkOf(runEnd->hash, level) == chunk) ++runEnd;
    if (runEnd - c == 1) {
      retain(c->key);
      local[n++] = {c->key, copySlot(c->value)};
    } else {
      local[n++] = {kEmpty, slotOf(&buildTrie(c, runEnd, level + 1)->header)};
    }
    bitmap |= 1u << chunk;
    c = runEnd;
  }
  return newTrie(NodeKind::Trie, bitmap, local, n);
}

// Sorts by hash and keeps, of equal keys, the last.
std::vector<Change> distinctSortedChanges(const std::vector<Entry>& entries) {
  std::vector<Change> changes;
  changes.reserve(entries.size());
  for (const Entry& e : entries) changes.push_back({keyHash(stringOf(e.key)), e.key, e.value, changes.size()});
  std::sort(changes.begin(), changes.end(), byHashThenOrder);
  std::size_t kept = 0;
  for (std::size_t i = 0; i < changes.size(); ++i) {
    bool replacedLater = false;
    for (std::size_t j = i + 1; j < changes.size() && changes[j].hash == changes[i].hash && !replacedLater; ++j) {
      replacedLater = keysEqual(changes[j].key, changes[i].key);
    }
    if (!replacedLater) changes[kept++] = changes[i];
  }
  changes.resize(kept);
  return changes;
}

std::vector<Change> sortedChanges(const std::vector<Entry>& entries) {
  std::vector<Change> changes;
  changes.reserve(entries.size());
  for (const Entry& e : entries) changes.push_back({keyHash(stringOf(e.key)), e.key, e.value, changes.size()});
  std::sort(changes.begin(), changes.end(), byHashThenOrder);
  return changes;
}

Slot newHashObject(TrieNode* root, std::uint64_t count) {
  auto* node = allocateNode<HashObjectNode>(sizeof(HashObjectNode), NodeKind::HashObject,
                                            clampDepth(std::size_t{root->header.depth} + 1));
  node->header.flags = root->header.flags & kFlagPlain;
  node->count = count;
  node->root = root;
  node->overlay = nullptr;
  node->overlayCount = 0;
  return slotOf(&node->header);
}

Slot takeNew(Slot /*old*/, const Change& c) { return copySlot(c.value); }

// An object of `entries` (borrowed, distinct keys) in the representation its size calls for.
Slot objectFromDistinct(const std::vector<Entry>& entries) {
  if (entries.size() <= kMaxSmallObject) {
    const ShapeNode* shape = shapeFor(entries.data(), static_cast<std::uint32_t>(entries.size()));
    for (const Entry& e : entries) retain(e.value);
    return newSmallObject(shape, entries.data());
  }
  std::vector<Change> changes = sortedChanges(entries);
  TrieNode* root = buildTrie(changes.data(), changes.data() + changes.size(), 0);
  return newHashObject(root, changes.size());
}

}  // namespace

// --- Doubles: exponents 2^-126 .. 2^128 (and both zeros) fit in a slot ---

bool encodeDouble(double d, Slot* out) {
  const std::uint64_t bits = std::bit_cast<std::uint64_t>(d);
  const std::uint64_t rotated = std::rotl(bits, 1);  // sign in bit 0, exponent in bits 53..63
  const std::uint64_t exponent = (bits >> 52) & 0x7FF;
  std::uint64_t encoded;
  if ((bits << 1) == 0) {
    encoded = rotated;  // +0 or -0
  } else if (exponent >= 897 && exponent <= 1151) {
    encoded = rotated - (std::uint64_t{896} << 53);
  } else {
    return false;
  }
  *out = (encoded << 3) | kTagDouble;
  return true;
}

double decodeDouble(Slot s) {
  const std::uint64_t encoded = s >> 3;
  const std::uint64_t rotated = (encoded >> 53) == 0 ? encoded : encoded + (std::uint64_t{896} << 53);
  return std::bit_cast<double>(std::rotr(rotated, 1));
}

// --- Scalars ---

Slot makeString(std::string_view text) {
  if (text.size() <= 7) {
    Slot s = kTagShortString | (static_cast<Slot>(text.size()) << 3);
    for (std::size_t i = 0; i < text.size(); ++i)
      s |= static_cast<Slot>(static_cast<unsigned char>(text[i])) << (8 * (i + 1));
    return s;
  }
  if (text.size() < StringNode::kLongLength) {
    auto* node = allocateNode<StringNode>(offsetof(StringNode, bytes) + text.size(), NodeKind::String,
                                          static_cast<std::uint16_t>(text.size() & 0xFFFF));
    node->header.flags = static_cast<std::uint8_t>(text.size() >> 16);
    std::memcpy(node->bytes, text.data(), text.size());
    return slotOf(&node->header);
  }
  const std::uint64_t length = text.size();
  auto* node = allocateNode<StringNode>(offsetof(StringNode, bytes) + sizeof length + text.size(), NodeKind::String, 0);
  node->header.flags = 0xFF;
  std::memcpy(node->bytes, &length, sizeof length);
  std::memcpy(node->bytes + sizeof length, text.data(), text.size());
  return slotOf(&node->header);
}

namespace {
Slot boxNumber(Number::Type type, std::uint64_t payload) {
  auto* node = allocateNode<NumberNode>(sizeof(NumberNode), NodeKind::Number, 0);
  node->header.flags = static_cast<std::uint8_t>(type);
  node->value.u = payload;
  return slotOf(&node->header);
}
}  // namespace

Slot makeSignedNumber(std::int64_t v) {
  if (v >= kMinInt && v <= kMaxInt) return (static_cast<Slot>(v) << 3) | kTagInt;
  return boxNumber(Number::Type::Signed, static_cast<std::uint64_t>(v));
}
Slot makeUnsignedNumber(std::uint64_t v) { return boxNumber(Number::Type::Unsigned, v); }
Slot makeDoubleNumber(double d) {
  Slot s;
  if (encodeDouble(d, &s)) return s;
  return boxNumber(Number::Type::Double, std::bit_cast<std::uint64_t>(d));
}
Slot makeNumber(const Number& n) {
  switch (n.type()) {
    case Number::Type::Boolean: return n.boolValue() ? kTrue : kFalse;
    case Number::Type::Signed: return makeSignedNumber(n.int64Value());
    case Number::Type::Unsigned: return makeUnsignedNumber(n.uint64Value());
    case Number::Type::Double: return makeDoubleNumber(n.doubleValue());
  }
  return kNull;
}

Number numberOf(Slot s) {
  if (isBooleanSlot(s)) return Number(s == kTrue);
  if (tagOf(s) == kTagInt) return Number(intOf(s));
  if (tagOf(s) == kTagDouble) return Number(decodeDouble(s));
  const auto* n = reinterpret_cast<const NumberNode*>(nodeOf(s));
  switch (static_cast<Number::Type>(n->header.flags)) {
    case Number::Type::Unsigned: return Number(n->value.u);
    case Number::Type::Double: return Number(n->value.d);
    default: return Number(n->value.i);
  }
}

Object numberObjectOf(Slot s) {
  if (isBooleanSlot(s)) return Object::boolean(s == kTrue);
  if (tagOf(s) == kTagInt) return Object::integer(intOf(s));
  if (tagOf(s) == kTagDouble) return Object::real(decodeDouble(s));
  const auto* n = reinterpret_cast<const NumberNode*>(nodeOf(s));
  switch (static_cast<Number::Type>(n->header.flags)) {
    case Number::Type::Unsigned: return Object::unsignedInteger(n->value.u);
    case Number::Type::Double: return Object::real(n->value.d);
    default: return Object::integer(n->value.i);
  }
}

bool isPlain(Slot s) {
  switch (tagOf(s)) {
    case kTagRef: return false;
    case kTagConstant: return s != kUndefined;
    case kTagAtom:
    case kTagPointer: {
      if (s == kEmpty) return false;
      const Node* n = nodeOf(s);
      switch (n->kind) {
        case NodeKind::String:
        case NodeKind::Number: return true;
        case NodeKind::Leaf: return false;
        default: return (n->flags & kFlagPlain) != 0;
      }
    }
    default: return true;
  }
}

Slot ownSlot(Slot s) { return tagOf(s) == kTagEmbedded ? makeString(stringOf(s)) : s; }

Slot copySlot(Slot s) {
  if (tagOf(s) == kTagEmbedded) return makeString(stringOf(s));
  retain(s);
  return s;
}

KeyProbe::KeyProbe(std::string_view key) : text(key), inlineSlot(key.size() <= 7 ? makeString(key) : kEmpty) {}

std::uint64_t keyHash(std::string_view key) { return String::hashText(key); }

// --- Objects ---

std::size_t objectSize(Slot object) {
  const Node* n = nodeOf(object);
  if (n->kind == NodeKind::SmallObject) return reinterpret_cast<const SmallObjectNode*>(n)->shape->count;
  // Every entry is in memory, so the count (64 bits wide in the node) always fits a size.
  return static_cast<std::size_t>(reinterpret_cast<const HashObjectNode*>(n)->count);
}

Slot objectFind(Slot object, const KeyProbe& key) {
  const Node* n = nodeOf(object);
  if (n->kind == NodeKind::SmallObject) {
    const auto* o = reinterpret_cast<const SmallObjectNode*>(n);
    const ShapeNode* shape = o->shape;
    for (std::uint32_t i = 0; i < shape->count; ++i) {
      if (key.matches(shape->keys[i])) return o->values[i];
    }
    return kEmpty;
  }
  const auto* h = reinterpret_cast<const HashObjectNode*>(n);
  const std::uint64_t hash = keyHash(key.text);
  if (h->overlay != nullptr) {
    const Slot v = trieFind(h->overlay, key, hash);
    if (v != kEmpty) return v == kTombstone ? kEmpty : v;
  }
  return trieFind(h->root, key, hash);
}

void objectForEach(Slot object, const std::function<void(const Slot&, const Slot&)>& f) { forEachEntry(object, f); }

std::vector<Entry> objectEntries(Slot object) {
  std::vector<Entry> entries;
  entries.reserve(objectSize(object));
  objectForEach(object, [&](const Slot& k, const Slot& v) { entries.push_back({k, v}); });
  return entries;
}

ObjectBuilder::ObjectBuilder() : entries_(entryPool().take()), scratchMark_(scratch().mark()) {}

ObjectBuilder::~ObjectBuilder() {
  for (Entry& e : entries_) {
    release(e.key);
    release(e.value);
  }
  entryPool().give(std::move(entries_));
  scratch().reset(scratchMark_);
}

Slot ObjectBuilder::text(std::string_view value) {
  if (value.size() <= 7 || value.size() > kMaxEmbeddedString) return makeString(value);
  return scratchText(value);
}

std::size_t scratchMark() { return scratch().mark(); }
void scratchReset(std::size_t mark) { scratch().reset(mark); }
Slot scratchText(std::string_view text) {
  return slotOf(reinterpret_cast<const Node*>(scratch().store(text)), kTagEmbedded);
}

Slot ObjectBuilder::build() {
  std::size_t depth = 0;
  for (const Entry& e : entries_) depth = std::max<std::size_t>(depth, depthOf(e.value));
  if (depth + 1 > kMaxDepth) return kNull;
  Slot result;
  if (entries_.size() <= kMaxSmallObject) {
    // Later entries replace earlier ones with an equal key, in place.
    std::size_t kept = 0;
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      std::size_t j = 0;
      while (j < kept && !keysEqual(entries_[j].key, entries_[i].key)) ++j;
      if (j < kept) {
        release(entries_[j].value);
        entries_[j].value = entries_[i].value;
        release(entries_[i].key);
      } else {
        entries_[kept++] = entries_[i];
      }
    }
    entries_.resize(kept);
    const ShapeNode* shape = shapeFor(entries_.data(), static_cast<std::uint32_t>(kept));
    result = newSmallObject(shape, entries_.data());
    for (Entry& e : entries_) release(e.key);
  } else {
    const std::vector<Change> changes = distinctSortedChanges(entries_);
    if (changes.size() <= kMaxSmallObject) {
      std::vector<Entry> distinct;
      for (const Change& c : changes) distinct.push_back({c.key, c.value});
      result = objectFromDistinct(distinct);
    } else {
      result = newHashObject(buildTrie(changes.data(), changes.data() + changes.size(), 0), changes.size());
    }
    for (Entry& e : entries_) {
      release(e.key);
      release(e.value);
    }
  }
  entries_.clear();
  return result;
}

namespace {

constexpr std::uint64_t kOverlayMinimum = 4096;

Slot smallOrHashObject(TrieNode* root, std::uint64_t count) {
  if (root == nullptr) return emptyObject();
  if (count > kMaxSmallObject) return newHashObject(root, count);
  std::vector<Entry> distinct;
  trieForEach(root, [&](const Slot& k, const Slot& v) { distinct.push_back({k, v}); });
  const Slot result = objectFromDistinct(distinct);
  release(slotOf(&root->header));
  return result;
}

// An update of a large object: the changes go to its overlay and the base is
// only read. An overlay larger than an eighth of the object is folded into a
// new base, which copies each base trie node it touches once.
Slot overlayUpdate(Slot object, const HashObjectNode* h, const std::vector<Entry>& changes, const Combine& combine) {
  std::vector<Change> sorted = sortedChanges(changes);
  for (Change& c : sorted) c.base = trieFind(h->root, KeyProbe(stringOf(c.key)), c.hash);
  std::int64_t countDelta = 0;
  const ChangeCombine inOverlay = [&](Slot current, const Change& c) -> Slot {
    // `current` is the overlay's slot for the key: kEmpty when the base decides.
    const Slot old = current == kEmpty ? c.base : (current == kTombstone ? kEmpty : current);
    const Slot next = ownSlot(combine(old, c.value));
    if (next == old) {
      release(next);
      retain(current);
      return current;
    }
    countDelta += (next != kEmpty ? 1 : 0) - (old != kEmpty ? 1 : 0);
    if (next == kEmpty) return c.base != kEmpty ? kTombstone : kEmpty;
    return next;
  };
  std::int64_t overlayDelta = 0;
  TrieNode* overlay = trieUpdate(h->overlay, sorted.data(), sorted.data() + sorted.size(), 0, inOverlay, overlayDelta);
  if (overlay == h->overlay) {
    if (overlay != nullptr) release(slotOf(&overlay->header));
    retain(object);
    return object;
  }
  const std::uint64_t count = static_cast<std::uint64_t>(static_cast<std::int64_t>(h->count) + countDelta);
  const std::uint64_t overlayCount =
      static_cast<std::uint64_t>(static_cast<std::int64_t>(h->overlayCount) + overlayDelta);
  if (overlay != nullptr && std::size_t{overlay->header.depth} + 1 > kMaxDepth) {
    release(slotOf(&overlay->header));
    retain(object);
    return object;
  }
  if (overlay == nullptr) {
    retain(slotOf(&h->root->header));
    return smallOrHashObject(h->root, count);
  }
  if (count > kMaxSmallObject && overlayCount <= count / 8) {
    auto* node = allocateNode<HashObjectNode>(
        sizeof(HashObjectNode), NodeKind::HashObject,
        clampDepth(std::size_t{std::max(h->root->header.depth, overlay->header.depth)} + 1));
    node->count = count;
    node->root = h->root;
    retain(slotOf(&h->root->header));
    node->overlay = overlay;
    node->overlayCount = overlayCount;
    node->header.flags = h->root->header.flags & overlay->header.flags & kFlagPlain;
    return slotOf(&node->header);
  }
  std::vector<Entry> folded;
  trieForEach(overlay, [&](const Slot& k, const Slot& v) { folded.push_back({k, v}); });
  std::vector<Change> fold = sortedChanges(folded);
  std::int64_t baseDelta = 0;
  TrieNode* base = trieUpdate(
      h->root, fold.data(), fold.data() + fold.size(), 0,
      [](Slot, const Change& c) { return c.value == kTombstone ? kEmpty : copySlot(c.value); }, baseDelta);
  release(slotOf(&overlay->header));
  return smallOrHashObject(base, count);
}

}  // namespace

Slot objectUpdate(Slot object, const std::vector<Entry>& changes, const Combine& combine) {
  const Node* n = nodeOf(object);
  if (changes.empty()) {
    retain(object);
    return object;
  }
  const ChangeCombine byValue = [&combine](Slot old, const Change& c) { return combine(old, c.value); };
  if (n->kind == NodeKind::HashObject) {
    const auto* h = reinterpret_cast<const HashObjectNode*>(n);
    if (h->overlay != nullptr || h->count >= kOverlayMinimum) return overlayUpdate(object, h, changes, combine);
    std::vector<Change> sorted = sortedChanges(changes);
    std::int64_t delta = 0;
    TrieNode* root = trieUpdate(h->root, sorted.data(), sorted.data() + sorted.size(), 0, byValue, delta);
    if (root == h->root) {
      release(slotOf(&root->header));
      retain(object);
      return object;
    }
    const std::uint64_t count = static_cast<std::uint64_t>(static_cast<std::int64_t>(h->count) + delta);
    if (root == nullptr) return emptyObject();
    if (count <= kMaxSmallObject) {
      std::vector<Entry> distinct;
      trieForEach(root, [&](const Slot& k, const Slot& v) { distinct.push_back({k, v}); });
      const Slot result = objectFromDistinct(distinct);
      release(slotOf(&root->header));
      return result;
    }
    if (std::size_t{root->header.depth} + 1 > kMaxDepth) {
      release(slotOf(&root->header));
      retain(object);
      return object;
    }
    return newHashObject(root, count);
  }
  // A small object: work on its entries, then pick the representation.
  const auto* o = reinterpret_cast<const SmallObjectNode*>(n);
  std::vector<Entry> out;  // owned values, borrowed keys (from the shape or the changes)
  out.reserve(o->shape->count + changes.size());
  for (std::uint32_t i = 0; i < o->shape->count; ++i) {
    retain(o->values[i]);
    out.push_back({o->shape->keys[i], o->values[i]});
  }
  bool changed = false;
  bool keysChanged = false;
  const bool large = o->shape->count + changes.size() > 2 * kMaxSmallObject;
  std::vector<Change> sorted;
  if (large) {
    // Many changes: hand the work to a trie and come back if the result is small.
    std::vector<Change> base = sortedChanges(out);
    std::int64_t delta = 0;
    TrieNode* root = trieUpdate(nullptr, base.data(), base.data() + base.size(), 0, takeNew, delta);
    for (Entry& e : out) release(e.value);
    sorted = sortedChanges(changes);
    std::int64_t delta2 = 0;
    TrieNode* updated = trieUpdate(root, sorted.data(), sorted.data() + sorted.size(), 0, byValue, delta2);
    release(slotOf(&root->header));
    if (updated == root) {
      release(slotOf(&updated->header));
      retain(object);
      return object;
    }
    if (updated == nullptr) return emptyObject();
    const std::uint64_t count = static_cast<std::uint64_t>(delta + delta2);
    if (count <= kMaxSmallObject) {
      std::vector<Entry> distinct;
      trieForEach(updated, [&](const Slot& k, const Slot& v) { distinct.push_back({k, v}); });
      const Slot result = objectFromDistinct(distinct);
      release(slotOf(&updated->header));
      return result;
    }
    if (std::size_t{updated->header.depth} + 1 > kMaxDepth) {
      release(slotOf(&updated->header));
      retain(object);
      return object;
    }
    return newHashObject(updated, count);
  }
  for (const Entry& c : changes) {
    auto it = std::find_if(out.begin(), out.end(), [&](const Entry& e) { return keysEqual(e.key, c.key); });
    const Slot old = it == out.end() ? kEmpty : it->value;
    const Slot next = combine(old, c.value);
    if (next == old) {
      release(next);
      continue;
    }
    changed = true;
    if (it == out.end()) {
      if (next != kEmpty) {
        out.push_back({c.key, next});
        keysChanged = true;
      }
    } else if (next == kEmpty) {
      release(it->value);
      out.erase(it);
      keysChanged = true;
    } else {
      release(it->value);
      it->value = next;
    }
  }
  if (!changed) {
    for (Entry& e : out) release(e.value);
    retain(object);
    return object;
  }
  std::size_t depth = 0;
  for (const Entry& e : out) depth = std::max<std::size_t>(depth, depthOf(e.value));
  if (depth + 1 > kMaxDepth) {
    for (Entry& e : out) release(e.value);
    retain(object);
    return object;
  }
  if (!keysChanged) {
    retain(slotOf(&o->shape->header));
    return newSmallObject(o->shape, out.data());
  }
  if (out.size() <= kMaxSmallObject) {
    const ShapeNode* shape = shapeFor(out.data(), static_cast<std::uint32_t>(out.size()));
    return newSmallObject(shape, out.data());
  }
  const Slot result = objectFromDistinct(out);
  for (Entry& e : out) release(e.value);
  return result;
}

// --- Arrays ---

Slot buildArray(std::vector<Slot>&& ownedItems) {
  const Slot result = buildArray(ownedItems.data(), ownedItems.size());
  ownedItems.clear();
  return result;
}

Slot buildArray(Slot* ownedItems, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) {
    if (tagOf(ownedItems[i]) == kTagEmbedded) ownedItems[i] = copySlot(ownedItems[i]);  // arrays keep none
  }
  std::size_t depth = 0;
  for (std::size_t i = 0; i < n; ++i) depth = std::max<std::size_t>(depth, depthOf(ownedItems[i]));
  if (depth + 1 > kMaxDepth || n > UINT32_MAX) {
    for (std::size_t i = 0; i < n; ++i) release(ownedItems[i]);
    return kNull;
  }
  const std::size_t bytes = offsetof(ArrayNode, items) + sizeof(Slot) * std::max<std::size_t>(n, 1);
  auto* node = allocateNode<ArrayNode>(bytes, NodeKind::Array, clampDepth(depth + 1));
  bool plain = true;
  for (std::size_t i = 0; i < n && plain; ++i) plain = isPlain(ownedItems[i]);
  if (plain) node->header.flags |= kFlagPlain;
  node->count = static_cast<std::uint32_t>(n);
  node->pad = 0;
  for (std::size_t i = 0; i < n; ++i) node->items[i] = ownedItems[i];
  return slotOf(&node->header);
}

// --- Leaves ---

Slot makeLeaf(LeafKind kind, Slot ownedValue, const Metadata& m) {
  if (tagOf(ownedValue) == kTagEmbedded) ownedValue = copySlot(ownedValue);
  // A leaf nests one level deeper than its value in the wire form ({"$type": ..., "value": ...}).
  const std::size_t depth = std::size_t{depthOf(ownedValue)} + 1;
  if (depth > kMaxDepth) {
    release(ownedValue);
    return kNull;
  }
  if (m.present == 0 && kind != LeafKind::Error && tagOf(ownedValue) == kTagPointer && ownedValue != kEmpty) {
    if (kind == LeafKind::Atom) return ownedValue | kTagAtom;
    if (isArraySlot(ownedValue)) return ownedValue | kTagRef;
  }
  const int fields = static_cast<int>(popcount32(m.present));
  const std::size_t bytes = offsetof(LeafNode, fields) + sizeof(std::int64_t) * static_cast<std::size_t>(std::max(fields, 1));
  auto* leaf = allocateNode<LeafNode>(bytes, NodeKind::Leaf, clampDepth(depth));
  leaf->leafKind = kind;
  leaf->present = m.present;
  leaf->expiresKind = m.expiresKind;
  leaf->refreshKind = m.refreshKind;
  leaf->pad = 0;
  leaf->value = ownedValue;
  int i = 0;
  if (m.present & (1u << kMetaExpires)) leaf->fields[i++] = std::bit_cast<std::int64_t>(m.expires);
  if (m.present & (1u << kMetaRefresh)) leaf->fields[i++] = std::bit_cast<std::int64_t>(m.refresh);
  if (m.present & (1u << kMetaSize)) {
    retain(m.size);
    leaf->fields[i++] = static_cast<std::int64_t>(m.size);
  }
  if (m.present & (1u << kMetaTimestamp)) leaf->fields[i++] = std::bit_cast<std::int64_t>(m.timestamp);
  return slotOf(&leaf->header);
}

Metadata metadataOf(const LeafNode* leaf) {
  Metadata m;
  m.present = leaf->present;
  m.expiresKind = leaf->expiresKind;
  m.refreshKind = leaf->refreshKind;
  if (leaf->has(kMetaExpires)) m.expires = std::bit_cast<double>(leaf->field(kMetaExpires));
  if (leaf->has(kMetaRefresh)) m.refresh = std::bit_cast<double>(leaf->field(kMetaRefresh));
  if (leaf->has(kMetaSize)) m.size = static_cast<Slot>(leaf->field(kMetaSize));
  if (leaf->has(kMetaTimestamp)) m.timestamp = std::bit_cast<double>(leaf->field(kMetaTimestamp));
  return m;
}

// --- Destruction ---

void destroyNode(Node* n) {
  switch (n->kind) {
    case NodeKind::String:
    case NodeKind::Number: break;
    case NodeKind::Shape: {
      auto* s = reinterpret_cast<ShapeNode*>(n);
      for (std::uint32_t i = 0; i < s->count; ++i) release(s->keys[i]);
      break;
    }
    case NodeKind::SmallObject: {
      auto* o = reinterpret_cast<SmallObjectNode*>(n);
      for (std::uint32_t i = 0; i < o->shape->count; ++i) release(o->values[i]);
      release(slotOf(&o->shape->header));
      break;
    }
    case NodeKind::HashObject: {
      auto* h = reinterpret_cast<HashObjectNode*>(n);
      release(slotOf(&h->root->header));
      if (h->overlay != nullptr) release(slotOf(&h->overlay->header));
      break;
    }
    case NodeKind::Trie:
    case NodeKind::Collision: {
      auto* t = reinterpret_cast<TrieNode*>(n);
      const std::uint32_t count = entryCount(t);
      for (std::uint32_t i = 0; i < count; ++i) {
        release(t->entries[i].key);
        release(t->entries[i].value);
      }
      break;
    }
    case NodeKind::Array: {
      auto* a = reinterpret_cast<ArrayNode*>(n);
      for (std::uint32_t i = 0; i < a->count; ++i) release(a->items[i]);
      break;
    }
    case NodeKind::Leaf: {
      auto* l = reinterpret_cast<LeafNode*>(n);
      release(l->value);
      if (l->has(kMetaSize)) release(static_cast<Slot>(l->field(kMetaSize)));
      break;
    }
  }
  freeNode(n);
}

// --- Equality ---

namespace {

enum class ValueClass { String, Number, Boolean, Null, Object, Array, Other };

ValueClass classify(Slot s) {
  switch (tagOf(s)) {
    case kTagInt:
    case kTagDouble: return ValueClass::Number;
    case kTagShortString:
    case kTagEmbedded: return ValueClass::String;
    case kTagConstant:
      if (s == kNull) return ValueClass::Null;
      return isBooleanSlot(s) ? ValueClass::Boolean : ValueClass::Other;
    case kTagPointer:
      if (s == kEmpty) return ValueClass::Other;
      switch (nodeOf(s)->kind) {
        case NodeKind::String: return ValueClass::String;
        case NodeKind::Number: return ValueClass::Number;
        case NodeKind::SmallObject:
        case NodeKind::HashObject: return ValueClass::Object;
        case NodeKind::Array: return ValueClass::Array;
        default: return ValueClass::Other;
      }
    default: return ValueClass::Other;
  }
}

using SlotEqual = bool (*)(Slot, Slot);

// 1: equal, 0: different, -1: the tries are shaped differently (compare by lookup).
int trieEqual(const TrieNode* a, const TrieNode* b, SlotEqual eq) {
  if (a == b) return 1;
  if (a->header.kind != b->header.kind || a->bitmap != b->bitmap) return -1;
  const std::uint32_t n = entryCount(a);
  if (a->header.kind == NodeKind::Collision) return -1;
  for (std::uint32_t i = 0; i < n; ++i) {
    const Entry& x = a->entries[i];
    const Entry& y = b->entries[i];
    if ((x.key == kEmpty) != (y.key == kEmpty)) return -1;
    if (x.key == kEmpty) {
      const int sub = trieEqual(reinterpret_cast<const TrieNode*>(nodeOf(x.value)),
                                reinterpret_cast<const TrieNode*>(nodeOf(y.value)), eq);
      if (sub != 1) return sub;
    } else {
      if (!keysEqual(x.key, y.key)) return -1;
      if (!eq(x.value, y.value)) return 0;
    }
  }
  return 1;
}

bool objectsEqual(Slot a, Slot b, SlotEqual eq) {
  if (objectSize(a) != objectSize(b)) return false;
  const Node* na = nodeOf(a);
  const Node* nb = nodeOf(b);
  if (na->kind == NodeKind::SmallObject && nb->kind == NodeKind::SmallObject) {
    const auto* x = reinterpret_cast<const SmallObjectNode*>(na);
    const auto* y = reinterpret_cast<const SmallObjectNode*>(nb);
    bool sameKeys = x->shape == y->shape;
    if (!sameKeys && x->shape->hash == y->shape->hash) {
      sameKeys = true;
      for (std::uint32_t i = 0; i < x->shape->count && sameKeys; ++i) {
        sameKeys = keysEqual(x->shape->keys[i], y->shape->keys[i]);
      }
    }
    if (sameKeys) {
      for (std::uint32_t i = 0; i < x->shape->count; ++i) {
        if (!eq(x->values[i], y->values[i])) return false;
      }
      return true;
    }
  } else if (na->kind == NodeKind::HashObject && nb->kind == NodeKind::HashObject) {
    const auto* x = reinterpret_cast<const HashObjectNode*>(na);
    const auto* y = reinterpret_cast<const HashObjectNode*>(nb);
    if (x->overlay == nullptr && y->overlay == nullptr) {
      const int r = trieEqual(x->root, y->root, eq);
      if (r >= 0) return r == 1;
    } else if (x->root == y->root) {
      // Two versions of one base: only keys in an overlay can differ.
      bool equal = true;
      auto check = [&](const Slot& k, const Slot&) {
        if (!equal) return;
        const KeyProbe probe(stringOf(k));
        const Slot va = objectFind(a, probe);
        const Slot vb = objectFind(b, probe);
        equal = va == kEmpty ? vb == kEmpty : (vb != kEmpty && eq(va, vb));
      };
      if (x->overlay != nullptr) forEachTrieEntry(x->overlay, check);
      if (y->overlay != nullptr) forEachTrieEntry(y->overlay, check);
      return equal;
    }
  }
  bool equal = true;
  objectForEach(a, [&](const Slot& k, const Slot& v) {
    if (!equal) return;
    const Slot other = objectFind(b, KeyProbe(stringOf(k)));
    equal = other != kEmpty && eq(v, other);
  });
  return equal;
}

bool arraysEqual(Slot a, Slot b, SlotEqual eq) {
  const ArrayNode* x = arrayOf(a);
  const ArrayNode* y = arrayOf(b);
  if (x->count != y->count) return false;
  for (std::uint32_t i = 0; i < x->count; ++i) {
    if (!eq(x->items[i], y->items[i])) return false;
  }
  return true;
}

bool scalarsEqual(Slot a, Slot b, ValueClass c) {
  switch (c) {
    case ValueClass::String: return stringOf(a) == stringOf(b);
    case ValueClass::Number: return numberOf(a).isEqual(numberOf(b));
    default: return a == b;
  }
}

// The parts of a wrapped leaf slot, whichever way it is stored.
struct LeafParts {
  LeafKind kind;
  Slot value;
  Metadata metadata;
};
bool leafParts(Slot s, LeafParts* out) {
  if (tagOf(s) == kTagAtom) {
    *out = {LeafKind::Atom, s & ~Slot{7}, {}};
    return true;
  }
  if (tagOf(s) == kTagRef) {
    *out = {LeafKind::Ref, s & ~Slot{7}, {}};
    return true;
  }
  if (isPlainNode(s, NodeKind::Leaf)) {
    const LeafNode* l = leafOf(s);
    *out = {l->leafKind, l->value, metadataOf(l)};
    return true;
  }
  return false;
}

bool metadataEqual(const Metadata& a, const Metadata& b) {
  if (a.present != b.present) return false;
  if ((a.present & (1u << kMetaExpires)) &&
      (a.expiresKind != b.expiresKind || (a.expiresKind == MetaDateKind::Date && a.expires != b.expires))) {
    return false;
  }
  if ((a.present & (1u << kMetaRefresh)) &&
      (a.refreshKind != b.refreshKind || (a.refreshKind == MetaDateKind::Date && a.refresh != b.refresh))) {
    return false;
  }
  if ((a.present & (1u << kMetaSize)) && !numberOf(a.size).isEqual(numberOf(b.size))) return false;
  if ((a.present & (1u << kMetaTimestamp)) && a.timestamp != b.timestamp) return false;
  return true;
}

}  // namespace

bool valueEqual(Slot a, Slot b) {
  a = valueView(a);
  b = valueView(b);
  if (a == b) return true;
  const ValueClass c = classify(a);
  if (c != classify(b)) return false;
  switch (c) {
    case ValueClass::Object: return objectsEqual(a, b, &valueEqual);
    case ValueClass::Array: return arraysEqual(a, b, &valueEqual);
    default: return scalarsEqual(a, b, c);
  }
}

bool graphEqual(Slot a, Slot b) {
  if (a == b) return true;
  LeafParts x{};  // read only when both are wrapped; initialised so optimised builds can see that
  LeafParts y{};
  const bool wrappedA = leafParts(a, &x);
  const bool wrappedB = leafParts(b, &y);
  if (wrappedA || wrappedB) {
    if (wrappedA != wrappedB || x.kind != y.kind) return false;
    return metadataEqual(x.metadata, y.metadata) && valueEqual(x.value, y.value);
  }
  if (a == kUndefined || b == kUndefined) return false;
  const ValueClass c = classify(a);
  if (c != classify(b)) return false;
  switch (c) {
    case ValueClass::Object: return objectsEqual(a, b, &graphEqual);
    case ValueClass::Array: return arraysEqual(a, b, &graphEqual);
    default: return scalarsEqual(a, b, c);
  }
}

}  // namespace brivet::internal
