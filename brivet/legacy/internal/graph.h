// Walks over the legacy cache's object graph (internal to the legacy model).
//
// The cache is a tree of mutable dictionaries whose nodes are branches (dictionaries), leaves (dictionaries whose
// "$type" is "leaf"), references (`BrivetPathReference`), values (strings, numbers) and lists (arrays). These
// functions read it along paths, deep-merge read results, and turn it into its serialisable form. None of them
// locks: `BrivetModel` calls them inside its queue's blocks.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "brivet/legacy/path.h"
#include "brivet/platform/object.h"

namespace brivet::internal {

// References one read follows along a single path (from the root down to one value). A longer chain is a cycle
// in practice (a reference to itself or to an ancestor); the reference where the bound is reached reads as one
// that cannot be resolved: an empty dictionary.
inline constexpr std::size_t kMaxReferencesPerPath = 256;
// The steps one read (or one miss collection) may take: kWalkStepBudget plus kWalkStepsPerRequestKey for every
// key its paths name (a range counts as one key). A step is one key looked up in a branch, one reference followed
// (or refused at the chain bound), or one fragment of a missing key path written out. Key sets that fan out
// through cycles of references would otherwise cost exponentially more than the request and the cache together.
// Every step of a read can write one dictionary into its result, so the budget bounds the result too: one step
// per key keeps the worst answer of 1 MB (about 260,000 keys) near half a million steps, within about 100 ms and
// 100 MB. Ordinary reads take one step per key looked up and one per reference followed: the shared part covers
// the references (and the entries a range over a large branch scans) of any request naming fewer than about
// 260,000 of them.
inline constexpr std::size_t kWalkStepBudget = std::size_t{1} << 18;
inline constexpr std::size_t kWalkStepsPerRequestKey = 1;
std::size_t walkBudget(std::span<const BrivetPathProtocol* const> paths);
// Nesting of one merge: deeper nodes (a chain of references, each merging its target) are stored but not merged
// further. Above the JSON parser's own nesting limit, so parsed documents never reach it on their own.
inline constexpr std::size_t kMaxMergeDepth = 1024;

bool isLeafNode(const Object& node);
bool isPathReference(const Object& node);

// The values under `path` starting at `node`: a fresh mutable dictionary shaped like the path (references
// followed, leaves reduced to their payload), or nil when `node` is a leaf or reference that yields nothing and
// is not the root.
Object getJSON(const Object& node, const BrivetPathProtocol* path, const Object& root);
// Reads every path from `root` and deep-merges the results into one fresh mutable dictionary. A read that goes
// past its walk budget stops there and sets `*exceeded` (when given); the result then holds what was read so far.
Object getJSONForPaths(const Object& root, std::span<const BrivetPathProtocol* const> paths,
                       bool* exceeded = nullptr);

// Deep-merges `source` into the mutable dictionary `target`: where both hold dictionaries under a key the merge
// recurses, otherwise the source's value replaces the target's. An immutable nested target dictionary is
// replaced by a mutable copy first, so the merge never writes into objects it does not own.
void mergeDictionary(const Object& source, const Object& target);

// The serialisable form of a cache node: branches and leaves as dictionaries (empty ones dropped), references as
// their path arrays, strings and numbers as they are, other values when they are valid JSON collections.
// `components`, when not empty, selects keys level by level ("@*" selects every key at its level). nil when the
// node is not a dictionary.
Object serializableDictionary(const Object& node, std::span<const std::string> components);

// {"jsonGraph": dictionary, "$_version": 0}, unless `dictionary` already is such an envelope.
Object cacheEnvelope(const Object& dictionary);
// The "jsonGraph" of an envelope, or `dictionary` itself.
Object removeCacheEnvelope(const Object& dictionary);

// The elements' texts (strings as they are, other values by description) joined by `separator`.
std::string joinDescriptions(const Object& array, std::string_view separator);
std::string joinStrings(std::span<const std::string> strings, std::string_view separator);

}  // namespace brivet::internal
