#include "brivet/core/values/typed_access.h"

#include <charconv>

#include "brivet/core/values/internal/value_access.h"

namespace brivet::detail {
namespace {

// A key's text as a dictionary sees it.
std::string keyText(const WalkKey& key) {
  if (!key.isInteger) return std::string(key.text);
  return (key.negative ? "-" : "") + std::to_string(key.magnitude);
}

// The array index a key names: an integer key, or decimal digits without a leading zero.
bool indexOf(const WalkKey& key, std::size_t* index) {
  std::uint64_t i = 0;
  if (key.isInteger) {
    if (key.negative) return false;
    i = key.magnitude;
  } else {
    const std::string_view text = key.text;
    if (text.empty() || (text.size() > 1 && text.front() == '0')) return false;
    for (const char c : text) {
      if (c < '0' || c > '9') return false;
    }
    if (std::from_chars(text.data(), text.data() + text.size(), i).ec != std::errc()) return false;
  }
  if (i > SIZE_MAX) return false;
  *index = static_cast<std::size_t>(i);
  return true;
}

// The leaf-wrapper test of platform objects, on a JSONValue object.
struct Wrapper {
  bool is = false;
  bool isError = false;
  std::optional<JSONValue> value;
};
Wrapper wrapperOf(const JSONValue& object) {
  Wrapper w;
  if (!object.isObject()) return w;
  bool plain = true;
  bool hasType = false;
  object.forEach([&](std::string_view key, const JSONValue& entry) {
    if (!plain) return;
    if (key == "value") {
      w.value = entry;
    } else if (key.empty() || key.front() != '$') {
      plain = false;
    } else if (key == "$type") {
      const JSONPrimitive type = entry.primitive();
      if (!entry.isPrimitive() || !type.isString()) {
        plain = false;
      } else if (type.stringValue() == "error") {
        w.isError = true;
      } else if (type.stringValue() != "atom" && type.stringValue() != "leaf") {
        plain = false;
      }
      hasType = true;
    }
  });
  w.is = plain && (w.value.has_value() || hasType);
  return w;
}

std::optional<JSONValue> stepValue(const JSONValue& current, const WalkKey& key) {
  JSONValue node = current;
  for (;;) {
    if (node.isObject()) {
      if (std::optional<JSONValue> found = node.find(keyText(key))) return found;
      const Wrapper w = wrapperOf(node);
      if (!w.is || w.isError || !w.value) return std::nullopt;
      node = *w.value;
      continue;
    }
    std::size_t index = 0;
    if (node.isArray() && indexOf(key, &index)) return node.at(index);
    return std::nullopt;
  }
}

std::string pathText(const std::vector<std::string>& path) {
  std::string out;
  for (const std::string& key : path) {
    if (!out.empty()) out += '.';
    out += key;
  }
  return out;
}

}  // namespace

std::optional<JSONValue> walkValue(const JSONValue& value, std::span<const WalkKey> keys, std::size_t* failedAt) {
  std::optional<JSONValue> current = value;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    current = stepValue(*current, keys[i]);
    if (!current) {
      *failedAt = i;
      return std::nullopt;
    }
  }
  return current;
}

Result<JSONValue, Error> unwrapValue(const JSONValue& value) {
  JSONValue current = value;
  for (;;) {
    const Wrapper w = wrapperOf(current);
    if (!w.is) return current;
    if (w.isError || !w.value) {
      // An error leaf, or a leaf without a value: the platform form words the failure.
      Result<Object, Error> r = unwrapLeaf(current.toAnyType());
      if (!r.ok()) return r.error();
      return JSONValue::fromAny(r.value());
    }
    current = *w.value;
  }
}

std::optional<std::string_view> stringViewOf(const JSONValue& value) {
  const internal::Slot& slot = ValueAccess::storage(value);
  if (!internal::isStringSlot(slot)) return std::nullopt;
  return internal::stringOf(slot);
}

GraphPlace walkGraph(const JSONGraph& graph, std::span<const WalkKey> keys, std::size_t* failedAt) {
  GraphPlace place{graph, std::nullopt};
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if (place.graph && place.graph->isLeaf()) {
      const JSONGraphLeaf leaf = place.graph->leaf();
      if (leaf.kind() != JSONGraphLeaf::Kind::Atom) {
        *failedAt = i;
        return {std::nullopt, std::nullopt, leaf};
      }
      place = {std::nullopt, leaf.value()};  // keys go on into an atom's value
    }
    if (place.value) {
      place.value = stepValue(*place.value, keys[i]);
      if (!place.value) {
        *failedAt = i;
        return {};
      }
      continue;
    }
    std::optional<JSONGraph> next = place.graph->find(keyText(keys[i]));
    if (!next && keys[i].isInteger) {
      std::size_t index = 0;
      if (indexOf(keys[i], &index)) next = place.graph->at(index);
    }
    if (!next) {
      *failedAt = i;
      return {};
    }
    place.graph = std::move(next);
  }
  return place;
}

Error graphWalkFailure(const GraphPlace& place, std::span<const WalkKey> keys, std::size_t failedAt) {
  // A reference, an error or an undefined leaf in the way says what it is,
  // where it is; keys after a bare primitive simply find nothing.
  if (place.stoppedAt && failedAt > 0) {
    Result<JSONValue, Error> value = leafValue(*place.stoppedAt);
    if (!value.ok()) return atKeys(value.error(), describeKeys(keys, failedAt));
  }
  return atKeys(noValueError(), describeKeys(keys, failedAt + 1));
}

Result<JSONValue, Error> leafValue(const JSONGraphLeaf& leaf) {
  switch (leaf.kind()) {
    case JSONGraphLeaf::Kind::Atom: return leaf.value();
    case JSONGraphLeaf::Kind::Primitive: return JSONValue(leaf.primitive());
    case JSONGraphLeaf::Kind::Error: {
      Result<Object, Error> failure =
          unwrapLeaf(Object::dictionary({{"$type", "error"}, {"value", leaf.value().toAnyType()}}));
      if (!failure.ok()) return failure.error();
      return readError(AccessErrorCode::WrongType, "found an error leaf");
    }
    case JSONGraphLeaf::Kind::Ref:
      return readError(AccessErrorCode::WrongType,
                       "found a reference to " + pathText(leaf.path()) + " (read it where references are followed)");
    case JSONGraphLeaf::Kind::Undefined: return noValueError();
  }
  return noValueError();
}

}  // namespace brivet::detail
