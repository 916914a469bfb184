// The protocols an application implements for a core model: its HTTP client
// and its logging delegate.
//
// `TovHTTPClientProtocol` performs the requests: `GET` for gets, `POST` for
// sets and calls, each with the endpoint URL and the parameter dictionary
// (the client decides how to encode it), answering with a
// `TovHTTPDataSourceResponseStream` built from the client's own task and
// cancel blocks. The task block reports each response dictionary (with a
// "jsonGraph" dictionary, optionally "context"; for calls "paths" and
// "invalidated") through its progress block and the end through its completion
// block: no error for success, or an error; an HTTP failure is best reported
// as `httpFailure(status, errorBody)` (data_source.h), whose body the model
// reads for a reason. The cancel block runs when the request is cancelled and
// also after it ended: release the request there. The optional pre-request
// hooks are told the request's paths (in JSON array form) before a get.
//
// `TovLoggingDelegate` is asked `enableLoggingForBrivet` before each message;
// errors go to `logError`, network timings to `logInfo` when
// `enableExNetworkLoggingForBrivet` also answers true.
//
// Optional methods have defaults meaning "not implemented" (an empty optional,
// or a no-op). The model holds both objects weakly: the application keeps them
// alive. Threads: methods are called from the core's task queue (and the
// logging delegate also from the calling thread); a client may call its
// progress and completion blocks from any thread, now or later.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "brivet/core/model/tov_stream.h"
#include "brivet/platform/object.h"

namespace brivet {

class TovModel;

class TovHTTPClientProtocol {
 public:
  virtual ~TovHTTPClientProtocol() = default;

  virtual std::shared_ptr<TovHTTPDataSourceResponseStream> GET(const std::string& url, const Object& parameters) = 0;
  virtual std::shared_ptr<TovHTTPDataSourceResponseStream> POST(const std::string& url, const Object& parameters) = 0;
  // Optional: answers a dictionary the request keeps until it ends.
  virtual std::optional<Object> preGETWithPqlPathSets(const Object& /*pathSets*/) { return std::nullopt; }
  virtual std::optional<Object> prePOSTWithPqlPathSets(const Object& /*pathSets*/) { return std::nullopt; }
};

class TovLoggingDelegate {
 public:
  virtual ~TovLoggingDelegate() = default;

  virtual bool enableLoggingForBrivet(TovModel& model) = 0;
  virtual void logError(TovModel& model, const std::string& message) = 0;
  // Optional.
  virtual std::optional<bool> enableExNetworkLoggingForBrivet(TovModel& /*model*/) { return std::nullopt; }
  virtual void logInfo(TovModel& /*model*/, const std::string& /*message*/) {}
  virtual void logDebug(TovModel& /*model*/, const std::string& /*message*/) {}
};

}  // namespace brivet
