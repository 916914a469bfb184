#include "brivet/core/model/snapshot_file.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "brivet/core/model/testing/tov_doubles.h"
#include "brivet/platform/file.h"
#include "brivet/platform/json.h"

extern char** environ;

namespace brivet {
namespace {

namespace fs = std::filesystem;
using testing::json;

// The integer at a key path of the model's cache, or -1 when there is none.
std::int64_t integerAt(TovModelLegacy& model, std::string_view keyPath) {
  const Number* number = model.valueForKeyPath(keyPath).asNumber();
  return number ? number->int64Value() : -1;
}

class SnapshotFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::path(::testing::TempDir()) / ("brivet-snapshot-file-" + std::to_string(::getpid()));
    fs::remove_all(dir_);
    fs::create_directories(dir_);
    path_ = (dir_ / "cache.json").string();
  }
  void TearDown() override { fs::remove_all(dir_); }

  static std::shared_ptr<TovInternalModel> offlineModel() {
    return TovBrivet::createTovModelWithUrl(std::nullopt, nullptr);
  }
  std::size_t filesInDirectory() const {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()));
  }

  fs::path dir_;
  std::string path_;
};

TEST_F(SnapshotFileTest, SavesRestoresAndReplacesTheWholeFile) {
  auto model = offlineModel();
  model->mergeJSONDictionaryIntoModel(json(R"({"videos": {"v1": {"title": {"$type": "atom", "value": "One"}}}})"));
  ASSERT_TRUE(saveCacheToFile(*model, path_).ok());

  auto restored = offlineModel();
  Result<SnapshotReport> report = restoreCacheFromFile(*restored, path_);
  ASSERT_TRUE(report.ok()) << report.error().description();
  EXPECT_TRUE(report->restored()) << report->description();
  EXPECT_TRUE(restored->valueForKeyPath("videos.v1.title").isEqual(Object("One")));

  // A smaller snapshot replaces the larger one whole: nothing of the old file remains.
  auto other = offlineModel();
  other->mergeJSONDictionaryIntoModel(json(R"({"n": 1})"));
  ASSERT_TRUE(saveCacheToFile(*other, path_).ok());
  auto again = offlineModel();
  ASSERT_TRUE(restoreCacheFromFile(*again, path_).ok());
  EXPECT_FALSE(again->valueForKeyPath("videos.v1.title").isString());
  EXPECT_EQ(integerAt(*again, "n"), 1);
  EXPECT_EQ(filesInDirectory(), 1u) << "a temporary file was left behind";
}

TEST_F(SnapshotFileTest, FailuresNameThePathAndTheCause) {
  auto model = offlineModel();
  const std::string nowhere = (dir_ / "missing" / "cache.json").string();
  Result<void> saved = saveCacheToFile(*model, nowhere);
  ASSERT_FALSE(saved.ok());
  EXPECT_EQ(saved.error().domain(), kFileErrorDomain);
  EXPECT_EQ(saved.error().code(), ENOENT);
  EXPECT_NE(saved.error().localizedDescription().find(nowhere), std::string::npos);

  Result<SnapshotReport> missing = restoreCacheFromFile(*model, nowhere);
  ASSERT_FALSE(missing.ok());
  EXPECT_EQ(missing.error().code(), ENOENT);

  Result<SnapshotReport> directory = restoreCacheFromFile(*model, dir_.string());
  ASSERT_FALSE(directory.ok());
  EXPECT_EQ(directory.error().code(), EISDIR);

  { std::ofstream(path_) << "not json"; }
  Result<SnapshotReport> garbage = restoreCacheFromFile(*model, path_);
  ASSERT_FALSE(garbage.ok());
  EXPECT_EQ(garbage.error().domain(), kJSONErrorDomain);

  // The read bound holds exactly: a file of the bound's size reads, one byte more is refused.
  { std::ofstream(path_, std::ios::trunc) << "0123456789"; }
  EXPECT_TRUE(readFile(path_, 10).ok());
  Result<std::string> tooLarge = readFile(path_, 9);
  ASSERT_FALSE(tooLarge.ok());
  EXPECT_EQ(tooLarge.error().code(), EFBIG);
}

// Kills a process that saves snapshots in a loop at random moments, many
// times, and restores after every kill: the file always holds one whole
// snapshot, never older than the last save that had finished.
TEST_F(SnapshotFileTest, AProcessKilledMidSaveLeavesAWholeSnapshot) {
  constexpr int kKills = 60;
  std::mt19937 random(20261123);
  int cutMidSave = 0;
  for (int kill = 0; kill < kKills; ++kill) {
    int out[2];
    ASSERT_EQ(::pipe2(out, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    char* argv[] = {const_cast<char*>(BRIVET_SNAPSHOT_FILE_CHILD), path_.data(), nullptr};
    pid_t child = 0;
    ASSERT_EQ(posix_spawn(&child, BRIVET_SNAPSHOT_FILE_CHILD, &actions, nullptr, argv, environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);

    // Byte n means save n has begun, so n - 1 saves have finished.
    const int begun = 2 + static_cast<int>(random() % 3);
    for (int seen = 0; seen < begun;) {
      char byte;
      const ssize_t got = ::read(out[0], &byte, 1);
      if (got < 0 && errno == EINTR) continue;
      ASSERT_EQ(got, 1) << "the child stopped before its save " << seen + 1;
      ++seen;
    }
    // Spreads the kill over the save (open, write, flush, rename); nothing waits on it.
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 4000));
    ASSERT_EQ(::kill(child, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ::close(out[0]);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the child ended on its own with status " << status;

    auto restored = offlineModel();
    Result<SnapshotReport> report = restoreCacheFromFile(*restored, path_);
    ASSERT_TRUE(report.ok()) << "after kill " << kill << ": " << report.error().description();
    ASSERT_TRUE(report->restored()) << "after kill " << kill << ": " << report->description();
    const std::int64_t generation = integerAt(*restored, "generation");
    // The child may have finished more saves before the kill landed; never fewer.
    EXPECT_GE(generation, begun - 1) << "after kill " << kill << " a finished save was lost";

    // What a kill in the middle of a save leaves: its temporary file, never in place of the snapshot.
    for (const auto& entry : fs::directory_iterator(dir_)) {
      if (entry.path().string() != path_) {
        ++cutMidSave;
        fs::remove(entry.path());
      }
    }
    fs::remove(path_);
  }
  // The kills must have landed inside saves, or the test shows nothing.
  EXPECT_GT(cutMidSave, 0);
}

}  // namespace
}  // namespace brivet
