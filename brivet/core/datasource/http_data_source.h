// HTTPDataSource: the data source that sends requests through the
// application's HTTP client.
//
// A get becomes GET with {"path": <the paths in JSON array form>}; a set
// becomes POST with {"method": "set", "param": <the graph>}; a call becomes
// POST with {"method": "call", "param": <the arguments, dictionaries as JSON
// text>, "callPath": <the function path>, "path": <this-paths>, "pathSuffix":
// <ref suffixes>} (the last two only when given). A parameter dictionary that
// is not valid JSON prints "json serialization error" on standard output and
// is sent anyway. Each response dictionary is timed (whole milliseconds since
// the request went out) and the line "get remote response, <n> milliseconds"
// ("set ...", "call ...") goes to the logging delegate when it wants network
// lines; then its "jsonGraph" (a dictionary, else the answer is skipped),
// "context", and for calls "paths" and "invalidated" are read.
//
// Failures: no client when the request is made fails the stream with
// `responseDataSourceFailed(httpClientNil)`. A client failure whose error body
// gives a reason (`DataSourceFailureReason::fromErrorBody`) becomes
// `responseDataSourceFailed(reason)`; one with a status code but no such body
// becomes `responseDataSourceFailed(httpClientError(status, userInfo))`; any
// other failure passes through unchanged.
//
// Streams deliver on the main queue unless re-targeted; the client's responses
// are read on a serial queue of the data source's own or its model's (never on
// a queue every model shares), so reading a large answer holds up no other model. Ownership: made by `create` and shared;
// the client and the logging delegate are held weakly. Thread safety: every
// member may be called from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "brivet/core/datasource/data_source.h"
#include "brivet/core/model/brivet_result.h"
#include "brivet/platform/mutex.h"

namespace brivet {

class HTTPDataSource final : public DataSource, public std::enable_shared_from_this<HTTPDataSource> {
  struct Passkey {};

 public:
  // `answerQueue` is the serial queue the client's answers are read on (a
  // model passes its operation queue); without one the data source makes its own.
  static std::shared_ptr<HTTPDataSource> create(std::string url,
                                                std::weak_ptr<HTTPClientProtocol> httpClientDelegate = {},
                                                std::weak_ptr<DataSourceLoggingDelegate> loggingDelegate = {},
                                                std::shared_ptr<DispatchQueue> answerQueue = nullptr);
  HTTPDataSource(Passkey, std::string url, std::weak_ptr<HTTPClientProtocol> httpClientDelegate,
                 std::weak_ptr<DataSourceLoggingDelegate> loggingDelegate, std::shared_ptr<DispatchQueue> answerQueue);

  const std::string& url() const { return url_; }
  std::shared_ptr<HTTPClientProtocol> httpClientDelegate() const { return httpClientDelegate_.lock(); }
  std::shared_ptr<DataSourceLoggingDelegate> loggingDelegate() const override;
  void setLoggingDelegate(const std::shared_ptr<DataSourceLoggingDelegate>& delegate) override;

  std::shared_ptr<Stream<DataSourceResponse>> get(const PathTree& pathTree) const override;
  std::shared_ptr<Stream<DataSourceResponse>> set(const JSONGraph& jsonGraph) const override;
  std::shared_ptr<Stream<DataSourceCallResponse>> call(const std::vector<std::string>& functionPath,
                                                       const std::optional<JSONGraph>& args,
                                                       const std::optional<PathTree>& refSuffixes,
                                                       const std::optional<PathTree>& thisPaths) const override;

  // The parameter dictionaries of the three requests.
  static Object getParameters(const PathTree& pathTree);
  static Object setParameters(const JSONGraph& jsonGraph);
  static Object callParameters(const std::vector<std::string>& functionPath, const std::optional<JSONGraph>& args,
                               const std::optional<PathTree>& refSuffixes, const std::optional<PathTree>& thisPaths);
  // "<method> - url: <url>,\nparams: <pretty JSON>"; when the parameters are
  // not valid JSON, prints "json serialization error" and leaves the JSON out.
  static std::string requestText(std::string_view method, std::string_view url, const Object& parameters);
  // What a client's failure becomes (see the header comment).
  static StreamError failureFromClient(const StreamError& error);
  // Whole milliseconds in `seconds`, truncated toward zero.
  static std::int64_t wholeMilliseconds(double seconds);

 private:
  enum class Method { Get, Set, Call };
  template <class Response>
  std::shared_ptr<Stream<Response>> send(Method method, Object parameters, std::optional<PathTree> preRequest) const;
  static std::string_view methodName(Method method);
  void logResponseTime(Method method, std::int64_t milliseconds) const;

  const std::string url_;
  const std::weak_ptr<HTTPClientProtocol> httpClientDelegate_;
  const std::shared_ptr<DispatchQueue> answerQueue_;  // where the client's answers are read
  mutable Mutex mu_;
  std::weak_ptr<DataSourceLoggingDelegate> loggingDelegate_ BRIVET_GUARDED_BY(mu_);
};

}  // namespace brivet
