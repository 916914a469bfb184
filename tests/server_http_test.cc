// The loopback server at real sizes, driven by the library's own clients:
// 1,000 paths per request through both models, sets through references, and
// failures as each model reads them.
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "brivet/adapters/kel_http_data_source.h"
#include "brivet/adapters/tov_http_client.h"
#include "brivet/core/model/tov_model.h"
#include "brivet/facade/kel_model.h"
#include "brivet/platform/dispatch_queue.h"
#include "brivet/testing/catalogue.h"
#include "tools/server/json_graph_server.h"

namespace brivet {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kPaths = 1000;

// Records the errors the core model logs.
class ErrorLog final : public TovLoggingDelegate {
 public:
  bool enableLoggingForBrivet(TovModel&) override { return true; }
  void logError(TovModel&, const std::string& message) override {
    std::lock_guard<std::mutex> lock(mu_);
    errors_.push_back(message);
  }
  std::vector<std::string> errors() {
    std::lock_guard<std::mutex> lock(mu_);
    return errors_;
  }

 private:
  std::mutex mu_;
  std::vector<std::string> errors_;
};

struct Answer {
  bool done = false;
  Object result;
  std::optional<Error> error;
};

class ServerAtScaleTest : public ::testing::Test {
 protected:
  void SetUp() override { start(tools::HTTPWireLimits{}); }

  void start(tools::HTTPWireLimits limits) {
    auto started = tools::JSONGraphServer::start(
        JSONGraph::fromAny(testing::catalogueDocument(2 * kPaths, kPaths, 0)), 0, limits);
    ASSERT_TRUE(started.ok()) << started.error();
    server_ = std::move(started).value();
    core_ = TovBrivet::createTovModelWithUrl(server_->url(), client_);
    core_->setLoggingDelegate(log_);
    KelHTTPDataSource::Options options;
    options.url = server_->legacyURL();
    dataSource_ = KelHTTPDataSource::create(options);
    facade_->setDataSource(dataSource_);
  }

  static std::vector<std::string> titles(std::size_t first = 0) {
    std::vector<std::string> keyPaths;
    for (std::size_t i = first; i < first + kPaths; ++i) keyPaths.push_back("videos.v" + std::to_string(i) + ".title");
    return keyPaths;
  }
  template <class Start>
  static Answer wait(Start start) {
    auto answer = std::make_shared<Answer>();
    start([answer](const Object& result, const std::optional<Error>& error) { *answer = Answer{true, result, error}; });
    EXPECT_TRUE(DispatchQueue::main()->runUntil([&] { return answer->done; }, 30s));
    return *answer;
  }
  Answer coreGet(const std::vector<std::string>& keyPaths) {
    return wait([&](TovCompletion done) { core_->getKeyPaths(keyPaths, std::move(done)); });
  }
  Answer facadeGet(const std::vector<std::string>& keyPaths) {
    return wait([&](TovCompletion done) {
      facade_->getKeyPaths(keyPaths, std::nullopt, [done](Object result, std::optional<Error> error) { done(result, error); });
    });
  }

  std::unique_ptr<tools::JSONGraphServer> server_;
  std::shared_ptr<TovHTTPClient> client_ = TovHTTPClient::create();
  std::shared_ptr<ErrorLog> log_ = std::make_shared<ErrorLog>();
  std::shared_ptr<TovInternalModel> core_;
  std::shared_ptr<KelHTTPDataSource> dataSource_;
  std::shared_ptr<KelModel> facade_ = KelBrivet::createModel(std::nullopt, std::nullopt);
};

TEST_F(ServerAtScaleTest, BothModelsGetAThousandPathsInOneRequest) {
  const Answer core = coreGet(titles(0));
  ASSERT_FALSE(core.error) << core.error->description();
  EXPECT_EQ(server_->requestCount(), 1u);
  EXPECT_EQ(core.result["videos"].count(), kPaths);
  EXPECT_EQ(core.result.valueForKeyPath("videos.v999.title").stringValue(), "Title 999");

  const Answer legacy = facadeGet(titles(kPaths));
  ASSERT_FALSE(legacy.error) << legacy.error->description();
  EXPECT_EQ(server_->requestCount(), 2u);
  EXPECT_EQ(legacy.result["videos"].count(), kPaths);
  EXPECT_EQ(legacy.result.valueForKeyPath("videos.v1999.title").stringValue(), "Title 1999");
}

TEST_F(ServerAtScaleTest, ASetOfAThousandValuesThroughReferencesChangesTheirTargets) {
  std::vector<Object::Entry> items;
  for (std::size_t k = 0; k < kPaths; ++k) {
    items.emplace_back(Object(std::to_string(k)), Object::dictionary({{"title", "Retitled " + std::to_string(k)}}));
  }
  const Object write = Object::dictionary({{"lists", Object::dictionary({{"top", Object::dictionary(items)}})}});
  const Answer set = wait([&](TovCompletion done) {
    core_->setWithValue(write)->asStream().subscribeWithProgressBlock(
        [done](const Object& value) { done(value, std::nullopt); },
        [done](const std::optional<Error>& error) {
          if (error) done(Object(), error);
        });
  });
  ASSERT_FALSE(set.error) << set.error->description();
  EXPECT_EQ(set.result.valueForKeyPath("lists.top.999.title").stringValue(), "Retitled 999");
  const Object document = server_->document().toAnyType();
  EXPECT_EQ(document.valueForKeyPath("videos.v999.title").stringValue(), "Retitled 999");
  EXPECT_EQ(document.valueForKeyPath("lists.top.999.$type").stringValue(), "ref");
  // The client keeps the references too, and reads the targets through them.
  EXPECT_EQ(core_->valueForKeyPath("videos.v7.title").stringValue(), "Retitled 7");
}

TEST_F(ServerAtScaleTest, FailuresReachEachModelWithTheServersMessage) {
  const std::string wide = "videos.@range(0,200000).title";
  const Answer legacy = facadeGet({wide});
  ASSERT_TRUE(legacy.error);
  EXPECT_EQ(legacy.error->localizedDescription().rfind("a range wider than 100000 keys", 0), 0u)
      << legacy.error->localizedDescription();

  const Answer core = coreGet({wide});
  ASSERT_TRUE(core.error);
  ASSERT_EQ(log_->errors().size(), 1u);
  EXPECT_NE(log_->errors()[0].find("rangeTooWide"), std::string::npos) << log_->errors()[0];
}

TEST_F(ServerAtScaleTest, RequestsPastTheServersLimitsFailWithItsReason) {
  start(tools::HTTPWireLimits{4096, 4096, 65536});
  const Answer core = coreGet(titles(0));
  ASSERT_TRUE(core.error);
  ASSERT_EQ(log_->errors().size(), 1u);
  EXPECT_NE(log_->errors()[0].find("longer than 4096 bytes"), std::string::npos) << log_->errors()[0];

  const Answer legacy = facadeGet(titles(0));
  ASSERT_TRUE(legacy.error);
  EXPECT_NE(legacy.error->localizedDescription().find("longer than 4096 bytes"), std::string::npos)
      << legacy.error->localizedDescription();
}

}  // namespace
}  // namespace brivet
