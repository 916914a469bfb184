// HTTPServer: a small HTTP/1.1 server on 127.0.0.1 for the loopback JSON
// Graph server.
//
// Requests are read with the limits of `HTTPWireLimits` (by default 1 MiB of
// request target and 1 MiB of body, both configurable); a request past a limit
// is answered with its status (414, 413, 431) and the body the error handler
// gives, and the connection is closed. Connections are kept alive between
// requests, each served by its own thread, at most `maxConnections` at once
// (more are answered 503). A connection idle for `idleTimeout`, or a request
// that has not fully arrived within `requestTimeout`, is closed.
//
// The handlers run on the connection threads, several at once. Destroying the
// server stops accepting, closes every connection and waits for the handlers
// that are running. All members are safe to call from any thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "brivet/platform/result.h"
#include "tools/server/http_wire.h"

namespace brivet::tools {

struct HTTPServerRequest {
  std::string method;
  std::string path;   // the target up to '?'
  std::string query;  // after '?', still encoded
  std::string body;
};

struct HTTPServerResponse {
  int status = 200;
  std::string body;
  std::string contentType = "application/json";
  std::vector<std::pair<std::string, std::string>> fields;  // more header fields ("Location", ...)
  bool dropConnection = false;  // close the connection without answering (for tests)
};

class HTTPServer {
 public:
  struct Options {
    HTTPWireLimits limits;
    std::size_t maxConnections = 64;
    std::chrono::milliseconds idleTimeout{10000};
    std::chrono::milliseconds requestTimeout{30000};
  };
  using Handler = std::function<HTTPServerResponse(const HTTPServerRequest& request)>;
  // The answer to a request the server could not read (see HTTPWireError).
  using ErrorHandler = std::function<HTTPServerResponse(const HTTPWireError& error)>;

  // Binds 127.0.0.1 on `port` (0: any free port) and starts serving.
  static Result<std::unique_ptr<HTTPServer>, std::string> start(Options options, int port, Handler handler,
                                                                ErrorHandler errorHandler);
  ~HTTPServer();
  HTTPServer(const HTTPServer&) = delete;
  HTTPServer& operator=(const HTTPServer&) = delete;

  int port() const;

  struct State;

 private:
  explicit HTTPServer(std::shared_ptr<State> state) : state_(std::move(state)) {}
  std::shared_ptr<State> state_;
};

}  // namespace brivet::tools
