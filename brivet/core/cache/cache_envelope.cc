#include "brivet/core/cache/cache_envelope.h"

#include <string>

#include "brivet/core/cache/internal/graph_walk.h"
#include "brivet/core/values/internal/unreadable.h"
#include "brivet/core/values/internal/value_access.h"
#include "brivet/platform/date.h"
#include "brivet/platform/json.h"
#include "brivet/platform/precondition.h"

namespace brivet {
namespace {

constexpr std::string_view kGraphKey = "jsonGraph";
constexpr std::string_view kVersionKey = "$_version";
constexpr JSONReadingOptions kReadingOptions =
    JSONReadingOptions::MutableContainers | JSONReadingOptions::FragmentsAllowed;

void checkVersion(std::uint64_t version) {
  BRIVET_PRECONDITION(version <= kMaxCacheVersion, "cache version above kMaxCacheVersion");
}

bool hasOnlyStringKeys(const Dictionary& d) {
  for (const auto& entry : d) {
    if (!entry.first.isString()) return false;
  }
  return true;
}

std::optional<CacheEnvelope> refuse(SnapshotReport* report, std::string why) {
  if (report != nullptr) report->refusal = std::move(why);
  return std::nullopt;
}

// Leaves of `s` whose expiry has passed at `nowMs`.
std::size_t expiredLeaves(internal::Slot s, double nowMs) {
  if (internal::isObjectSlot(s)) {
    std::size_t n = 0;
    internal::objectForEach(s, [&](const internal::Slot&, const internal::Slot& child) { n += expiredLeaves(child, nowMs); });
    return n;
  }
  if (internal::isArraySlot(s)) {
    const internal::ArrayNode* a = internal::arrayOf(s);
    std::size_t n = 0;
    for (std::uint32_t i = 0; i < a->count; ++i) n += expiredLeaves(a->items[i], nowMs);
    return n;
  }
  internal::LeafView leaf;
  return internal::viewLeaf(s, &leaf) && internal::isExpired(leaf.metadata, nowMs) ? 1 : 0;
}

// The envelope of a graph and a version read from a snapshot, when both are usable. `version` is the snapshot's
// number as it stands.
std::optional<CacheEnvelope> envelopeOf(JSONGraph graph, const Number& version, SnapshotReport* report) {
  // The cache's root is an object branch; a snapshot whose graph is a leaf is not one of its snapshots.
  if (!graph.isObject()) return refuse(report, "\"jsonGraph\" is a single leaf, not a graph");
  // A negative integer reads as a number above the range.
  const std::uint64_t v = version.uint64Value();
  if (v > kMaxCacheVersion) {
    return refuse(report, "\"$_version\" " + version.description() + " lies outside 0..." +
                              std::to_string(kMaxCacheVersion));
  }
  if (report != nullptr) {
    report->expiredLeaves = expiredLeaves(internal::slot(graph), timeIntervalSince1970(dateNow()) * 1000.0);
  }
  return CacheEnvelope{std::move(graph), v};
}

}  // namespace

std::string SnapshotReport::description() const {
  if (!restored()) return "not restored: " + refusal;
  std::string out = "restored";
  if (unreadableEntries > 0) {
    out += "; " + std::to_string(unreadableEntries) +
           (unreadableEntries == 1 ? " entry" : " entries") + " could not be read (restored as null)";
  }
  if (expiredLeaves > 0) {
    out += "; " + std::to_string(expiredLeaves) + (expiredLeaves == 1 ? " leaf had" : " leaves had") +
           " already expired (a read fetches them again)";
  }
  return out;
}

Object CacheEnvelope::toDictionary() const {
  checkVersion(version);
  return Object::dictionaryWithDistinctKeys(
      {{Object(kGraphKey), jsonGraph.toAnyType()}, {Object(kVersionKey), Object::unsignedInteger(version)}}, false);
}

std::optional<CacheEnvelope> CacheEnvelope::fromDictionary(const Object& dictionary, SnapshotReport* report) {
  if (report != nullptr) *report = SnapshotReport();
  const Dictionary* d = dictionary.asDictionary();
  if (d == nullptr) return refuse(report, "the snapshot is not a dictionary");
  const Object graph = d->objectForKey(kGraphKey);
  const Dictionary* g = graph.asDictionary();
  if (g == nullptr) return refuse(report, "no \"jsonGraph\" dictionary");
  if (!hasOnlyStringKeys(*g)) return refuse(report, "\"jsonGraph\" has keys that are not text");
  const Number* version = d->objectForKey(kVersionKey).asNumber();
  if (version == nullptr) return refuse(report, "no \"$_version\" number");
  internal::UnreadableCount unreadable;
  JSONGraph converted = JSONGraph::fromAny(graph);
  if (report != nullptr) report->unreadableEntries = unreadable.count();
  return envelopeOf(std::move(converted), *version, report);
}

Result<std::string> CacheEnvelope::toJSONText() const {
  checkVersion(version);
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

Result<std::optional<CacheEnvelope>> CacheEnvelope::fromJSONText(std::string_view text, SnapshotReport* report) {
  if (report != nullptr) *report = SnapshotReport();
  // The whole text read as a graph: a plain top-level dictionary becomes an
  // object branch whose "jsonGraph" child is the snapshot's graph, read
  // straight into nodes.
  internal::UnreadableCount unreadable;
  Result<JSONGraph> read = JSONGraph::fromJSONText(text, Object(), kReadingOptions);
  if (!read.ok()) return Failure{read.error()};
  if (read->isObject()) {
    const std::optional<JSONGraph> graph = read->find(kGraphKey);
    const std::optional<JSONGraph> version = read->find(kVersionKey);
    if (!graph || !graph->isObject()) {
      const bool leaf = graph && graph->isLeaf() && graph->leaf().kind() != JSONGraphLeaf::Kind::Primitive;
      return refuse(report, leaf ? "\"jsonGraph\" is a single leaf, not a graph" : "no \"jsonGraph\" dictionary");
    }
    const internal::Slot v = version ? internal::slot(*version) : internal::kEmpty;
    if (!version || (!internal::isNumberSlot(v) && !internal::isBooleanSlot(v))) {
      return refuse(report, "no \"$_version\" number");
    }
    if (report != nullptr && unreadable.count() > 0) {
      // The count covers the whole text; what lies beside the graph is not restored. Count the graph's own
      // nodes again on platform objects (only damaged snapshots come this way).
      Result<Object> parsed = parseJSON(text, kReadingOptions);
      internal::UnreadableCount graphOnly;
      if (parsed.ok()) (void)JSONGraph::fromAny(parsed.value()[kGraphKey]);
      report->unreadableEntries = graphOnly.count();
    }
    return envelopeOf(*graph, internal::numberOf(v), report);
  }
  // Not a plain dictionary to the graph reader (a top-level "$type", or no
  // dictionary at all): read it as platform objects.
  Result<Object> parsed = parseJSON(text, kReadingOptions);
  if (!parsed.ok()) return Failure{parsed.error()};
  return fromDictionary(*parsed, report);
}

}  // namespace brivet
