// The README's programs: every C++ snippet in the README is exactly the
// "[readme]" region of a program in examples/, and every such program runs
// against loopback servers and prints the sample catalogue's values.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tools/server/json_graph_server.h"
#include "tools/server/sample_catalogue.h"

extern char** environ;

namespace brivet {
namespace {

namespace fs = std::filesystem;

const std::vector<std::string> kPrograms = {"core_quickstart", "facade_quickstart", "coroutine_quickstart", "shapes",
                                            "custom_subscription"};

std::string slurp(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

// The lines between `open` and `close` markers, each region with its common indentation removed.
std::vector<std::string> regions(const std::string& text, const std::string& open, const std::string& close) {
  std::vector<std::string> out;
  std::vector<std::string> current;
  bool inside = false;
  for (const std::string& line : lines(text)) {
    const std::size_t first = line.find_first_not_of(' ');
    const std::string trimmed = first == std::string::npos ? "" : line.substr(first);
    if (!inside && trimmed == open) {
      inside = true;
      current.clear();
    } else if (inside && trimmed == close) {
      inside = false;
      std::size_t indent = std::string::npos;
      for (const std::string& l : current) {
        const std::size_t n = l.find_first_not_of(' ');
        if (n != std::string::npos) indent = std::min(indent, n);
      }
      std::string joined;
      for (const std::string& l : current) joined += (l.size() >= indent ? l.substr(indent) : "") + "\n";
      out.push_back(joined);
    } else if (inside) {
      current.push_back(line);
    }
  }
  return out;
}

class ExamplesTest : public ::testing::Test {
 protected:
  struct Run {
    int exitCode = -1;
    std::string out;
    std::string err;
  };

  Run run(const std::string& program, std::vector<std::string> args) {
    const fs::path dir = fs::temp_directory_path() / ("brivet_examples_test_" + std::to_string(::getpid()));
    fs::create_directories(dir);
    args.insert(args.begin(), (fs::path(BRIVET_EXAMPLES_DIR) / program).string());
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, (dir / "out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, (dir / "err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = -1;
    EXPECT_EQ(posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    Run r;
    r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    r.out = slurp(dir / "out");
    r.err = slurp(dir / "err");
    fs::remove_all(dir);
    return r;
  }
};

TEST_F(ExamplesTest, EveryReadmeSnippetIsTheRegionOfAnExampleProgram) {
  const std::string readme = slurp(fs::path(BRIVET_SOURCE_DIR) / "README.md");
  std::vector<std::string> programRegions;
  for (const std::string& program : kPrograms) {
    const std::vector<std::string> found =
        regions(slurp(fs::path(BRIVET_SOURCE_DIR) / "examples" / (program + ".cc")), "// [readme]", "// [/readme]");
    EXPECT_EQ(found.size(), 1u) << program;
    programRegions.insert(programRegions.end(), found.begin(), found.end());
  }
  const std::vector<std::string> snippets = regions(readme, "```cpp", "```");
  EXPECT_EQ(snippets.size(), programRegions.size());
  for (const std::string& snippet : snippets) {
    EXPECT_NE(std::find(programRegions.begin(), programRegions.end(), snippet), programRegions.end())
        << "a README snippet that is no example's [readme] region:\n" << snippet;
  }
}

TEST_F(ExamplesTest, EveryProgramRunsAgainstTheLoopbackServer) {
  auto started = tools::JSONGraphServer::start(tools::sampleCatalogue());
  ASSERT_TRUE(started.ok());
  const auto& server = started.value();
  const Run core = run("core_quickstart", {server->url()});
  EXPECT_EQ(core.exitCode, 0) << core.err;
  EXPECT_EQ(lines(core.out).size(), 4u) << core.out;
  const std::string firstTitle = lines(core.out).empty() ? "" : lines(core.out)[0];
  EXPECT_FALSE(firstTitle.empty() || firstTitle == "?");

  const Run facade = run("facade_quickstart", {server->legacyURL()});
  EXPECT_EQ(facade.exitCode, 0) << facade.err;
  EXPECT_EQ(facade.out.rfind(firstTitle + "\n", 0), 0u) << facade.out;

  const Run coroutine = run("coroutine_quickstart", {server->url()});
  EXPECT_EQ(coroutine.exitCode, 0) << coroutine.err;
  EXPECT_EQ(coroutine.out, firstTitle + "\n");

  const Run shapes = run("shapes", {server->url(), server->legacyURL()});
  EXPECT_EQ(shapes.exitCode, 0) << shapes.err << shapes.out;  // all four reads give the same title
  EXPECT_NE(shapes.out.find("\n" + firstTitle + "\n"), std::string::npos) << shapes.out;

  // Against a port where nothing listens, each says why on standard error and fails.
  const std::string closed = "http://127.0.0.1:1/model.json";
  for (const char* program : {"core_quickstart", "coroutine_quickstart"}) {
    const Run failed = run(program, {closed});
    EXPECT_NE(failed.exitCode, 0) << program;
    EXPECT_FALSE(failed.err.empty()) << program;
  }
}

}  // namespace
}  // namespace brivet
