#include "tools/cli/tool.h"

#include <signal.h>
#include <stdlib.h>

#include <cstdio>
#include <iostream>
#include <set>
#include <sstream>

#include "brivet/adapters/http_json.h"
#include "brivet/core/values/path_tree.h"
#include "brivet/platform/dispatch_queue.h"
#include "brivet/platform/file.h"
#include "brivet/platform/json.h"
#include "brivet/platform/signpost.h"
#include "tools/server/sample_catalogue.h"

namespace brivet::tools {

namespace {

constexpr std::string_view kUsage =
    "usage: brivet get [--url URL] [--progressive] [--refresh] [--timeout MS] [--trace FILE] PATH...\n"
    "       brivet snapshot FILE [--url URL] [--timeout MS] [--trace FILE] PATH...\n"
    "       brivet restore FILE [--trace FILE] PATH...\n"
    "       brivet serve [--port N] [--max-request BYTES] [FILE]\n"
    "       brivet demo [--trace FILE]\n"
    "\n"
    "PATH is a key path such as lists.top.@range(0,2).title. Without --url, get and\n"
    "snapshot start a server with the sample catalogue in the same process.\n"
    "Standard output carries JSON only; notes and failures go to standard error.\n"
    "Exit codes: 0 ok, 1 failed, 2 bad arguments, path or URL, 3 URL unreachable,\n"
    "connection lost or timed out, 4 error status, redirect loop or malformed\n"
    "answer from the server, 5 file error.\n";

// The options each command takes.
const std::set<std::string, std::less<>>& optionsOf(std::string_view command) {
  static const std::set<std::string, std::less<>> get = {"--url", "--progressive", "--refresh", "--timeout", "--trace"};
  static const std::set<std::string, std::less<>> snapshot = {"--url", "--timeout", "--trace"};
  static const std::set<std::string, std::less<>> restore = {"--trace"};
  static const std::set<std::string, std::less<>> serve = {"--port", "--max-request"};
  static const std::set<std::string, std::less<>> demo = {"--trace"};
  static const std::set<std::string, std::less<>> none;
  if (command == "get") return get;
  if (command == "snapshot") return snapshot;
  if (command == "restore") return restore;
  if (command == "serve") return serve;
  if (command == "demo") return demo;
  return none;
}

ToolFailure usage(std::string message) { return ToolFailure{kExitUsage, std::move(message) + " (see brivet --help)"}; }

// A whole number from `min` to `max`.
std::optional<long long> wholeNumber(const std::string& text, long long min, long long max) {
  if (text.empty() || text.size() > 18) return std::nullopt;
  char* end = nullptr;
  const long long n = std::strtoll(text.c_str(), &end, 10);
  if (*end != '\0' || n < min || n > max) return std::nullopt;
  return n;
}

Result<ToolOptions, ToolFailure> parseOptions(const std::vector<std::string>& args) {
  ToolOptions options;
  if (args.empty()) return usage("no command given");
  options.command = args[0];
  static const std::set<std::string, std::less<>> commands = {"get", "snapshot", "restore", "serve", "demo"};
  if (!commands.contains(options.command)) return usage("unknown command \"" + oneLine(options.command, 60) + "\"");
  const std::set<std::string, std::less<>>& allowed = optionsOf(options.command);
  for (std::size_t i = 1; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a.size() < 2 || a[0] != '-') {
      options.arguments.push_back(a);
      continue;
    }
    if (a != "--url" && a != "--progressive" && a != "--refresh" && a != "--timeout" && a != "--trace" &&
        a != "--port" && a != "--max-request") {
      return usage("unknown option " + oneLine(a, 60));
    }
    if (!allowed.contains(a)) return usage(a + " does not apply to " + oneLine(options.command, 60));
    if (a == "--progressive") {
      options.progressive = true;
      continue;
    }
    if (a == "--refresh") {
      options.refresh = true;
      continue;
    }
    if (i + 1 >= args.size()) return usage(a + (a == "--url" ? " needs a URL" : a == "--trace" ? " needs a file name" : " needs a number"));
    const std::string& value = args[++i];
    if (a == "--url") {
      if (const std::optional<std::string> problem = HTTPTransport::urlProblem(value)) {
        return usage("--url needs an http:// or https:// URL: \"" + oneLine(value, 200) + "\" is " + *problem);
      }
      options.url = value;
    } else if (a == "--trace") {
      options.tracePath = value;
    } else if (a == "--port") {
      const auto n = wholeNumber(value, 0, 65535);
      if (!n) return usage("--port needs a number from 0 to 65535");
      options.port = static_cast<int>(*n);
    } else if (a == "--timeout") {
      const auto n = wholeNumber(value, 1, 3600000);
      if (!n) return usage("--timeout needs a number of milliseconds from 1 to 3600000");
      options.timeout = std::chrono::milliseconds(*n);
    } else {  // --max-request
      const auto n = wholeNumber(value, 1024, 1LL << 30);
      if (!n) return usage("--max-request needs a number of bytes from 1024 to 1073741824");
      options.maxRequestBytes = static_cast<std::size_t>(*n);
    }
  }
  return options;
}

// Snapshot files are read whole (at most kDefaultMaxFileBytes) and written
// atomically: a tool killed during `snapshot` leaves the old file whole.
Result<std::string, ToolFailure> readFile(const std::string& path) {
  Result<std::string> text = brivet::readFile(path);
  if (!text.ok()) return ToolFailure{kExitFile, oneLine(text.error().localizedDescription())};
  return std::move(text).value();
}

std::optional<ToolFailure> writeFile(const std::string& path, std::string_view text) {
  const Result<void> written = writeFileAtomically(path, text);
  if (!written.ok()) return ToolFailure{kExitFile, oneLine(written.error().localizedDescription())};
  return std::nullopt;
}

std::optional<ToolFailure> checkPaths(const std::vector<std::string>& paths) {
  if (paths.empty()) return usage("no PATH given");
  for (const std::string& path : paths) {
    if (auto problem = keyPathProblem(path)) return ToolFailure{kExitUsage, oneLine(*problem)};
  }
  return std::nullopt;
}

// Reports a failure: its one line on standard error; answers its exit code.
int fail(std::ostream& err, const ToolFailure& failure) {
  err << "brivet: " << failure.message << "\n";
  return failure.code;
}

// Turns signposts on before any model reads the switch, and writes them to
// the file when the command ends, whether it succeeded or failed.
class TraceFile {
 public:
  explicit TraceFile(const std::optional<std::string>& path) : path_(path) {
    if (path_) {
      ::setenv(std::string(kSignpostEnvironmentVariable).c_str(), "1", 1);
      SignpostRecorder::shared()->clear();
    }
  }
  // Writes the file; the failure when it cannot.
  std::optional<ToolFailure> write(std::ostream& err) const {
    if (!path_) return std::nullopt;
    // The result reaches the tool just before the operation closes its intervals on its own queue; an
    // interval still open after a second belongs to an operation that never ended (a time-out).
    SignpostRecorder::shared()->waitForOpenIntervals(std::chrono::seconds(1));
    const std::size_t events = SignpostRecorder::shared()->records().size();
    Result<void> written = SignpostRecorder::shared()->writeChromeTrace(*path_);
    if (!written.ok()) {
      return ToolFailure{kExitFile, "cannot write the trace " + oneLine(*path_) + ": " +
                                        oneLine(written.error().localizedDescription())};
    }
    err << "trace: " << *path_ << " (" << events << " signposts; open it at https://ui.perfetto.dev)\n";
    return std::nullopt;
  }
  // The command's result once the trace is written: its own failure first.
  int finish(std::ostream& err, int code) const {
    std::optional<ToolFailure> failed = write(err);
    if (failed) {
      fail(err, *failed);
      return code == kExitOK ? failed->code : code;
    }
    return code;
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

std::string joinedPaths(const std::vector<std::string>& paths) {
  std::string out;
  for (const std::string& path : paths) out += (out.empty() ? "" : ", ") + path;
  return oneLine(out, 200);
}

// What the server said about a failed request: the message of its error body.
std::string serverMessage(const Object& body) {
  for (const Object& candidate : {body["message"], body.valueForKeyPath("error.message")}) {
    if (candidate.isString()) return oneLine(candidate.stringValue());
  }
  if (body.isString()) return oneLine(body.stringValue());
  if (body.isNil()) return std::string();
  return oneLine(writeJSON(body).valueOr(std::string()));
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
  if (!outcome.ended || outcome.error) {
    return describeFailure(RequestFailure{options.command, options.arguments, session.url(), outcome.error,
                                          requests.lastFailure, !outcome.ended, options.timeout});
  }
  if (options.progressive) {
    for (const Object& value : outcome.values) out << prettyJSON(value) << "\n";
  } else {
    out << (outcome.values.empty() ? std::string("{}") : prettyJSON(outcome.values.back())) << "\n";
  }
  err << options.command << ": " << formatDuration(elapsed) << " (" << describeRequests(requests);
  if (options.progressive) err << ", " << outcome.values.size() << " progressive values";
  err << ")\n";
  return std::nullopt;
}

int commandGet(const ToolOptions& options, std::ostream& out, std::ostream& err) {
  if (auto bad = checkPaths(options.arguments)) return fail(err, *bad);
  const TraceFile trace(options.tracePath);
  int code = kExitOK;
  {
    auto session = Session::open(options);
    if (!session.ok()) {
      code = fail(err, session.error());
    } else if (auto failure = runGet(*session.value(), options, out, err)) {
      code = fail(err, *failure);
    }
  }
  return trace.finish(err, code);
}

int commandSnapshot(ToolOptions options, std::ostream& out, std::ostream& err) {
  if (options.arguments.empty()) return fail(err, usage("snapshot needs a FILE"));
  const std::string file = options.arguments.front();
  options.arguments.erase(options.arguments.begin());
  if (auto bad = checkPaths(options.arguments)) return fail(err, *bad);
  const TraceFile trace(options.tracePath);
  int code = kExitOK;
  {
    auto session = Session::open(options);
    if (!session.ok()) {
      code = fail(err, session.error());
    } else if (auto failure = runGet(*session.value(), options, out, err)) {
      code = fail(err, *failure);
    } else {
      Result<std::string> text = session.value()->model()->serializeCacheWithKeyPaths(std::nullopt);
      if (!text.ok()) {
        code = fail(err, {kExitFailed, "cannot write the cache: " + oneLine(text.error().localizedDescription())});
      } else if (auto failed = writeFile(file, text.value())) {
        code = fail(err, *failed);
      } else {
        err << "snapshot: saved the cache (version " << session.value()->model()->version() << ", "
            << text.value().size() << " bytes) to " << file << "\n";
      }
    }
  }
  return trace.finish(err, code);
}

int commandRestore(ToolOptions options, std::ostream& out, std::ostream& err) {
  if (options.arguments.empty()) return fail(err, usage("restore needs a FILE"));
  const std::string file = options.arguments.front();
  options.arguments.erase(options.arguments.begin());
  if (auto bad = checkPaths(options.arguments)) return fail(err, *bad);
  const TraceFile trace(options.tracePath);
  auto text = readFile(file);
  if (!text.ok()) return trace.finish(err, fail(err, text.error()));
  // The model ignores JSON that holds no snapshot; the tool says so instead.
  Result<Object> parsed = parseJSON(text.value());
  if (!parsed.ok()) {
    return trace.finish(err, fail(err, {kExitFile, oneLine(file) + " is not JSON: " +
                                                       oneLine(parsed.error().localizedDescription())}));
  }
  if (!parsed.value()["jsonGraph"].isDictionary() || parsed.value()["$_version"].asNumber() == nullptr) {
    return trace.finish(err, fail(err, {kExitFile, oneLine(file) + " holds no cache snapshot (no \"jsonGraph\" "
                                                                   "object and \"$_version\" number)"}));
  }
  auto model = TovBrivet::createTovModelWithUrl(std::nullopt, nullptr);
  Result<SnapshotReport> restored = model->deserializeCache(text.value());
  if (!restored.ok()) {
    return trace.finish(err, fail(err, {kExitFile, "cannot restore " + oneLine(file) + ": " +
                                                       oneLine(restored.error().localizedDescription())}));
  }
  // What the restore refused or left out is said before anything is read from it.
  if (!restored->restored()) {
    return trace.finish(err, fail(err, {kExitFile, "cannot restore " + oneLine(file) + ": " +
                                                       oneLine(restored->refusal)}));
  }
  if (restored->unreadableEntries > 0 || restored->expiredLeaves > 0) {
    err << "restore: " << oneLine(file) << " " << restored->description() << "\n";
  }
  const StreamOutcome outcome = await(model->withoutDataSource()->getWithKeyPaths(options.arguments)->asStream(),
                                      options.timeout);
  if (!outcome.ended || outcome.error) {
    return trace.finish(err, fail(err, describeFailure(RequestFailure{"restore", options.arguments, "", outcome.error,
                                                                      std::nullopt, !outcome.ended, options.timeout})));
  }
  out << (outcome.values.empty() ? std::string("{}") : prettyJSON(outcome.values.back())) << "\n";
  err << "restore: read version " << model->version() << " from " << file << ", offline\n";
  return trace.finish(err, kExitOK);
}

int commandServe(const ToolOptions& options, std::ostream& out, std::ostream& err) {
  if (options.arguments.size() > 1) return fail(err, usage("serve takes at most one FILE"));
  JSONGraph document = sampleCatalogue();
  std::string what = "the sample catalogue";
  if (!options.arguments.empty()) {
    auto text = readFile(options.arguments.front());
    if (!text.ok()) return fail(err, text.error());
    Result<JSONGraph> graph = JSONGraph::fromJSONText(text.value());
    if (!graph.ok()) {
      return fail(err, {kExitFile, oneLine(options.arguments.front()) + " is not a JSON Graph document: " +
                                       oneLine(graph.error().localizedDescription())});
    }
    document = std::move(graph).value();
    what = options.arguments.front();
  }
  HTTPWireLimits limits;
  if (options.maxRequestBytes) limits.maxTargetBytes = limits.maxBodyBytes = *options.maxRequestBytes;
  // Block the stop signals before the server's threads start, so that they
  // inherit the mask and this thread alone receives them.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);
  auto server = JSONGraphServer::start(std::move(document), options.port.value_or(0), limits);
  if (!server.ok()) return fail(err, {kExitFailed, oneLine(server.error())});
  if (options.arguments.empty()) registerSampleFunctions(*server.value());
  out << writeJSON(Object::dictionary({{"url", server.value()->url()}, {"legacyURL", server.value()->legacyURL()}}))
             .valueOr("{}")
      << std::endl;
  err << "serving " << what << " at " << server.value()->url() << "\n"
      << "legacy dialect at " << server.value()->legacyURL() << "\n"
      << "press Ctrl-C to stop" << std::endl;
  int received = 0;
  sigwait(&stop, &received);
  err << "stopping after " << server.value()->requestCount() << " requests\n";
  return kExitOK;
}

}  // namespace

ToolFailure describeFailure(const RequestFailure& failure) {
  std::string where = failure.command + " " + joinedPaths(failure.paths);
  if (!failure.url.empty()) where += " from " + oneLine(failure.url, 200);
  auto line = [&](ExitCode code, const std::string& cause) { return ToolFailure{code, where + ": " + cause}; };
  const std::string inTime = "no answer within " + std::to_string(failure.timeout.count()) + " ms";
  if (failure.timedOut) return line(kExitUnreachable, inTime);
  if (failure.httpFailure && failure.httpFailure->domain() == httpErrorDomain()) {
    const Error& http = *failure.httpFailure;
    const std::string detail = " (" + oneLine(http.localizedDescription()) + ")";
    if (http.code() >= 400) {
      const std::string message = serverMessage(http.userInfo()[kHTTPErrorBodyKey]);
      return line(kExitBadAnswer,
                  "the server answered HTTP " + std::to_string(http.code()) + (message.empty() ? "" : ": " + message));
    }
    switch (static_cast<HTTPErrorCode>(http.code())) {
      case HTTPErrorCode::ConnectionFailed: return line(kExitUnreachable, "cannot connect" + detail);
      case HTTPErrorCode::ConnectionLost:
        return line(kExitUnreachable, "the connection was lost before the answer was complete" + detail);
      case HTTPErrorCode::TimedOut: return line(kExitUnreachable, inTime);
      case HTTPErrorCode::TooManyRedirects:
        return line(kExitBadAnswer, "more than " + std::to_string(kMaxRedirects) + " redirects" + detail);
      case HTTPErrorCode::Redirected:
      case HTTPErrorCode::BadURL: return line(kExitBadAnswer, "redirected to a URL that cannot be requested" + detail);
      case HTTPErrorCode::NotJSON: return line(kExitBadAnswer, "the answer is not JSON" + detail);
      case HTTPErrorCode::NotJSONGraph:
        return line(kExitBadAnswer, "the answer is not a JSON Graph answer (no \"jsonGraph\" object)");
      case HTTPErrorCode::TooLarge: return line(kExitBadAnswer, "the answer is too large" + detail);
      case HTTPErrorCode::Cancelled:
      case HTTPErrorCode::BadParameters:
      case HTTPErrorCode::TransferFailed: break;
    }
    return line(kExitFailed, "the request failed" + detail);
  }
  if (failure.error) {
    // A core failure says which path failed and why (the server's message, the
    // error leaf's value, the keys read); its platform error would only name its case.
    if (failure.error->isBrivetError()) return line(kExitFailed, oneLine(failure.error->text()));
    return line(kExitFailed, "the request failed: " + oneLine(failure.error->description()));
  }
  return line(kExitFailed, "the request failed");
}

std::string oneLine(std::string_view text, std::size_t limit) {
  std::string out;
  out.reserve(std::min(text.size(), limit) + 3);
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (out.size() >= limit) {
      // Cut before a UTF-8 continuation byte's character, never inside it.
      while (!out.empty() && (static_cast<unsigned char>(out.back()) & 0xC0) == 0x80) out.pop_back();
      if (!out.empty() && (static_cast<unsigned char>(out.back()) & 0x80) != 0) out.pop_back();
      return out + "...";
    }
    const auto c = static_cast<unsigned char>(text[i]);
    out += (c < 0x20 || c == 0x7F) ? ' ' : static_cast<char>(c);
  }
  return out;
}

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
  return text.ok() ? text.value() : std::string("null");
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
    if (!server.ok()) return ToolFailure{kExitFailed, "cannot start the embedded server: " + oneLine(server.error())};
    session->server_ = std::move(server).value();
    registerSampleFunctions(*session->server_);
    session->url_ = session->server_->url();
  }
  TovHTTPClient::Options client;
  client.transport.requestTimeout = options.timeout;
  client.transport.connectTimeout = std::min(options.timeout, client.transport.connectTimeout);
  client.transport.maxRedirects = kMaxRedirects;
  Session* raw = session.get();
  client.observer = [raw](const TovHTTPClient::Exchange& exchange) {
    MutexLock lock(raw->mu_);
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
  MutexLock lock(mu_);
  return std::exchange(requests_, Requests{});
}

StreamOutcome await(const TovStream<JSONEnvelope>& stream, std::chrono::milliseconds timeout) {
  auto outcome = std::make_shared<StreamOutcome>();
  // The core stream rather than the platform-facing one: its failure keeps the
  // model's whole error, which the failure line reports.
  auto subscription = stream.stream()->subscribe([outcome](const BrivetResult<JSONEnvelope>& result) {
    if (const JSONEnvelope* envelope = result.value()) {
      const Object dictionary = envelopeDictionary(*envelope);
      if (!dictionary.isNil()) outcome->values.push_back(dictionary);
      return;
    }
    if (const StreamError* error = result.error()) outcome->error = *error;
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
  return runDemo(options.value(), err);
}

}  // namespace brivet::tools
