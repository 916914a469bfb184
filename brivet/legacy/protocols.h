// The protocols through which the legacy model meets the application: its data source, its logging delegate
// and its performance-trace delegate, plus the get options and the subscription protocol.
//
// The model holds every delegate weakly (`std::weak_ptr`): the application owns them and keeps them alive. A
// delegate that is gone counts as absent. Optional methods have defaults that mean "not implemented": an empty
// `std::optional` where the answer matters, a no-op where it does not.
//
// Threads: the model calls its delegates from the thread that called the model, and from blocks running on the
// model's queue (response processing); delegates must be callable from any thread. A delegate may call back into
// the model, also from inside these calls.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "brivet/platform/error.h"
#include "brivet/platform/object.h"
#include "brivet/platform/uuid.h"

namespace brivet {

class BrivetModel;

// How a get chooses between the cache and the data source. Any other raw value behaves as
// BrivetModelOptionReturnCacheDataDontFetch, without its log line.
enum BrivetModelOption : std::int64_t {
  BrivetModelOptionDefault = 0,                   // answer from the cache, fetch only missing or expired paths
  BrivetModelOptionNoCache = 1,                   // fetch every path, answer from the response, cache untouched
  BrivetModelOptionForceRemote = 2,               // fetch every path, merge, answer from the cache
  BrivetModelOptionReturnCacheDataAndFetch = 3,   // answer from the cache at once, then as ForceRemote
  BrivetModelOptionReturnCacheDataDontFetch = 4,  // answer from the cache only
};

// Completion of a get or call: a result dictionary, or an error (either may be nil).
using BrivetCompletion = std::function<void(Object result, std::optional<Error> error)>;
// Completion a data source calls with its response dictionary, an extra dictionary merged over a get's result,
// and an error.
using BrivetDataSourceCompletion = std::function<void(Object results, Object extra, std::optional<Error> error)>;

// A cancellable request (what a data source may return as its subscription object).
class BrivetOperation {
 public:
  virtual ~BrivetOperation() = default;
  virtual void cancel() = 0;
};

class BrivetDataSource {
 public:
  virtual ~BrivetDataSource() = default;

  // Whether "$expires" is honoured (relative values converted, expired leaves fetched again).
  virtual bool enableCacheExpiration(BrivetModel& model) = 0;
  // Performs a get / a call. `completion` may be called on any thread, now or later. The answer is the request's
  // subscription object (opaque to the model, usually a BrivetOperation custom object), or nil.
  virtual Object getWithParams(BrivetModel& model, const Object& params, const UUID& performanceTraceUUID,
                               BrivetDataSourceCompletion completion) = 0;
  virtual Object callWithParams(BrivetModel& model, const Object& params, const UUID& performanceTraceUUID,
                                BrivetDataSourceCompletion completion) = 0;
  // Optional: extra parameters for a get / a call (a dictionary). `keyPaths` of a call may be absent.
  virtual std::optional<Object> preGetWithKeyPaths(BrivetModel& /*model*/,
                                                   const std::vector<std::string>& /*keyPaths*/) {
    return std::nullopt;
  }
  virtual std::optional<Object> preCallWithKeyPaths(BrivetModel& /*model*/,
                                                    const std::optional<std::vector<std::string>>& /*keyPaths*/) {
    return std::nullopt;
  }
};

class BrivetLoggerDelegate {
 public:
  virtual ~BrivetLoggerDelegate() = default;

  // Asked before every message; false drops it.
  virtual bool enableLoggingInBrivet(BrivetModel& model) = 0;
  virtual void logError(BrivetModel& model, const std::string& message) = 0;
  // Optional: whether remote request and response lines are wanted (they then arrive through logInfo).
  virtual std::optional<bool> enableExNetworkLoggingInBrivet(BrivetModel& /*model*/) { return std::nullopt; }
  virtual void logInfo(BrivetModel& /*model*/, const std::string& /*message*/) {}
  virtual void logDebug(BrivetModel& /*model*/, const std::string& /*message*/) {}
  virtual void logDebugUserInfo(BrivetModel& /*model*/, const Object& /*userInfo*/) {}
};

class BrivetPerformanceTraceDelegate {
 public:
  virtual ~BrivetPerformanceTraceDelegate() = default;

  virtual bool enablePerformanceTracing(BrivetModel& model) = 0;
  virtual void beginTraceForTaskName(BrivetModel& model, const std::string& taskName, const UUID& uuid) = 0;
  // `cached` is true only for a get answered entirely from the cache; the legacy model never reports expiry.
  virtual void endTraceForUUID(BrivetModel& model, const UUID& uuid, const std::string& taskName,
                               const std::optional<Error>& error, bool cached, bool hasExpired) = 0;
};

}  // namespace brivet
