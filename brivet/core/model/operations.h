// GetOperation, SetOperation, CallOperation: what a model does, as immutable
// values that `asStream` turns into cold streams of `JSONEnvelope`.
//
// Every subscription runs its operation's pipeline once on the core's serial
// task queue and delivers on the stream's observe queue (the main queue unless
// re-targeted with `observeOn`); it ends with exactly one terminal event, and
// cancelling the stream cancels the data-source request it opened (a cancel
// that comes before the pipeline ran means no request is sent at all).
//
// Get: reads the cache (expired leaves count as missing); with nothing missing,
// or no data source, it delivers the cached value and completes (or fails with
// the read's error). Otherwise it asks the data source for the missing paths
// as they lie in the graph (only once per subscription), merges each answer
// into the cache (or, with `skipMerge`, reads the answer alone), reads the
// missing paths again, and delivers them deep-merged over the cached value
// with the answer's context. Error leaves met in that re-read are gathered and
// reported instead of completion. `progressively` also delivers the cached
// value before asking; `refresh` asks for every requested path.
//
// Set: writes its graph into the cache at once, then sends it; each answer is
// merged and the written paths read back (a progressive set skips an answer
// that leaves them unchanged). Nothing is rolled back when the request fails,
// unless the set was made `withRollback`: then, when the request fails (after
// any retries), every node the local write changed is put back as it was,
// except where something newer has been written there since (another set, an
// answer); the rollback is written before the failure is delivered, so a get
// issued after the failure reads the old values. An answer merged before the
// failure counts as newer: what it wrote stays.
//
// Call: goes straight to the data source (completes at once without one); each
// answer's invalidated paths are dropped from the cache, then its graph is
// merged and the paths it names are read back.
//
// Failures: "cache failure: " / "dataSource failure: " followed by the error
// go to the model's logging delegate. Thread safety: values; use from any thread.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "brivet/core/model/model.h"
#include "brivet/core/model/stream.h"
#include "brivet/core/values/json_envelope.h"

namespace brivet {

class GetOperation {
 public:
  GetOperation(InternalModel model, PathTree pathTree, bool progressive = false, bool forceRefresh = false,
               bool skipCacheMerge = false);

  const InternalModel& model() const { return model_; }
  const PathTree& pathTree() const { return pathTree_; }
  bool progressive() const { return progressive_; }
  bool forceRefresh() const { return forceRefresh_; }
  bool skipCacheMerge() const { return skipCacheMerge_; }

  [[nodiscard]] GetOperation progressively() const;
  [[nodiscard]] GetOperation refresh() const;
  [[nodiscard]] GetOperation skipMerge() const;
  std::shared_ptr<Stream<JSONEnvelope>> asStream() const;

 private:
  InternalModel model_;
  PathTree pathTree_;
  bool progressive_;
  bool forceRefresh_;
  bool skipCacheMerge_;
};

class SetOperation {
 public:
  // The path tree is the one covering every leaf of `jsonGraph`.
  SetOperation(InternalModel model, JSONGraph jsonGraph, bool progressive = false, bool rollbackOnFailure = false);

  const InternalModel& model() const { return model_; }
  const JSONGraph& jsonGraph() const { return jsonGraph_; }
  const PathTree& pathTree() const { return pathTree_; }
  bool progressive() const { return progressive_; }
  bool rollbackOnFailure() const { return rollbackOnFailure_; }

  [[nodiscard]] SetOperation progressively() const;
  // A copy whose local write is undone when the request fails (see above).
  [[nodiscard]] SetOperation withRollback() const;
  std::shared_ptr<Stream<JSONEnvelope>> asStream() const;

 private:
  InternalModel model_;
  JSONGraph jsonGraph_;
  PathTree pathTree_;
  bool progressive_;
  bool rollbackOnFailure_;
};

class CallOperation {
 public:
  CallOperation(InternalModel model, std::vector<std::string> path, std::optional<JSONGraph> args = std::nullopt,
                std::optional<PathTree> refSuffixes = std::nullopt, std::optional<PathTree> thisPaths = std::nullopt);

  const InternalModel& model() const { return model_; }
  const std::vector<std::string>& path() const { return path_; }
  const std::optional<JSONGraph>& args() const { return args_; }
  const std::optional<PathTree>& refSuffixes() const { return refSuffixes_; }
  const std::optional<PathTree>& thisPaths() const { return thisPaths_; }

  std::shared_ptr<Stream<JSONEnvelope>> asStream() const;

 private:
  InternalModel model_;
  std::vector<std::string> path_;
  std::optional<JSONGraph> args_;
  std::optional<PathTree> refSuffixes_;
  std::optional<PathTree> thisPaths_;
};

}  // namespace brivet
