// The `brivet` tool as a user runs it: the built program in a child process,
// its output and exit code, against in-process loopback servers.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <fstream>
#include <sstream>
#include <thread>

#include "brivet/platform/json.h"
#include "tools/server/json_graph_server.h"
#include "tools/server/sample_catalogue.h"

extern char** environ;

namespace brivet {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

std::string slurp(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

class ToolTest : public ::testing::Test {
 protected:
  struct Run {
    int exitCode = -1;
    std::string out;
    std::string err;
  };

  void SetUp() override {
    dir_ = fs::temp_directory_path() / ("brivet_tool_test_" + std::to_string(::getpid()) + "_" +
                                        ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }

  // Starts the tool with its output in the files `<name>.out` and `<name>.err`; answers its process id.
  pid_t spawn(const std::vector<std::string>& args, const std::string& name = "tool") {
    std::vector<std::string> argv = {BRIVET_TOOL_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> pointers;
    for (std::string& a : argv) pointers.push_back(a.data());
    pointers.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, (dir_ / (name + ".out")).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, (dir_ / (name + ".err")).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = -1;
    EXPECT_EQ(posix_spawn(&pid, pointers[0], &actions, nullptr, pointers.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    return pid;
  }
  Run finish(pid_t pid, const std::string& name = "tool") {
    int status = 0;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    Run run;
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    run.out = slurp(dir_ / (name + ".out"));
    run.err = slurp(dir_ / (name + ".err"));
    return run;
  }
  Run tool(const std::vector<std::string>& args) { return finish(spawn(args)); }

  // The one line a failure prints, and nothing on standard output.
  static void expectOneLineError(const Run& run, int exitCode, const std::string& fragment) {
    EXPECT_EQ(run.exitCode, exitCode) << run.err;
    EXPECT_EQ(run.err.rfind("brivet: ", 0), 0u) << run.err;
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
    EXPECT_NE(run.err.find(fragment), std::string::npos) << run.err;
    EXPECT_TRUE(run.out.empty()) << run.out;
  }
  // Standard output is JSON, nothing else.
  static Object jsonOut(const Run& run) {
    Result<Object> printed = parseJSON(run.out);
    EXPECT_TRUE(printed.ok()) << run.out;
    return printed.valueOr(Object());
  }
  // Answers every request with `canned`.
  static void answerWith(tools::JSONGraphServer& server, tools::JSONGraphServer::CannedResponse canned) {
    server.setInterceptor([canned](const std::string&, const std::string&) { return canned; });
  }

  std::unique_ptr<tools::JSONGraphServer> startServer() {
    auto started = tools::JSONGraphServer::start(tools::sampleCatalogue());
    EXPECT_TRUE(started.ok());
    return std::move(started).value();
  }

  fs::path dir_;
};

TEST_F(ToolTest, GetPrintsTheResultAsJSONAndItsTimingOnStandardError) {
  const Run run = tool({"get", "lists.top.@range(0,1).title", "lists.top.0.year"});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  const Object printed = jsonOut(run);
  EXPECT_EQ(printed.valueForKeyPath("lists.top.1.title").stringValue(), "Northern Lights");
  EXPECT_EQ(printed.valueForKeyPath("lists.top.0.year").description(), "1950");
  EXPECT_EQ(run.err.rfind("get: ", 0), 0u) << run.err;
  EXPECT_NE(run.err.find("1 request"), std::string::npos) << run.err;
}

TEST_F(ToolTest, BadArgumentsPathsAndURLsExitWithUsageErrors) {
  expectOneLineError(tool({}), 2, "no command");
  expectOneLineError(tool({"fetch", "a"}), 2, "unknown command");
  expectOneLineError(tool({"get"}), 2, "no PATH");
  expectOneLineError(tool({"get", "--frobnicate", "a"}), 2, "unknown option --frobnicate");
  expectOneLineError(tool({"restore", "f.json", "--url", "http://x/", "a"}), 2, "--url does not apply to restore");
  expectOneLineError(tool({"get", "--url"}), 2, "--url needs");
  expectOneLineError(tool({"get", "--url", "ftp://x", "a"}), 2, "not an http:// or https:// URL");
  expectOneLineError(tool({"get", "--url", "http://exa mple.com/model.json", "a"}), 2, "with blanks");
  expectOneLineError(tool({"get", "--url", "http://", "a"}), 2, "not a URL");
  expectOneLineError(tool({"get", "--timeout", "soon", "a"}), 2, "--timeout needs a number");
  expectOneLineError(tool({"serve", "--max-request", "12"}), 2, "--max-request needs a number of bytes");
  expectOneLineError(tool({"get", "lists.top.@range(0,x).title"}), 2, "is not a range");
  expectOneLineError(tool({"get", "lists.top.@range(5,2).title"}), 2, "is empty");
  expectOneLineError(tool({"get", "..."}), 2, "has no key");
  const Run help = tool({"--help"});
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_NE(help.out.find("usage: brivet get"), std::string::npos);
}

TEST_F(ToolTest, UnreachableDroppedAndSlowServersExitWith3) {
  expectOneLineError(tool({"get", "--url", "http://127.0.0.1:1/model.json", "a.b"}), 3,
                     "get a.b from http://127.0.0.1:1/model.json: cannot connect (");
  const auto server = startServer();
  tools::JSONGraphServer::CannedResponse drop;
  drop.dropConnection = true;
  answerWith(*server, drop);
  expectOneLineError(tool({"get", "--url", server->url(), "a.b"}), 3,
                     "get a.b from " + server->url() + ": the connection was lost before the answer was complete");

  auto released = std::make_shared<std::atomic<bool>>(false);
  server->setInterceptor([released](const std::string&, const std::string&) {
    while (!released->load()) std::this_thread::sleep_for(5ms);
    return std::optional<tools::JSONGraphServer::CannedResponse>();
  });
  const Run slow = tool({"get", "--timeout", "200", "--url", server->url(), "a.b"});
  released->store(true);
  expectOneLineError(slow, 3, "no answer within 200 ms");
}

TEST_F(ToolTest, ErrorStatusesAndMalformedAnswersExitWith4WithTheServersMessage) {
  const auto server = startServer();
  answerWith(*server, {500, R"({"message":"database offline"})"});
  expectOneLineError(tool({"get", "--url", server->url(), "a.b", "c"}), 4,
                     "get a.b, c from " + server->url() + ": the server answered HTTP 500: database offline");
  answerWith(*server, {404, R"({"error": {"message": "no such graph"}})"});
  expectOneLineError(tool({"get", "--url", server->url(), "a.b"}), 4, "HTTP 404: no such graph");
  answerWith(*server, {200, "<html>hello</html>", "text/html"});
  expectOneLineError(tool({"get", "--url", server->url(), "a.b"}), 4, "the answer is not JSON");
  answerWith(*server, {200, R"({"value": {}})"});
  expectOneLineError(tool({"get", "--url", server->url(), "a.b"}), 4, "no \"jsonGraph\" object");

  // A hostile error body: large, with line breaks and terminal escapes. One bounded line comes out.
  std::string message = "first line\n\x1b[31mred\x1b[0m\r\n";
  message += std::string(100000, 'x');
  answerWith(*server, {500, writeJSON(Object::dictionary({{"message", message}})).value()});
  const Run hostile = tool({"get", "--url", server->url(), "a.b"});
  expectOneLineError(hostile, 4, "HTTP 500: first line  [31mred [0m  xxx");
  EXPECT_LT(hostile.err.size(), 600u);
  EXPECT_EQ(hostile.err.find('\x1b'), std::string::npos);
}

TEST_F(ToolTest, RedirectsAreFollowedUpToALimit) {
  const auto target = startServer();
  const auto redirecting = startServer();
  const std::string base = "http://127.0.0.1:" + std::to_string(target->port());
  redirecting->setInterceptor([base](const std::string&, const std::string& path) {
    tools::JSONGraphServer::CannedResponse moved(302, "");
    moved.fields = {{"Location", base + path}};
    return std::optional(moved);
  });
  const Run followed = tool({"get", "--url", redirecting->url(), "lists.top.0.title"});
  ASSERT_EQ(followed.exitCode, 0) << followed.err;
  EXPECT_EQ(jsonOut(followed).valueForKeyPath("lists.top.0.title").stringValue(), "The Quiet Harbour");
  EXPECT_EQ(target->requestCount(), 1u);

  redirecting->setInterceptor([](const std::string&, const std::string& path) {
    tools::JSONGraphServer::CannedResponse moved(307, "");
    moved.fields = {{"Location", path}};
    return std::optional(moved);
  });
  expectOneLineError(tool({"get", "--url", redirecting->url(), "a"}), 4, "more than 5 redirects");
}

TEST_F(ToolTest, SnapshotThenRestoreReadsTheSavedCacheOffline) {
  const std::string file = (dir_ / "cache.json").string();
  const Run saved = tool({"snapshot", file, "lists.top.@range(0,2).title"});
  ASSERT_EQ(saved.exitCode, 0) << saved.err;
  EXPECT_EQ(jsonOut(saved).valueForKeyPath("lists.top.2.title").stringValue(), "A Year of Rain");
  EXPECT_NE(saved.err.find("saved the cache"), std::string::npos) << saved.err;

  const Run restored = tool({"restore", file, "lists.top.2.title", "lists.top.3.title"});
  ASSERT_EQ(restored.exitCode, 0) << restored.err;
  const Object printed = jsonOut(restored);
  EXPECT_EQ(printed.valueForKeyPath("lists.top.2.title").stringValue(), "A Year of Rain");
  EXPECT_TRUE(printed.valueForKeyPath("lists.top.3").isNil());  // never fetched, and no network
  EXPECT_NE(restored.err.find("offline"), std::string::npos) << restored.err;

  expectOneLineError(tool({"restore", (dir_ / "missing.json").string(), "a"}), 5, "cannot read");
  expectOneLineError(tool({"restore", dir_.string(), "a"}), 5, "is a directory");
  std::ofstream((dir_ / "garbage.json").string()) << "{\"jsonGraph\": ";
  expectOneLineError(tool({"restore", (dir_ / "garbage.json").string(), "a"}), 5, "is not JSON");
  std::ofstream((dir_ / "other.json").string()) << R"({"something": "else"})";
  expectOneLineError(tool({"restore", (dir_ / "other.json").string(), "a"}), 5, "holds no cache snapshot");
  const Run unwritable = tool({"snapshot", (dir_ / "no" / "such" / "dir.json").string(), "lists.top.0.title"});
  EXPECT_EQ(unwritable.exitCode, 5);
  EXPECT_NE(unwritable.err.find("brivet: cannot write"), std::string::npos) << unwritable.err;
}

TEST_F(ToolTest, FailuresSayWhichPathFailedAndWhy) {
  const std::string file = (dir_ / "cache.json").string();
  std::ofstream(file) << R"({"$_version": 3, "jsonGraph": {
      "videos": {"v1": {"title": {"$type": "error", "value": {"message": "title withdrawn"}}, "year": 1999}},
      "loop": {"$type": "ref", "value": ["loop"]}}})";
  expectOneLineError(tool({"restore", file, "videos.v1.title"}), 1,
                     R"(responseJSONGraphFailed (pathBoundErrors): 1 error: at videos.v1.title: )"
                     R"({"message":"title withdrawn"})");
  expectOneLineError(tool({"restore", file, "videos.v1"}), 1,
                     "responseJSONGraphFailed (invalidAttempt): the path ends on a branch, not a value, at videos.v1");
  expectOneLineError(tool({"restore", file, "loop.x"}), 1, "reference chain longer than 1024");
}

TEST_F(ToolTest, RestoreSaysWhatItLeftOut) {
  const std::string file = (dir_ / "cache.json").string();
  std::ofstream(file) << R"({"$_version": 3, "jsonGraph": {"videos": {"v1": {
      "title": {"$type": "atom", "value": "Old", "$expires": 1000}, "year": {"$type": "bogus", "value": 1},
      "genre": "Drama"}}}})";
  const Run run = tool({"restore", file, "videos.v1.genre", "videos.v1.title"});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_NE(run.err.find("restore: " + file +
                         " restored; 1 entry could not be read (restored as null); 1 leaf had already expired"),
            std::string::npos)
      << run.err;
  EXPECT_TRUE(parseJSON(run.out).value().valueForKeyPath("videos.v1.title").isNil());  // expired: not answered

  std::ofstream((dir_ / "future.json").string()) << R"({"jsonGraph": {}, "$_version": 18446744073709551615})";
  expectOneLineError(tool({"restore", (dir_ / "future.json").string(), "a"}), 5, "lies outside 0...");
}

// The trace file as a trace viewer reads it: every interval closed, each
// nested one inside its parent, on its root's track.
struct TraceInterval {
  std::string name, span, parent, track;
  double begin = 0, end = -1;
};
std::map<std::string, TraceInterval> intervalsOf(const std::string& text) {
  std::map<std::string, TraceInterval> intervals;
  Result<Object> trace = parseJSON(text);
  EXPECT_TRUE(trace.ok()) << text;
  if (!trace.ok()) return intervals;
  for (const Object& event : *trace.value()["traceEvents"].asArray()) {
    const std::string phase(event["ph"].stringValue());
    const std::string span(event.valueForKeyPath("args.span").stringValue());
    if (phase == "b") {
      intervals[span] = TraceInterval{std::string(event["name"].stringValue()), span,
                                      std::string(event.valueForKeyPath("args.parent").stringValue()),
                                      std::string(event["id"].stringValue()), event["ts"].asNumber()->doubleValue()};
    } else if (phase == "e") {
      EXPECT_EQ(intervals.count(span), 1u) << "an end without a begin: " << span;
      intervals[span].end = event["ts"].asNumber()->doubleValue();
      EXPECT_EQ(event["id"].stringValue(), intervals[span].track);
    }
  }
  return intervals;
}

TEST_F(ToolTest, TraceIsWrittenOnSuccessAndOnFailureWithEachFetchAndMergeNestedInItsGet) {
  const std::string trace = (dir_ / "trace.json").string();
  const Run run = tool({"get", "--progressive", "--trace", trace, "lists.top.0.title"});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_NE(run.err.find("2 progressive values"), std::string::npos) << run.err;
  std::map<std::string, int> names;
  for (const auto& [span, interval] : intervalsOf(slurp(trace))) {
    ++names[interval.name];
    EXPECT_GE(interval.end, interval.begin) << interval.name << " was not closed";
    if (interval.name == "Stream") {
      EXPECT_TRUE(interval.parent.empty());
      EXPECT_EQ(interval.track, interval.span);
      continue;
    }
    const std::map<std::string, TraceInterval> all = intervalsOf(slurp(trace));
    ASSERT_EQ(all.count(interval.parent), 1u) << interval.name << " has no parent";
    const TraceInterval& parent = all.at(interval.parent);
    EXPECT_EQ(parent.name, "Stream");
    EXPECT_EQ(interval.track, parent.track);
    EXPECT_LE(parent.begin, interval.begin);
    EXPECT_GE(parent.end, interval.end);
  }
  // The cached read, the request and the merge of the answer.
  EXPECT_EQ(names, (std::map<std::string, int>{{"Cache", 2}, {"DataSource", 1}, {"Stream", 1}}));

  const auto server = startServer();
  answerWith(*server, {500, R"({"message":"down"})"});
  const std::string failedTrace = (dir_ / "failed.json").string();
  const Run failed = tool({"get", "--trace", failedTrace, "--url", server->url(), "a.b"});
  EXPECT_EQ(failed.exitCode, 4);
  EXPECT_NE(failed.err.find("trace: " + failedTrace), std::string::npos) << failed.err;
  const std::map<std::string, TraceInterval> intervals = intervalsOf(slurp(failedTrace));
  ASSERT_EQ(intervals.size(), 3u);  // the stream, its cache read and its failed request
  for (const auto& [span, interval] : intervals) {
    if (interval.name != "Stream") {
      EXPECT_EQ(intervals.at(interval.parent).name, "Stream");
    }
  }
}

TEST_F(ToolTest, ServePrintsItsURLsAsJSONAndAnswersAnotherToolUntilItIsStopped) {
  std::ofstream(dir_ / "graph.json") << R"({"greeting": {"$type": "atom", "value": "hello"}, "n": 42})";
  const pid_t server = spawn({"serve", "--port", "0", "--max-request", "2048", (dir_ / "graph.json").string()}, "server");
  std::string url;
  for (int i = 0; i < 500 && url.empty(); ++i) {
    std::this_thread::sleep_for(10ms);
    const std::string text = slurp(dir_ / "server.out");
    if (text.find('\n') != std::string::npos) {
      Result<Object> printed = parseJSON(text.substr(0, text.find('\n')));
      ASSERT_TRUE(printed.ok()) << text;
      url = printed.value()["url"].stringValue();
      EXPECT_NE(printed.value()["legacyURL"].stringValue().find("/legacy/model.json"), std::string::npos);
    }
  }
  ASSERT_FALSE(url.empty());
  const Run client = tool({"get", "--url", url, "greeting", "n"});
  EXPECT_EQ(client.exitCode, 0) << client.err;
  EXPECT_EQ(jsonOut(client)["greeting"].stringValue(), "hello");
  // Past its request limit the server says why.
  expectOneLineError(tool({"get", "--url", url, std::string(3000, 'k')}), 4,
                     "HTTP 414: the request target is longer than 2048 bytes");
  ::kill(server, SIGTERM);
  const Run stopped = finish(server, "server");
  EXPECT_EQ(stopped.exitCode, 0) << stopped.err;
  EXPECT_NE(stopped.err.find("stopping after 2 requests"), std::string::npos) << stopped.err;

  std::ofstream(dir_ / "bad.json") << "[1, 2";
  expectOneLineError(tool({"serve", (dir_ / "bad.json").string()}), 5, "is not a JSON Graph document");
}

TEST_F(ToolTest, DemoWalksThroughBothModelsOnStandardErrorAndWritesItsTrace) {
  const std::string trace = (dir_ / "demo-trace.json").string();
  const Run run = tool({"demo", "--trace", trace});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_TRUE(run.out.empty()) << run.out;
  EXPECT_NE(run.err.find("answered from the cache without a request"), std::string::npos);
  EXPECT_NE(run.err.find("The facade"), std::string::npos);
  EXPECT_TRUE(parseJSON(slurp(trace)).ok());
  EXPECT_TRUE(fs::exists(dir_ / "brivet-demo-cache.json"));
}

TEST_F(ToolTest, TheReferencePageShowsTheUsageAndEveryCommandOptionAndExitCode) {
  const std::string page = slurp(BRIVET_SOURCE_DIR "/docs/tool.md");
  const Run help = tool({"--help"});
  ASSERT_EQ(help.exitCode, 0);
  const std::size_t usage = page.find("```text\n");
  ASSERT_NE(usage, std::string::npos);
  EXPECT_EQ(page.substr(usage + 8, page.find("```", usage + 8) - usage - 8), help.out);

  for (const char* command : {"get", "snapshot", "restore", "serve", "demo"}) {
    EXPECT_NE(page.find(std::string("### `brivet ") + command + "`"), std::string::npos) << command;
  }
  for (int code = 0; code <= 5; ++code) {
    EXPECT_NE(page.find("\n| " + std::to_string(code) + " | "), std::string::npos) << code;
  }
  EXPECT_EQ(page.find("\n| 6 | "), std::string::npos);

  // Each option's row names exactly the commands that take it.
  const std::map<std::string, std::string> values = {{"--url", "http://127.0.0.1:1/x"}, {"--timeout", "5"},
                                                     {"--trace", "t.json"},              {"--port", "0"},
                                                     {"--max-request", "2048"},          {"--progressive", ""},
                                                     {"--refresh", ""}};
  for (const auto& [option, value] : values) {
    const std::size_t row = page.find("\n| `" + option);
    ASSERT_NE(row, std::string::npos) << option << " has no row";
    const std::size_t cells = page.find("` | ", row) + 4;
    const std::string commands = page.substr(cells, page.find(" |", cells) - cells);
    for (const char* command : {"get", "snapshot", "restore", "serve", "demo"}) {
      std::vector<std::string> args = {command, option};
      if (!value.empty()) args.push_back(value);
      args.push_back("--zzz");  // stops the tool at parsing when the option applies
      const Run run = tool(args);
      const bool listed = (", " + commands + ",").find(std::string(", ") + command + ",") != std::string::npos;
      EXPECT_EQ(run.err.find("does not apply") == std::string::npos, listed) << command << " " << option << ": " << run.err;
    }
  }
}

}  // namespace
}  // namespace brivet
