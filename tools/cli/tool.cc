#include "tools/cli/tool.h"

#include <signal.h>
#include <stdlib.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>

#include "brivet/adapters/http_json.h"
#include "brivet/core/values/path_tree.h"
#include "brivet/platform/dispatch_queue.h"
#include "brivet/platform/json.h"
#include "brivet/platform/signpost.h"
#include "tools/server/sample_catalogue.h"

namespace brivet::tools {

namespace {

constexpr std::string_view kUsage =
    "usage: brivet get [--url URL] [--progressive] [--refresh] [--timeout MS] [--trace FILE] PATH...\n"
    "       brivet snapshot FILE [--url URL] [--timeout MS] PATH...\n"
    "       brivet restore FILE PATH...\n"
    "       brivet serve [--port N] [FILE]\n"
    "       brivet demo [--trace FILE]\n"
    "\n"
    "PATH is a key path such as lists.top.@range(0,2).title. Without --url, get and\n"
    "snapshot start a server with the sample catalogue in the same process.\n"
    "Exit codes: 0 ok, 1 failed, 2 bad arguments or path, 3 URL unreachable or\n"
    "timed out, 4 error or malformed answer from the server, 5 file error.\n";

Result<ToolOptions, ToolFailure> parseOptions(const std::vector<std::string>& args) {
  ToolOptions options;
  auto usage = [](std::string message) { return ToolFailure{kExitUsage, std::move(message) + " (see brivet --help)"}; };
  if (args.empty()) return usage("no command given");
  options.command = args[0];
  for (std::size_t i = 1; i < args.size(); ++i) {
    const std::string& a = args[i];
    auto value = [&](std::string& into) -> bool {
      if (i + 1 >= args.size()) return false;
      into = args[++i];
      return true;
    };
    std::string text;
    if (a == "--progressive") {
      options.progressive = true;
    } else if (a == "--refresh") {
      options.refresh = true;
    } else if (a == "--url") {
      if (!value(text)) return usage("--url needs a URL");
      if (text.rfind("http://", 0) != 0 && text.rfind("https://", 0) != 0) {
        return usage("--url needs an http:// or https:// URL, not \"" + text + "\"");
      }
      options.url = text;
    } else if (a == "--trace") {
      if (!value(text)) return usage("--trace needs a file name");
      options.tracePath = text;
    } else if (a == "--port" || a == "--timeout") {
      if (!value(text)) return usage(a + " needs a number");
      char* end = nullptr;
      const long n = std::strtol(text.c_str(), &end, 10);
      const long min = a == "--port" ? 0 : 1;
      const long max = a == "--port" ? 65535 : 3600000;
      if (text.empty() || *end != '\0' || n < min || n > max) return usage(a + " needs a number from " + std::to_string(min) + " to " + std::to_string(max));
      if (a == "--port") {
        options.port = static_cast<int>(n);
      } else {
        options.timeout = std::chrono::milliseconds(n);
      }
    } else if (a.size() > 1 && a[0] == '-') {
      return usage("unknown option " + a);
    } else {
      options.arguments.push_back(a);
    }
  }
  return options;
}

Result<std::string, ToolFailure> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return ToolFailure{kExitFile, "cannot read " + path};
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) return ToolFailure{kExitFile, "cannot read " + path};
  return text.str();
}

std::optional<ToolFailure> writeFile(const std::string& path, std::string_view text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(text.data(), static_cast<std::streamsize>(text.size()));
  out.close();
  if (!out) return ToolFailure{kExitFile, "cannot write " + path};
  return std::nullopt;
}

std::optional<ToolFailure> checkPaths(const std::vector<std::string>& paths) {
  if (paths.empty()) return ToolFailure{kExitUsage, "no PATH given (see brivet --help)"};
  for (const std::string& path : paths) {
    if (auto problem = keyPathProblem(path)) return ToolFailure{kExitUsage, *problem};
  }
  return std::nullopt;
}

int fail(std::ostream& err, const ToolFailure& failure) {
  err << "brivet: " << failure.message << "\n";
  return failure.code;
}

// Turns signposts on before any model reads the switch; writes the trace at the end.
class TraceFile {
 public:
  explicit TraceFile(const std::optional<std::string>& path) : path_(path) {
    if (path_) {
      ::setenv(std::string(kSignpostEnvironmentVariable).c_str(), "1", 1);
      SignpostRecorder::shared()->clear();
    }
  }
  // Writes the file; a failure when it cannot.
  std::optional<ToolFailure> write(std::ostream& err) const {
    if (!path_) return std::nullopt;
    const std::size_t events = SignpostRecorder::shared()->records().size();
    Result<void> written = SignpostRecorder::shared()->writeChromeTrace(*path_);
    if (!written.ok()) return ToolFailure{kExitFile, "cannot write the trace " + *path_ + ": " +
                                                         written.error().localizedDescription()};
    err << "trace: " << *path_ << " (" << events << " signposts; open it at https://ui.perfetto.dev)\n";
    return std::nullopt;
  }

 private:
  std::optional<std::string> path_;
};

std::string describeRequests(const Session::Requests& requests) {
  if (requests.count == 0) return "answered from the cache, no request";
  std::ostringstream s;
  s << requests.count << (requests.count == 1 ? " request, " : " requests, ") << formatDuration(requests.elapsed)
    << " on the network, " << requests.bytes << " bytes";
  return s.str();
}

// Runs a get and prints its values; the failure if it failed.
std::optional<ToolFailure> runGet(Session& session, const ToolOptions& options, std::ostream& out, std::ostream& err) {
  std::shared_ptr<TovGetOperation> get = session.model()->getWithKeyPaths(options.arguments);
  if (options.refresh) get = get->refresh();
  if (options.progressive) get = get->progressively();
  session.takeRequests();
  const auto started = std::chrono::steady_clock::now();
  const StreamOutcome outcome = await(get->asStream(), options.timeout + std::chrono::seconds(5));
  const auto elapsed =
      std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - started);
  const Session::Requests requests = session.takeRequests();
  if (!outcome.ended) return ToolFailure{kExitUnreachable, "no answer from " + session.url() + " in time"};
  if (outcome.error) return session.failureFor(*outcome.error, requests.lastFailure);
  if (options.progressive) {
    for (const Object& value : outcome.values) out << prettyJSON(value) << "\n";
  } else {
    out << (outcome.values.empty() ? std::string("{}") : prettyJSON(outcome.values.back())) << "\n";
  }
  err << "get: " << formatDuration(elapsed) << " (" << describeRequests(requests);
  if (options.progressive) err << ", " << outcome.values.size() << " progressive values";
  err << ")\n";
  return std::nullopt;
}

int commandGet(const ToolOptions& options, std::ostream& out, std::ostream& err) {
  if (auto bad = checkPaths(options.arguments)) return fail(err, *bad);
  const TraceFile trace(options.tracePath);
  auto session = Session::open(options);
  if (!session.ok()) return fail(err, session.error());
  if (auto failure = runGet(*session.value(), options, out, err)) return fail(err, *failure);
  if (auto failure = trace.write(err)) return fail(err, *failure);
  return kExitOK;
}

int commandSnapshot(ToolOptions options, std::ostream& out, std::ostream& err) {
  if (options.arguments.empty()) return fail(err, {kExitUsage, "snapshot needs a FILE (see brivet --help)"});
  const std::string file = options.arguments.front();
  options.arguments.erase(options.arguments.begin());
  if (auto bad = checkPaths(options.arguments)) return fail(err, *bad);
  auto session = Session::open(options);
  if (!session.ok()) return fail(err, session.error());
  // The values and the timing line of the get are not this command's output.
  std::ostringstream values;
  std::ostringstream timing;
  if (auto failure = runGet(*session.value(), options, values, timing)) return fail(err, *failure);
  Result<std::string> text = session.value()->model()->serializeCacheWithKeyPaths(std::nullopt);
  if (!text.ok()) return fail(err, {kExitFailed, "cannot write the cache: " + text.error().localizedDescription()});
  if (auto failure = writeFile(file, text.value())) return fail(err, *failure);
  out << "saved the cache (version " << session.value()->model()->version() << ", " << text.value().size()
      << " bytes) to " << file << "\n";
  return kExitOK;
}

int commandRestore(ToolOptions options, std::ostream& out, std::ostream& err) {
  if (options.arguments.empty()) return fail(err, {kExitUsage, "restore needs a FILE (see brivet --help)"});
  const std::string file = options.arguments.front();
  options.arguments.erase(options.arguments.begin());
  if (auto bad = checkPaths(options.arguments)) return fail(err, *bad);
  auto text = readFile(file);
  if (!text.ok()) return fail(err, text.error());
  // The model ignores JSON that holds no snapshot; the tool says so instead.
  Result<Object> parsed = parseJSON(text.value());
  if (!parsed.ok()) return fail(err, {kExitFile, file + " is not JSON: " + parsed.error().localizedDescription()});
  if (!parsed.value()["jsonGraph"].isDictionary() || parsed.value()["$_version"].asNumber() == nullptr) {
    return fail(err, {kExitFile, file + " holds no cache snapshot (no \"jsonGraph\" object and \"$_version\" number)"});
  }
  auto model = TovBrivet::createTovModelWithUrl(std::nullopt, nullptr);
  Result<SnapshotReport> restored = model->deserializeCache(text.value());
  if (!restored.ok()) {
    return fail(err, {kExitFile, "cannot restore " + file + ": " + restored.error().localizedDescription()});
  }
  // What the restore refused or left out is said before anything is read from it.
  if (!restored->restored()) return fail(err, {kExitFile, "cannot restore " + file + ": " + restored->refusal});
  if (restored->unreadableEntries > 0 || restored->expiredLeaves > 0) {
    err << "restore: " << file << " " << restored->description() << "\n";
  }
  const StreamOutcome outcome =
      await(model->withoutDataSource()->getWithKeyPaths(options.arguments)->asStream(), options.timeout);
  if (outcome.error) return fail(err, {kExitFailed, outcome.error->localizedDescription()});
  out << (outcome.values.empty() ? std::string("{}") : prettyJSON(outcome.values.back())) << "\n";
  err << "restored version " << model->version() << " from " << file << "; read offline\n";
  return kExitOK;
}

int commandServe(const ToolOptions& options, std::ostream& out, std::ostream& err) {
  if (options.arguments.size() > 1) return fail(err, {kExitUsage, "serve takes at most one FILE (see brivet --help)"});
  JSONGraph document = sampleCatalogue();
  std::string what = "the sample catalogue";
  if (!options.arguments.empty()) {
    auto text = readFile(options.arguments.front());
    if (!text.ok()) return fail(err, text.error());
    Result<JSONGraph> graph = JSONGraph::fromJSONText(text.value());
    if (!graph.ok()) {
      return fail(err, {kExitFile, options.arguments.front() + " is not a JSON Graph document: " +
                                       graph.error().localizedDescription()});
    }
    document = std::move(graph).value();
    what = options.arguments.front();
  }
  // Block the stop signals before the server's threads start, so that they
  // inherit the mask and this thread alone receives them.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);
  auto server = JSONGraphServer::start(std::move(document), options.port.value_or(0));
  if (!server.ok()) return fail(err, {kExitFailed, server.error()});
  if (options.arguments.empty()) registerSampleFunctions(*server.value());
  out << "serving " << what << " at " << server.value()->url() << "\n"
      << "legacy dialect at " << server.value()->legacyURL() << "\n"
      << "press Ctrl-C to stop" << std::endl;
  int received = 0;
  sigwait(&stop, &received);
  err << "stopping after " << server.value()->requestCount() << " requests\n";
  return kExitOK;
}

}  // namespace

std::optional<std::string> keyPathProblem(const std::string& keyPath) {
  std::vector<std::string_view> components;
  std::string_view rest = keyPath;
  while (!rest.empty()) {
    const std::size_t dot = rest.find('.');
    const std::string_view component = rest.substr(0, dot);
    if (!component.empty()) components.push_back(component);
    rest = dot == std::string_view::npos ? std::string_view() : rest.substr(dot + 1);
  }
  if (components.empty()) return "the path \"" + keyPath + "\" has no key";
  const Path path = PathTree::parsePath(keyPath);
  if (path.size() != components.size()) return "cannot read the path \"" + keyPath + "\"";
  for (std::size_t i = 0; i < path.size(); ++i) {
    const Key& key = path[i].front();
    const bool looksLikeRange = components[i].size() > 1 && components[i][0] == '@';
    if (looksLikeRange && key.kind() != Key::Kind::Range) {
      return "\"" + std::string(components[i]) + "\" in the path \"" + keyPath +
             "\" is not a range; write @range(FROM,TO)";
    }
    if (key.kind() == Key::Kind::Range && key.from() > key.to()) {
      return "the range \"" + std::string(components[i]) + "\" in the path \"" + keyPath + "\" is empty";
    }
  }
  return std::nullopt;
}

std::string prettyJSON(const Object& object) {
  Result<std::string> text =
      writeJSON(object, JSONWritingOptions::PrettyPrinted | JSONWritingOptions::SortedKeys |
                            JSONWritingOptions::FragmentsAllowed);
  return text.ok() ? text.value() : object.description();
}

std::string formatDuration(std::chrono::microseconds duration) {
  char text[32];
  if (duration.count() < 1000) {
    std::snprintf(text, sizeof text, "%lld us", static_cast<long long>(duration.count()));
  } else {
    std::snprintf(text, sizeof text, "%.1f ms", static_cast<double>(duration.count()) / 1000.0);
  }
  return text;
}

Result<std::unique_ptr<Session>, ToolFailure> Session::open(const ToolOptions& options) {
  std::unique_ptr<Session> session(new Session());
  if (options.url) {
    session->url_ = *options.url;
  } else {
    auto server = JSONGraphServer::start(sampleCatalogue());
    if (!server.ok()) return ToolFailure{kExitFailed, "cannot start the embedded server: " + server.error()};
    session->server_ = std::move(server).value();
    registerSampleFunctions(*session->server_);
    session->url_ = session->server_->url();
  }
  TovHTTPClient::Options client;
  client.transport.requestTimeout = options.timeout;
  client.transport.connectTimeout = std::min(options.timeout, client.transport.connectTimeout);
  Session* raw = session.get();
  client.observer = [raw](const TovHTTPClient::Exchange& exchange) {
    internal::MutexLock lock(raw->mu_);
    ++raw->requests_.count;
    raw->requests_.elapsed += exchange.elapsed;
    raw->requests_.bytes += exchange.responseBytes;
    raw->requests_.lastFailure = exchange.failure;
  };
  session->client_ = TovHTTPClient::create(std::move(client));
  session->model_ = TovBrivet::createTovModelWithUrl(session->url_, session->client_);
  return session;
}

// The client goes first: its transport's thread (which calls the observer) stops with it.
Session::~Session() {
  model_.reset();
  client_.reset();
}

Session::Requests Session::takeRequests() {
  internal::MutexLock lock(mu_);
  return std::exchange(requests_, Requests{});
}

ToolFailure Session::failureFor(const Error& error, const std::optional<Error>& httpFailure) const {
  if (!httpFailure || httpFailure->domain() != httpErrorDomain()) {
    return ToolFailure{kExitFailed, "the request failed: " + error.localizedDescription()};
  }
  const Error& http = *httpFailure;
  switch (static_cast<HTTPErrorCode>(http.code())) {
    case HTTPErrorCode::ConnectionFailed: return {kExitUnreachable, "cannot reach " + url_};
    case HTTPErrorCode::TimedOut: return {kExitUnreachable, url_ + " did not answer in time"};
    case HTTPErrorCode::NotJSON:
    case HTTPErrorCode::NotJSONGraph:
    case HTTPErrorCode::TooLarge: return {kExitBadAnswer, "malformed answer from " + url_ + ": " + http.localizedDescription()};
    default: break;
  }
  if (http.code() >= 400) {
    const Object body = http.userInfo()[kHTTPErrorBodyKey];
    std::string detail = body["message"].isString() ? std::string(body["message"].stringValue())
                         : body.isString()           ? std::string(body.stringValue())
                                                     : writeJSON(body).valueOr(std::string());
    if (detail.size() > 200) detail = detail.substr(0, 200) + "...";
    return {kExitBadAnswer, url_ + " answered HTTP " + std::to_string(http.code()) + (detail.empty() ? "" : ": " + detail)};
  }
  return {kExitFailed, "the request failed: " + http.localizedDescription()};
}

StreamOutcome await(const TovStream<JSONEnvelope>& stream, std::chrono::milliseconds timeout) {
  auto outcome = std::make_shared<StreamOutcome>();
  auto subscription = stream.subscribeWithProgressAndFailure(
      [outcome](const Object& value) { outcome->values.push_back(value); },
      [outcome](const StreamError* failure) {
        if (failure != nullptr) {
          // The platform error of a core failure only names its case ("BrivetCore.BrivetError error 1"); the
          // tool shows the core's own text instead, which says which path failed and why.
          const Error error = failure->toError();
          outcome->error = failure->isBrivetError()
                               ? Error::withDescription(error.domain(), error.code(), failure->text())
                               : error;
        }
        outcome->ended = true;
      });
  DispatchQueue::main()->runUntil([&] { return outcome->ended; }, timeout);
  if (!outcome->ended) subscription->cancel();
  return *outcome;
}

int runTool(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  if (!args.empty() && (args[0] == "--help" || args[0] == "-h" || args[0] == "help")) {
    out << kUsage;
    return kExitOK;
  }
  auto options = parseOptions(args);
  if (!options.ok()) return fail(err, options.error());
  const std::string& command = options.value().command;
  if (command == "get") return commandGet(options.value(), out, err);
  if (command == "snapshot") return commandSnapshot(options.value(), out, err);
  if (command == "restore") return commandRestore(options.value(), out, err);
  if (command == "serve") return commandServe(options.value(), out, err);
  if (command == "demo") return runDemo(options.value(), out, err);
  return fail(err, {kExitUsage, "unknown command \"" + command + "\" (see brivet --help)"});
}

}  // namespace brivet::tools
