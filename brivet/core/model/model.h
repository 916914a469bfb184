// Model and InternalModel: the core model, a cache with an optional data
// source, which hands out get, set and call operations.
//
// `InternalModel` is a plain value: the cache (shared by reference with every
// copy and every operation made from it), an optional data source (none means
// cache-only), a retry count with the policy that times the retries, and a
// weak `LoggingDelegate`. With `maxRetries` 0 (what the factory builds) an
// operation makes one request per subscription; `withRetries` gives a copy
// whose operations repeat a request that failed for a passing reason (see
// internal/retry.h for which reasons, and retry_policy.h for the waits). `Model` is the
// protocol it implements; its operations (`get`, `set`, `call`, defined in
// operations.h) are immutable values turned into cold streams by `asStream`,
// and `getCache` takes a consistent snapshot.
//
// `LoggingDelegate` is told the operations' failures ("cache failure: ...",
// "dataSource failure: ...") through `logError`, after answering true to
// `enableLogging`. `Brivet::createModel` builds a model over a new cache.
//
// Each model has its own serial operation queue: its operations' tasks and
// the handlers of their data-source answers run there, one at a time and in
// subscription order, so one model digesting a slow answer never holds up
// another model (copies of a model share its queue).
//
// Ownership: the delegate belongs to the application and is held weakly.
// Thread safety: models are values; copy them and call them from any thread.
// Delegates are called from the model's operation queue.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "brivet/core/cache/cache.h"
#include "brivet/core/cache/cache_envelope.h"
#include "brivet/core/datasource/data_source.h"
#include "brivet/core/values/json_graph.h"
#include "brivet/core/values/path_tree.h"
#include "brivet/platform/dispatch_queue.h"
#include "brivet/platform/retry_policy.h"

namespace brivet {

class Model;
class InternalModel;
class GetOperation;
class SetOperation;
class CallOperation;

class LoggingDelegate {
 public:
  virtual ~LoggingDelegate() = default;
  // Asked before every message; false drops it.
  virtual bool enableLogging(const Model& model) = 0;
  virtual void logError(const Model& model, const std::string& message) = 0;
  virtual void logInfo(const Model& model, const std::string& message) = 0;
  virtual void logDebug(const Model& model, const std::string& message) = 0;
};

class Model {
 public:
  virtual ~Model() = default;

  virtual const std::shared_ptr<CacheProtocol>& cache() const = 0;
  virtual const std::shared_ptr<DataSource>& dataSource() const = 0;  // nullptr: cache only
  virtual std::int64_t maxRetries() const = 0;
  virtual const RetryPolicy& retryPolicy() const = 0;
  virtual std::shared_ptr<LoggingDelegate> loggingDelegate() const = 0;
  // The serial queue this model's operations run on (labelled like `taskQueue()`).
  virtual const std::shared_ptr<DispatchQueue>& operationQueue() const = 0;

  // Operations over this model (see operations.h): a plain get, a set that is
  // not progressive, a call with its four arguments.
  GetOperation get(PathTree pathTree) const;
  SetOperation set(JSONGraph jsonGraph) const;
  CallOperation call(std::vector<std::string> function, std::optional<JSONGraph> args = std::nullopt,
                     std::optional<PathTree> refSuffixes = std::nullopt,
                     std::optional<PathTree> thisPaths = std::nullopt) const;
  // The whole cache (no tree) or the part the tree reaches, with the version,
  // taken beside other readers but never beside a write.
  CacheEnvelope getCache(const std::optional<PathTree>& pathTree = std::nullopt) const;
  // A model over the same cache, data source, delegate and queue whose get, set
  // and call repeat a request that failed for a passing reason (a connection
  // failure, a time-out, a 5xx or 429 answer) up to `maxRetries` times, waiting
  // as `policy` says. 0 or less: one request, as the factory's models make.
  std::shared_ptr<Model> withRetries(std::int64_t maxRetries, RetryPolicy policy = {}) const;

 protected:
  Model() = default;
  Model(const Model&) = default;
  Model& operator=(const Model&) = default;

 private:
  InternalModel internalModel() const;
};

class InternalModel final : public Model {
 public:
  // Precondition: `cache` is not null. Without an `operationQueue` the model makes its own.
  explicit InternalModel(std::shared_ptr<CacheProtocol> cache, std::shared_ptr<DataSource> dataSource = nullptr,
                         std::int64_t maxRetries = 0, std::weak_ptr<LoggingDelegate> loggingDelegate = {},
                         std::shared_ptr<DispatchQueue> operationQueue = nullptr, RetryPolicy retryPolicy = {});

  const std::shared_ptr<CacheProtocol>& cache() const override { return cache_; }
  const std::shared_ptr<DataSource>& dataSource() const override { return dataSource_; }
  std::int64_t maxRetries() const override { return maxRetries_; }
  const RetryPolicy& retryPolicy() const override { return retryPolicy_; }
  std::shared_ptr<LoggingDelegate> loggingDelegate() const override { return loggingDelegate_.lock(); }
  const std::shared_ptr<DispatchQueue>& operationQueue() const override { return operationQueue_; }

  // The operations' error lines: to the delegate when it is set and enabled.
  void logError(const std::string& message) const;
  void logInfo(const std::string& message) const;

 private:
  std::shared_ptr<CacheProtocol> cache_;
  std::shared_ptr<DataSource> dataSource_;
  std::int64_t maxRetries_;
  std::weak_ptr<LoggingDelegate> loggingDelegate_;
  std::shared_ptr<DispatchQueue> operationQueue_;
  RetryPolicy retryPolicy_;
};

// The core's factories.
class Brivet {
 public:
  Brivet() = delete;

  // A model over a new cache (the initial graph, or an empty one; version 1;
  // no size limit), with the given data source, no retries and no logging
  // delegate. `prefixes` and `optimizedPaths` become the cache's sets.
  static std::shared_ptr<Model> createModel(std::optional<JSONGraph> cache = std::nullopt,
                                            std::shared_ptr<DataSource> dataSource = nullptr,
                                            std::optional<std::vector<std::string>> prefixes = std::nullopt,
                                            std::optional<std::vector<std::string>> optimizedPaths = std::nullopt);
};

}  // namespace brivet
