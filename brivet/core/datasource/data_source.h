// DataSource: how the core model fetches what its cache lacks, and the
// protocols an HTTP data source needs from outside.
//
// A `DataSource` turns a get (a `PathTree`), a set (a `JSONGraph`) or a call
// (a function path with optional arguments, ref suffixes and this-paths) into
// a cold `Stream` of responses: `DataSourceResponse` for gets and sets,
// `DataSourceCallResponse` for calls. Nothing is sent until the stream is
// subscribed; cancelling the subscription cancels the request.
//
// `HTTPClientProtocol` is the application's HTTP client as the core sees it:
// GET for gets, POST for sets and calls, each taking the endpoint URL and a
// parameter dictionary and answering with a stream of response dictionaries;
// `preGET` / `prePOST` are told the requested paths before a request is sent.
// `DataSourceLoggingDelegate` receives the data source's network lines after
// saying it wants them.
//
// How a client reports a failed HTTP request: its stream fails with a platform
// `Error` whose user info holds the HTTP status under `kHTTPStatusCodeKey`
// ("statusCode") and the error body (a dictionary when the body was JSON)
// under `kHTTPErrorBodyKey` ("errorBody"), and the server's Retry-After (its
// text, or a number of seconds) under `kHTTPRetryAfterKey` ("retryAfter") when
// it sent one; `httpFailure` builds one. The data
// source turns it into a `BrivetError` (see http_data_source.h).
//
// Ownership: data sources are shared (`std::shared_ptr`); clients and logging
// delegates belong to the application and are held weakly. Thread safety:
// every member may be called from any thread; clients and delegates are called
// from the core's task queue.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "brivet/core/model/stream.h"
#include "brivet/core/values/json_graph.h"
#include "brivet/core/values/json_value.h"
#include "brivet/core/values/path_tree.h"
#include "brivet/platform/error.h"
#include "brivet/platform/object.h"

namespace brivet {

// The user-info keys of an HTTP failure.
inline constexpr std::string_view kHTTPStatusCodeKey = "statusCode";
inline constexpr std::string_view kHTTPErrorBodyKey = "errorBody";
inline constexpr std::string_view kHTTPRetryAfterKey = "retryAfter";
// The domain of the HTTP failures the library's own clients report: the
// library's identifier followed by ".HTTP".
const std::string& httpErrorDomain();
// An HTTP failure: domain `httpErrorDomain()`, code = status, the status and
// (when not nil) the body and the Retry-After in the user info.
Error httpFailure(std::int64_t statusCode, Object errorBody = Object(), Object retryAfter = Object());

struct DataSourceResponse {
  JSONGraph jsonGraph;
  std::optional<JSONValue> context;
  friend bool operator==(const DataSourceResponse&, const DataSourceResponse&) = default;
};

struct DataSourceCallResponse {
  JSONGraph jsonGraph;
  std::optional<JSONValue> context;
  PathTree pathTree;                    // the paths the call answered
  std::optional<PathTree> invalidated;  // paths the cache must drop first
  friend bool operator==(const DataSourceCallResponse&, const DataSourceCallResponse&) = default;
};

class DataSource;

class DataSourceLoggingDelegate {
 public:
  virtual ~DataSourceLoggingDelegate() = default;
  // Whether the data source's network lines are wanted; asked before each one.
  virtual bool enableNetworkLogging(const DataSource& dataSource) = 0;
  virtual void logError(const DataSource& dataSource, const std::string& message) = 0;
  virtual void logInfo(const DataSource& dataSource, const std::string& message) = 0;
  virtual void logDebug(const DataSource& dataSource, const std::string& message) = 0;
};

class HTTPClientProtocol {
 public:
  virtual ~HTTPClientProtocol() = default;
  // Told the requested paths before a get (`preGET`) or a post (`prePOST`) is
  // sent; the answer is kept until the request ends and never read.
  virtual Object preGET(const PathTree& pathTree) = 0;
  virtual Object prePOST(const PathTree& pathTree) = 0;
  // A cold stream of response dictionaries for one request (nullptr: none can be made).
  virtual std::shared_ptr<Stream<Object>> GET(const std::string& url, const Object& parameters) = 0;
  virtual std::shared_ptr<Stream<Object>> POST(const std::string& url, const Object& parameters) = 0;
};

class DataSource {
 public:
  virtual ~DataSource() = default;

  virtual std::shared_ptr<DataSourceLoggingDelegate> loggingDelegate() const = 0;
  virtual void setLoggingDelegate(const std::shared_ptr<DataSourceLoggingDelegate>& delegate) = 0;

  virtual std::shared_ptr<Stream<DataSourceResponse>> get(const PathTree& pathTree) const = 0;
  virtual std::shared_ptr<Stream<DataSourceResponse>> set(const JSONGraph& jsonGraph) const = 0;
  virtual std::shared_ptr<Stream<DataSourceCallResponse>> call(const std::vector<std::string>& functionPath,
                                                               const std::optional<JSONGraph>& args,
                                                               const std::optional<PathTree>& refSuffixes,
                                                               const std::optional<PathTree>& thisPaths) const = 0;
};

}  // namespace brivet
