#include "brivet/core/values/graph_builders.h"

#include <cmath>

namespace brivet {
namespace {

// A metadata number: an integer when it is one (the usual case: milliseconds),
// so that the wire text reads 1700000000000 rather than 1700000000000.0.
Object wireNumber(double n) {
  constexpr double kExact = 9007199254740992.0;  // 2^53: every integer below is exact in a double
  if (std::fabs(n) < kExact && std::trunc(n) == n) return Object::integer(static_cast<std::int64_t>(n));
  return Object::real(n);
}

// The wrapped-leaf dictionary: "$type", then "value", then the metadata.
Object wrapped(std::string_view type, Object value, const LeafMetadata& metadata) {
  std::vector<Object::Entry> entries;
  entries.reserve(5);
  entries.emplace_back(Object("$type"), Object::string(type));
  entries.emplace_back(Object("value"), std::move(value));
  if (metadata.expires) entries.emplace_back(Object("$expires"), wireNumber(metadata.expires->wireNumber()));
  if (metadata.timestamp) {
    entries.emplace_back(Object("$timestamp"), wireNumber(std::floor(timeIntervalSince1970(*metadata.timestamp) * 1000)));
  }
  if (metadata.size) entries.emplace_back(Object("$size"), Object::integer(*metadata.size));
  return Object::dictionaryWithDistinctKeys(std::move(entries), false);
}

}  // namespace

Expiry Expiry::at(Date date) {
  const double milliseconds = std::floor(timeIntervalSince1970(date) * 1000);
  // 0 and 1 mean now and never, negative numbers are relative: a date that
  // early has long passed.
  return milliseconds <= 1 ? now() : Expiry(milliseconds);
}

namespace leaf {

Object atom(const Object& value, const LeafMetadata& metadata) {
  return wrapped("atom", value.isNil() ? Object::null() : value, metadata);
}

Object ref(const std::vector<std::string>& path, const LeafMetadata& metadata) {
  std::vector<Object> keys;
  keys.reserve(path.size());
  for (const std::string& key : path) keys.push_back(Object::string(key));
  return wrapped("ref", Object::array(std::move(keys)), metadata);
}

Object error(std::string_view message, const LeafMetadata& metadata) {
  return wrapped("error", Object::dictionary({{"message", Object::string(message)}}), metadata);
}

Object error(const Object& body, const LeafMetadata& metadata) {
  return wrapped("error", body.isNil() ? Object::null() : body, metadata);
}

}  // namespace leaf
}  // namespace brivet
