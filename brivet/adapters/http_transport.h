// HTTPTransport: HTTP requests over libcurl, off the caller's thread.
//
// One transport owns one libcurl multi handle driven by its own thread, so
// connections to the same host are kept open and reused across requests.
// `send` returns at once; the completion runs later on the transport's thread
// (keep it short: hand the result to a queue) with either the response - any
// status code, the caller decides what a failure is - or the reason there is
// none: the URL is malformed, the connection failed or was dropped before the
// answer was complete, the request timed out, it was cancelled, the response
// grew past the size limit, a redirect led past `maxRedirects`, or another
// transfer error.
//
// Redirects are answers unless `Options::maxRedirects` is above 0: then up to
// that many are followed (to http and https URLs only; a POST stays a POST
// through 301, 302, 307 and 308).
//
// `cancel()` on the returned handle aborts the transfer; its completion then
// runs once with `Cancelled` (unless it had already run). Destroying the
// transport cancels every request still in flight. All members are safe to
// call from any thread, including from inside a completion.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "brivet/platform/result.h"

namespace brivet {

struct HTTPRequest {
  enum class Method { GET, POST };
  Method method = Method::GET;
  std::string url;          // the full URL, query string included
  std::string body;         // POST only
  std::string contentType;  // POST only, e.g. "application/x-www-form-urlencoded"
  // Zero means the transport's default.
  std::chrono::milliseconds timeout{0};
};

struct HTTPResponse {
  long statusCode = 0;
  std::string body;
  std::string contentType;  // as the server sent it, possibly empty
  std::string location;     // a redirect's target, when it was not followed
  std::int64_t retryAfterSeconds = 0;  // the Retry-After header in seconds from now; 0 when absent or unreadable
};

struct HTTPTransportError {
  enum class Kind { ConnectionFailed, TimedOut, Cancelled, TooLarge, Other, ConnectionLost, TooManyRedirects, BadURL };
  Kind kind = Kind::Other;
  std::string message;
};

class HTTPRequestHandle {
 public:
  virtual ~HTTPRequestHandle() = default;
  virtual void cancel() = 0;
};

class HTTPTransport {
 public:
  struct Options {
    std::chrono::milliseconds connectTimeout{5000};
    std::chrono::milliseconds requestTimeout{30000};
    std::size_t maxResponseBytes = 256u << 20;
    long maxConnectionsPerHost = 6;
    long maxRedirects = 0;  // 0: a redirect is the answer
  };
  using Completion = std::function<void(Result<HTTPResponse, HTTPTransportError>)>;

  static std::shared_ptr<HTTPTransport> create(Options options);
  static std::shared_ptr<HTTPTransport> create() { return create(Options{}); }
  ~HTTPTransport();
  HTTPTransport(const HTTPTransport&) = delete;
  HTTPTransport& operator=(const HTTPTransport&) = delete;

  std::shared_ptr<HTTPRequestHandle> send(HTTPRequest request, Completion completion);

  // Why `url` cannot be requested (not a URL, not http or https, no host), or
  // nothing when it can.
  static std::optional<std::string> urlProblem(std::string_view url);

  // Percent-encoding of one query or form component (RFC 3986 unreserved
  // characters kept), and "k=v&k2=v2" of encoded pairs.
  static std::string percentEncode(std::string_view text);
  static std::string formEncode(const std::vector<std::pair<std::string, std::string>>& fields);

  struct Loop;  // the libcurl loop, shared with its thread

 private:
  explicit HTTPTransport(std::shared_ptr<Loop> loop) : loop_(std::move(loop)) {}
  std::shared_ptr<Loop> loop_;
};

}  // namespace brivet
