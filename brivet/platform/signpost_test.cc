#include "brivet/platform/signpost.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include "brivet/platform/json.h"

namespace brivet {
namespace {

class EnvironmentSwitch {
 public:
  explicit EnvironmentSwitch(const char* value) {
    if (value == nullptr) {
      unsetenv("SIGNPOSTS_FOR_BRIVET");
    } else {
      setenv("SIGNPOSTS_FOR_BRIVET", value, 1);
    }
  }
  ~EnvironmentSwitch() { unsetenv("SIGNPOSTS_FOR_BRIVET"); }
};

class SignpostTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setSignpostSink(nullptr);
    SignpostRecorder::shared()->clear();
  }
};

TEST_F(SignpostTest, OffWhenTheVariableIsAbsent) {
  EnvironmentSwitch off(nullptr);
  EXPECT_FALSE(BrivetSignpost::isStreamEnabled());
  EXPECT_EQ(BrivetSignpost::beginStreamForMethod("get", false, "a.b"), 0u);
  EXPECT_EQ(BrivetSignpost::beginCacheForMethod("get", "a.b"), 0u);
  EXPECT_EQ(BrivetSignpost::beginDataSourceForMethod("get", "a.b"), 0u);
  BrivetSignpost::endStreamWithId(0, true);
  BrivetSignpost::endCacheWithId(12, 1);  // disabled: nothing even for a non-zero id
  EXPECT_TRUE(SignpostRecorder::shared()->records().empty());
}

TEST_F(SignpostTest, OnWithAnEmptyValueRecordsIntervalsInTheGivenFormats) {
  EnvironmentSwitch on("");
  ASSERT_TRUE(BrivetSignpost::isCacheEnabled());
  const std::uint64_t stream = BrivetSignpost::beginStreamForMethod("get", true, "a.b, c");
  const std::uint64_t cache = BrivetSignpost::beginCacheForMethod("call", "f.x");
  EXPECT_NE(stream, 0u);
  EXPECT_NE(cache, stream);
  BrivetSignpost::endCacheWithId(cache, 1);
  BrivetSignpost::endStreamWithId(stream, false);
  BrivetSignpost::endDataSourceWithId(0, true);  // 0 is "none"
  const auto records = SignpostRecorder::shared()->records();
  ASSERT_EQ(records.size(), 4u);
  EXPECT_EQ(records[0].category, "Stream");
  EXPECT_EQ(records[0].name, "Stream");
  EXPECT_EQ(records[0].message, "method=get, progressive=0, refresh=1, path=a.b, c");
  EXPECT_EQ(records[1].message, "method=call, path=f.x");
  EXPECT_EQ(records[2].phase, SignpostPhase::End);
  EXPECT_EQ(records[2].message, "miss=1");
  EXPECT_EQ(records[3].id, stream);
  EXPECT_EQ(records[3].message, "status=Error");
}

TEST_F(SignpostTest, InstalledSinkReceivesWhatTheRecorderWouldNot) {
  EnvironmentSwitch on("1");
  struct Sink final : SignpostSink {
    void emit(SignpostPhase, std::string_view subsystem, std::string_view category, std::string_view,
              std::uint64_t, std::string_view message) override {
      lines.push_back(std::string(subsystem) + "/" + std::string(category) + ": " + std::string(message));
    }
    std::vector<std::string> lines;
  };
  auto sink = std::make_shared<Sink>();
  setSignpostSink(sink);
  BrivetSignpost::endDataSourceWithId(BrivetSignpost::beginDataSourceForMethod("get", "p"), true);
  setSignpostSink(nullptr);
  ASSERT_EQ(sink->lines.size(), 2u);
  EXPECT_EQ(sink->lines[1], "io.brivet.Brivet/DataSource: status=Complete");
  EXPECT_TRUE(SignpostRecorder::shared()->records().empty());
}

TEST_F(SignpostTest, ChromeTraceFileIsValidJSONWithPairedIntervalsNestedInTheirParents) {
  EnvironmentSwitch on("yes");
  const SignpostLog log("Stream", true);
  const SignpostLog cache("Cache", true);
  const std::uint64_t id = log.generateID();
  log.intervalBegin(id, "Stream", "method=get");
  log.event(id, "Stream", "progressive=1, completed=0");
  log.intervalEnd(id, "Stream", "status=Complete");
  const std::uint64_t outer = log.generateID();
  const std::uint64_t inner = cache.generateID();
  const std::uint64_t innermost = cache.generateID();
  log.intervalBegin(outer, "Stream", "method=get");
  cache.intervalBegin(inner, "Cache", "method=get", outer);
  cache.intervalBegin(innermost, "Cache", "method=get", inner);
  cache.intervalEnd(innermost, "Cache", "miss=0");
  cache.intervalEnd(inner, "Cache", "miss=0");
  log.intervalEnd(outer, "Stream", "status=Complete");
  const std::string path = ::testing::TempDir() + "/brivet_signposts.trace.json";
  ASSERT_TRUE(SignpostRecorder::shared()->writeChromeTrace(path).ok());
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  const Result<Object> trace = parseJSON(text.str());
  ASSERT_TRUE(trace.ok());
  const Object events = trace.value()["traceEvents"];
  ASSERT_EQ(events.count(), 10u);  // process name + nine signposts
  EXPECT_EQ(events[1]["ph"].stringValue(), "b");
  EXPECT_EQ(events[2]["ph"].stringValue(), "n");
  EXPECT_EQ(events[3]["ph"].stringValue(), "e");
  EXPECT_TRUE(events[1]["id"].isEqual(events[3]["id"]));
  EXPECT_TRUE(events[1]["id"].isEqual(events[2]["id"]));
  EXPECT_EQ(events[3]["args"]["message"].stringValue(), "status=Complete");
  EXPECT_TRUE(events[1]["args"]["parent"].isNil());
  // A tree of intervals shares its root's identifier, each naming its own parent.
  for (int i = 5; i <= 9; ++i) EXPECT_TRUE(events[i]["id"].isEqual(events[4]["id"])) << i;
  EXPECT_FALSE(events[4]["id"].isEqual(events[1]["id"]));
  EXPECT_TRUE(events[5]["args"]["parent"].isEqual(events[4]["args"]["span"]));
  EXPECT_TRUE(events[6]["args"]["parent"].isEqual(events[5]["args"]["span"]));
  EXPECT_EQ(events[5]["name"].stringValue(), "Cache");
  EXPECT_FALSE(SignpostRecorder::shared()->writeChromeTrace("/nonexistent/dir/trace.json").ok());
}

TEST_F(SignpostTest, WaitingForOpenIntervalsEndsWhenTheLastOneClosesElsewhere) {
  SignpostRecorder recorder;
  recorder.emitBegin("brivet", "Stream", "Stream", 1, 0, "");
  recorder.emitBegin("brivet", "Cache", "Cache", 2, 1, "");
  recorder.emit(SignpostPhase::End, "brivet", "Cache", "Cache", 2, "");
  EXPECT_FALSE(recorder.waitForOpenIntervals(std::chrono::milliseconds(1)));  // the stream is still open

  std::thread closer([&] { recorder.emit(SignpostPhase::End, "brivet", "Stream", "Stream", 1, ""); });
  EXPECT_TRUE(recorder.waitForOpenIntervals(std::chrono::seconds(20)));
  closer.join();
  recorder.emit(SignpostPhase::End, "brivet", "Stream", "Stream", 1, "");  // an unmatched end opens nothing
  EXPECT_TRUE(recorder.waitForOpenIntervals(std::chrono::milliseconds(0)));
}

TEST_F(SignpostTest, DisabledLogIssuesNoIdentifiers) {
  const SignpostLog log("Cache", false);
  EXPECT_EQ(log.generateID(), 0u);
  log.intervalBegin(5, "Cache", "x");
  EXPECT_TRUE(SignpostRecorder::shared()->records().empty());
}

}  // namespace
}  // namespace brivet
