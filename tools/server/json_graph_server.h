// JSONGraphServer: one JSON Graph document served over HTTP on 127.0.0.1.
//
// It is the other end of the library for the `brivet` tool, the demo and the
// end-to-end tests; nothing else on the network is touched. Every parameter
// value of a request is JSON text (see brivet/adapters/http_json.h and
// docs/wire-protocol.md); GET parameters travel in the query, POST parameters
// in a form-encoded body. Requests of up to 1 MiB of target and 1 MiB of body
// are read by default (`HTTPWireLimits`); larger ones are answered 414 / 413
// with an error body in the dialect of their path.
//
// The core model's dialect, at `url()`:
//   GET  path=<paths in array form>           -> {"jsonGraph": the sub-graph the paths reach, references followed}
//   POST method="set", param=<JSON Graph>     -> merges it, each write landing through the references on its
//                                                way; {"jsonGraph": the written paths read back}
//   POST method="call", callPath=<path>, param=<arguments>[, pathSuffix=<paths>][, path=<paths>]
//                                             -> runs the registered function; {"jsonGraph", "paths", "invalidated"}
//   failures: status 400 (404 for an unknown function) with {"code": ..., "message": ...}
// The legacy model's dialect, at `legacyURL()`:
//   GET  path=[<key-path array text>, ...]    -> {"value": the sub-graph in legacy form}
//   POST method="call", callPath=<key-path array text>, param=[...][, pathSuffix][, path]
//                                             -> {"value", "paths", "invalidated"}
//   failures: the same statuses with {"error": {"code": ..., "message": ...}}, the answer's "error" that the
//   legacy model reads
// In legacy form references are arrays of keys and wrapped values are
// {"$type": "leaf", ...} dictionaries.
//
// The document lives in a core `Cache`, so gets read a consistent snapshot
// while sets and calls write; functions and sets run one at a time. All
// members are safe to call from any thread.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "brivet/core/cache/cache.h"
#include "brivet/core/values/json_graph.h"
#include "brivet/platform/object.h"
#include "brivet/platform/result.h"
#include "tools/server/http_wire.h"

namespace brivet::tools {

class JSONGraphServer {
 public:
  // What a function answers: a graph fragment to merge into the document and
  // return, the paths that answer the call, and the paths the client must
  // drop from its cache (both arrays of paths in array form, or nil).
  struct CallResult {
    JSONGraph jsonGraph;
    Object paths;
    Object invalidated;
  };
  // A registered function: given the document as it stands and the call's
  // arguments (an array; arguments sent as JSON text are parsed), answers its
  // result or a message for a 400 answer.
  using Function = std::function<Result<CallResult, std::string>(const JSONGraph& document, const Object& arguments)>;

  // A canned answer, for tests that need a failing, redirecting, dropping or
  // slow server.
  struct CannedResponse {
    CannedResponse(int code = 500, std::string text = std::string(), std::string type = "application/json")
        : status(code), body(std::move(text)), contentType(std::move(type)) {}
    int status;
    std::string body;
    std::string contentType;
    std::vector<std::pair<std::string, std::string>> fields;  // more header fields ("Location", ...)
    bool dropConnection = false;  // close the connection without answering
  };
  // Given the method and the request target (path and query, as sent).
  using Interceptor = std::function<std::optional<CannedResponse>(const std::string& method, const std::string& target)>;

  // Binds 127.0.0.1 on `port` (0: any free port) and starts serving requests
  // within `limits`.
  static Result<std::unique_ptr<JSONGraphServer>, std::string> start(JSONGraph document, int port = 0,
                                                                     HTTPWireLimits limits = {});
  ~JSONGraphServer();
  JSONGraphServer(const JSONGraphServer&) = delete;
  JSONGraphServer& operator=(const JSONGraphServer&) = delete;

  int port() const;
  std::string url() const;        // "http://127.0.0.1:<port>/model.json"
  std::string legacyURL() const;  // "http://127.0.0.1:<port>/legacy/model.json"
  JSONGraph document() const;
  std::size_t requestCount() const;

  // `keyPath` names the function as clients call it ("lists.top.push").
  void registerFunction(const std::string& keyPath, Function function);
  void setInterceptor(Interceptor interceptor);
  // Told every request the server reads (before any interceptor), for tests
  // that check what a client sent.
  using RequestObserver =
      std::function<void(const std::string& method, const std::string& target, const std::string& body)>;
  void setRequestObserver(RequestObserver observer);

  struct State;

 private:
  explicit JSONGraphServer(std::shared_ptr<State> state) : state_(std::move(state)) {}
  std::shared_ptr<State> state_;
};

// The document in the legacy model's form: references as arrays of keys,
// atoms as {"$type": "leaf", ...} (an object value's entries, any other value
// under "value"), errors as {"$type": "leaf", "error": ...}; mutable containers.
Object toLegacyForm(const JSONGraph& graph);

}  // namespace brivet::tools
