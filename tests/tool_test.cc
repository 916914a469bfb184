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

  // The one line a failure prints.
  static void expectOneLineError(const Run& run, int exitCode, const std::string& fragment) {
    EXPECT_EQ(run.exitCode, exitCode) << run.err;
    EXPECT_EQ(run.err.rfind("brivet: ", 0), 0u) << run.err;
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
    EXPECT_NE(run.err.find(fragment), std::string::npos) << run.err;
  }

  std::unique_ptr<tools::JSONGraphServer> startServer() {
    auto started = tools::JSONGraphServer::start(tools::sampleCatalogue());
    EXPECT_TRUE(started.ok());
    return std::move(started).value();
  }

  fs::path dir_;
};

TEST_F(ToolTest, GetPrintsTheResultAndItsTimingFromTheEmbeddedServer) {
  const Run run = tool({"get", "lists.top.@range(0,1).title", "lists.top.0.year"});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  Result<Object> printed = parseJSON(run.out);
  ASSERT_TRUE(printed.ok()) << run.out;
  EXPECT_EQ(printed.value().valueForKeyPath("lists.top.1.title").stringValue(), "Northern Lights");
  EXPECT_EQ(printed.value().valueForKeyPath("lists.top.0.year").asNumber()->int64Value(), 1950);
  EXPECT_NE(run.err.find("get: "), std::string::npos);
  EXPECT_NE(run.err.find("1 request"), std::string::npos) << run.err;
}

TEST_F(ToolTest, BadArgumentsAndPathsExitWithUsageErrors) {
  expectOneLineError(tool({}), 2, "no command");
  expectOneLineError(tool({"fetch", "a"}), 2, "unknown command");
  expectOneLineError(tool({"get"}), 2, "no PATH");
  expectOneLineError(tool({"get", "--frobnicate", "a"}), 2, "unknown option --frobnicate");
  expectOneLineError(tool({"get", "--url"}), 2, "--url needs");
  expectOneLineError(tool({"get", "--url", "ftp://x", "a"}), 2, "http://");
  expectOneLineError(tool({"get", "--timeout", "soon", "a"}), 2, "--timeout needs a number");
  expectOneLineError(tool({"get", "lists.top.@range(0,x).title"}), 2, "is not a range");
  expectOneLineError(tool({"get", "lists.top.@range(5,2).title"}), 2, "is empty");
  expectOneLineError(tool({"get", "..."}), 2, "has no key");
  const Run help = tool({"--help"});
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_NE(help.out.find("usage: brivet get"), std::string::npos);
}

TEST_F(ToolTest, UnreachableFailingAndMalformedServersExitWithTheirCodes) {
  expectOneLineError(tool({"get", "--url", "http://127.0.0.1:1/model.json", "a.b"}), 3, "cannot reach");

  const auto server = startServer();
  server->setInterceptor([](const std::string&, const std::string&) {
    return tools::JSONGraphServer::CannedResponse{500, R"({"message":"database offline"})", "application/json"};
  });
  expectOneLineError(tool({"get", "--url", server->url(), "a.b"}), 4, "HTTP 500: database offline");

  server->setInterceptor([](const std::string&, const std::string&) {
    return tools::JSONGraphServer::CannedResponse{200, "<html>hello</html>", "text/html"};
  });
  expectOneLineError(tool({"get", "--url", server->url(), "a.b"}), 4, "malformed answer");

  server->setInterceptor([](const std::string&, const std::string&) {
    return tools::JSONGraphServer::CannedResponse{200, R"({"value": {}})", "application/json"};
  });
  expectOneLineError(tool({"get", "--url", server->url(), "a.b"}), 4, "jsonGraph");

  auto released = std::make_shared<std::atomic<bool>>(false);
  server->setInterceptor([released](const std::string&, const std::string&) {
    while (!released->load()) std::this_thread::sleep_for(5ms);
    return std::optional<tools::JSONGraphServer::CannedResponse>();
  });
  const Run slow = tool({"get", "--timeout", "200", "--url", server->url(), "a.b"});
  released->store(true);
  expectOneLineError(slow, 3, "did not answer in time");
}

TEST_F(ToolTest, SnapshotThenRestoreReadsTheSavedCacheOffline) {
  const std::string file = (dir_ / "cache.json").string();
  const Run saved = tool({"snapshot", file, "lists.top.@range(0,2).title"});
  ASSERT_EQ(saved.exitCode, 0) << saved.err;
  EXPECT_NE(saved.out.find("saved the cache"), std::string::npos);

  const Run restored = tool({"restore", file, "lists.top.2.title", "lists.top.3.title"});
  ASSERT_EQ(restored.exitCode, 0) << restored.err;
  Result<Object> printed = parseJSON(restored.out);
  ASSERT_TRUE(printed.ok()) << restored.out;
  EXPECT_EQ(printed.value().valueForKeyPath("lists.top.2.title").stringValue(), "A Year of Rain");
  EXPECT_TRUE(printed.value().valueForKeyPath("lists.top.3").isNil());  // never fetched, and no network

  expectOneLineError(tool({"restore", (dir_ / "missing.json").string(), "a"}), 5, "cannot read");
  std::ofstream((dir_ / "garbage.json").string()) << "{\"jsonGraph\": ";
  expectOneLineError(tool({"restore", (dir_ / "garbage.json").string(), "a"}), 5, "is not JSON");
  std::ofstream((dir_ / "other.json").string()) << R"({"something": "else"})";
  expectOneLineError(tool({"restore", (dir_ / "other.json").string(), "a"}), 5, "holds no cache snapshot");
  expectOneLineError(tool({"snapshot", (dir_ / "no" / "such" / "dir.json").string(), "lists.top.0.title"}), 5,
                     "cannot write");
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

TEST_F(ToolTest, ProgressiveGetWithATraceWritesEveryValueAndTheTraceFile) {
  const std::string trace = (dir_ / "trace.json").string();
  const Run run = tool({"get", "--progressive", "--trace", trace, "lists.top.0.title"});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_NE(run.err.find("2 progressive values"), std::string::npos) << run.err;
  Result<Object> events = parseJSON(slurp(trace));
  ASSERT_TRUE(events.ok());
  ASSERT_TRUE(events.value()["traceEvents"].isArray());
  EXPECT_GT(events.value()["traceEvents"].asArray()->size(), 0u);
}

TEST_F(ToolTest, ServeAnswersAnotherToolUntilItIsStopped) {
  std::ofstream(dir_ / "graph.json") << R"({"greeting": {"$type": "atom", "value": "hello"}, "n": 42})";
  const fs::path outFile = dir_ / "server.out";
  const pid_t server = spawn({"serve", "--port", "0", (dir_ / "graph.json").string()}, "server");
  std::string url;
  for (int i = 0; i < 500 && url.empty(); ++i) {
    std::this_thread::sleep_for(10ms);
    const std::string text = slurp(outFile);
    const std::size_t at = text.find("http://");
    if (at != std::string::npos && text.find('\n', at) != std::string::npos) url = text.substr(at, text.find('\n', at) - at);
  }
  ASSERT_FALSE(url.empty());
  const Run client = tool({"get", "--url", url, "greeting", "n"});
  EXPECT_EQ(client.exitCode, 0) << client.err;
  EXPECT_NE(client.out.find("\"hello\""), std::string::npos) << client.out;
  EXPECT_NE(client.out.find("42"), std::string::npos) << client.out;
  ::kill(server, SIGTERM);
  const Run stopped = finish(server, "server");
  EXPECT_EQ(stopped.exitCode, 0) << stopped.err;
  EXPECT_NE(stopped.err.find("stopping after 1 requests"), std::string::npos) << stopped.err;

  std::ofstream(dir_ / "bad.json") << "[1, 2";
  expectOneLineError(tool({"serve", (dir_ / "bad.json").string()}), 5, "is not a JSON Graph document");
}

TEST_F(ToolTest, DemoWalksThroughBothModelsAndWritesItsTrace) {
  const std::string trace = (dir_ / "demo-trace.json").string();
  const Run run = tool({"demo", "--trace", trace});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_NE(run.out.find("answered from the cache without a request"), std::string::npos);
  EXPECT_NE(run.out.find("The facade"), std::string::npos);
  EXPECT_TRUE(parseJSON(slurp(trace)).ok());
  EXPECT_TRUE(fs::exists(dir_ / "brivet-demo-cache.json"));
}

}  // namespace
}  // namespace brivet
