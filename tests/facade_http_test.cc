// The facade's legacy model over real HTTP: KelHTTPDataSource against the
// loopback JSON Graph server.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "brivet/adapters/http_json.h"
#include "brivet/adapters/kel_http_data_source.h"
#include "brivet/facade/kel_model.h"
#include "brivet/platform/dispatch_queue.h"
#include "tools/server/json_graph_server.h"
#include "tools/server/sample_catalogue.h"

namespace brivet {
namespace {

using namespace std::chrono_literals;

struct Answer {
  bool done = false;
  Object result;
  std::optional<Error> error;
};

class FacadeOverHTTPTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto started = tools::JSONGraphServer::start(tools::sampleCatalogue());
    ASSERT_TRUE(started.ok()) << started.error();
    server_ = std::move(started).value();
    tools::registerSampleFunctions(*server_);
    useDataSource(server_->legacyURL(), HTTPTransport::Options{});
  }

  void useDataSource(const std::string& url, HTTPTransport::Options transport) {
    KelHTTPDataSource::Options options;
    options.url = url;
    options.transport = transport;
    dataSource_ = KelHTTPDataSource::create(options);
    model_->setDataSource(dataSource_);
  }

  Answer get(const std::vector<std::string>& keyPaths, KelModelOption option = KelModelOption::Default) {
    Answer answer;
    model_->getKeyPaths(keyPaths, option, std::nullopt, [&](Object result, std::optional<Error> error) {
      answer = Answer{true, result, error};
    });
    EXPECT_TRUE(DispatchQueue::main()->runUntil([&] { return answer.done; }, 20s));
    return answer;
  }

  std::unique_ptr<tools::JSONGraphServer> server_;
  std::shared_ptr<KelModel> model_ = KelBrivet::createModel(std::nullopt, std::nullopt);
  std::shared_ptr<KelHTTPDataSource> dataSource_;
};

TEST_F(FacadeOverHTTPTest, GetFetchesThroughReferencesThenAnswersFromTheCache) {
  const Answer cold = get({"lists.top.@range(0,2).title", "lists.top.0.boxart"});
  ASSERT_FALSE(cold.error) << cold.error->description();
  EXPECT_EQ(cold.result.valueForKeyPath("lists.top.1.title").stringValue(), "Northern Lights");
  EXPECT_EQ(cold.result.valueForKeyPath("lists.top.0.boxart.w").asNumber()->int64Value(), 150);
  const std::size_t requests = server_->requestCount();
  const Answer warm = get({"lists.top.@range(0,2).title"});
  EXPECT_EQ(server_->requestCount(), requests);  // answered from the cache
  EXPECT_EQ(warm.result.valueForKeyPath("lists.top.2.title").stringValue(), "A Year of Rain");
}

TEST_F(FacadeOverHTTPTest, CallChangesTheListAndInvalidatesItsLength) {
  ASSERT_FALSE(get({"lists.top.length"}).error);
  Answer answer;
  const KelFunctionCall push("lists.top.push", std::vector<Object>{Object::dictionary({{"title", "New Arrival"}})},
                             std::vector<std::string>{"title"});
  model_->callFunction(push, std::nullopt, [&](Object result, std::optional<Error> error) {
    answer = Answer{true, result, error};
  });
  ASSERT_TRUE(DispatchQueue::main()->runUntil([&] { return answer.done; }, 20s));
  ASSERT_FALSE(answer.error) << answer.error->description();
  EXPECT_EQ(answer.result.valueForKeyPath("lists.top.10.title").stringValue(), "New Arrival");
  EXPECT_EQ(answer.result.valueForKeyPath("lists.top.length").asNumber()->int64Value(), 11);
  EXPECT_EQ(model_->valueForKeyPath("lists.top.length").asNumber()->int64Value(), 11);
}

TEST_F(FacadeOverHTTPTest, ServerFailuresReachTheCompletionAsErrors) {
  server_->setInterceptor([](const std::string&, const std::string&) {
    return tools::JSONGraphServer::CannedResponse{500, R"({"message":"maintenance"})", "application/json"};
  });
  const Answer failed = get({"lists.top.0.title"});
  ASSERT_TRUE(failed.error);
  EXPECT_EQ(failed.error->domain(), httpErrorDomain());
  EXPECT_EQ(failed.error->code(), 500);
  EXPECT_EQ(failed.error->userInfo()[kHTTPErrorBodyKey]["message"].stringValue(), "maintenance");

  server_->setInterceptor([](const std::string&, const std::string&) {
    return tools::JSONGraphServer::CannedResponse{200, "{not json", "application/json"};
  });
  const Answer malformed = get({"lists.top.0.title"});
  ASSERT_TRUE(malformed.error);
  EXPECT_EQ(malformed.error->code(), static_cast<std::int64_t>(HTTPErrorCode::NotJSON));
}

// Holds the server's handlers until the test ends (the flag is shared with
// handler threads that may outlive the test body by a moment).
struct HeldServer {
  std::shared_ptr<std::atomic<bool>> released = std::make_shared<std::atomic<bool>>(false);
  ~HeldServer() { released->store(true); }
  tools::JSONGraphServer::Interceptor interceptor() const {
    return [released = released](const std::string&, const std::string&) {
      while (!released->load()) std::this_thread::sleep_for(5ms);
      return std::optional<tools::JSONGraphServer::CannedResponse>();
    };
  }
};

TEST_F(FacadeOverHTTPTest, SlowServerTimesOutAndCancelAbortsTheRequest) {
  const HeldServer held;
  server_->setInterceptor(held.interceptor());
  HTTPTransport::Options quick;
  quick.requestTimeout = 200ms;
  useDataSource(server_->legacyURL(), quick);
  const Answer late = get({"lists.top.0.title"});
  ASSERT_TRUE(late.error);
  EXPECT_EQ(late.error->code(), static_cast<std::int64_t>(HTTPErrorCode::TimedOut));

  useDataSource(server_->legacyURL(), HTTPTransport::Options{});
  Answer cancelled;
  auto subscription = model_->getKeyPaths({"lists.top.1.title"}, std::nullopt,
                                          [&](Object result, std::optional<Error> error) {
                                            cancelled = Answer{true, result, error};
                                          });
  ASSERT_NE(subscription, nullptr);
  subscription->cancel();
  ASSERT_TRUE(DispatchQueue::main()->runUntil([&] { return cancelled.done; }, 5s));
  ASSERT_TRUE(cancelled.error);
  EXPECT_EQ(cancelled.error->code(), static_cast<std::int64_t>(HTTPErrorCode::Cancelled));
}

TEST_F(FacadeOverHTTPTest, UnreachableServerIsAConnectionError) {
  useDataSource("http://127.0.0.1:1/legacy/model.json", HTTPTransport::Options{});
  const Answer refused = get({"lists.top.0.title"});
  ASSERT_TRUE(refused.error);
  EXPECT_EQ(refused.error->code(), static_cast<std::int64_t>(HTTPErrorCode::ConnectionFailed));
}

}  // namespace
}  // namespace brivet
