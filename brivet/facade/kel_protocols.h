// The protocols an application implements for a facade model: its data source, its logger and its
// performance tracer.
//
// A model holds all three weakly: the application owns them and must keep them alive (a data source that is gone
// makes every fetch fail with "'data source' is not specified."). Optional methods have defaults meaning "not
// implemented": an empty `std::optional` where the answer matters, a no-op where it does not. Every method
// receives the facade model as its first argument.
//
// Threads: methods are called from the thread that called the model and from the model's own queue, so they must
// be callable from any thread. A data source may call its completion on any thread, at once or later.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "brivet/platform/error.h"
#include "brivet/platform/object.h"
#include "brivet/platform/uuid.h"

namespace brivet {

class KelModel;

// Completion a data source calls with its response dictionary ("value", "error", and for calls "invalidated" and
// "paths"), an extra dictionary merged over a get's result, and an error.
using KelDataSourceCompletion = std::function<void(Object results, Object extra, std::optional<Error> error)>;

class KelDataSource {
 public:
  virtual ~KelDataSource() = default;

  virtual bool enableCacheExpirationInBrivet(KelModel& model) = 0;
  // Performs a get / a call described by `params`; answers the request's subscription object (a custom object
  // adopting KelSubscription, or nil).
  virtual Object getWithParams(KelModel& model, const Object& params, const std::optional<UUID>& performanceTraceUUID,
                               KelDataSourceCompletion completion) = 0;
  virtual Object callWithParams(KelModel& model, const Object& params, const std::optional<UUID>& performanceTraceUUID,
                                KelDataSourceCompletion completion) = 0;
  // Optional extra parameters (dictionaries).
  virtual std::optional<Object> preGetWithKeyPaths(KelModel& /*model*/, const std::vector<std::string>& /*keyPaths*/) {
    return std::nullopt;
  }
  virtual std::optional<Object> preCallWithKeyPaths(KelModel& /*model*/,
                                                    const std::optional<std::vector<std::string>>& /*keyPaths*/) {
    return std::nullopt;
  }
  virtual std::optional<Object> preGETWithPQLPathSets(KelModel& /*model*/, const Object& /*pathSets*/) {
    return std::nullopt;
  }
  virtual std::optional<Object> prePOSTWithPQLPathSets(KelModel& /*model*/, const Object& /*pathSets*/) {
    return std::nullopt;
  }
};

class KelLoggerDelegate {
 public:
  virtual ~KelLoggerDelegate() = default;

  virtual bool enableLoggingInBrivet(KelModel& model) = 0;
  virtual void logError(KelModel& model, const std::string& message) = 0;
  // Optional: whether remote request and response lines are wanted (they arrive through logInfo).
  virtual std::optional<bool> enableExNetworkLoggingInBrivet(KelModel& /*model*/) { return std::nullopt; }
  virtual void logInfo(KelModel& /*model*/, const std::string& /*message*/) {}
  virtual void logDebug(KelModel& /*model*/, const std::string& /*message*/) {}
  virtual void logDebugUserInfo(KelModel& /*model*/, const Object& /*userInfo*/) {}
};

class KelPerformanceTraceDelegate {
 public:
  virtual ~KelPerformanceTraceDelegate() = default;

  virtual bool enablePerformanceTracingInBrivet(KelModel& model) = 0;
  virtual void beginTrace(KelModel& model, const std::string& taskName, const UUID& uuid) = 0;
  virtual void endTrace(KelModel& model, const UUID& uuid, const std::string& taskName,
                        const std::optional<Error>& error, bool cached, bool hasExpired) = 0;
};

}  // namespace brivet
