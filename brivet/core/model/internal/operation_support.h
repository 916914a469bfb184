// What the get, set and call pipelines share: their signposts, cache reads,
// error accumulation and the terminal rules of a data-source response.
//
// Internal to the core model. A `Run` belongs to one subscription; its
// members are touched only from the task queue.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "brivet/core/cache/cache.h"
#include "brivet/core/model/model.h"
#include "brivet/core/model/stream.h"
#include "brivet/core/values/brivet_error.h"
#include "brivet/core/values/json_envelope.h"
#include "brivet/core/values/json_value.h"
#include "brivet/core/values/path_tree.h"
#include "brivet/platform/format.h"
#include "brivet/platform/signpost.h"

namespace brivet::internal {

// The core's three signpost logs, enabled when "SIGNPOSTS_FOR_BRIVET" was
// present at the first use in the process.
const SignpostLog& streamLog();
const SignpostLog& cacheLog();
const SignpostLog& dataSourceLog();

// Begins an interval named after the log's category; the message is only
// formatted when the log is enabled. Answers the identifier (0 when disabled).
template <class... Args>
std::uint64_t beginInterval(const SignpostLog& log, std::string_view format, const Args&... args) {
  const std::uint64_t id = log.generateID();
  if (id != 0) log.intervalBegin(id, log.category(), formatString(format, args...));
  return id;
}
// The same for an interval inside the interval `parent`.
template <class... Args>
std::uint64_t beginChildInterval(const SignpostLog& log, std::uint64_t parent, std::string_view format,
                                 const Args&... args) {
  const std::uint64_t id = log.generateID();
  if (id != 0) log.intervalBegin(id, log.category(), formatString(format, args...), parent);
  return id;
}
template <class... Args>
void endInterval(const SignpostLog& log, std::uint64_t id, std::string_view format, const Args&... args) {
  if (id != 0) log.intervalEnd(id, log.category(), formatString(format, args...));
}
template <class... Args>
void signpostEvent(const SignpostLog& log, std::uint64_t id, std::string_view format, const Args&... args) {
  if (id != 0) log.event(id, log.category(), formatString(format, args...));
}

// The tree's key paths joined with ", " (signpost arguments); past the first
// 1,000 the text ends with ", ...".
std::string joinedKeyPaths(const PathTree& tree);
// The same when signposts are on, else nothing (so untraced runs never join paths).
std::string tracedKeyPaths(const PathTree& tree);
// Whether a missing tree names anything: an object or key set with a top-level entry.
bool hasTopLevelEntry(const PathTree& tree);

// A value read: on failure the value is an empty object and nothing is missing.
struct Read {
  JSONValue value = JSONValue::emptyObject();
  PathTree missing;
  PathTree missingOptimized;
  std::optional<BrivetError> error;
};
// Waits until every cache write requested before it has been applied.
void awaitEarlierWrites();
// Reads the cache once every write requested before it has been applied, so
// the read sees them all; the walk itself holds no queue.
Read readCache(const CacheProtocol& cache, const PathTree& tree, bool checkExpiry);
// Without waiting: whether every cache write requested so far has been
// applied (no barrier queued or running on the cache queue).
bool earlierWritesApplied();
// Reads the cache as it is; for a caller that checked `earlierWritesApplied`.
Read readCacheNow(const CacheProtocol& cache, const PathTree& tree, bool checkExpiry);
// A snapshot taken the same way; graph and version come from one state.
CacheEnvelope snapshotCache(const CacheProtocol& cache, const std::optional<PathTree>& tree);
// Reads a stand-alone graph (a response), expiry not consulted.
Read readGraph(const JSONGraph& graph, const PathTree& tree);

// One subscription of an operation stream.
class Run {
 public:
  using Observer = Stream<JSONEnvelope>::Observer;

  Run(InternalModel model, Observer observer, std::uint64_t streamID)
      : model_(std::move(model)), observer_(std::move(observer)), streamID_(streamID) {}

  const InternalModel& model() const { return model_; }
  // The run's Stream interval: the parent of its Cache and DataSource intervals.
  std::uint64_t streamID() const { return streamID_; }

  void progress(JSONValue json, std::optional<JSONValue> context = std::nullopt) const {
    observer_(BrivetResult<JSONEnvelope>::progress(JSONEnvelope{std::move(json), std::move(context)}));
  }
  // The "progressive=%lu, completed=%lu" event on the Stream log.
  void progressEvent(bool progressive, bool completed) const;
  // Ends a run answered from the cache: failure with the read's error, else complete.
  void finishFromCache(const std::optional<BrivetError>& error) const;
  // Completes without a data source, closing the Stream interval.
  void complete() const;

  // Opens the DataSource interval before the request.
  void beginDataSource(std::string_view method, const std::string& path);
  // The same for attempt `attempt` (from 1) of a request that may be repeated.
  void beginDataSourceAttempt(std::string_view method, const std::string& path, std::int64_t attempt);
  // Closes a failed attempt that will be repeated after `delay`, and logs it as info.
  void attemptFailed(const StreamError& error, std::int64_t attempt, std::int64_t attempts,
                     std::chrono::milliseconds delay);
  // Gathers an error found in reading an answer back.
  void accumulate(const std::optional<BrivetError>& error);
  // The terminal rules of a data-source response: a failure is passed on; at
  // completion, the gathered error if any, else complete.
  void dataSourceFailed(const StreamError& error) const;
  void dataSourceCompleted() const;

 private:
  void fail(const std::string& logPrefix, const StreamError& error, bool closeDataSource) const;

  InternalModel model_;
  Observer observer_;
  std::uint64_t streamID_;
  std::uint64_t dataSourceID_ = 0;
  std::optional<BrivetError> accumulated_;
};

}  // namespace brivet::internal
