#include "brivet/platform/typed_access.h"

#include <cfloat>
#include <charconv>
#include <cmath>

namespace brivet {
namespace {

constexpr std::string_view kLocationKey = "location";
constexpr std::string_view kReasonKey = "reason";
constexpr std::size_t kQuotedTextLimit = 40;

// An access error whose message is "<location>: <reason>", keeping both parts
// in the user info so that an outer read can put its own location in front.
Error typedError(AccessErrorCode code, std::string location, std::string reason) {
  std::string message = location.empty() ? reason : location + ": " + reason;
  return Error(std::string(kAccessErrorDomain), static_cast<std::int64_t>(code),
               Object::dictionary({{Object(kLocalizedDescriptionKey), Object(std::move(message))},
                                   {Object(kLocationKey), Object(std::move(location))},
                                   {Object(kReasonKey), Object(std::move(reason))}}));
}

// `inner` one level further out: `outer` goes in front of its location.
Error relocated(const Error& inner, std::string_view outer) {
  const Object reason = inner.userInfo()[kReasonKey];
  if (inner.domain() != kAccessErrorDomain || !reason.isString()) return inner;  // an application's own error
  const std::string_view location = inner.userInfo()[kLocationKey].stringValue();
  std::string joined(outer);
  if (!location.empty()) {
    if (location.front() != '[' && !joined.empty()) joined += '.';
    joined.append(location);
  }
  return typedError(static_cast<AccessErrorCode>(inner.code()), std::move(joined), std::string(reason.stringValue()));
}

// Text shortened for a message, cut on a character boundary.
std::string shortText(std::string_view text) {
  if (text.size() <= kQuotedTextLimit) return std::string(text);
  std::size_t end = kQuotedTextLimit;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return std::string(text.substr(0, end)) + "...";
}

std::string describeFound(const Object& found) {
  if (found.isNil()) return "nothing";
  switch (found.kind()) {
    case ObjectKind::Null: return "null";
    case ObjectKind::Number: {
      const Number* n = found.asNumber();
      if (n->isBoolean()) return n->boolValue() ? "the boolean true" : "the boolean false";
      return "the number " + n->description();
    }
    case ObjectKind::String: return "the string \"" + shortText(found.stringValue()) + "\"";
    case ObjectKind::Array: return "an array of " + std::to_string(found.count()) + " elements";
    case ObjectKind::Dictionary: return "a dictionary of " + std::to_string(found.count()) + " entries";
    case ObjectKind::Date: return "a date";
    case ObjectKind::Data: return "data of " + std::to_string(found.asData()->bytes().size()) + " bytes";
    case ObjectKind::Custom: return "a " + std::string(found.asCustom()->className());
  }
  return "an object";
}

std::string integerRange(std::int64_t min, std::uint64_t max) {
  return "an integer from " + std::to_string(min) + " to " + std::to_string(max);
}

Error outOfRange(std::string expected, const Object& found) {
  return typedError(AccessErrorCode::OutOfRange, "", "expected " + expected + ", found " + describeFound(found));
}

// A number's value as an exact integer: its sign and magnitude. False for
// booleans, non-numbers and doubles with a fraction or beyond 64 bits.
bool exactInteger(const Number& n, bool* negative, std::uint64_t* magnitude) {
  switch (n.type()) {
    case Number::Type::Boolean: return false;
    case Number::Type::Signed: {
      const std::int64_t v = n.int64Value();
      *negative = v < 0;
      *magnitude = v < 0 ? 0 - static_cast<std::uint64_t>(v) : static_cast<std::uint64_t>(v);
      return true;
    }
    case Number::Type::Unsigned:
      *negative = false;
      *magnitude = n.uint64Value();
      return true;
    case Number::Type::Double: {
      const double d = n.doubleValue();
      if (!std::isfinite(d) || std::trunc(d) != d) return false;
      const double a = std::fabs(d);
      if (a >= 18446744073709551616.0) return false;  // 2^64
      *negative = d < 0;
      *magnitude = static_cast<std::uint64_t>(a);
      return true;
    }
  }
  return false;
}

// Whether `d` is a leaf wrapper; sets `value` (nil for one without a value) and `isError`.
bool isWrapper(const Dictionary& d, Object* value, bool* isError) {
  bool hasType = false;
  *isError = false;
  *value = Object();
  for (const auto& [key, entry] : d) {
    const std::string_view name = key.stringValue();
    if (name == "value") {
      *value = entry;
    } else if (name.empty() || name.front() != '$') {
      return false;
    } else if (name == "$type") {
      if (!entry.isString()) return false;
      const std::string_view type = entry.stringValue();
      if (type == "error") {
        *isError = true;
      } else if (type != "atom" && type != "leaf") {
        return false;  // a reference, or a type this read does not know
      }
      hasType = true;
    }
  }
  return !value->isNil() || hasType;
}

// A text key that is an array index: decimal digits without a leading zero.
bool indexOfText(std::string_view text, std::uint64_t* index) {
  if (text.empty() || (text.size() > 1 && text.front() == '0')) return false;
  for (const char c : text) {
    if (c < '0' || c > '9') return false;
  }
  return std::from_chars(text.data(), text.data() + text.size(), *index).ec == std::errc();
}

std::string keyText(const detail::WalkKey& key) {
  if (!key.isInteger) return std::string(key.text);
  return (key.negative ? "-" : "") + std::to_string(key.magnitude);
}

Object step(const Object& current, const detail::WalkKey& key) {
  Object node = current;
  // A wrapped leaf lacking the key is looked through, as often as it is wrapped.
  for (;;) {
    if (const Dictionary* d = node.asDictionary()) {
      Object found = key.isInteger ? d->objectForKey(keyText(key)) : d->objectForKey(key.text);
      if (!found.isNil()) return found;
      Object value;
      bool isError = false;
      if (!isWrapper(*d, &value, &isError) || isError || value.isNil()) return Object();
      node = value;
      continue;
    }
    if (const Array* a = node.asArray()) {
      std::uint64_t index = 0;
      if (key.isInteger) {
        if (key.negative) return Object();
        index = key.magnitude;
      } else if (!indexOfText(key.text, &index)) {
        return Object();
      }
      return index < a->size() ? (*a)[static_cast<std::size_t>(index)] : Object();
    }
    if (node.isCustom()) return node.valueForKey(keyText(key));
    return Object();
  }
}

}  // namespace

// --- Built-in conversions ---

Result<bool, Error> fromObject(const Object& object, Tag<bool>) {
  if (!object.isBoolean()) return detail::wrongTypeError("a boolean", object);
  return object.asNumber()->boolValue();
}

Result<double, Error> fromObject(const Object& object, Tag<double>) {
  const Number* n = object.asNumber();
  if (n == nullptr || n->isBoolean()) return detail::wrongTypeError("a number", object);
  return n->doubleValue();
}

Result<float, Error> fromObject(const Object& object, Tag<float>) {
  const Number* n = object.asNumber();
  if (n == nullptr || n->isBoolean()) return detail::wrongTypeError("a number", object);
  const double d = n->doubleValue();
  if (std::isfinite(d) && std::fabs(d) > static_cast<double>(FLT_MAX)) {
    return outOfRange("a number a float holds", object);
  }
  // Rounds to the nearest float: a float holds fewer digits than a double.
  return static_cast<float>(d);
}

Result<std::string, Error> fromObject(const Object& object, Tag<std::string>) {
  if (!object.isString()) return detail::wrongTypeError("a string", object);
  return std::string(object.stringValue());
}

Result<Date, Error> fromObject(const Object& object, Tag<Date>) {
  if (!object.isDate()) return detail::wrongTypeError("a date", object);
  return object.asDate()->value();
}

Result<Object, Error> fromObject(const Object& object, Tag<Object>) {
  if (object.isNil()) return detail::noValueError();
  return object;
}

namespace detail {

Result<std::int64_t, Error> readSigned(const Object& object, std::int64_t min, std::int64_t max) {
  const Number* n = object.asNumber();
  bool negative = false;
  std::uint64_t magnitude = 0;
  if (n == nullptr || !exactInteger(*n, &negative, &magnitude)) {
    return wrongTypeError(integerRange(min, static_cast<std::uint64_t>(max)), object);
  }
  const std::uint64_t limit = negative ? 0 - static_cast<std::uint64_t>(min) : static_cast<std::uint64_t>(max);
  if ((negative && min >= 0) || magnitude > limit) {
    return outOfRange(integerRange(min, static_cast<std::uint64_t>(max)), object);
  }
  // Within [min, max], so the two's-complement conversion is exact.
  return negative ? static_cast<std::int64_t>(0 - magnitude) : static_cast<std::int64_t>(magnitude);
}

Result<std::uint64_t, Error> readUnsigned(const Object& object, std::uint64_t max) {
  const Number* n = object.asNumber();
  bool negative = false;
  std::uint64_t magnitude = 0;
  if (n == nullptr || !exactInteger(*n, &negative, &magnitude)) return wrongTypeError(integerRange(0, max), object);
  if ((negative && magnitude != 0) || magnitude > max) return outOfRange(integerRange(0, max), object);
  return magnitude;
}

Error noValueError() { return typedError(AccessErrorCode::NoValue, "", "no value"); }
Error readError(AccessErrorCode code, std::string reason) { return typedError(code, "", std::move(reason)); }

Error wrongTypeError(std::string_view expected, const Object& found) {
  if (found.isNil()) return noValueError();
  return typedError(AccessErrorCode::WrongType, "", "expected " + std::string(expected) + ", found " + describeFound(found));
}

Error refusedByConversionError(const Object& found) {
  return typedError(AccessErrorCode::WrongType, "",
                    "the application's conversion refused " + describeFound(found));
}

Error atIndex(const Error& inner, std::size_t index) { return relocated(inner, "[" + std::to_string(index) + "]"); }
Error atKey(const Error& inner, std::string_view key) { return relocated(inner, key); }
Error atKeys(const Error& inner, std::string_view keys) { return relocated(inner, keys); }

Object walk(const Object& object, std::span<const WalkKey> keys, std::size_t* failedAt) {
  Object current = object;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    current = step(current, keys[i]);
    if (current.isNil()) {
      *failedAt = i;
      return current;
    }
  }
  return current;
}

std::string describeKeys(std::span<const WalkKey> keys, std::size_t count) {
  std::string out;
  for (std::size_t i = 0; i < count && i < keys.size(); ++i) {
    if (i > 0) out += '.';
    out += keyText(keys[i]);
  }
  return out;
}

Result<Object, Error> unwrapLeaf(const Object& object) {
  Object current = object;
  while (const Dictionary* d = current.asDictionary()) {
    Object value;
    bool isError = false;
    if (!isWrapper(*d, &value, &isError)) break;
    if (isError) {
      const Object message = value["message"];
      return typedError(AccessErrorCode::WrongType, "",
                        "found an error leaf" +
                            (message.isString() ? ": " + shortText(message.stringValue())
                                                : value.isNil() ? std::string() : " (" + describeFound(value) + ")"));
    }
    if (value.isNil()) return typedError(AccessErrorCode::NoValue, "", "found a leaf without a value");
    current = value;
  }
  return current;
}

}  // namespace detail
}  // namespace brivet
