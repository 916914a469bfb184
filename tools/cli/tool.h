// The `brivet` command-line tool: the pieces its commands share.
//
//   brivet get [--url URL] [--progressive] [--refresh] [--timeout MS] [--trace FILE] PATH...
//   brivet snapshot FILE [--url URL] [--timeout MS] [--trace FILE] PATH...   fetch, then save the cache
//   brivet restore FILE [--trace FILE] PATH...                 read PATHs from a saved cache, offline
//   brivet serve [--port N] [--max-request BYTES] [FILE]      serve a JSON Graph document (or the sample)
//   brivet demo [--trace FILE]                                the guided walk-through
//
// Without --url, `get` and `snapshot` start the loopback server with the
// sample catalogue in the same process. Standard output carries JSON only
// (the values read; `serve` its URLs), every human line goes to standard
// error; a failure is one line on standard error ("brivet: " and what failed,
// where, the server's message and the cause) and one of the exit codes below.
// docs/tool.md is the full reference.
#pragma once

#include <chrono>
#include <cstddef>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "brivet/adapters/tov_http_client.h"
#include "brivet/core/model/tov_model.h"
#include "brivet/platform/mutex.h"
#include "tools/server/json_graph_server.h"

namespace brivet::tools {

enum ExitCode : int {
  kExitOK = 0,
  kExitFailed = 1,       // the operation failed for another reason
  kExitUsage = 2,        // bad arguments, a bad path or a malformed URL
  kExitUnreachable = 3,  // the URL could not be reached, the connection was lost, or no answer came in time
  kExitBadAnswer = 4,    // the server answered with an error status, a redirect loop or something that is not a
                         // JSON Graph answer
  kExitFile = 5,         // a file could not be read or written
};

// Redirects a request follows before it fails.
inline constexpr long kMaxRedirects = 5;

struct ToolOptions {
  std::string command;
  std::vector<std::string> arguments;  // what is left once the options are taken out
  std::optional<std::string> url;
  std::optional<int> port;
  std::optional<std::size_t> maxRequestBytes;
  std::optional<std::string> tracePath;
  bool progressive = false;
  bool refresh = false;
  std::chrono::milliseconds timeout{10000};
};

// Runs the tool as `main` does; `args` excludes the program name.
int runTool(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

// A failure worth one line and an exit code.
struct ToolFailure {
  ExitCode code;
  std::string message;
};

// Everything known about a failed request, for the one line that reports it.
struct RequestFailure {
  std::string command;             // "get", "snapshot", "restore"
  std::vector<std::string> paths;  // the key paths requested
  std::string url;                 // where they were requested (empty: read offline)
  std::optional<StreamError> error;  // what the model reported
  std::optional<Error> httpFailure;  // the failure of the HTTP request behind it, if any
  bool timedOut = false;             // the model did not answer within the time limit
  std::chrono::milliseconds timeout{0};
};
// The line (without "brivet: ") and exit code of a failed request: the
// command, its paths and URL, then the cause and the server's own message.
// A failure of the core model is shown by its `BrivetError::text()` (which
// path failed and why), bounded like any text from outside.
ToolFailure describeFailure(const RequestFailure& failure);

// Text from outside (a server's message, an error's text) fit for one line:
// control characters become blanks and anything past `limit` bytes is cut at
// a character boundary and marked with "...".
std::string oneLine(std::string_view text, std::size_t limit = 300);

// Why a key path cannot be requested (an empty path, a malformed or empty
// range), or nothing when it can.
std::optional<std::string> keyPathProblem(const std::string& keyPath);

// Pretty JSON text of a result, keys sorted so that output is stable.
std::string prettyJSON(const Object& object);

// A core model over HTTP, with the requests it sends counted and timed: the
// given URL, or the embedded server with the sample catalogue.
class Session {
 public:
  static Result<std::unique_ptr<Session>, ToolFailure> open(const ToolOptions& options);
  ~Session();

  const std::shared_ptr<TovInternalModel>& model() const { return model_; }
  JSONGraphServer* server() const { return server_.get(); }
  const std::string& url() const { return url_; }

  // Requests finished since the last call, and the failure of the last one.
  struct Requests {
    std::size_t count = 0;
    std::chrono::microseconds elapsed{0};
    std::size_t bytes = 0;
    std::optional<Error> lastFailure;
  };
  Requests takeRequests();

 private:
  Session() = default;
  std::unique_ptr<JSONGraphServer> server_;
  std::string url_;
  std::shared_ptr<TovHTTPClient> client_;
  std::shared_ptr<TovInternalModel> model_;
  Mutex mu_;
  Requests requests_ BRIVET_GUARDED_BY(mu_);
};

// Subscribes to an operation's stream and runs the main queue until it ends
// (or `timeout`): every value delivered, and the error if it failed, as the
// core reports it (a core failure keeps its whole `BrivetError`, whose
// `text()` the failure line shows).
struct StreamOutcome {
  std::vector<Object> values;
  std::optional<StreamError> error;
  bool ended = false;
};
StreamOutcome await(const TovStream<JSONEnvelope>& stream, std::chrono::milliseconds timeout);

// "12.3 ms" / "850 us".
std::string formatDuration(std::chrono::microseconds duration);

// The walk-through; it writes to `err` only (standard output carries JSON only).
int runDemo(const ToolOptions& options, std::ostream& err);

}  // namespace brivet::tools
