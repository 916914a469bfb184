#include "brivet/core/values/json_graph.h"

#include <algorithm>
#include <cmath>

#include "brivet/core/values/internal/unreadable.h"
#include "brivet/core/values/internal/value_access.h"
#include "brivet/platform/internal/rapidjson.h"
#include "brivet/platform/precondition.h"

namespace brivet {

using internal::LeafView;
using internal::Metadata;
using internal::MetaDateKind;
using internal::Slot;
using internal::SlotRef;
using internal::parseIndex;

namespace {

double msOf(Date d) { return timeIntervalSince1970(d) * 1000.0; }
Date dateOfMilliseconds(double ms) { return dateWithTimeIntervalSince1970(ms / 1000.0); }

constexpr std::uint8_t bit(internal::MetaField f) { return static_cast<std::uint8_t>(1u << f); }

MetaDate metaDateOf(MetaDateKind kind, double ms) {
  switch (kind) {
    case MetaDateKind::Never: return MetaDate::never();
    case MetaDateKind::Now: return MetaDate::now();
    default: return MetaDate::date(dateOfMilliseconds(ms));
  }
}

void setMetaDate(const MetaDate& d, MetaDateKind* kind, double* ms) {
  *kind = d.kind() == MetaDate::Kind::Date
              ? MetaDateKind::Date
              : (d.kind() == MetaDate::Kind::Never ? MetaDateKind::Never : MetaDateKind::Now);
  *ms = d.kind() == MetaDate::Kind::Date ? msOf(d.dateValue()) : 0;
}

JSONGraphMetadata publicMetadata(const Metadata& m) {
  JSONGraphMetadata out;
  if (m.present & bit(internal::kMetaExpires)) out.expires = metaDateOf(m.expiresKind, m.expires);
  if (m.present & bit(internal::kMetaRefresh)) out.refresh = metaDateOf(m.refreshKind, m.refresh);
  if (m.present & bit(internal::kMetaSize)) out.size = internal::numberObjectOf(m.size);
  if (m.present & bit(internal::kMetaTimestamp)) out.timestamp = dateOfMilliseconds(m.timestamp);
  return out;
}

// The stored form of public metadata; the size slot is owned by the caller of makeLeaf's copy.
Metadata storedMetadata(const JSONGraphMetadata& m, SlotRef* sizeHolder) {
  Metadata out;
  if (m.expires) {
    out.present |= bit(internal::kMetaExpires);
    setMetaDate(*m.expires, &out.expiresKind, &out.expires);
  }
  if (m.refresh) {
    out.present |= bit(internal::kMetaRefresh);
    setMetaDate(*m.refresh, &out.refreshKind, &out.refresh);
  }
  if (const Number* n = m.size.asNumber()) {
    out.present |= bit(internal::kMetaSize);
    *sizeHolder = SlotRef(internal::makeNumber(*n));
    out.size = sizeHolder->get();
  }
  if (m.timestamp) {
    out.present |= bit(internal::kMetaTimestamp);
    out.timestamp = msOf(*m.timestamp);
  }
  return out;
}

double wireNumberOf(MetaDateKind kind, double ms) {
  return kind == MetaDateKind::Never ? 1.0 : (kind == MetaDateKind::Now ? 0.0 : ms);
}

void appendMetadataEntries(const Metadata& m, std::vector<Object::Entry>& out) {
  if (m.present & bit(internal::kMetaTimestamp)) {
    out.emplace_back(Object("$timestamp"), Object::real(m.timestamp));
  }
  if (m.present & bit(internal::kMetaSize)) out.emplace_back(Object("$size"), internal::numberObjectOf(m.size));
  if (m.present & bit(internal::kMetaExpires)) {
    out.emplace_back(Object("$expires"), Object::real(wireNumberOf(m.expiresKind, m.expires)));
  }
  if (m.present & bit(internal::kMetaRefresh)) {
    out.emplace_back(Object("$refresh"), Object::real(wireNumberOf(m.refreshKind, m.refresh)));
  }
}

void describeMetaDate(MetaDateKind kind, double ms, std::string& out) { out += metaDateOf(kind, ms).description(); }

void describeMetadata(const Metadata& m, std::string& out) {
  out += "JSONGraphMetadata(expires: ";
  if (m.present & bit(internal::kMetaExpires)) {
    describeMetaDate(m.expiresKind, m.expires, out);
  } else {
    out += "nil";
  }
  out += ", refresh: ";
  if (m.present & bit(internal::kMetaRefresh)) {
    describeMetaDate(m.refreshKind, m.refresh, out);
  } else {
    out += "nil";
  }
  out += ", size: ";
  out += (m.present & bit(internal::kMetaSize)) ? internal::numberOf(m.size).description() : "nil";
  out += ", timestamp: ";
  out += (m.present & bit(internal::kMetaTimestamp)) ? dateDescription(dateOfMilliseconds(m.timestamp)) : "nil";
  out += ')';
}

void describeGraph(Slot s, std::string& out);

void describeLeaf(const LeafView& v, std::string& out) {
  switch (v.kind) {
    case JSONGraphLeaf::Kind::Atom:
    case JSONGraphLeaf::Kind::Error:
      out += v.kind == JSONGraphLeaf::Kind::Atom ? "atom(" : "error(";
      internal::describeValue(v.value, out);
      out += ", ";
      describeMetadata(v.metadata, out);
      out += ')';
      break;
    case JSONGraphLeaf::Kind::Ref:
      out += "ref(";
      internal::describeValue(v.value, out);
      out += ", ";
      describeMetadata(v.metadata, out);
      out += ')';
      break;
    case JSONGraphLeaf::Kind::Primitive:
      out += "primitive(";
      internal::describePrimitive(v.value, out);
      out += ')';
      break;
    case JSONGraphLeaf::Kind::Undefined: out += "undefined"; break;
  }
}

void describeGraph(Slot s, std::string& out) {
  LeafView v;
  if (internal::viewLeaf(s, &v)) {
    describeLeaf(v, out);
  } else if (internal::isObjectSlot(s)) {
    if (internal::objectSize(s) == 0) {
      out += "[:]";
      return;
    }
    out += '[';
    bool first = true;
    internal::objectForEach(s, [&](const Slot& k, const Slot& child) {
      if (!first) out += ", ";
      first = false;
      internal::appendQuoted(out, internal::stringOf(k));
      out += ": ";
      describeGraph(child, out);
    });
    out += ']';
  } else {
    const internal::ArrayNode* a = internal::arrayOf(s);
    out += '[';
    for (std::uint32_t i = 0; i < a->count; ++i) {
      if (i > 0) out += ", ";
      describeGraph(a->items[i], out);
    }
    out += ']';
  }
}

}  // namespace

// --- MetaDate ---

MetaDate MetaDate::fromWireNumber(double v, Date parseTime) {
  if (v < 0) {
    return date(parseTime + std::chrono::duration_cast<Date::duration>(
                                std::chrono::duration<double>(std::min(v / -1000.0, 9.0e9))));  // clamp: ~285 years
  }
  if (v == 1) return never();
  if (v == 0) return now();
  return date(dateOfMilliseconds(v));
}

double MetaDate::wireNumber() const {
  switch (kind_) {
    case Kind::Never: return 1.0;
    case Kind::Now: return 0.0;
    default: return timeIntervalSince1970(date_) * 1000.0;
  }
}

std::string MetaDate::description() const {
  switch (kind_) {
    case Kind::Never: return "never";
    case Kind::Now: return "now";
    default: return dateDescription(date_);
  }
}

std::size_t MetaDate::hash() const {
  // A hash: on 32-bit targets the multiplier and the date keep their low halves, on purpose.
  std::size_t h = (static_cast<std::size_t>(kind_) + 1) * static_cast<std::size_t>(0x9E3779B97F4A7C15ULL);
  if (kind_ == Kind::Date)
    h ^= static_cast<std::size_t>(date_.time_since_epoch().count()) + 0x9e3779b9 + (h << 6) + (h >> 2);
  return h;
}

// --- JSONGraphMetadata ---

JSONGraphMetadata JSONGraphMetadata::fromDictionary(const Object& dictionary, const Object& defaultExpires) {
  const Dictionary* d = dictionary.asDictionary();
  if (d == nullptr) return {};
  const Metadata m = internal::metadataFromDictionary(*d, defaultExpires, dateNow());
  JSONGraphMetadata out = publicMetadata(m);
  if (m.present & bit(internal::kMetaSize)) internal::release(m.size);
  return out;
}

std::vector<Object::Entry> JSONGraphMetadata::toEntries() const {
  SlotRef sizeHolder;
  std::vector<Object::Entry> out;
  appendMetadataEntries(storedMetadata(*this, &sizeHolder), out);
  return out;
}

Object JSONGraphMetadata::toDictionary() const { return Object::dictionaryWithDistinctKeys(toEntries(), false); }

std::string JSONGraphMetadata::description() const {
  SlotRef sizeHolder;
  std::string out;
  describeMetadata(storedMetadata(*this, &sizeHolder), out);
  return out;
}

bool operator==(const JSONGraphMetadata& a, const JSONGraphMetadata& b) {
  if (a.expires != b.expires || a.refresh != b.refresh || a.timestamp != b.timestamp) return false;
  if (a.size.isNil() || b.size.isNil()) return a.size.isNil() == b.size.isNil();
  return a.size.isEqual(b.size);
}

namespace internal {

void readWireDate(double v, Date parseTime, MetaDateKind* kind, double* ms) {
  if (v < 0) {
    *kind = MetaDateKind::Date;
    *ms = msOf(parseTime) + -v;  // relative to the parse, kept as an absolute date
  } else if (v == 1) {
    *kind = MetaDateKind::Never;
    *ms = 0;
  } else if (v == 0) {
    *kind = MetaDateKind::Now;
    *ms = 0;
  } else {
    *kind = MetaDateKind::Date;
    *ms = v;
  }
}

namespace {

// The entries of a node dictionary that decide what it is, found in one pass
// (borrowed: valid while the dictionary lives).
struct NodeKeys {
  const Object* type = nullptr;
  const Object* value = nullptr;
  const Object* timestamp = nullptr;
  const Object* size = nullptr;
  const Object* expires = nullptr;
  const Object* refresh = nullptr;
};

NodeKeys scanNodeKeys(const Dictionary& d) {
  NodeKeys k;
  for (const auto& [key, value] : d) {
    const String* s = key.asString();
    if (s == nullptr) continue;
    const std::string_view t = s->text();
    if (t.empty()) continue;
    if (t[0] == '$') {
      if (t == "$type") {
        k.type = &value;
      } else if (t == "$timestamp") {
        k.timestamp = &value;
      } else if (t == "$size") {
        k.size = &value;
      } else if (t == "$expires") {
        k.expires = &value;
      } else if (t == "$refresh") {
        k.refresh = &value;
      }
    } else if (t == "value") {
      k.value = &value;
    }
  }
  return k;
}

const Number* numberAt(const Object* o) { return o != nullptr ? o->asNumber() : nullptr; }

Metadata metadataFromKeys(const NodeKeys& k, const Object& defaultExpires, Date parseTime) {
  Metadata m;
  if (const Number* n = numberAt(k.timestamp)) {
    m.present |= bit(kMetaTimestamp);
    m.timestamp = n->doubleValue();
  }
  if (const Number* n = numberAt(k.size)) {
    m.present |= bit(kMetaSize);
    m.size = makeNumber(*n);  // owned by the caller
  }
  const Number* expires = numberAt(k.expires);
  if (expires == nullptr) expires = defaultExpires.asNumber();
  if (expires != nullptr) {
    m.present |= bit(kMetaExpires);
    readWireDate(expires->doubleValue(), parseTime, &m.expiresKind, &m.expires);
  }
  if (const Number* n = numberAt(k.refresh)) {
    m.present |= bit(kMetaRefresh);
    readWireDate(n->doubleValue(), parseTime, &m.refreshKind, &m.refresh);
  }
  return m;
}

}  // namespace

Metadata metadataFromDictionary(const Dictionary& d, const Object& defaultExpires, Date parseTime) {
  return metadataFromKeys(scanNodeKeys(d), defaultExpires, parseTime);
}

bool viewLeaf(Slot s, LeafView* out) {
  switch (tagOf(s)) {
    case kTagAtom: *out = {JSONGraphLeaf::Kind::Atom, s & ~Slot{7}, {}}; return true;
    case kTagRef: *out = {JSONGraphLeaf::Kind::Ref, s & ~Slot{7}, {}}; return true;
    default: break;
  }
  if (s == kUndefined) {
    *out = {JSONGraphLeaf::Kind::Undefined, kEmpty, {}};
    return true;
  }
  if (isObjectSlot(s) || isArraySlot(s)) return false;
  if (isPlainNode(s, NodeKind::Leaf)) {
    const LeafNode* l = leafOf(s);
    const JSONGraphLeaf::Kind kind =
        l->leafKind == LeafKind::Atom
            ? JSONGraphLeaf::Kind::Atom
            : (l->leafKind == LeafKind::Error ? JSONGraphLeaf::Kind::Error : JSONGraphLeaf::Kind::Ref);
    *out = {kind, l->value, metadataOf(l)};
    return true;
  }
  *out = {JSONGraphLeaf::Kind::Primitive, s, {}};
  return true;
}

namespace {
Slot leafWithMetadata(LeafKind kind, Slot ownedValue, Metadata m) {
  const Slot leaf = makeLeaf(kind, ownedValue, m);
  if (m.present & bit(kMetaSize)) release(m.size);  // makeLeaf retained its own reference
  return leaf;
}
}  // namespace

namespace {
// A dictionary with a text "$type": a wrapped leaf, undefined, or null.
Slot leafFromDictionary(const Dictionary& d, std::size_t remaining, const Object& defaultExpires, Date parseTime) {
  const NodeKeys keys = scanNodeKeys(d);
  const std::string_view t = keys.type->stringValue();
  if (keys.value == nullptr) {
    if (t != "atom") noteUnreadable();  // an error or a reference without its value is lost
    return kUndefined;
  }
  const Object& value = *keys.value;
  if (t == "atom") {
    return leafWithMetadata(LeafKind::Atom, valueSlotFromAny(value, remaining - 1),
                            metadataFromKeys(keys, Object(), parseTime));
  }
  if (t == "error") {
    return leafWithMetadata(LeafKind::Error, valueSlotFromAny(value, remaining - 1),
                            metadataFromKeys(keys, defaultExpires, parseTime));
  }
  if (t == "ref") {
    if (const Array* path = value.asArray()) {
      const bool allText = std::all_of(path->begin(), path->end(), [](const Object& e) { return e.isString(); });
      if (allText && remaining >= 2) {
        return leafWithMetadata(LeafKind::Ref, valueSlotFromAny(value, remaining - 1),
                                metadataFromKeys(keys, Object(), parseTime));
      }
    }
  }
  noteUnreadable();
  return kNull;
}
}  // namespace

Slot graphSlotFromAny(const Object& object, std::size_t remaining, const Object& defaultExpires, Date parseTime) {
  if (const Dictionary* d = object.asDictionary()) {
    if (remaining == 0) {
      noteUnreadable();
      return kNull;
    }
    // One pass builds the branch; a text "$type" (first, in every writer's
    // output) turns the dictionary into a leaf instead.
    ObjectBuilder builder;
    builder.reserve(d->size());
    EntryPrefetcher ahead(*d);
    for (const auto& [key, child] : *d) {
      ahead.advance();
      const String* keyString = key.asString();
      if (keyString != nullptr && child.isString() && keyString->text() == "$type") {
        return leafFromDictionary(*d, remaining, defaultExpires, parseTime);
      }
      const Slot k = keyString != nullptr ? makeString(keyString->text()) : makeString(keyText(key));
      builder.add(k, child.isString() ? builder.text(child.stringValue())
                                      : graphSlotFromAny(child, remaining - 1, defaultExpires, parseTime));
    }
    return builder.build();
  }
  if (const Array* a = object.asArray()) {
    if (remaining == 0) {
      noteUnreadable();
      return kNull;
    }
    const std::size_t n = a->size();
    if (n <= 8) {
      Slot items[8];
      for (std::size_t i = 0; i < n; ++i)
        items[i] = graphSlotFromAny((*a)[i], remaining - 1, defaultExpires, parseTime);
      return buildArray(items, n);
    }
    std::vector<Slot> items;
    items.reserve(n);
    for (const Object& e : *a) items.push_back(graphSlotFromAny(e, remaining - 1, defaultExpires, parseTime));
    return buildArray(std::move(items));
  }
  return valueSlotFromAny(object, 0);  // a scalar: the same as a JSON primitive
}

Object graphSlotToAny(Slot s) {
  LeafView v;
  if (!viewLeaf(s, &v)) {
    if (isObjectSlot(s)) {
      std::vector<Object::Entry> entries;
      entries.reserve(objectSize(s));
      objectForEach(s, [&](const Slot& k, const Slot& child) {
        entries.emplace_back(Object(stringOf(k)), graphSlotToAny(child));
      });
      return Object::dictionaryWithDistinctKeys(std::move(entries), false);
    }
    const ArrayNode* a = arrayOf(s);
    std::vector<Object> items;
    items.reserve(a->count);
    for (std::uint32_t i = 0; i < a->count; ++i) items.push_back(graphSlotToAny(a->items[i]));
    return Object::array(std::move(items));
  }
  std::vector<Object::Entry> entries;
  switch (v.kind) {
    case JSONGraphLeaf::Kind::Primitive: return primitiveSlotToAny(v.value);
    case JSONGraphLeaf::Kind::Undefined:
      return Object::dictionaryWithDistinctKeys({{Object("$type"), Object("atom")}}, false);
    case JSONGraphLeaf::Kind::Atom: entries.emplace_back(Object("$type"), Object("atom")); break;
    case JSONGraphLeaf::Kind::Error: entries.emplace_back(Object("$type"), Object("error")); break;
    case JSONGraphLeaf::Kind::Ref: entries.emplace_back(Object("$type"), Object("ref")); break;
  }
  entries.emplace_back(Object("value"), valueSlotToAny(v.value));
  appendMetadataEntries(v.metadata, entries);
  return Object::dictionaryWithDistinctKeys(std::move(entries), false);
}

}  // namespace internal

// --- JSONGraphLeaf ---

JSONGraphLeaf JSONGraphLeaf::atom(const JSONValue& value, const JSONGraphMetadata& metadata) {
  SlotRef size;
  internal::retain(internal::slot(value));
  const Slot s = internal::makeLeaf(internal::LeafKind::Atom, internal::slot(value), storedMetadata(metadata, &size));
  BRIVET_PRECONDITION(s != internal::kNull, "JSONGraphLeaf nested deeper than 512 levels");
  return JSONGraphLeaf(ValueStorage(s));
}

JSONGraphLeaf JSONGraphLeaf::error(const JSONValue& value, const JSONGraphMetadata& metadata) {
  SlotRef size;
  internal::retain(internal::slot(value));
  const Slot s = internal::makeLeaf(internal::LeafKind::Error, internal::slot(value), storedMetadata(metadata, &size));
  BRIVET_PRECONDITION(s != internal::kNull, "JSONGraphLeaf nested deeper than 512 levels");
  return JSONGraphLeaf(ValueStorage(s));
}

JSONGraphLeaf JSONGraphLeaf::ref(const std::vector<std::string>& path, const JSONGraphMetadata& metadata) {
  std::vector<Slot> items;
  items.reserve(path.size());
  for (const std::string& key : path) items.push_back(internal::makeString(key));
  SlotRef size;
  const Slot s = internal::makeLeaf(internal::LeafKind::Ref, internal::buildArray(std::move(items)),
                                    storedMetadata(metadata, &size));
  return JSONGraphLeaf(ValueStorage(s));
}

JSONGraphLeaf JSONGraphLeaf::primitive(const JSONPrimitive& primitive) {
  return internal::leafFromSlot(SlotRef::retained(internal::slot(primitive)));
}

JSONGraphLeaf JSONGraphLeaf::undefined() { return JSONGraphLeaf(ValueStorage(internal::kUndefined)); }

JSONGraphLeaf::Kind JSONGraphLeaf::kind() const {
  LeafView v;
  internal::viewLeaf(slot_.get(), &v);
  return v.kind;
}

JSONValue JSONGraphLeaf::value() const {
  LeafView v;
  internal::viewLeaf(slot_.get(), &v);
  if (v.kind != Kind::Atom && v.kind != Kind::Error) return JSONValue();
  return internal::valueFromSlot(SlotRef(internal::copySlot(v.value)));
}

std::vector<std::string> JSONGraphLeaf::path() const {
  LeafView v;
  internal::viewLeaf(slot_.get(), &v);
  std::vector<std::string> out;
  if (v.kind != Kind::Ref) return out;
  const internal::ArrayNode* a = internal::arrayOf(v.value);
  out.reserve(a->count);
  for (std::uint32_t i = 0; i < a->count; ++i) out.emplace_back(internal::stringOf(a->items[i]));
  return out;
}

JSONGraphMetadata JSONGraphLeaf::metadata() const {
  LeafView v;
  internal::viewLeaf(slot_.get(), &v);
  return publicMetadata(v.metadata);
}

JSONPrimitive JSONGraphLeaf::primitive() const {
  if (kind() != Kind::Primitive) return JSONPrimitive();
  return internal::primitiveFromSlot(SlotRef::retained(slot_.get()));
}

std::string JSONGraphLeaf::description() const {
  std::string out;
  describeGraph(slot_.get(), out);
  return out;
}

bool operator==(const JSONGraphLeaf& a, const JSONGraphLeaf& b) { return internal::graphEqual(internal::slot(a), internal::slot(b)); }

// --- JSONGraph ---

JSONGraph JSONGraph::object(std::vector<std::pair<std::string, JSONGraph>> entries) {
  internal::ObjectBuilder builder;
  builder.reserve(entries.size());
  for (auto& [key, child] : entries) builder.add(key, child.slot_.take());
  const Slot s = builder.build();
  BRIVET_PRECONDITION(s != internal::kNull, "JSONGraph nested deeper than 512 levels");
  return JSONGraph(ValueStorage(s));
}

JSONGraph JSONGraph::array(std::vector<JSONGraph> elements) {
  std::vector<Slot> items;
  items.reserve(elements.size());
  for (JSONGraph& e : elements) items.push_back(e.slot_.take());
  const Slot s = internal::buildArray(std::move(items));
  BRIVET_PRECONDITION(s != internal::kNull, "JSONGraph nested deeper than 512 levels");
  return JSONGraph(ValueStorage(s));
}

JSONGraph JSONGraph::fromAny(const Object& object, const Object& defaultExpires) {
  return JSONGraph(ValueStorage(internal::graphSlotFromAny(object, internal::kMaxDepth, defaultExpires, dateNow())));
}

JSONGraph::JSONGraph() : slot_(internal::emptyObject()) {}

bool JSONGraph::isObject() const { return internal::isObjectSlot(slot_.get()); }
bool JSONGraph::isArray() const { return internal::isArraySlot(slot_.get()); }

JSONGraph::Kind JSONGraph::kind() const {
  if (isObject()) return Kind::Object;
  if (isArray()) return Kind::Array;
  return Kind::Leaf;
}

JSONGraphLeaf JSONGraph::leaf() const {
  if (!isLeaf()) return JSONGraphLeaf::undefined();
  return internal::leafFromSlot(SlotRef::retained(slot_.get()));
}

std::size_t JSONGraph::size() const {
  if (isObject()) return internal::objectSize(slot_.get());
  if (isArray()) return internal::arrayOf(slot_.get())->count;
  return 0;
}

std::optional<JSONGraph> JSONGraph::find(std::string_view key) const {
  if (isObject()) {
    const Slot v = internal::objectFind(slot_.get(), key);
    if (v == internal::kEmpty) return std::nullopt;
    return JSONGraph(ValueStorage(internal::copySlot(v)));
  }
  std::size_t index;
  if (isArray() && parseIndex(key, &index)) return at(index);
  return std::nullopt;
}

std::optional<JSONGraph> JSONGraph::at(std::size_t index) const {
  if (!isArray() || index >= size()) return std::nullopt;
  return JSONGraph(ValueStorage(internal::copySlot(internal::arrayOf(slot_.get())->items[index])));
}

void JSONGraph::forEach(const std::function<void(std::string_view, const JSONGraph&)>& f) const {
  if (isObject()) {
    internal::objectForEach(slot_.get(), [&](const Slot& k, const Slot& v) {
      f(internal::stringOf(k), JSONGraph(ValueStorage(internal::copySlot(v))));
    });
  } else if (isArray()) {
    const internal::ArrayNode* a = internal::arrayOf(slot_.get());
    for (std::uint32_t i = 0; i < a->count; ++i)
      f(std::to_string(i), JSONGraph(ValueStorage(internal::copySlot(a->items[i]))));
  }
}

std::vector<JSONGraph> JSONGraph::elements() const {
  std::vector<JSONGraph> out;
  if (!isArray()) return out;
  const internal::ArrayNode* a = internal::arrayOf(slot_.get());
  for (std::uint32_t i = 0; i < a->count; ++i) out.push_back(JSONGraph(ValueStorage(internal::copySlot(a->items[i]))));
  return out;
}

Object JSONGraph::toAnyType() const { return internal::graphSlotToAny(slot_.get()); }

std::string JSONGraph::description() const {
  std::string out;
  describeGraph(slot_.get(), out);
  return out;
}

bool operator==(const JSONGraph& a, const JSONGraph& b) { return internal::graphEqual(internal::slot(a), internal::slot(b)); }

}  // namespace brivet
