// The storage behind JSONValue and JSONGraph: immutable, reference-counted
// nodes addressed by 8-byte tagged slots.
//
// A slot is either an immediate (an integer of up to 61 bits, a double whose
// exponent lies in a common range, a string of up to 7 bytes, null, a boolean,
// the undefined leaf) or a pointer to a node, tagged with how the node is
// wrapped (plain, an atom without metadata, a reference without metadata).
// Nodes are never changed after they are built; a slot that points to a node
// owns one reference to it. Copying a value is copying a slot (and one atomic
// increment); two values are the same node exactly when their slots are equal.
//
// Objects of up to `kMaxSmallObject` keys store their values in one array next
// to a shared `Shape` (the key list): objects built from the same kind of
// record share one shape, so a node holds its values and no keys. Their
// string values of up to 255 bytes are stored in the same allocation, after
// the values; such an embedded slot points into its object and owns nothing,
// so it is copied (`copySlot`) wherever it leaves the object, and builders
// embed it again when it moves into another small object. Larger
// objects are persistent hash tries: an update copies only the trie nodes on the
// paths it changes and keeps every untouched subtree shared.
//
// Every node records its nesting depth (the depth of its JSON text form);
// builders never make one deeper than `kMaxDepth`, so the recursive algorithms
// over nodes are bounded.
//
// Thread safety: nodes are immutable and their counts atomic, so slots may be
// read and copied from any thread; a given slot variable is not synchronised.
#pragma once

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "brivet/platform/object.h"

namespace brivet::internal {

static_assert(std::endian::native == std::endian::little, "short strings are read in place from little-endian slots");

using Slot = std::uint64_t;

inline constexpr std::size_t kMaxDepth = 512;  // the JSON text nesting limit
inline constexpr std::uint32_t kMaxSmallObject = 16;

enum Tag : unsigned {
  kTagPointer = 0,      // a plain node (string, number, object, array, leaf)
  kTagInt = 1,          // a signed integer in the upper 61 bits
  kTagDouble = 2,       // a double with a narrowed exponent
  kTagShortString = 3,  // up to 7 bytes in place, length in bits 3..5
  kTagConstant = 4,     // null, false, true, undefined
  kTagAtom = 5,         // an atom without metadata around a pointer value
  kTagRef = 6,          // a reference without metadata, pointing to its path (an array of strings)
  kTagEmbedded = 7,     // a short string stored inside the small object that holds it (not owned)
};

inline constexpr Slot kEmpty = 0;  // no value
inline constexpr Slot kNull = (0u << 3) | kTagConstant;
inline constexpr Slot kFalse = (1u << 3) | kTagConstant;
inline constexpr Slot kTrue = (2u << 3) | kTagConstant;
inline constexpr Slot kUndefined = (3u << 3) | kTagConstant;

enum class NodeKind : std::uint8_t { String, Number, SmallObject, HashObject, Array, Leaf, Shape, Trie, Collision };

struct Node {
  std::atomic<std::uint32_t> refs{1};
  NodeKind kind;
  std::uint8_t flags = 0;
  std::uint16_t depth = 0;
};
static_assert(sizeof(Node) == 8);

// Bit counts on the hot paths: the instruction where the target has one (a
// baseline x86-64 build would call a library routine instead), else SWAR.
inline unsigned popcount32(std::uint32_t x) {
#if defined(__POPCNT__) || defined(__aarch64__) || defined(__ARM_NEON)
  return static_cast<unsigned>(__builtin_popcount(x));
#else
  x = x - ((x >> 1) & 0x55555555u);
  x = (x & 0x33333333u) + ((x >> 2) & 0x33333333u);
  return (((x + (x >> 4)) & 0x0F0F0F0Fu) * 0x01010101u) >> 24;
#endif
}

inline unsigned tagOf(Slot s) { return static_cast<unsigned>(s & 7u); }
inline bool holdsNode(Slot s) {
  const unsigned t = tagOf(s);
  return s != kEmpty && (t == kTagPointer || t == kTagAtom || t == kTagRef);
}
inline Node* nodeOf(Slot s) { return reinterpret_cast<Node*>(static_cast<std::uintptr_t>(s & ~Slot{7})); }
inline Slot slotOf(const Node* n, unsigned tag = kTagPointer) {
  return static_cast<Slot>(reinterpret_cast<std::uintptr_t>(n)) | tag;
}
inline bool isPlainNode(Slot s, NodeKind kind) {
  return s != kEmpty && tagOf(s) == kTagPointer && nodeOf(s)->kind == kind;
}

void destroyNode(Node* n);
inline void retain(Slot s) {
  if (holdsNode(s)) nodeOf(s)->refs.fetch_add(1, std::memory_order_relaxed);
}
inline void release(Slot s) {
  if (holdsNode(s)) {
    Node* n = nodeOf(s);
    if (n->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) destroyNode(n);
  }
}
// A container whose every value reads as plain JSON (no reference, error,
// undefined, or leaf with metadata below it; metadata-free atoms read as their
// value) carries this flag: a read that wants such a node as a JSON value can
// share it instead of copying.
inline constexpr std::uint8_t kFlagPlain = 1;
// In a JSON value context a metadata-free atom reads as the value it wraps.
inline Slot valueView(Slot s) { return tagOf(s) == kTagAtom ? (s & ~Slot{7}) : s; }
bool isPlain(Slot s);

inline std::uint16_t depthOf(Slot s) {
  return holdsNode(s) && nodeOf(s)->kind != NodeKind::String ? nodeOf(s)->depth : 0;
}

// An owning slot: copying retains, destruction releases.
class SlotRef {
 public:
  SlotRef() = default;
  explicit SlotRef(Slot s) : s_(s) {}  // adopts the reference `s` carries
  static SlotRef retained(Slot s) {
    retain(s);
    return SlotRef(s);
  }
  SlotRef(const SlotRef& o) : s_(o.s_) { retain(s_); }
  SlotRef(SlotRef&& o) noexcept : s_(std::exchange(o.s_, kEmpty)) {}
  SlotRef& operator=(const SlotRef& o) {
    retain(o.s_);
    release(s_);
    s_ = o.s_;
    return *this;
  }
  SlotRef& operator=(SlotRef&& o) noexcept {
    if (this != &o) {
      release(s_);
      s_ = std::exchange(o.s_, kEmpty);
    }
    return *this;
  }
  ~SlotRef() { release(s_); }

  Slot get() const { return s_; }
  const Slot& storage() const { return s_; }
  Slot take() { return std::exchange(s_, kEmpty); }
  explicit operator bool() const { return s_ != kEmpty; }

 private:
  Slot s_ = kEmpty;
};

// --- Immediates and scalar nodes ---

inline constexpr std::int64_t kMinInt = -(std::int64_t{1} << 60);
inline constexpr std::int64_t kMaxInt = (std::int64_t{1} << 60) - 1;
inline std::int64_t intOf(Slot s) { return static_cast<std::int64_t>(s) >> 3; }
bool encodeDouble(double d, Slot* out);
double decodeDouble(Slot s);

// The length lives in the header (flags and depth: 24 bits); texts of 16 MB
// and more mark flags 0xFF and keep a 64-bit length before their bytes.
struct StringNode {
  Node header;
  char bytes[8];
  static constexpr std::size_t kLongLength = 0xFF0000;
  std::string_view text() const {
    if (header.flags == 0xFF) {
      std::uint64_t length;
      std::memcpy(&length, bytes, sizeof length);
      return {bytes + sizeof length, static_cast<std::size_t>(length)};
    }
    return {bytes, (static_cast<std::size_t>(header.flags) << 16) | header.depth};
  }
};
struct NumberNode {
  Node header;  // flags: Number::Type
  union {
    std::int64_t i;
    std::uint64_t u;
    double d;
  } value;
};

Slot makeString(std::string_view text);  // short strings in place, others as a string node
// An owned copy of a slot: a reference more for nodes, a string node (or an
// in-place string) for an embedded string, the slot itself for immediates.
Slot copySlot(Slot s);
inline constexpr std::size_t kMaxEmbeddedString = 255;
// `s` itself when it owns what it holds; an owned copy of an embedded string.
Slot ownSlot(Slot s);
Slot makeSignedNumber(std::int64_t v);
Slot makeUnsignedNumber(std::uint64_t v);  // keeps the unsigned type
Slot makeDoubleNumber(double d);
Slot makeNumber(const Number& n);  // booleans give a boolean slot

inline bool isStringSlot(Slot s) {
  return tagOf(s) == kTagShortString || tagOf(s) == kTagEmbedded || isPlainNode(s, NodeKind::String);
}
inline bool isNumberSlot(Slot s) {
  const unsigned t = tagOf(s);
  return t == kTagInt || t == kTagDouble || isPlainNode(s, NodeKind::Number);
}
inline bool isBooleanSlot(Slot s) { return s == kTrue || s == kFalse; }
// The text of a string slot; `s` must stay where it is while the view is used.
inline std::string_view stringOf(const Slot& s) {
  if (tagOf(s) == kTagShortString) {
    return {reinterpret_cast<const char*>(&s) + 1, static_cast<std::size_t>((s >> 3) & 7u)};
  }
  if (tagOf(s) == kTagEmbedded) {
    const auto* p = reinterpret_cast<const unsigned char*>(nodeOf(s));  // a length byte, then the text
    return {reinterpret_cast<const char*>(p + 1), p[0]};
  }
  return reinterpret_cast<const StringNode*>(nodeOf(s))->text();
}
// A number slot (or a boolean slot) as a platform number value (no allocation).
Number numberOf(Slot s);
Object numberObjectOf(Slot s);

// The slot a key would have, for comparisons without allocating: short keys
// are compared as whole slots, longer ones by their text.
struct KeyProbe {
  explicit KeyProbe(std::string_view key);
  std::string_view text;
  Slot inlineSlot;  // kEmpty when the key is longer than 7 bytes
  bool matches(const Slot& key) const {
    if (inlineSlot != kEmpty) return key == inlineSlot;
    return tagOf(key) == kTagPointer && stringOf(key) == text;
  }
};
inline bool keysEqual(const Slot& a, const Slot& b) {
  if (a == b) return true;
  if (tagOf(a) != kTagPointer || tagOf(b) != kTagPointer) return false;
  return stringOf(a) == stringOf(b);
}
std::uint64_t keyHash(std::string_view key);

// --- Containers ---

// Object entries as (key, value) slots; both are borrowed unless stated.
struct Entry {
  Slot key;
  Slot value;
};

struct ShapeNode {
  Node header;
  std::uint32_t count;
  std::uint32_t hash;
  Slot keys[1];  // `count` key slots follow
};
struct SmallObjectNode {
  Node header;
  const ShapeNode* shape;
  // 8-byte aligned even where a pointer is 4 bytes and a 64-bit integer in a struct only 4-aligned (32-bit
  // x86): the embedded strings after the values are addressed by tagged slots, whose low 3 bits are the tag.
  alignas(8) Slot values[1];  // shape->count slots follow
};
static_assert(offsetof(SmallObjectNode, values) % 8 == 0);
// A persistent hash trie node: Trie nodes index their entries by a 32-bit
// bitmap of hash chunks; Collision nodes (all 60 hash bits equal) list them.
struct TrieNode {
  Node header;           // kind Trie or Collision
  std::uint32_t bitmap;  // Trie: the occupied chunks; Collision: the entry count
  std::uint32_t pad;
  Entry entries[1];  // a sub-trie has key kEmpty and its node in `value`
  std::uint32_t count() const { return header.kind == NodeKind::Collision ? bitmap : popcount32(bitmap); }
};
// A large object: a base trie and, once it is large, an overlay trie of the
// changes made since the base was last rebuilt (removed keys hold kTombstone).
// An update writes to the overlay only, so it never copies the base; the
// overlay is folded into a new base when it passes an eighth of the object.
struct HashObjectNode {
  Node header;
  std::uint64_t count;  // entries the object has
  TrieNode* root;
  TrieNode* overlay;  // nullptr when there is none
  std::uint64_t overlayCount;
};
inline constexpr Slot kTombstone = (4u << 3) | kTagConstant;  // only ever inside an overlay
// The value under `key` in one trie (borrowed), or kEmpty.
Slot trieLookup(const TrieNode* t, const Slot& key);
struct ArrayNode {
  Node header;
  std::uint32_t count;
  std::uint32_t pad;
  Slot items[1];  // `count` slots follow
};

// Leaf nodes: atoms or errors (any value), references (their path array), with
// the metadata fields that are present stored after the value.
enum class LeafKind : std::uint8_t { Atom = 0, Error = 1, Ref = 2 };
enum MetaField : std::uint8_t { kMetaExpires = 0, kMetaRefresh = 1, kMetaSize = 2, kMetaTimestamp = 3 };
enum class MetaDateKind : std::uint8_t { Date = 0, Never = 1, Now = 2 };
struct LeafNode {
  Node header;
  LeafKind leafKind;
  std::uint8_t present;  // bit per MetaField
  MetaDateKind expiresKind;
  MetaDateKind refreshKind;
  std::uint32_t pad;
  Slot value;
  std::int64_t fields[1];  // one per present field, in MetaField order (dates as double milliseconds, size as a slot)
  bool has(MetaField f) const { return (present >> f) & 1u; }
  std::int64_t field(MetaField f) const { return fields[popcount32(present & ((1u << f) - 1))]; }
};

// An array index written as a key, in its one canonical decimal form ("0",
// "17"; never "017", "-1" or "+1"): array lookups by text accept only these.
inline bool parseIndex(std::string_view key, std::size_t* index) {
  if (key.empty() || key.size() > 10 || (key.size() > 1 && key[0] == '0')) return false;
  std::size_t v = 0;
  for (char c : key) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + static_cast<std::size_t>(c - '0');
  }
  *index = v;
  return true;
}

std::size_t objectSize(Slot object);
// The value under `key`, borrowed from the object, or kEmpty.
Slot objectFind(Slot object, const KeyProbe& key);
inline Slot objectFind(Slot object, std::string_view key) { return objectFind(object, KeyProbe(key)); }
// Calls `f(keySlot, valueSlot)` for every entry (both borrowed), in the object's order.
void objectForEach(Slot object, const std::function<void(const Slot&, const Slot&)>& f);
std::vector<Entry> objectEntries(Slot object);  // borrowed slots, in the object's order

// The same walk without a std::function, for hot loops.
template <class F>
void forEachTrieEntry(const TrieNode* t, F& f) {
  const std::uint32_t n = t->count();
  // The values of a large object lie apart in memory: ask for them all at once.
  for (std::uint32_t i = 0; i < n; ++i) {
    if (holdsNode(t->entries[i].value)) __builtin_prefetch(nodeOf(t->entries[i].value));
  }
  for (std::uint32_t i = 0; i < n; ++i) {
    const auto& e = t->entries[i];
    if (e.key == kEmpty) {
      forEachTrieEntry(reinterpret_cast<const TrieNode*>(nodeOf(e.value)), f);
    } else {
      f(e.key, e.value);
    }
  }
}
template <class F>
void forEachEntry(Slot object, F&& f) {
  const Node* n = nodeOf(object);
  if (n->kind == NodeKind::SmallObject) {
    const auto* o = reinterpret_cast<const SmallObjectNode*>(n);
    for (std::uint32_t i = 0; i < o->shape->count; ++i) f(o->shape->keys[i], o->values[i]);
    return;
  }
  const auto* h = reinterpret_cast<const HashObjectNode*>(n);
  if (h->overlay == nullptr) {
    forEachTrieEntry(h->root, f);
    return;
  }
  auto changed = [&](const Slot& k, const Slot& v) {
    if (v != kTombstone) f(k, v);
  };
  forEachTrieEntry(h->overlay, changed);
  auto unchanged = [&](const Slot& k, const Slot& v) {
    if (trieLookup(h->overlay, k) == kEmpty) f(k, v);
  };
  forEachTrieEntry(h->root, unchanged);
}

inline bool isObjectSlot(Slot s) {
  return isPlainNode(s, NodeKind::SmallObject) || isPlainNode(s, NodeKind::HashObject);
}
inline bool isArraySlot(Slot s) { return isPlainNode(s, NodeKind::Array); }
inline const ArrayNode* arrayOf(Slot s) { return reinterpret_cast<const ArrayNode*>(nodeOf(s)); }
inline const LeafNode* leafOf(Slot s) { return reinterpret_cast<const LeafNode*>(nodeOf(s)); }

// Builds an object from owned entries (each key and value carries a reference
// the builder adopts). A later entry replaces an earlier one with an equal key.
// The result is the object slot (owned), or kNull when it would nest deeper
// than kMaxDepth.
//
// `text` makes a string value for this builder without a node of its own: a
// short text is kept in a per-thread scratch area until `build` copies it into
// the object. Such a slot is valid only until the builder is destroyed and
// only as a value given to this builder; builders must nest (a builder made
// while another lives is destroyed first), as recursive conversions do.
class ObjectBuilder {
 public:
  ObjectBuilder();
  ObjectBuilder(const ObjectBuilder&) = delete;
  ObjectBuilder& operator=(const ObjectBuilder&) = delete;
  ~ObjectBuilder();
  ObjectBuilder(ObjectBuilder&&) = delete;
  void reserve(std::size_t n) { entries_.reserve(n); }
  void add(Slot ownedKey, Slot ownedValue) { entries_.push_back({ownedKey, ownedValue}); }
  void add(std::string_view key, Slot ownedValue) { add(makeString(key), ownedValue); }
  Slot text(std::string_view value);
  std::size_t size() const { return entries_.size(); }
  Slot build();

 private:
  std::vector<Entry> entries_;
  std::size_t scratchMark_;
};

// The per-thread scratch area behind ObjectBuilder::text (and the text
// reader): texts are stacked and dropped back to a mark.
std::size_t scratchMark();
void scratchReset(std::size_t mark);
Slot scratchText(std::string_view text);  // an embedded slot in the scratch area

// Builds an array from owned slots; kNull when it would nest too deep.
Slot buildArray(std::vector<Slot>&& ownedItems);
Slot buildArray(Slot* ownedItems, std::size_t count);  // the same from a buffer (left empty)
inline Slot emptyObject() {
  ObjectBuilder b;
  return b.build();
}

// The change an update makes at one key: combines the old value (kEmpty when
// absent) with the change's new value. It answers an owned slot (the old value
// itself, retained, to keep it; kEmpty to remove the key), or a string embedded
// in one of the two objects, which the update copies as it needs.
using Combine = std::function<Slot(Slot oldValue, Slot newValue)>;
// Applies `changes` (borrowed slots) to `object`: for each change, `combine` decides
// the key's new value. Untouched entries and subtrees stay shared; when nothing
// changes the result is `object` itself (retained). Owned result.
Slot objectUpdate(Slot object, const std::vector<Entry>& changes, const Combine& combine);

// --- Leaves ---

struct Metadata {
  std::uint8_t present = 0;
  MetaDateKind expiresKind = MetaDateKind::Date;
  MetaDateKind refreshKind = MetaDateKind::Date;
  // Dates are kept as the wire has them, milliseconds since 1970, so text
  // written and read back gives the same leaf.
  double expires = 0;
  double refresh = 0;
  Slot size = kEmpty;  // a number slot, borrowed
  double timestamp = 0;
};
// A leaf slot from its parts (the value is owned and adopted); metadata-free atoms
// of node values and metadata-free references need no leaf node.
Slot makeLeaf(LeafKind kind, Slot ownedValue, const Metadata& metadata);
Metadata metadataOf(const LeafNode* leaf);

// --- Equality and hashing ---

// Structural equality of two value slots (JSON values).
bool valueEqual(Slot a, Slot b);
// Structural equality of two graph slots.
bool graphEqual(Slot a, Slot b);

}  // namespace brivet::internal
