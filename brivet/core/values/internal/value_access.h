// The library's side of the core value types: reading the slot a value holds,
// wrapping an owned slot in a value, and the slot conversions and renderings
// that the value, graph, cache and text code share.
//
// Internal: applications see JSONValue, JSONGraph and their kin only through
// their public members.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include "brivet/core/values/internal/node.h"
#include "brivet/core/values/json_graph.h"
#include "brivet/core/values/json_value.h"
#include "brivet/platform/date.h"
#include "brivet/platform/object.h"

namespace brivet {

// The one way into a value's storage from outside the value types.
struct ValueAccess {
  template <class V>
  static internal::Slot slot(const V& value) {
    return value.slot_.get();
  }
  // The slot in the value itself: a view of an immediate (a short string) lives as long as the value.
  template <class V>
  static const internal::Slot& storage(const V& value) {
    return value.slot_.storage();
  }
  // Wraps an owned slot: the value takes over its reference.
  template <class V>
  static V adopt(internal::Slot owned) {
    return V(ValueStorage(owned));
  }
  static constexpr bool holdsNode(internal::Slot s) { return ValueStorage::holdsNode(s); }
  static constexpr std::uint64_t nullBits() { return ValueStorage::kNullBits; }
};

namespace internal {

// The public storage type counts references by the same tags as the nodes do.
constexpr bool storageAgreesOnTags() {
  for (unsigned t = 0; t < 8; ++t) {
    const bool counted = t == kTagPointer || t == kTagAtom || t == kTagRef;
    if (ValueAccess::holdsNode(Slot{8} | t) != counted) return false;
  }
  return !ValueAccess::holdsNode(kEmpty);
}
static_assert(storageAgreesOnTags(), "ValueStorage and the node tags disagree on which slots hold a node");
static_assert(ValueAccess::nullBits() == kNull, "the public null immediate must be the storage's null slot");

// The slot a value holds (borrowed: valid while the value lives).
inline Slot slot(const JSONPrimitive& value) { return ValueAccess::slot(value); }
inline Slot slot(const JSONValue& value) { return ValueAccess::slot(value); }
inline Slot slot(const JSONGraphLeaf& value) { return ValueAccess::slot(value); }
inline Slot slot(const JSONGraph& value) { return ValueAccess::slot(value); }

// Values over owned slots.
inline JSONPrimitive primitiveFromSlot(SlotRef slot) { return ValueAccess::adopt<JSONPrimitive>(slot.take()); }
// Takes a value slot; a plain graph node (see isPlain) is one too.
inline JSONValue valueFromSlot(SlotRef slot) { return ValueAccess::adopt<JSONValue>(valueView(slot.take())); }
inline JSONGraphLeaf leafFromSlot(SlotRef slot) { return ValueAccess::adopt<JSONGraphLeaf>(slot.take()); }
inline JSONGraph graphFromSlot(SlotRef slot) { return ValueAccess::adopt<JSONGraph>(slot.take()); }

// Shared by the value and graph code: slot conversions and renderings.
Slot valueSlotFromAny(const Object& object, std::size_t depth);  // owned
Object valueSlotToAny(Slot s);
Object primitiveSlotToAny(Slot s);
void describePrimitive(Slot s, std::string& out);
void describeValue(Slot s, std::string& out);
void appendQuoted(std::string& out, std::string_view text);
// The text a platform dictionary key stands for: its own description.
std::string keyText(const Object& key);
// JSONValue merge on slots (owned result).
Slot mergeValues(Slot newValue, Slot oldValue);

// The keys and values of a platform dictionary are objects of their own, apart
// in memory: a converter asks for the next few while it converts one, so their
// cache misses overlap instead of following one another.
class EntryPrefetcher {
 public:
  explicit EntryPrefetcher(const Dictionary& d) : next_(d.begin()), end_(d.end()) {
    for (int i = 0; i < kAhead && next_ != end_; ++i) step();
  }
  // Called once per entry converted.
  void advance() {
    if (next_ != end_) step();
  }

 private:
  static constexpr int kAhead = 4;
  void step() {
    __builtin_prefetch(next_->first.impl().get());
    __builtin_prefetch(next_->second.impl().get());
    ++next_;
  }
  Dictionary::const_iterator next_;
  Dictionary::const_iterator end_;
};

// Graph slot conversions shared with the text reader and writer.
Slot graphSlotFromAny(const Object& object, std::size_t remaining, const Object& defaultExpires, Date parseTime);
Object graphSlotToAny(Slot s);
Metadata metadataFromDictionary(const Dictionary& d, const Object& defaultExpires, Date parseTime);
// The "$expires" number rules into the stored form (milliseconds since 1970).
void readWireDate(double wire, Date parseTime, MetaDateKind* kind, double* ms);
// The parts of any graph leaf slot: false for branches.
struct LeafView {
  JSONGraphLeaf::Kind kind;
  Slot value = kEmpty;  // atoms and errors: the value; refs: the path array; primitives: the slot
  Metadata metadata;
};
bool viewLeaf(Slot s, LeafView* out);

}  // namespace internal
}  // namespace brivet
