#include "brivet/core/cache/cache_envelope.h"

#include <string>

#include "brivet/core/values/internal/value_access.h"
#include "brivet/platform/json.h"

namespace brivet {
namespace {

constexpr std::string_view kGraphKey = "jsonGraph";
constexpr std::string_view kVersionKey = "$_version";
// No cache counts this far, one write at a time: a larger version (a negative
// integer reads as one) can only come from a damaged snapshot, and a few
// writes after it the version would step past its maximum.
constexpr std::uint64_t kMaxSnapshotVersion = (std::uint64_t{1} << 63) - 1;
constexpr JSONReadingOptions kReadingOptions =
    JSONReadingOptions::MutableContainers | JSONReadingOptions::FragmentsAllowed;

bool hasOnlyStringKeys(const Dictionary& d) {
  for (const auto& entry : d) {
    if (!entry.first.isString()) return false;
  }
  return true;
}

// The envelope of a graph and a version read from a snapshot, when both are usable.
std::optional<CacheEnvelope> envelopeOf(JSONGraph graph, std::uint64_t version) {
  // The cache's root is an object branch; a snapshot whose graph is a leaf is not one of its snapshots.
  if (!graph.isObject() || version > kMaxSnapshotVersion) return std::nullopt;
  return CacheEnvelope{std::move(graph), version};
}

}  // namespace

Object CacheEnvelope::toDictionary() const {
  return Object::dictionaryWithDistinctKeys(
      {{Object(kGraphKey), jsonGraph.toAnyType()}, {Object(kVersionKey), Object::unsignedInteger(version)}}, false);
}

std::optional<CacheEnvelope> CacheEnvelope::fromDictionary(const Object& dictionary) {
  const Dictionary* d = dictionary.asDictionary();
  if (d == nullptr) return std::nullopt;
  const Object graph = d->objectForKey(kGraphKey);
  const Dictionary* g = graph.asDictionary();
  const Number* version = d->objectForKey(kVersionKey).asNumber();
  if (g == nullptr || !hasOnlyStringKeys(*g) || version == nullptr) return std::nullopt;
  return envelopeOf(JSONGraph::fromAny(graph), version->uint64Value());
}

Result<std::string> CacheEnvelope::toJSONText() const {
  // The graph's text goes straight into the envelope's; only when the graph
  // cannot be written does the dictionary form give the writer's error.
  Result<std::string> graphText = jsonGraph.toJSONText(JSONWritingOptions::FragmentsAllowed);
  if (!graphText.ok()) return writeJSON(toDictionary());
  const std::string versionText = std::to_string(version);
  std::string out;
  out.reserve(graphText->size() + versionText.size() + 32);
  out += "{\"jsonGraph\":";
  out += *graphText;
  out += ",\"$_version\":";
  out += versionText;
  out += '}';
  return out;
}

Result<std::optional<CacheEnvelope>> CacheEnvelope::fromJSONText(std::string_view text) {
  // The whole text read as a graph: a plain top-level dictionary becomes an
  // object branch whose "jsonGraph" child is the snapshot's graph, read
  // straight into nodes.
  Result<JSONGraph> read = JSONGraph::fromJSONText(text, Object(), kReadingOptions);
  if (!read.ok()) return Failure{read.error()};
  if (read->isObject()) {
    const std::optional<JSONGraph> graph = read->find(kGraphKey);
    const std::optional<JSONGraph> version = read->find(kVersionKey);
    if (!graph || !version || !graph->isObject()) return std::optional<CacheEnvelope>();
    const internal::Slot v = internal::slot(*version);
    if (!internal::isNumberSlot(v) && !internal::isBooleanSlot(v)) return std::optional<CacheEnvelope>();
    return envelopeOf(*graph, internal::numberOf(v).uint64Value());
  }
  // Not a plain dictionary to the graph reader (a top-level "$type", or no
  // dictionary at all): read it as platform objects.
  Result<Object> parsed = parseJSON(text, kReadingOptions);
  if (!parsed.ok()) return Failure{parsed.error()};
  return fromDictionary(*parsed);
}

}  // namespace brivet
