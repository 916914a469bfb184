// The core model over real HTTP: TovHTTPClient against the loopback JSON Graph
// server, driven as an application drives it, with the main queue run by the test.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "brivet/adapters/http_json.h"
#include "brivet/adapters/tov_http_client.h"
#include "brivet/core/model/tov_model.h"
#include "brivet/platform/dispatch_queue.h"
#include "tools/server/json_graph_server.h"
#include "tools/server/sample_catalogue.h"

namespace brivet {
namespace {

using namespace std::chrono_literals;

// A logging delegate that keeps the error lines.
class ErrorLog final : public TovLoggingDelegate {
 public:
  bool enableLoggingForBrivet(TovModel&) override { return true; }
  void logError(TovModel&, const std::string& message) override {
    std::lock_guard<std::mutex> lock(mu_);
    errors_.push_back(message);
  }
  std::vector<std::string> errors() const {
    std::lock_guard<std::mutex> lock(mu_);
    return errors_;
  }

 private:
  mutable std::mutex mu_;
  std::vector<std::string> errors_;
};

struct Answer {
  bool done = false;
  Object result;
  std::optional<Error> error;
};

// Everything a stream delivered: each progress dictionary, then its end.
struct Events {
  std::vector<Object> values;
  bool ended = false;
  std::optional<Error> error;
};

class CoreOverHTTPTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto started = tools::JSONGraphServer::start(tools::sampleCatalogue());
    ASSERT_TRUE(started.ok()) << started.error();
    server_ = std::move(started).value();
    tools::registerSampleFunctions(*server_);
    model_ = TovBrivet::createTovModelWithUrl(server_->url(), client_);
    model_->setLoggingDelegate(logger_);
  }

  Answer get(const std::vector<std::string>& keyPaths, TovModelOption option = TovModelOption::Default) {
    Answer answer;
    model_->getKeyPaths(keyPaths, option,
                        [&](const Object& result, const std::optional<Error>& error) {
                          answer = Answer{true, result, error};
                        });
    EXPECT_TRUE(DispatchQueue::main()->runUntil([&] { return answer.done; }, 20s));
    return answer;
  }

  Events collect(const TovStream<JSONEnvelope>& stream) {
    Events events;
    stream.subscribeWithProgressBlock([&](const Object& value) { events.values.push_back(value); },
                                      [&](const std::optional<Error>& error) {
                                        events.ended = true;
                                        events.error = error;
                                      });
    EXPECT_TRUE(DispatchQueue::main()->runUntil([&] { return events.ended; }, 20s));
    return events;
  }

  std::unique_ptr<tools::JSONGraphServer> server_;
  std::shared_ptr<TovHTTPClient> client_ = TovHTTPClient::create();
  std::shared_ptr<TovInternalModel> model_;
  std::shared_ptr<ErrorLog> logger_ = std::make_shared<ErrorLog>();
};

TEST_F(CoreOverHTTPTest, GetFetchesWhatIsMissingThroughReferencesThenReadsTheCache) {
  const Answer cold = get({"lists.top.@range(0,2).title", "lists.top.0.boxart"});
  ASSERT_FALSE(cold.error) << cold.error->description();
  EXPECT_EQ(cold.result.valueForKeyPath("lists.top.1.title").stringValue(), "Northern Lights");
  EXPECT_EQ(cold.result.valueForKeyPath("lists.top.0.boxart.w").asNumber()->int64Value(), 150);
  const std::size_t requests = server_->requestCount();
  const Answer warm = get({"lists.top.@range(0,2).title"});
  EXPECT_EQ(server_->requestCount(), requests);
  EXPECT_EQ(warm.result.valueForKeyPath("lists.top.2.title").stringValue(), "A Year of Rain");
  // The references were cached as references: the video is reachable directly.
  EXPECT_EQ(model_->valueForKeyPath("videos.v1.title").stringValue(), "Northern Lights");

  get({"lists.top.0.title"}, TovModelOption::ForceRemote);
  EXPECT_EQ(server_->requestCount(), requests + 1);
}

TEST_F(CoreOverHTTPTest, ProgressiveGetAnswersTheCachedPartFirst) {
  ASSERT_FALSE(get({"lists.top.0.title"}).error);
  const Events events = collect(model_->getWithKeyPaths({"lists.top.@range(0,1).title"})->progressively()->asStream());
  ASSERT_FALSE(events.error) << events.error->description();
  ASSERT_EQ(events.values.size(), 2u);
  EXPECT_EQ(events.values[0].valueForKeyPath("lists.top.0.title").stringValue(), "The Quiet Harbour");
  EXPECT_TRUE(events.values[0].valueForKeyPath("lists.top.1").isNil());
  EXPECT_EQ(events.values[1].valueForKeyPath("lists.top.1.title").stringValue(), "Northern Lights");
}

TEST_F(CoreOverHTTPTest, SetWritesTheServerDocumentAndCallAppendsToTheList) {
  const Object write = Object::dictionary(
      {{"videos", Object::dictionary({{"v3", Object::dictionary({{"title", "Paper Moons (restored)"}})}})}});
  const Events set = collect(model_->setWithValue(write)->asStream());
  ASSERT_FALSE(set.error) << set.error->description();
  EXPECT_EQ(server_->document().toAnyType().valueForKeyPath("videos.v3.title").stringValue(),
            "Paper Moons (restored)");

  ASSERT_FALSE(get({"lists.top.length"}).error);
  Answer called;
  model_->callFunction(TovFunctionCall("lists.top.push", std::vector<Object>{Object("New Arrival")},
                                       std::vector<std::string>{"title"}),
                       [&](const Object& result, const std::optional<Error>& error) {
                         called = Answer{true, result, error};
                       });
  ASSERT_TRUE(DispatchQueue::main()->runUntil([&] { return called.done; }, 20s));
  ASSERT_FALSE(called.error) << called.error->description();
  EXPECT_EQ(called.result.valueForKeyPath("lists.top.10.title").stringValue(), "New Arrival");
  // The call invalidated the cached length and answered the new one.
  EXPECT_EQ(model_->valueForKeyPath("lists.top.length").asNumber()->int64Value(), 11);

  model_->invalidateWithKeyPaths({"lists.top.length"});
  EXPECT_TRUE(model_->valueForKeyPath("lists.top.length").isNil());
  EXPECT_EQ(get({"lists.top.length"}).result.valueForKeyPath("lists.top.length").asNumber()->int64Value(), 11);
}

TEST_F(CoreOverHTTPTest, ServerErrorBodiesAndMalformedAnswersFailTheGet) {
  server_->setInterceptor([](const std::string&, const std::string&) {
    return tools::JSONGraphServer::CannedResponse{500, R"({"message":"maintenance"})", "application/json"};
  });
  const Answer failed = get({"lists.top.0.title"});
  ASSERT_TRUE(failed.error);
  EXPECT_EQ(failed.error->domain(), "BrivetCore.BrivetError");
  // The reason read from the error body reaches the application's log.
  ASSERT_EQ(logger_->errors().size(), 1u);
  EXPECT_NE(logger_->errors()[0].find("maintenance"), std::string::npos) << logger_->errors()[0];

  for (const char* body : {"{not json", "[1, 2]", R"({"jsonGraph": 7})"}) {
    server_->setInterceptor([body](const std::string&, const std::string&) {
      return tools::JSONGraphServer::CannedResponse{200, body, "application/json"};
    });
    const Answer malformed = get({"lists.top.0.title"});
    EXPECT_TRUE(malformed.error) << body;
    EXPECT_TRUE(model_->valueForKeyPath("lists.top.0.title").isNil());
  }
}

// A server that accepts connections and closes them without answering.
class DroppingServer {
 public:
  DroppingServer() {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(fd_, reinterpret_cast<sockaddr*>(&address), length);
    ::listen(fd_, 8);
    ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] {
      while (true) {
        const int connection = ::accept(fd_, nullptr, nullptr);
        if (connection < 0 || stopping_) {
          if (connection >= 0) ::close(connection);
          return;
        }
        char buffer[1024];
        (void)::recv(connection, buffer, sizeof buffer, 0);
        ::close(connection);
      }
    });
  }
  ~DroppingServer() {
    stopping_ = true;
    ::shutdown(fd_, SHUT_RDWR);
    thread_.join();
    ::close(fd_);
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/model.json"; }

 private:
  int fd_ = -1;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

TEST_F(CoreOverHTTPTest, DroppedAndRefusedConnectionsFailTheGet) {
  const DroppingServer dropping;
  model_ = TovBrivet::createTovModelWithUrl(dropping.url(), client_);
  const Answer dropped = get({"lists.top.0.title"});
  ASSERT_TRUE(dropped.error);

  model_ = TovBrivet::createTovModelWithUrl("http://127.0.0.1:1/model.json", client_);
  const Answer refused = get({"lists.top.0.title"});
  ASSERT_TRUE(refused.error);
}

TEST_F(CoreOverHTTPTest, CancellingAGetInFlightAbortsTheRequestAndDeliversNothing) {
  auto released = std::make_shared<std::atomic<bool>>(false);
  auto arrived = std::make_shared<std::atomic<int>>(0);
  server_->setInterceptor([released, arrived](const std::string&, const std::string&) {
    arrived->fetch_add(1);
    while (!released->load()) std::this_thread::sleep_for(5ms);
    return std::optional<tools::JSONGraphServer::CannedResponse>();
  });
  bool delivered = false;
  auto subscription = model_->getKeyPaths({"lists.top.0.title"}, [&](const Object&, const std::optional<Error>&) {
    delivered = true;
  });
  ASSERT_TRUE(DispatchQueue::main()->runUntil([&] { return arrived->load() > 0; }, 10s));
  subscription->cancel();
  released->store(true);
  DispatchQueue::main()->runUntil([] { return false; }, 300ms);
  EXPECT_FALSE(delivered);
  EXPECT_TRUE(model_->valueForKeyPath("lists.top.0.title").isNil());
}

TEST_F(CoreOverHTTPTest, SlowServerTimesOut) {
  auto released = std::make_shared<std::atomic<bool>>(false);
  server_->setInterceptor([released](const std::string&, const std::string&) {
    while (!released->load()) std::this_thread::sleep_for(5ms);
    return std::optional<tools::JSONGraphServer::CannedResponse>();
  });
  TovHTTPClient::Options quick;
  quick.transport.requestTimeout = 200ms;
  client_ = TovHTTPClient::create(quick);
  model_ = TovBrivet::createTovModelWithUrl(server_->url(), client_);
  const Answer late = get({"lists.top.0.title"});
  released->store(true);
  ASSERT_TRUE(late.error);
}

}  // namespace
}  // namespace brivet
