// Logging, tracing and signposts of the legacy model, through the gates an application sees.
#include <gtest/gtest.h>

#include <cstdlib>

#include "brivet/legacy/model.h"
#include "brivet/legacy/testing/legacy_doubles.h"
#include "brivet/platform/signpost.h"

namespace brivet {
namespace {

using ::brivet::testing::Completions;
using ::brivet::testing::json;
using ::brivet::testing::RecordingLogger;
using ::brivet::testing::RecordingTracer;
using ::brivet::testing::ScriptedDataSource;
using ::brivet::testing::ScriptedResponse;
using Strings = std::vector<std::string>;

class LegacyLoggingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("SIGNPOSTS_FOR_BRIVET");
    setSignpostSink(nullptr);
    SignpostRecorder::shared()->clear();
    model->setDataSource(dataSource);
    model->setLoggingDelegate(logger);
    model->setPerformanceTraceDelegate(tracer);
    dataSource->response = ScriptedResponse{json(R"({"value": {"a": {"b": 1}}})"), Object(), {}};
  }
  void TearDown() override { unsetenv("SIGNPOSTS_FOR_BRIVET"); }

  void getAndCall() {
    Completions done;
    model->getKeyPaths(Strings{"a.b"}, BrivetModelOptionForceRemote, std::nullopt, done.callback());
    // One request at a time, so the signposts come in a fixed order. The completion is handed to the main queue
    // before the response block ends its intervals; a read on the model's queue waits for that block.
    ASSERT_TRUE(done.waitFor(1));
    model->valueForKey("-");
    model->callFunction(std::make_shared<BrivetFunctionCall>("f", std::nullopt, std::nullopt), done.callback());
    ASSERT_TRUE(done.waitFor(2));
    model->valueForKey("-");
    model->getKeyPaths(std::nullopt, BrivetModelOptionDefault, std::nullopt, done.callback());
    ASSERT_TRUE(done.waitFor(3));
  }

  std::shared_ptr<BrivetModel> model = BrivetModel::create();
  std::shared_ptr<ScriptedDataSource> dataSource = std::make_shared<ScriptedDataSource>();
  std::shared_ptr<RecordingLogger> logger = std::make_shared<RecordingLogger>();
  std::shared_ptr<RecordingTracer> tracer = std::make_shared<RecordingTracer>();
};

TEST_F(LegacyLoggingTest, DisabledLoggerReceivesNothingNotEvenErrors) {
  logger->enabled = false;
  logger->network = true;
  getAndCall();
  model->logDebugUserInfo(json(R"({"k": 1})"));
  EXPECT_TRUE(logger->errors().empty());
  EXPECT_TRUE(logger->infos().empty());
  EXPECT_TRUE(logger->userInfos().empty());
}

TEST_F(LegacyLoggingTest, NetworkLinesNeedBothSwitchesAndDebugLinesNeverArrive) {
  getAndCall();  // the network switch is not implemented
  EXPECT_TRUE(logger->infos().empty());
  EXPECT_EQ(logger->errors(), Strings{"BrivetModel:getKeyPaths ERROR: 'keyPaths' argument not specified."});
  logger->network = false;
  getAndCall();
  EXPECT_TRUE(logger->infos().empty());

  logger->network = true;
  getAndCall();
  const Strings infos = logger->infos();
  ASSERT_EQ(infos.size(), 4u);
  EXPECT_EQ(infos[0], "get remote request: path = (a.b)");
  EXPECT_EQ(infos[1].rfind("get remote response: {value = {a = {b = 1;};};}, ", 0), 0u) << infos[1];
  EXPECT_NE(infos[1].find(" millisecond(s)"), std::string::npos);
  EXPECT_EQ(infos[2].rfind("call remote request: <BrivetFunctionCall: 0x", 0), 0u);
  EXPECT_NE(infos[2].find(" : keyPath = f, arguments = (null), returnPathSuffix = (null), taskName = (null), "
                          "additionalPath = (null)"),
            std::string::npos)
      << infos[2];
  EXPECT_EQ(infos[3].rfind("call remote response: ", 0), 0u);
  EXPECT_TRUE(logger->debugs().empty());
  model->logDebugUserInfo(json(R"({"k": 1})"));
  EXPECT_EQ(logger->userInfos().size(), 1u);
}

TEST_F(LegacyLoggingTest, TracesNeedTheTracingSwitch) {
  tracer->enabled = false;
  getAndCall();
  EXPECT_TRUE(tracer->begins().empty());
  EXPECT_TRUE(tracer->ends().empty());
  tracer->enabled = true;
  getAndCall();
  ASSERT_EQ(tracer->begins().size(), 2u);  // the missing key paths fail before any trace starts
  ASSERT_EQ(tracer->ends().size(), 2u);
  EXPECT_EQ(tracer->begins()[0].first, "a.b");
  EXPECT_EQ(tracer->begins()[1].first, "f");
  for (const auto& end : tracer->ends()) {
    EXPECT_FALSE(end.cached);
    EXPECT_FALSE(end.hasExpired);
    EXPECT_FALSE(end.error.has_value());
  }
}

TEST_F(LegacyLoggingTest, SignpostsAreOffWithoutTheVariable) {
  getAndCall();
  EXPECT_TRUE(SignpostRecorder::shared()->records().empty());
}

TEST_F(LegacyLoggingTest, GetAndCallMarkTheirIntervals) {
  setenv("SIGNPOSTS_FOR_BRIVET", "", 1);
  getAndCall();
  Strings messages;
  for (const auto& r : SignpostRecorder::shared()->records()) {
    messages.push_back(std::string(r.phase == SignpostPhase::Begin ? "begin " : "end ") + r.category + " " + r.message);
  }
  EXPECT_EQ(messages, (Strings{
                          "begin Stream method=get, progressive=0, refresh=1, path=a.b",
                          "begin DataSource method=get, path=a.b",
                          "end DataSource status=Complete",
                          "begin Cache method=get, path=a.b",
                          "end Cache miss=1",
                          "end Stream status=Complete",
                          "begin Stream method=call, progressive=0, refresh=0, path=f",
                          "begin DataSource method=call, path=f",
                          "end DataSource status=Complete",
                          "begin Cache method=call, path=f",
                          "end Cache miss=1",
                          "end Stream status=Complete",
                      }));
}

TEST_F(LegacyLoggingTest, AFailedGetEndsItsStreamWithAnError) {
  setenv("SIGNPOSTS_FOR_BRIVET", "1", 1);
  dataSource->response = ScriptedResponse{Object(), Object(), Error("network", 1)};
  Completions done;
  model->getKeyPaths(Strings{"a.b"}, std::nullopt, done.callback());
  ASSERT_TRUE(done.waitFor(1));
  model->valueForKey("-");
  const auto records = SignpostRecorder::shared()->records();
  ASSERT_EQ(records.size(), 4u);
  EXPECT_EQ(records[2].message, "status=Error");
  EXPECT_EQ(records[3].category, "Stream");
  EXPECT_EQ(records[3].message, "status=Error");
  EXPECT_EQ(tracer->ends()[0].error, Error("network", 1));
}

}  // namespace
}  // namespace brivet
