// BrivetModel: the legacy key-path model.
//
// The model keeps the whole client-side graph in one nested mutable dictionary (`jsongModel`), reads it by
// dotted key paths ("lists.top.@range(0,9).title"), finds the requested paths that are missing or expired,
// fetches them through its data source, merges the responses, and saves and restores the cache as JSON.
//
// Ownership: create models with `create`; they are always held by std::shared_ptr. The data source, logging
// delegate and performance-trace delegate belong to the application and are held weakly. The subscription
// objects a data source returns are handed back to the caller untouched.
//
// Threads: every public operation may be called from any thread. The cache is guarded by the model's concurrent
// queue (`jsongModelAccessQueue`, labelled with the library identifier + "-model"): reads run as synchronous
// blocks, side by side; writes (sets, invalidations, merges) run as asynchronous barrier blocks, so a read issued
// after a write sees it. Blocks hold the model weakly: a model released while blocks are pending does nothing
// more (in particular, completions of requests still in flight are not called).
//
// Results: get and call completions run on `DispatchQueue::main()`, except the error for missing key paths,
// which is reported at once on the caller's thread. Errors have the domain BRIVET_ERROR_DOMAIN, the code
// BRIVET_ERROR_CODE and the message under the localized-description key.
//
// Logging and tracing go to the application's delegates through gates (delegate present, logging / tracing
// enabled; network lines need the network switch too). Debug lines are discarded without being formatted.
// Signposts ("Stream", "Cache", "DataSource") surround each get and call when SIGNPOSTS_FOR_BRIVET is set.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "brivet/legacy/function_call.h"
#include "brivet/legacy/path.h"
#include "brivet/legacy/protocols.h"
#include "brivet/platform/dispatch_queue.h"
#include "brivet/platform/error.h"
#include "brivet/platform/format.h"
#include "brivet/platform/mutex.h"
#include "brivet/platform/object.h"
#include "brivet/platform/uuid.h"

namespace brivet {

// What restoring a snapshot left out, for callers that ask (`deserializeCache`).
struct BrivetRestoreReport {
  // Entries not stored: values that are no part of a graph (nulls), and references whose target neither the
  // snapshot nor the cache holds.
  std::size_t leftOut = 0;
  // Leaves restored already expired (only while the data source enables expiry): a get fetches them again.
  std::size_t expiredLeaves = 0;
  // "2 entries left out; 1 leaf already expired", or "nothing left out".
  std::string description() const;
};

class BrivetModel : public std::enable_shared_from_this<BrivetModel> {
  struct Passkey {};

 public:
  // `prefixes`: first key-path components whose branch nodes may be read as values without a debug report.
  static std::shared_ptr<BrivetModel> create(std::optional<std::vector<std::string>> prefixes = std::nullopt);
  BrivetModel(Passkey, std::optional<std::vector<std::string>> prefixes);
  BrivetModel(const BrivetModel&) = delete;
  BrivetModel& operator=(const BrivetModel&) = delete;

  // --- Delegates (held weakly) and state ---
  std::shared_ptr<BrivetDataSource> dataSource() const;
  void setDataSource(const std::shared_ptr<BrivetDataSource>& dataSource);
  std::shared_ptr<BrivetLoggerDelegate> loggingDelegate() const;
  void setLoggingDelegate(const std::shared_ptr<BrivetLoggerDelegate>& delegate);
  std::shared_ptr<BrivetPerformanceTraceDelegate> performanceTraceDelegate() const;
  void setPerformanceTraceDelegate(const std::shared_ptr<BrivetPerformanceTraceDelegate>& delegate);
  const std::optional<std::vector<std::string>>& prefixes() const { return prefixes_; }
  // The cache root. Touch it only inside blocks of `jsongModelAccessQueue` (sync to read, barrier to write).
  const Object& jsongModel() const { return jsongModel_; }
  const std::shared_ptr<DispatchQueue>& jsongModelAccessQueue() const { return queue_; }

  // --- Reading and writing the cache ---
  // The value at a key path (nil for a key path with a range, or nothing there). A leaf reads as its dictionary;
  // 'a.leaf.value' reads inside it.
  Object valueForKeyPath(std::string_view keyPath);
  // The same without the range test.
  Object valueForKey(std::string_view key);
  // One element per key path: its value, or the null object when there is none (or it has a range) and
  // `fillEmptyWithNull` is set; without it such key paths contribute nothing.
  std::vector<Object> valuesForKeyPaths(const std::vector<std::string>& keyPaths, bool fillEmptyWithNull = true);
  // Writes (nil removes), through references, as barrier blocks.
  void setValueForKeyPath(const Object& value, std::string_view keyPath);
  void setValueForKey(const Object& value, std::string_view key);
  // Removes each key path's value, in order.
  void invalidateForKeyPaths(const std::vector<std::string>& keyPaths);
  // Merges a JSON graph fragment (references as arrays of keys, leaves as {"$type": "leaf", ...} dictionaries).
  // The merge adopts the dictionary's nested containers into the cache: do not modify them afterwards.
  void mergeJSONDictionaryIntoModel(const Object& dictionary);

  // --- Snapshots ---
  // The cache as compact JSON text, {"jsonGraph": ..., "$_version": 0}. Nothing, without an error, when the
  // cache holds nothing that JSON can express; nothing with the writer's error in `error` when writing failed.
  std::optional<std::string> serializeCache(std::optional<Error>* error = nullptr);
  // Only the subtrees the key paths select ("a.b", or "a.@*" for every child of "a"); all of it when
  // `keyPaths` is absent or empty.
  std::optional<std::string> serializeCacheWithKeyPaths(const std::optional<std::vector<std::string>>& keyPaths,
                                                        std::optional<Error>* error = nullptr);
  // Parses a snapshot (or a bare graph, or a snapshot of any "$_version") and merges it; false for absent data,
  // text that is not a JSON object (the parser's error in `error`). The merge completes asynchronously, before
  // any later read; with a `report`, it has completed when the call returns and the report says what it left
  // out (do not ask for one from inside a block of the model's queue).
  bool deserializeCache(std::optional<std::string_view> data, std::optional<Error>* error = nullptr,
                        BrivetRestoreReport* report = nullptr);

  // --- Requests ---
  // Gets the key paths under `option`; returns the data source's subscription object, or nil when nothing was
  // fetched. The task name (for traces) defaults to the key paths joined by ", ".
  Object getKeyPaths(const std::optional<std::vector<std::string>>& keyPaths, BrivetModelOption option,
                     const std::optional<std::string>& taskName, BrivetCompletion completion);
  Object getKeyPaths(const std::optional<std::vector<std::string>>& keyPaths,
                     const std::optional<std::string>& taskName, BrivetCompletion completion);
  Object getKeyPath(const std::string& keyPath, BrivetModelOption option, const std::optional<std::string>& taskName,
                    BrivetCompletion completion);
  Object getKeyPath(const std::string& keyPath, const std::optional<std::string>& taskName,
                    BrivetCompletion completion);
  // Calls a remote function; the answer holds the values under the response's "paths".
  Object callFunction(const std::shared_ptr<const BrivetFunctionCall>& function,
                      const std::optional<std::vector<std::string>>& fetchKeyPaths, BrivetCompletion completion);
  Object callFunction(const std::shared_ptr<const BrivetFunctionCall>& function, BrivetCompletion completion);

  // --- Cache primitives. The caller runs them inside blocks of the queue (sync for misses, barrier for merges).
  // Appends the key paths of `path` that are missing or expired below `resolvedKeyPath` (the root when absent).
  // Consecutive missing indices of a range collapse into one ranged key path.
  void collectCacheMissesInto(std::vector<std::string>* cacheMisses, const BrivetPath* path,
                              std::optional<std::string_view> resolvedKeyPath);
  // Merges the JSON node (default: the JSON root) into the graph node (default: the graph root).
  void buildJSONGraph(const Object& jsonGraphModel, const Object& jsonGraphNode, const Object& json,
                      const Object& jsonNode);
  // Whether "@range" occurs in the key path.
  static bool isKeyPathWithRange(std::string_view keyPath);

  // --- Logging (gated; see the header comment) ---
  template <class... Args>
  void logError(std::string_view format, const Args&... args) {
    if (auto logger = enabledLogger()) logger->logError(*this, formatString(format, args...));
  }
  template <class... Args>
  void logInfo(std::string_view format, const Args&... args) {
    if (auto logger = enabledLogger()) logger->logInfo(*this, formatString(format, args...));
  }
  // Remote request and response lines: delivered through logInfo only when network logging is also enabled.
  template <class... Args>
  void logExNetworkInfo(std::string_view format, const Args&... args) {
    if (auto logger = enabledNetworkLogger()) logger->logInfo(*this, formatString(format, args...));
  }
  // Debug lines are discarded without formatting.
  template <class... Args>
  void logDebug(std::string_view /*format*/, const Args&... /*args*/) {}
  void logDebugUserInfo(const Object& userInfo);

  // --- Performance tracing (gated) ---
  void beginTraceForTaskName(const std::string& taskName, const UUID& uuid);
  void endTraceForUUID(const UUID& uuid, const std::string& taskName, const std::optional<Error>& error, bool cached,
                       bool hasExpired);

 private:
  struct GetRequest;
  struct CallRequest;

  // Expiry (only when the data source enables it): whether a leaf has expired,
  // and relative "$expires" values made absolute at merge time.
  bool isLeafNodeExpired(const Object& node);
  Object convertToAbsoluteExpiration(const Object& value);
  Object convertLeafToAbsoluteExpiration(const Object& leaf);

  std::shared_ptr<BrivetLoggerDelegate> enabledLogger();
  std::shared_ptr<BrivetLoggerDelegate> enabledNetworkLogger();
  bool isCacheExpirationEnabled();

  Object safeValueForKeyPath(std::string_view keyPath);
  void collectMisses(std::vector<std::string>& misses, const BrivetPath* path, std::optional<std::string> prefix);
  void collectRangeMisses(std::vector<std::string>& misses, std::string_view fragment, const BrivetPath* next,
                          const std::optional<std::string>& prefix);
  // `leftOut`, when given, counts the entries the merge does not store.
  void mergeNode(const Object& graphRoot, const Object& graphNode, const Object& jsonRoot, const Object& jsonNode,
                 std::size_t depth, std::size_t* leftOut);
  void mergeReference(const Object& graphRoot, const Object& graphNode, const Object& jsonRoot, const Object& jsonNode,
                      const Object& key, const Object& path, std::size_t depth, std::size_t* leftOut);
  std::size_t countExpiredLeaves(const Object& node, std::size_t depth);

  // Loader.
  Object fetchKeyPaths(const std::optional<std::vector<std::string>>& keyPaths, const UUID& uuid,
                       BrivetDataSourceCompletion completion);
  Object fireCallFunction(const std::shared_ptr<const BrivetFunctionCall>& function,
                          const std::optional<std::vector<std::string>>& fetchKeyPaths, const UUID& uuid,
                          BrivetDataSourceCompletion completion);
  void handleGetResponse(const std::shared_ptr<GetRequest>& request, const Object& results, const Object& extra);
  void handleCallResponse(const std::shared_ptr<CallRequest>& request, const Object& results);
  bool isValidPathBoundError(const Object& pathBoundError);
  Object valueFromResults(const Object& results, std::string_view key, ObjectKind expectedKind, bool mutableOnly,
                          std::optional<Error>* error);

  const std::optional<std::vector<std::string>> prefixes_;
  const Object jsongModel_;
  const std::shared_ptr<DispatchQueue> queue_;

  mutable Mutex delegatesMu_;
  std::weak_ptr<BrivetDataSource> dataSource_ BRIVET_GUARDED_BY(delegatesMu_);
  std::weak_ptr<BrivetLoggerDelegate> loggingDelegate_ BRIVET_GUARDED_BY(delegatesMu_);
  std::weak_ptr<BrivetPerformanceTraceDelegate> performanceTraceDelegate_ BRIVET_GUARDED_BY(delegatesMu_);
};

}  // namespace brivet
