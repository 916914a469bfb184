#include "brivet/core/values/json_value.h"

#include "brivet/core/values/internal/unreadable.h"
#include "brivet/core/values/internal/value_access.h"
#include "brivet/platform/precondition.h"

namespace brivet {

using internal::Slot;
using internal::SlotRef;

namespace internal {

std::string keyText(const Object& key) {
  if (const String* s = key.asString()) return std::string(s->text());
  if (const Number* n = key.asNumber()) return n->description();
  return key.description();
}

Slot valueSlotFromAny(const Object& object, std::size_t remaining) {
  if (const Dictionary* d = object.asDictionary()) {
    if (remaining == 0) {
      noteUnreadable();
      return kNull;
    }
    ObjectBuilder builder;
    builder.reserve(d->size());
    EntryPrefetcher ahead(*d);
    for (const auto& [key, value] : *d) {
      ahead.advance();
      const Slot k = key.isString() ? makeString(key.stringValue()) : makeString(keyText(key));
      builder.add(k, value.isString() ? builder.text(value.stringValue()) : valueSlotFromAny(value, remaining - 1));
    }
    return builder.build();
  }
  if (const Array* a = object.asArray()) {
    if (remaining == 0) {
      noteUnreadable();
      return kNull;
    }
    const std::size_t n = a->size();
    if (n <= 8) {  // short arrays (every reference path) need no buffer of their own
      Slot items[8];
      for (std::size_t i = 0; i < n; ++i) items[i] = valueSlotFromAny((*a)[i], remaining - 1);
      return buildArray(items, n);
    }
    std::vector<Slot> items;
    items.reserve(n);
    for (const Object& e : *a) items.push_back(valueSlotFromAny(e, remaining - 1));
    return buildArray(std::move(items));
  }
  if (const String* s = object.asString()) return makeString(s->text());
  if (const Number* n = object.asNumber()) return makeNumber(*n);
  if (!object.isNull()) noteUnreadable();  // a date, data or library object: not JSON
  return kNull;
}

Object primitiveSlotToAny(Slot s) {
  if (isStringSlot(s)) return Object(stringOf(s));
  if (isNumberSlot(s)) return numberObjectOf(s);
  if (isBooleanSlot(s)) return Object::boolean(s == kTrue);
  return Object::null();
}

Object valueSlotToAny(Slot s) {
  s = valueView(s);
  if (isObjectSlot(s)) {
    std::vector<Object::Entry> entries;
    entries.reserve(objectSize(s));
    objectForEach(s,
                  [&](const Slot& k, const Slot& v) { entries.emplace_back(Object(stringOf(k)), valueSlotToAny(v)); });
    return Object::dictionaryWithDistinctKeys(std::move(entries), false);
  }
  if (isArraySlot(s)) {
    const ArrayNode* a = arrayOf(s);
    std::vector<Object> items;
    items.reserve(a->count);
    for (std::uint32_t i = 0; i < a->count; ++i) items.push_back(valueSlotToAny(a->items[i]));
    return Object::array(std::move(items));
  }
  return primitiveSlotToAny(s);
}

void appendQuoted(std::string& out, std::string_view text) {
  out += '"';
  out += text;
  out += '"';
}

void describePrimitive(Slot s, std::string& out) {
  if (isStringSlot(s)) {
    appendQuoted(out, stringOf(s));
  } else if (isNumberSlot(s)) {
    out += numberOf(s).description();
  } else if (isBooleanSlot(s)) {
    out += s == kTrue ? "true" : "false";
  } else {
    out += "(null)";
  }
}

void describeValue(Slot s, std::string& out) {
  s = valueView(s);
  if (isObjectSlot(s)) {
    if (objectSize(s) == 0) {
      out += "[:]";
      return;
    }
    out += '[';
    bool first = true;
    objectForEach(s, [&](const Slot& k, const Slot& v) {
      if (!first) out += ", ";
      first = false;
      appendQuoted(out, stringOf(k));
      out += ": ";
      describeValue(v, out);
    });
    out += ']';
  } else if (isArraySlot(s)) {
    const ArrayNode* a = arrayOf(s);
    out += '[';
    for (std::uint32_t i = 0; i < a->count; ++i) {
      if (i > 0) out += ", ";
      describeValue(a->items[i], out);
    }
    out += ']';
  } else {
    describePrimitive(s, out);
  }
}

Slot mergeValues(Slot newValue, Slot oldValue) {
  newValue = valueView(newValue);
  oldValue = valueView(oldValue);
  if (!isObjectSlot(newValue) || !isObjectSlot(oldValue)) {
    retain(newValue);
    return newValue;
  }
  return objectUpdate(oldValue, objectEntries(newValue), [](Slot old, Slot incoming) -> Slot {
    if (old == kEmpty) {
      retain(incoming);
      return incoming;
    }
    return mergeValues(incoming, old);
  });
}

}  // namespace internal

// --- JSONPrimitive ---

void ValueStorage::retain(std::uint64_t bits) { internal::retain(bits); }
void ValueStorage::release(std::uint64_t bits) { internal::release(bits); }

JSONPrimitive JSONPrimitive::string(std::string_view text) {
  return JSONPrimitive(ValueStorage(internal::makeString(text)));
}
JSONPrimitive JSONPrimitive::number(const Number& number) {
  return JSONPrimitive(ValueStorage(internal::makeNumber(number)));
}
JSONPrimitive JSONPrimitive::integer(std::int64_t value) {
  return JSONPrimitive(ValueStorage(internal::makeSignedNumber(value)));
}
JSONPrimitive JSONPrimitive::real(double value) { return JSONPrimitive(ValueStorage(internal::makeDoubleNumber(value))); }
JSONPrimitive JSONPrimitive::boolean(bool value) {
  return JSONPrimitive(ValueStorage(value ? internal::kTrue : internal::kFalse));
}

JSONPrimitive::Kind JSONPrimitive::kind() const {
  const Slot s = slot_.get();
  if (internal::isStringSlot(s)) return Kind::String;
  if (internal::isNumberSlot(s)) return Kind::Number;
  if (internal::isBooleanSlot(s)) return Kind::Boolean;
  return Kind::Null;
}

std::string_view JSONPrimitive::stringValue() const {
  return internal::isStringSlot(slot_.get()) ? internal::stringOf(slot_.storage()) : std::string_view();
}
bool JSONPrimitive::boolValue() const { return slot_.get() == internal::kTrue; }
Object JSONPrimitive::numberObject() const {
  return internal::isNumberSlot(slot_.get()) ? internal::numberObjectOf(slot_.get()) : Object();
}

Object JSONPrimitive::toAnyType() const { return internal::primitiveSlotToAny(slot_.get()); }

std::string JSONPrimitive::description() const {
  std::string out;
  internal::describePrimitive(slot_.get(), out);
  return out;
}

std::size_t JSONPrimitive::hash() const {
  auto combine = [](std::size_t discriminator, std::size_t payload) {
    // A hash: on 32-bit targets the multiplier keeps its low half, on purpose.
    std::size_t h = (discriminator + 1) * static_cast<std::size_t>(0x9E3779B97F4A7C15ULL);
    return h ^ (payload + 0x9e3779b9 + (h << 6) + (h >> 2));
  };
  switch (kind()) {
    case Kind::String: return combine(0, String::hashText(stringValue()));
    case Kind::Null: return combine(1, 0);
    case Kind::Number: return combine(2, internal::numberOf(slot_.get()).hash());
    case Kind::Boolean: return combine(3, boolValue() ? 1 : 0);
  }
  return 0;
}

bool operator==(const JSONPrimitive& a, const JSONPrimitive& b) { return internal::valueEqual(internal::slot(a), internal::slot(b)); }

// --- JSONValue ---

JSONValue JSONValue::object(std::vector<std::pair<std::string, JSONValue>> entries) {
  internal::ObjectBuilder builder;
  builder.reserve(entries.size());
  for (auto& [key, value] : entries) builder.add(key, value.slot_.take());
  const Slot s = builder.build();
  BRIVET_PRECONDITION(s != internal::kNull, "JSONValue nested deeper than 512 levels");
  return JSONValue(ValueStorage(s));
}

JSONValue JSONValue::emptyObject() { return JSONValue(ValueStorage(internal::emptyObject())); }

JSONValue JSONValue::array(std::vector<JSONValue> elements) {
  std::vector<Slot> items;
  items.reserve(elements.size());
  for (JSONValue& e : elements) items.push_back(e.slot_.take());
  const Slot s = internal::buildArray(std::move(items));
  BRIVET_PRECONDITION(s != internal::kNull, "JSONValue nested deeper than 512 levels");
  return JSONValue(ValueStorage(s));
}

JSONValue JSONValue::fromAny(const Object& object) {
  return JSONValue(ValueStorage(internal::valueSlotFromAny(object, internal::kMaxDepth)));
}

JSONValue::Kind JSONValue::kind() const {
  if (isObject()) return Kind::Object;
  if (isArray()) return Kind::Array;
  return Kind::Primitive;
}

JSONPrimitive JSONValue::primitive() const {
  if (!isPrimitive()) return JSONPrimitive();
  return internal::primitiveFromSlot(SlotRef::retained(slot_.get()));
}

bool JSONValue::isObject() const { return internal::isObjectSlot(slot_.get()); }
bool JSONValue::isArray() const { return internal::isArraySlot(slot_.get()); }

std::size_t JSONValue::size() const {
  if (isObject()) return internal::objectSize(slot_.get());
  if (isArray()) return internal::arrayOf(slot_.get())->count;
  return 0;
}

std::optional<JSONValue> JSONValue::find(std::string_view key) const {
  if (!isObject()) return std::nullopt;
  const Slot v = internal::objectFind(slot_.get(), key);
  if (v == internal::kEmpty) return std::nullopt;
  return JSONValue(ValueStorage(internal::copySlot(internal::valueView(v))));
}

std::optional<JSONValue> JSONValue::at(std::size_t index) const {
  if (!isArray() || index >= size()) return std::nullopt;
  return JSONValue(ValueStorage(internal::copySlot(internal::valueView(internal::arrayOf(slot_.get())->items[index]))));
}

void JSONValue::forEach(const std::function<void(std::string_view, const JSONValue&)>& f) const {
  if (!isObject()) return;
  internal::objectForEach(slot_.get(), [&](const Slot& k, const Slot& v) {
    f(internal::stringOf(k), JSONValue(ValueStorage(internal::copySlot(internal::valueView(v)))));
  });
}

std::vector<std::string> JSONValue::keys() const {
  std::vector<std::string> out;
  forEach([&](std::string_view k, const JSONValue&) { out.emplace_back(k); });
  return out;
}

std::vector<JSONValue> JSONValue::elements() const {
  std::vector<JSONValue> out;
  if (!isArray()) return out;
  const internal::ArrayNode* a = internal::arrayOf(slot_.get());
  out.reserve(a->count);
  for (std::uint32_t i = 0; i < a->count; ++i)
    out.push_back(JSONValue(ValueStorage(internal::copySlot(internal::valueView(a->items[i])))));
  return out;
}

JSONValue JSONValue::merge(const JSONValue& newValue, const JSONValue& oldValue) {
  return JSONValue(ValueStorage(internal::ownSlot(internal::mergeValues(internal::slot(newValue), internal::slot(oldValue)))));
}

Object JSONValue::toAnyType() const { return internal::valueSlotToAny(slot_.get()); }

std::string JSONValue::description() const {
  std::string out;
  internal::describeValue(slot_.get(), out);
  return out;
}

bool operator==(const JSONValue& a, const JSONValue& b) { return internal::valueEqual(internal::slot(a), internal::slot(b)); }

}  // namespace brivet
