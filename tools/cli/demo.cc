// `brivet demo`: a guided walk through what the library does, over real HTTP
// against the embedded server, first with the core model, then with the
// facade's legacy model. Every step prints what it asked, what came back and
// what it cost; any unexpected answer stops the demo with exit code 1.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include "brivet/adapters/kel_http_data_source.h"
#include "brivet/facade/kel_model.h"
#include "brivet/platform/dispatch_queue.h"
#include "brivet/platform/json.h"
#include "brivet/platform/signpost.h"
#include "tools/cli/tool.h"

namespace brivet::tools {

namespace {

using Clock = std::chrono::steady_clock;

std::chrono::microseconds since(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start);
}

// Indents every line of `text` for the walk-through's layout.
std::string indented(const std::string& text) {
  std::string out = "    ";
  for (char c : text) {
    out += c;
    if (c == '\n') out += "    ";
  }
  return out;
}

class Walkthrough {
 public:
  Walkthrough(Session& session, const ToolOptions& options, std::ostream& out)
      : session_(session), options_(options), out_(out) {}

  void step(const std::string& title) { out_ << "\n" << ++step_ << ". " << title << "\n"; }
  void say(const std::string& line) { out_ << "   " << line << "\n"; }
  void show(const Object& value) { out_ << indented(prettyJSON(value)) << "\n"; }
  void expect(bool condition, const std::string& what) {
    if (!condition && !failure_) failure_ = what;
  }
  const std::optional<std::string>& failure() const { return failure_; }

  // A get through the core model: prints its values (every value when progressive) and its cost.
  std::vector<Object> get(const std::vector<std::string>& keyPaths, bool progressive = false) {
    std::shared_ptr<TovGetOperation> operation = session_.model()->getWithKeyPaths(keyPaths);
    if (progressive) operation = operation->progressively();
    say("get " + join(keyPaths) + (progressive ? " (progressively)" : ""));
    return run(operation->asStream(), progressive);
  }
  std::vector<Object> run(const TovStream<JSONEnvelope>& stream, bool showEach) {
    session_.takeRequests();
    const auto start = Clock::now();
    const StreamOutcome outcome = await(stream, options_.timeout + std::chrono::seconds(5));
    const auto elapsed = since(start);
    const Session::Requests requests = session_.takeRequests();
    if (!outcome.ended || outcome.error) {
      std::string why = "no answer in time";
      if (outcome.error) {
        why = oneLine(outcome.error->isBrivetError() ? outcome.error->text() : outcome.error->description());
      }
      expect(false, why);
      return {};
    }
    for (std::size_t i = 0; i < outcome.values.size(); ++i) {
      if (!showEach && i + 1 < outcome.values.size()) continue;
      if (showEach) say("value " + std::to_string(i + 1) + " of " + std::to_string(outcome.values.size()) + ":");
      show(outcome.values[i]);
    }
    std::ostringstream cost;
    cost << "took " << formatDuration(elapsed) << ", ";
    if (requests.count == 0) {
      cost << "answered from the cache without a request";
    } else {
      cost << requests.count << " HTTP request" << (requests.count == 1 ? "" : "s") << " ("
           << formatDuration(requests.elapsed) << ", " << requests.bytes << " bytes)";
    }
    say(cost.str());
    lastRequests_ = requests.count;
    return outcome.values;
  }
  std::size_t lastRequests() const { return lastRequests_; }

  static std::string join(const std::vector<std::string>& keyPaths) {
    std::string text;
    for (const std::string& k : keyPaths) text += (text.empty() ? "" : " ") + k;
    return text;
  }

 private:
  Session& session_;
  const ToolOptions& options_;
  std::ostream& out_;
  int step_ = 0;
  std::size_t lastRequests_ = 0;
  std::optional<std::string> failure_;
};

void coreWalk(Walkthrough& w, Session& session, const std::string& snapshotPath) {
  const std::vector<std::string> home = {"lists.top.@range(0,2).title", "lists.top.@range(0,2).year"};

  w.step("A cold get: the cache is empty, so the model fetches what it lacks");
  const auto cold = w.get(home);
  w.expect(w.lastRequests() == 1, "the cold get should send one request");
  w.expect(!cold.empty() && cold.back().valueForKeyPath("lists.top.0.title").isString(), "the cold get has no title");

  w.step("The same get again: answered from the cache");
  w.get(home);
  w.expect(w.lastRequests() == 0, "the warm get should send no request");

  w.step("A progressive get: the cached titles at once, the genres when they arrive");
  const auto progressive = w.get({"lists.top.@range(0,2).title", "lists.top.@range(0,2).genre"}, true);
  w.expect(progressive.size() == 2, "the progressive get should deliver two values");

  w.step("A set: write a new title, which the server merges and confirms");
  const Object write = Object::dictionary(
      {{"videos", Object::dictionary({{"v1", Object::dictionary({{"title", "Northern Lights (director's cut)"}})}})}});
  w.say("set videos.v1.title = \"Northern Lights (director's cut)\"");
  w.run(session.model()->setWithValue(write)->asStream(), false);
  w.expect(session.server()->document().toAnyType().valueForKeyPath("videos.v1.title").stringValue() ==
               "Northern Lights (director's cut)",
           "the server did not take the set");

  w.step("A call: push a video onto lists.top; the server answers the new item and the new length");
  w.get({"lists.top.length"});
  w.say("call lists.top.push(\"The Long Weekend\") then title");
  w.run(
      session.model()->callFunctionWithKeyPath("lists.top.push", std::vector<Object>{Object("The Long Weekend")},
                                               std::vector<std::string>{"title"}, std::nullopt)
          ->asStream(),
      false);
  const Number* length = session.model()->valueForKeyPath("lists.top.length").asNumber();
  w.expect(length != nullptr && length->int64Value() == 11, "the call did not update the cached length");
  w.say("cached lists.top.length is now " + session.model()->valueForKeyPath("lists.top.length").description());

  w.step("Invalidate lists.top.length, then get it again: the model refetches it");
  session.model()->invalidateWithKeyPaths({"lists.top.length"});
  w.say("after invalidation the cache holds " + session.model()->valueForKeyPath("lists.top.length").description());
  w.get({"lists.top.length"});
  w.expect(w.lastRequests() == 1, "the get after invalidation should send one request");

  w.step("Snapshot: save the cache to a file and restore it into a new model that has no network");
  Result<std::string> text = session.model()->serializeCacheWithKeyPaths(std::nullopt);
  w.expect(text.ok(), "the cache could not be written");
  if (!text.ok()) return;
  {
    std::ofstream file(snapshotPath, std::ios::binary | std::ios::trunc);
    file << text.value();
  }
  w.say("saved version " + std::to_string(session.model()->version()) + " (" + std::to_string(text.value().size()) +
        " bytes) to " + snapshotPath);
  auto offline = TovBrivet::createTovModelWithUrl(std::nullopt, nullptr);
  const auto start = Clock::now();
  const Result<SnapshotReport> restored = offline->deserializeCache(text.value());
  w.expect(restored.ok() && restored->restored(), "the snapshot could not be restored");
  w.say("restored in " + formatDuration(since(start)) + "; the new model reads, with no network:");
  const StreamOutcome read = await(offline->getWithKeyPaths(home)->asStream(), std::chrono::seconds(5));
  w.expect(read.ended && !read.error && !read.values.empty(), "the restored model could not read the cache");
  if (!read.values.empty()) w.show(read.values.back());
}

// The same walk through the facade, as applications written against the legacy model do it.
void facadeWalk(Walkthrough& w, Session& session) {
  KelHTTPDataSource::Options options;
  options.url = session.server()->legacyURL();
  options.transport.requestTimeout = std::chrono::milliseconds(10000);
  const auto dataSource = KelHTTPDataSource::create(options);
  const std::shared_ptr<KelModel> model = KelBrivet::createModel(std::nullopt, std::nullopt);
  model->setDataSource(dataSource);

  struct Answer {
    bool done = false;
    Object result;
    std::optional<Error> error;
  };
  auto wait = [&](const std::function<void(KelModel::Completion)>& start) {
    auto answer = std::make_shared<Answer>();
    const auto begin = Clock::now();
    start([answer](Object result, std::optional<Error> error) {
      *answer = Answer{true, std::move(result), std::move(error)};
    });
    DispatchQueue::main()->runUntil([&] { return answer->done; }, std::chrono::seconds(15));
    w.expect(answer->done && !answer->error, answer->error ? answer->error->localizedDescription() : "no answer");
    w.say("took " + formatDuration(since(begin)));
    return *answer;
  };
  const std::vector<std::string> keyPaths = {"lists.top.@range(0,2).title"};

  w.step("The facade: the same get through KelBrivet's legacy model and its HTTP data source");
  w.say("getKeyPaths lists.top.@range(0,2).title (cold)");
  wait([&](KelModel::Completion done) { model->getKeyPaths(keyPaths, std::nullopt, std::move(done)); });
  for (int i = 0; i < 3; ++i) {
    const std::string keyPath = "lists.top." + std::to_string(i) + ".title";
    w.say(keyPath + " = " + model->valueForKeyPath(keyPath).description());
  }
  const std::size_t before = session.server()->requestCount();
  w.say("getKeyPaths again (warm)");
  wait([&](KelModel::Completion done) { model->getKeyPaths(keyPaths, std::nullopt, std::move(done)); });
  w.expect(session.server()->requestCount() == before, "the facade's warm get should send no request");

  w.step("The facade: a call, an invalidation and a refetch, then a snapshot round trip");
  const KelFunctionCall push("lists.top.push", std::vector<Object>{Object("Second Spring")},
                             std::vector<std::string>{"title"});
  w.say("callFunction lists.top.push(\"Second Spring\") then title");
  wait([&](KelModel::Completion done) { model->callFunction(push, std::move(done)); });
  w.say("lists.top.length = " + model->valueForKeyPath("lists.top.length").description());
  model->invalidateWithKeyPaths({"lists.top.length"});
  w.say("after invalidation: " + model->valueForKeyPath("lists.top.length").description());
  w.say("getKeyPath lists.top.length");
  wait([&](KelModel::Completion done) { model->getKeyPath("lists.top.length", std::nullopt, std::move(done)); });
  w.say("refetched: lists.top.length = " + model->valueForKeyPath("lists.top.length").description());
  Result<std::string> snapshot = model->serializeCacheWithKeyPaths(std::nullopt);
  w.expect(snapshot.ok(), "the facade's cache could not be written");
  if (!snapshot.ok()) return;
  const std::shared_ptr<KelModel> restored = KelBrivet::createModel(std::nullopt, std::nullopt);
  w.expect(restored->deserializeCache(snapshot.value()).ok(), "the facade's snapshot could not be restored");
  w.say("restored " + std::to_string(snapshot.value().size()) + " bytes into a new facade model: lists.top.0.title = " +
        restored->valueForKeyPath("lists.top.0.title").description());
}

}  // namespace

int runDemo(const ToolOptions& given, std::ostream& err) {
  std::ostream& out = err;  // the walk-through is human text: standard error
  ToolOptions options = given;
  options.url.reset();  // the demo always runs against its own server
  const std::string tracePath = options.tracePath.value_or("brivet-demo-trace.json");
  if (!options.arguments.empty()) {
    err << "brivet: demo takes no arguments (see brivet --help)\n";
    return kExitUsage;
  }
  ::setenv("SIGNPOSTS_FOR_BRIVET", "1", 1);
  auto session = Session::open(options);
  if (!session.ok()) {
    err << "brivet: " << session.error().message << "\n";
    return session.error().code;
  }
  out << "Brivet walk-through: the library answers from its cache and fetches only what is missing.\n"
      << "Sample catalogue served at " << session.value()->url() << "\n";
  Walkthrough w(*session.value(), options, out);
  const std::string snapshotPath =
      (std::filesystem::path(tracePath).parent_path() / "brivet-demo-cache.json").string();
  coreWalk(w, *session.value(), snapshotPath);
  if (!w.failure()) facadeWalk(w, *session.value());
  if (w.failure()) {
    err << "brivet: the demo stopped: " << *w.failure() << "\n";
    return kExitFailed;
  }
  w.step("The trace of every operation above");
  const std::size_t signposts = SignpostRecorder::shared()->records().size();
  Result<void> written = SignpostRecorder::shared()->writeChromeTrace(tracePath);
  if (!written.ok()) {
    err << "brivet: cannot write the trace " << tracePath << ": " << written.error().localizedDescription() << "\n";
    return kExitFile;
  }
  w.say("wrote " + std::to_string(signposts) + " signposts to " + tracePath);
  w.say("open it at https://ui.perfetto.dev (or chrome://tracing) to see each get, cache read and request");
  out << "\nDone. Point the tool at your own endpoint with: brivet get --url URL PATH...\n";
  return kExitOK;
}

}  // namespace brivet::tools
