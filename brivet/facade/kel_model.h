// KelModel: the model an application holds, and KelBrivet, the factory that creates it.
//
// A model answers key paths ("lists.top.@range(0,9).title") from its cache and fetches what is missing through the
// application's data source; it calls remote functions, invalidates, merges, reads synchronously, and saves and
// restores its cache. Every model is backed by the legacy key-path model.
//
// Ownership: `KelBrivet::createModel` returns the only strong reference the library hands out; releasing the
// application's last reference releases the model and everything it owns. The data source, logger and tracer are
// the application's and are held weakly.
//
// Threads: every operation may be called from any thread. Completions run on `DispatchQueue::main()` (except the
// legacy model's immediate argument errors, which run on the calling thread); they receive the result dictionary
// and the error unchanged (either may be nil). Errors have the domain `KelBrivet::errorDomain()` and code -999.
// Operations that fetch return a subscription (cancel it to cancel the request) or nullptr when nothing was
// fetched.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "brivet/facade/kel_protocols.h"
#include "brivet/facade/kel_types.h"
#include "brivet/platform/error.h"
#include "brivet/platform/object.h"
#include "brivet/platform/result.h"

namespace brivet {

class KelModel {
 public:
  using Completion = std::function<void(Object result, std::optional<Error> error)>;
  using Subscription = std::shared_ptr<KelSubscription>;
  using KeyPaths = std::vector<std::string>;

  virtual ~KelModel() = default;

  // --- Requests ---
  virtual Subscription getKeyPaths(const KeyPaths& keyPaths, const std::optional<std::string>& taskName,
                                   Completion completion) = 0;
  virtual Subscription getKeyPaths(const KeyPaths& keyPaths, KelModelOption option,
                                   const std::optional<std::string>& taskName, Completion completion) = 0;
  virtual Subscription getKeyPath(const std::string& keyPath, const std::optional<std::string>& taskName,
                                  Completion completion) = 0;
  virtual Subscription getKeyPath(const std::string& keyPath, KelModelOption option,
                                  const std::optional<std::string>& taskName, Completion completion) = 0;
  virtual Subscription callFunction(const KelFunctionCall& function, const std::optional<KeyPaths>& fetchKeyPaths,
                                    Completion completion) = 0;
  virtual Subscription callFunction(const KelFunctionCall& function, Completion completion) = 0;

  // --- Snapshots ---
  // The cache (or the subtrees the key paths select; "a.@*" selects every child of "a") as JSON text.
  virtual Result<std::string> serializeCacheWithKeyPaths(const std::optional<KeyPaths>& keyPaths) = 0;
  // Merges a snapshot into the cache; the merge completes before any later read.
  virtual Result<void> deserializeCache(std::string_view data) = 0;

  // --- The cache, synchronously ---
  // Merges a JSON graph fragment (references as arrays of keys, leaves as {"$type": "leaf", ...}).
  virtual void mergeJSONDictionaryIntoModel(const Object& dictionary) = 0;
  virtual Object valueForKeyPath(std::string_view keyPath) = 0;
  virtual Object valueForKey(std::string_view key) = 0;
  virtual std::vector<Object> valuesForKeyPaths(const KeyPaths& keyPaths) = 0;
  // `optimizedKeyPaths` are accepted and ignored.
  virtual std::vector<Object> valuesForKeyPaths(const KeyPaths& keyPaths,
                                                const std::optional<KeyPaths>& optimizedKeyPaths,
                                                bool fillEmptyWithNull) = 0;
  virtual void setValueForKeyPath(const Object& value, std::string_view keyPath) = 0;
  virtual void setValueForKey(const Object& value, std::string_view key) = 0;
  virtual void invalidateWithKeyPaths(const KeyPaths& keyPaths) = 0;

  // --- Application objects (held weakly) and the stored model type ---
  virtual std::shared_ptr<KelDataSource> dataSource() const = 0;
  virtual void setDataSource(const std::shared_ptr<KelDataSource>& dataSource) = 0;
  virtual std::shared_ptr<KelLoggerDelegate> loggingDelegate() const = 0;
  virtual void setLoggingDelegate(const std::shared_ptr<KelLoggerDelegate>& delegate) = 0;
  virtual std::shared_ptr<KelPerformanceTraceDelegate> performanceTraceDelegate() const = 0;
  virtual void setPerformanceTraceDelegate(const std::shared_ptr<KelPerformanceTraceDelegate>& delegate) = 0;
  virtual KelModelType modelType() const = 0;
  virtual void setModelType(KelModelType modelType) = 0;
};

class KelBrivet {
 public:
  KelBrivet() = delete;

  // The domain of every error the library creates: the library's reverse-DNS identifier.
  static const std::string& errorDomain();
  // A new model over a fresh cache. `prefixes`: first key-path components whose branches may be read as values
  // without a debug report; `optimizedPaths`: stored only.
  static std::shared_ptr<KelModel> createModel(std::optional<std::vector<std::string>> prefixes,
                                               std::optional<std::vector<std::string>> optimizedPaths);
  // Whether `object` is a subscription: a custom object adopting KelSubscription or the legacy BrivetOperation.
  static bool conformsToSubscription(const Object& object);
};

}  // namespace brivet
