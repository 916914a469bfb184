// TovModel: the core model as an application holds it, and TovBrivet, the
// factory that creates it.
//
// An application creates a `TovInternalModel` with `TovBrivet::
// createTovModelWithUrl`, giving the JSON Graph endpoint, its HTTP client
// (tov_protocols.h), an optional initial cache (a JSON Graph dictionary) and
// the cache's prefixes and optimised paths. Then:
//
//  * `TovModel`: get / set / call operations (tov_operations.h) that stream
//    platform dictionaries, cache snapshots as dictionaries, invalidation, and
//    `withoutDataSource` (a model over the same cache that never fetches);
//  * `TovModelLegacy`: the same with completion callbacks (called once on the
//    main queue, with the last progress dictionary and the error; the
//    `TovModelOption` chooses a plain get, one whose answer is not merged, or
//    one that fetches every path), synchronous cache reads and writes, and
//    snapshots as JSON text.
//
// The model decides on its first use whether it has a data source: one exists
// when a URL was given and the client was still alive then. Requests made
// after the client is gone fail with `responseDataSourceFailed(httpClientNil)`
// (a platform error of domain "BrivetCore.BrivetError", code 0).
//
// Synchronous reads never fetch and never wait for the network: they read the
// cache beside other readers, after every write requested before them
// (expired leaves count as absent, a path that ends on a branch or meets an
// error leaf has no value). Writes are applied in order, before any later read.
//
// Ownership: models are shared (`std::shared_ptr`); the HTTP client and the
// logging delegate are the application's and are held weakly; the cache and
// the model's serial operation queue (see model.h) are shared by every
// `withoutDataSource` copy and by operations in flight.
// Threads: every operation may be called from any thread; streams and
// completions deliver on the main queue.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "brivet/core/cache/cache.h"
#include "brivet/core/datasource/data_source.h"
#include "brivet/core/model/model.h"
#include "brivet/core/model/tov_operations.h"
#include "brivet/core/model/tov_protocols.h"
#include "brivet/platform/error.h"
#include "brivet/platform/mutex.h"
#include "brivet/platform/object.h"
#include "brivet/platform/result.h"

namespace brivet {

// How a completion-style get uses the cache.
enum class TovModelOption : std::int64_t {
  Default = 0,      // a plain get
  NoCache = 1,      // the answer is not merged into the cache
  ForceRemote = 2,  // every requested path is fetched, cached or not
};
// Checked construction from a raw value: nothing for values without a case.
std::optional<TovModelOption> tovModelOptionFromRawValue(std::int64_t rawValue);

// A remote function call: the function's key path ("lists.add"), its
// arguments and the key-path suffixes to fetch behind the references it returns.
class TovFunctionCall {
 public:
  TovFunctionCall() = delete;  // a call needs a key path
  TovFunctionCall(std::string callKeyPath, std::optional<std::vector<Object>> callArguments = std::nullopt,
                  std::optional<std::vector<std::string>> returnKeyPathSuffixes = std::nullopt)
      : callKeyPath_(std::move(callKeyPath)),
        callArguments_(std::move(callArguments)),
        returnKeyPathSuffixes_(std::move(returnKeyPathSuffixes)) {}

  const std::string& callKeyPath() const { return callKeyPath_; }
  const std::optional<std::vector<Object>>& callArguments() const { return callArguments_; }
  const std::optional<std::vector<std::string>>& returnKeyPathSuffixes() const { return returnKeyPathSuffixes_; }

 private:
  std::string callKeyPath_;
  std::optional<std::vector<Object>> callArguments_;
  std::optional<std::vector<std::string>> returnKeyPathSuffixes_;
};

class TovInternalModel;

// A completion: the last progress dictionary (nil when none came) and the error (none for success).
using TovCompletion = std::function<void(const Object& result, const std::optional<Error>& error)>;

class TovModel {
 public:
  using KeyPaths = std::vector<std::string>;
  virtual ~TovModel() = default;

  virtual std::shared_ptr<TovLoggingDelegate> loggingDelegate() const = 0;
  virtual void setLoggingDelegate(const std::shared_ptr<TovLoggingDelegate>& delegate) = 0;
  virtual std::shared_ptr<TovHTTPClientProtocol> httpClient() const = 0;
  virtual std::optional<std::vector<std::string>> prefixes() const = 0;  // sorted
  virtual const std::optional<std::string>& url() const = 0;
  virtual std::uint64_t version() const = 0;

  virtual std::shared_ptr<TovGetOperation> getWithKeyPaths(const KeyPaths& keyPaths) = 0;
  // `value` is a JSON Graph dictionary.
  virtual std::shared_ptr<TovSetOperation> setWithValue(const Object& value) = 0;
  virtual std::shared_ptr<TovCallOperation> callFunctionWithKeyPath(const std::string& keyPath,
                                                                    const std::optional<std::vector<Object>>& args,
                                                                    const std::optional<KeyPaths>& refKeyPathSuffixes,
                                                                    const std::optional<KeyPaths>& thisKeyPaths) = 0;
  // {"jsonGraph": ..., "$_version": ...} of the whole cache, or of what the key paths reach.
  virtual Object getCacheWithKeyPaths(const std::optional<KeyPaths>& keyPaths) = 0;
  // Replaces the cache with a snapshot dictionary; anything else is ignored
  // (the cache stays as it was). The report says which it was, and what of
  // the snapshot could not be read or had already expired.
  virtual SnapshotReport setCache(const Object& snapshot) = 0;
  virtual void invalidateWithKeyPaths(const KeyPaths& keyPaths) = 0;
  // A model over the same cache that never fetches, with both faces of this one.
  virtual std::shared_ptr<TovInternalModel> withoutDataSource() = 0;
};

class TovModelLegacy {
 public:
  using KeyPaths = std::vector<std::string>;
  virtual ~TovModelLegacy() = default;

  virtual std::shared_ptr<TovSubscription> getKeyPaths(const KeyPaths& keyPaths, TovCompletion completion) = 0;
  virtual std::shared_ptr<TovSubscription> getKeyPaths(const KeyPaths& keyPaths, TovModelOption option,
                                                       TovCompletion completion) = 0;
  virtual std::shared_ptr<TovSubscription> getKeyPath(const std::string& keyPath, TovCompletion completion) = 0;
  virtual std::shared_ptr<TovSubscription> getKeyPath(const std::string& keyPath, TovModelOption option,
                                                      TovCompletion completion) = 0;
  virtual std::shared_ptr<TovSubscription> callFunction(const TovFunctionCall& function,
                                                        const std::optional<KeyPaths>& fetchKeyPaths,
                                                        TovCompletion completion) = 0;
  virtual std::shared_ptr<TovSubscription> callFunction(const TovFunctionCall& function, TovCompletion completion) = 0;

  // The snapshot as JSON text; the writer's error when it cannot be written.
  virtual Result<std::string> serializeCacheWithKeyPaths(const std::optional<KeyPaths>& keyPaths) = 0;
  // Restores a snapshot from JSON text: the parser's error for text that is
  // not JSON; JSON that holds no snapshot is ignored without an error. The
  // report says what was restored, as for `setCache`.
  virtual Result<SnapshotReport> deserializeCache(std::string_view data) = 0;
  // Merges a JSON Graph dictionary into the cache.
  virtual void mergeJSONDictionaryIntoModel(const Object& dictionary) = 0;

  // The cached value at a key path (nil when there is none, or the key path has a range).
  virtual Object valueForKeyPath(std::string_view keyPath) = 0;
  // The cached value under one first-level key, taken as it is (not split at dots).
  virtual Object valueForKey(std::string_view key) = 0;
  // One element per key path, the null object where there is no value.
  virtual std::vector<Object> valuesForKeyPaths(const KeyPaths& keyPaths) = 0;
  // The cache is read for `optimizedKeyPaths` when given, else for the key
  // paths; then each key path contributes its value, or the null object
  // (with `fillEmptyWithNull`) or nothing.
  virtual std::vector<Object> valuesForKeyPaths(const KeyPaths& keyPaths,
                                                const std::optional<KeyPaths>& optimizedKeyPaths,
                                                bool fillEmptyWithNull) = 0;
  // Writes a value at a key path (references on the way are not followed);
  // nil invalidates the key path. Key paths with a range are ignored.
  virtual void setValueForKeyPath(const Object& value, std::string_view keyPath) = 0;
  virtual void setValueForKey(const Object& value, std::string_view key) = 0;
};

class TovInternalModel final : public TovModel,
                               public TovModelLegacy,
                               public std::enable_shared_from_this<TovInternalModel>,
                               private HTTPClientProtocol,
                               private DataSourceLoggingDelegate,
                               private LoggingDelegate {
  struct Passkey {};

 public:
  using KeyPaths = std::vector<std::string>;

  // Without an `operationQueue` the model makes its own (`withoutDataSource` copies share it).
  TovInternalModel(Passkey, std::shared_ptr<CacheProtocol> cache, std::optional<std::string> url,
                   std::weak_ptr<TovHTTPClientProtocol> httpClient, std::weak_ptr<TovLoggingDelegate> loggingDelegate,
                   std::shared_ptr<DispatchQueue> operationQueue = nullptr, std::int64_t maxRetries = 0,
                   RetryPolicy retryPolicy = {});
  TovInternalModel(const TovInternalModel&) = delete;
  TovInternalModel& operator=(const TovInternalModel&) = delete;

  // The core model behind this one, built on first use.
  const InternalModel& internalModel();
  const std::shared_ptr<CacheProtocol>& cache() const { return cache_; }
  std::int64_t maxRetries() const { return maxRetries_; }
  // A model over the same cache, URL, client, delegate and queue whose get,
  // set and call repeat a request that failed for a passing reason up to
  // `maxRetries` times (see Model::withRetries); the factory's models make
  // one request.
  std::shared_ptr<TovInternalModel> withRetries(std::int64_t maxRetries, RetryPolicy policy = {});

  // --- TovModel ---
  std::shared_ptr<TovLoggingDelegate> loggingDelegate() const override;
  void setLoggingDelegate(const std::shared_ptr<TovLoggingDelegate>& delegate) override;
  std::shared_ptr<TovHTTPClientProtocol> httpClient() const override { return httpClient_.lock(); }
  std::optional<std::vector<std::string>> prefixes() const override;
  const std::optional<std::string>& url() const override { return url_; }
  std::uint64_t version() const override;
  std::shared_ptr<TovGetOperation> getWithKeyPaths(const KeyPaths& keyPaths) override;
  std::shared_ptr<TovSetOperation> setWithValue(const Object& value) override;
  std::shared_ptr<TovCallOperation> callFunctionWithKeyPath(const std::string& keyPath,
                                                            const std::optional<std::vector<Object>>& args,
                                                            const std::optional<KeyPaths>& refKeyPathSuffixes,
                                                            const std::optional<KeyPaths>& thisKeyPaths) override;
  Object getCacheWithKeyPaths(const std::optional<KeyPaths>& keyPaths) override;
  SnapshotReport setCache(const Object& snapshot) override;
  void invalidateWithKeyPaths(const KeyPaths& keyPaths) override;
  std::shared_ptr<TovInternalModel> withoutDataSource() override;

  // --- TovModelLegacy ---
  std::shared_ptr<TovSubscription> getKeyPaths(const KeyPaths& keyPaths, TovCompletion completion) override;
  std::shared_ptr<TovSubscription> getKeyPaths(const KeyPaths& keyPaths, TovModelOption option,
                                               TovCompletion completion) override;
  std::shared_ptr<TovSubscription> getKeyPath(const std::string& keyPath, TovCompletion completion) override;
  std::shared_ptr<TovSubscription> getKeyPath(const std::string& keyPath, TovModelOption option,
                                              TovCompletion completion) override;
  std::shared_ptr<TovSubscription> callFunction(const TovFunctionCall& function,
                                                const std::optional<KeyPaths>& fetchKeyPaths,
                                                TovCompletion completion) override;
  std::shared_ptr<TovSubscription> callFunction(const TovFunctionCall& function, TovCompletion completion) override;
  Result<std::string> serializeCacheWithKeyPaths(const std::optional<KeyPaths>& keyPaths) override;
  Result<SnapshotReport> deserializeCache(std::string_view data) override;
  void mergeJSONDictionaryIntoModel(const Object& dictionary) override;
  Object valueForKeyPath(std::string_view keyPath) override;
  Object valueForKey(std::string_view key) override;
  std::vector<Object> valuesForKeyPaths(const KeyPaths& keyPaths) override;
  std::vector<Object> valuesForKeyPaths(const KeyPaths& keyPaths, const std::optional<KeyPaths>& optimizedKeyPaths,
                                        bool fillEmptyWithNull) override;
  void setValueForKeyPath(const Object& value, std::string_view keyPath) override;
  void setValueForKey(const Object& value, std::string_view key) override;

 private:
  friend class TovBrivet;

  // The HTTP client the data source sends through: forwards to the application's client.
  Object preGET(const PathTree& pathTree) override;
  Object prePOST(const PathTree& pathTree) override;
  std::shared_ptr<Stream<Object>> GET(const std::string& url, const Object& parameters) override;
  std::shared_ptr<Stream<Object>> POST(const std::string& url, const Object& parameters) override;
  std::shared_ptr<Stream<Object>> request(const std::string& url, const Object& parameters, bool post);

  // The data source's logging delegate: network lines need both of the application's switches.
  bool enableNetworkLogging(const DataSource& dataSource) override;
  void logError(const DataSource& dataSource, const std::string& message) override;
  void logInfo(const DataSource& dataSource, const std::string& message) override;
  void logDebug(const DataSource& dataSource, const std::string& message) override;

  // The core model's logging delegate.
  bool enableLogging(const Model& model) override;
  void logError(const Model& model, const std::string& message) override;
  void logInfo(const Model& model, const std::string& message) override;
  void logDebug(const Model& model, const std::string& message) override;

  std::shared_ptr<TovSubscription> getKeyPaths(GetOperation operation, TovModelOption option, TovCompletion completion);
  // Values found at `paths` (one key per level), read together along `readTree`.
  std::vector<std::optional<JSONValue>> readValues(const std::vector<std::optional<Path>>& paths,
                                                   const PathTree& readTree, std::string_view signpostPaths);
  void writeValue(const Object& value, std::optional<Path> path);

  const std::shared_ptr<CacheProtocol> cache_;
  const std::optional<std::string> url_;
  const std::weak_ptr<TovHTTPClientProtocol> httpClient_;
  const std::int64_t maxRetries_ = 0;
  const RetryPolicy retryPolicy_;
  const std::shared_ptr<DispatchQueue> operationQueue_;
  std::once_flag internalModelOnce_;
  std::optional<InternalModel> internalModel_;  // written once, under internalModelOnce_
  mutable Mutex mu_;
  std::weak_ptr<TovLoggingDelegate> loggingDelegate_ BRIVET_GUARDED_BY(mu_);
};

class TovBrivet {
 public:
  // Models are made by createTovModelWithUrl only.
  TovBrivet() = delete;

  // A model over a new cache (the graph of `cache`, a JSON Graph dictionary,
  // or an empty one; version 1) that fetches from `url` through `httpClient`
  // (held weakly). No logging delegate until one is set.
  static std::shared_ptr<TovInternalModel> createTovModelWithUrl(
      std::optional<std::string> url, const std::shared_ptr<TovHTTPClientProtocol>& httpClient,
      const Object& cache = Object(), std::optional<std::vector<std::string>> prefixes = std::nullopt,
      std::optional<std::vector<std::string>> optimizedPaths = std::nullopt);
};

}  // namespace brivet
