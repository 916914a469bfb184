// The `brivet` command-line tool: the pieces its commands share.
//
//   brivet get [--url URL] [--progressive] [--refresh] [--trace FILE] PATH...
//   brivet snapshot FILE [--url URL] PATH...     fetch, then save the cache to FILE
//   brivet restore FILE PATH...                  read PATHs from a saved cache, offline
//   brivet serve [--port N] [FILE]               serve a JSON Graph document (or the sample)
//   brivet demo [--trace FILE]                   the guided walk-through
//
// Without --url, `get` and `snapshot` start the loopback server with the sample
// catalogue in the same process. JSON results go to standard output; timings
// and notes to standard error; a failure is one line on standard error and one
// of the exit codes below.
#pragma once

#include <chrono>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "brivet/adapters/tov_http_client.h"
#include "brivet/core/model/tov_model.h"
#include "brivet/platform/internal/mutex.h"
#include "tools/server/json_graph_server.h"

namespace brivet::tools {

enum ExitCode : int {
  kExitOK = 0,
  kExitFailed = 1,       // the operation failed for another reason
  kExitUsage = 2,        // bad arguments or a bad path
  kExitUnreachable = 3,  // the URL could not be reached, or did not answer in time
  kExitBadAnswer = 4,    // the server answered with an error status or something that is not a JSON Graph answer
  kExitFile = 5,         // a file could not be read or written
};

struct ToolOptions {
  std::string command;
  std::vector<std::string> arguments;  // what is left once the options are taken out
  std::optional<std::string> url;
  std::optional<int> port;
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

  // What a failed operation tells the user: the HTTP failure behind it when
  // there was one, else the model's own error.
  ToolFailure failureFor(const Error& error, const std::optional<Error>& httpFailure) const;

 private:
  Session() = default;
  std::unique_ptr<JSONGraphServer> server_;
  std::string url_;
  std::shared_ptr<TovHTTPClient> client_;
  std::shared_ptr<TovInternalModel> model_;
  internal::Mutex mu_;
  Requests requests_ BRIVET_GUARDED_BY(mu_);
};

// Subscribes to a stream and runs the main queue until it ends (or `timeout`):
// every value, and the error if it failed (for a core failure, an error of the
// same domain and code whose localized description is the core's one-line text).
struct StreamOutcome {
  std::vector<Object> values;
  std::optional<Error> error;
  bool ended = false;
};
StreamOutcome await(const TovStream<JSONEnvelope>& stream, std::chrono::milliseconds timeout);

// "12.3 ms" / "850 us".
std::string formatDuration(std::chrono::microseconds duration);

int runDemo(const ToolOptions& options, std::ostream& out, std::ostream& err);

}  // namespace brivet::tools
