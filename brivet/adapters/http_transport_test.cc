#include "brivet/adapters/http_transport.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <optional>
#include <thread>

#include "brivet/platform/dispatch_queue.h"
#include "tools/server/http_server.h"

namespace brivet {
namespace {

using namespace std::chrono_literals;
using Outcome = Result<HTTPResponse, HTTPTransportError>;

// A loopback server on a free port: the project's own HTTP server, so this test
// builds with whichever standard library the rest of the project uses.
class LoopbackServer {
 public:
  LoopbackServer() {
    auto started = tools::HTTPServer::start(
        {}, 0, [this](const tools::HTTPServerRequest& request) { return answer(request); },
        [](const tools::HTTPWireError&) { return respond(400, ""); });
    EXPECT_TRUE(started.ok());
    if (started.ok()) server_ = std::move(started.value());
  }
  ~LoopbackServer() {
    stopping_ = true;  // ends a slow answer at once, so the server's destructor need not wait for it
    server_.reset();
  }
  std::string url(std::string_view path) const {
    return "http://127.0.0.1:" + std::to_string(server_->port()) + std::string(path);
  }

 private:
  static std::string value(std::string_view form, const std::string& name) {
    auto pairs = tools::decodeForm(form);
    if (!pairs.ok()) return "(not a form)";
    for (const auto& [key, text] : pairs.value()) {
      if (key == name) return text;
    }
    return "";
  }
  static tools::HTTPServerResponse respond(int status, std::string body, std::string contentType = "text/plain") {
    tools::HTTPServerResponse response;
    response.status = status;
    response.body = std::move(body);
    response.contentType = std::move(contentType);
    return response;
  }
  static tools::HTTPServerResponse redirect(int status, std::string location) {
    tools::HTTPServerResponse response = respond(status, "");
    response.fields.emplace_back("Location", std::move(location));
    return response;
  }

  tools::HTTPServerResponse answer(const tools::HTTPServerRequest& request) {
    const std::string& path = request.path;
    if (request.method == "GET" && path == "/json") return respond(200, "{\"q\":\"" + value(request.query, "q") + "\"}", "application/json");
    if (request.method == "POST" && path == "/form") {
      return respond(200, value(request.body, "a") + "|" + value(request.body, "b"));
    }
    if (path == "/fail") return respond(500, R"({"message":"boom"})", "application/json");
    if (path == "/slow") {
      for (int i = 0; i < 300 && !stopping_; ++i) std::this_thread::sleep_for(10ms);
      return respond(200, "late");
    }
    if (path == "/big") return respond(200, std::string(1 << 20, 'x'));
    if (path == "/moved") return redirect(302, "/json?q=moved");
    if (path == "/moved-form") return redirect(307, "/form");
    if (path == "/loop") return redirect(302, "/loop");
    if (path == "/elsewhere") return redirect(302, "ftp://127.0.0.1/file");
    return respond(404, "");
  }

  std::atomic<bool> stopping_{false};
  std::unique_ptr<tools::HTTPServer> server_;
};

class HTTPTransportTest : public ::testing::Test {
 protected:
  // Sends and waits (through the main queue) for the completion.
  Outcome roundTrip(HTTPRequest request, const std::shared_ptr<HTTPTransport>& transport) {
    std::optional<Outcome> outcome;
    transport->send(std::move(request), [&](Outcome result) {
      DispatchQueue::main()->async([&, result = std::move(result)] { outcome.emplace(result); });
    });
    EXPECT_TRUE(DispatchQueue::main()->runUntil([&] { return outcome.has_value(); }, 20s));
    return outcome.value_or(Outcome(Failure{HTTPTransportError{}}));
  }

  LoopbackServer server_;
  std::shared_ptr<HTTPTransport> transport_ = HTTPTransport::create();
};

TEST_F(HTTPTransportTest, GetAndPostCarryParametersAndStatus) {
  HTTPRequest get;
  get.url = server_.url("/json?q=" + HTTPTransport::percentEncode("[\"a b\",{\"from\":0}]"));
  const Outcome got = roundTrip(get, transport_);
  ASSERT_TRUE(got.ok()) << got.error().message;
  EXPECT_EQ(got->statusCode, 200);
  EXPECT_EQ(got->body, R"({"q":"["a b",{"from":0}]"})");
  EXPECT_EQ(got->contentType, "application/json");

  HTTPRequest post;
  post.method = HTTPRequest::Method::POST;
  post.url = server_.url("/form");
  post.body = HTTPTransport::formEncode({{"a", "x&y=z"}, {"b", "é"}});
  const Outcome posted = roundTrip(post, transport_);
  ASSERT_TRUE(posted.ok());
  EXPECT_EQ(posted->body, "x&y=z|é");

  HTTPRequest failing;
  failing.url = server_.url("/fail");
  const Outcome failed = roundTrip(failing, transport_);
  ASSERT_TRUE(failed.ok());  // a status is a response; the caller decides it is a failure
  EXPECT_EQ(failed->statusCode, 500);
  EXPECT_EQ(failed->body, R"({"message":"boom"})");
}

TEST_F(HTTPTransportTest, TransportFailuresSayWhatWentWrong) {
  HTTPRequest refused;
  refused.url = "http://127.0.0.1:1/nothing";
  const Outcome noServer = roundTrip(refused, transport_);
  ASSERT_FALSE(noServer.ok());
  EXPECT_EQ(noServer.error().kind, HTTPTransportError::Kind::ConnectionFailed);

  HTTPRequest slow;
  slow.url = server_.url("/slow");
  slow.timeout = 100ms;
  const Outcome late = roundTrip(slow, transport_);
  ASSERT_FALSE(late.ok());
  EXPECT_EQ(late.error().kind, HTTPTransportError::Kind::TimedOut);

  HTTPTransport::Options small;
  small.maxResponseBytes = 1000;
  HTTPRequest big;
  big.url = server_.url("/big");
  const Outcome tooBig = roundTrip(big, HTTPTransport::create(small));
  ASSERT_FALSE(tooBig.ok());
  EXPECT_EQ(tooBig.error().kind, HTTPTransportError::Kind::TooLarge);
}

TEST_F(HTTPTransportTest, CancelAbortsTheTransferAndCompletesOnce) {
  HTTPRequest slow;
  slow.url = server_.url("/slow");
  std::atomic<int> completions{0};
  std::atomic<bool> cancelled{false};
  const auto started = std::chrono::steady_clock::now();
  auto handle = transport_->send(slow, [&](Outcome result) {
    completions.fetch_add(1);
    cancelled = !result.ok() && result.error().kind == HTTPTransportError::Kind::Cancelled;
  });
  std::this_thread::sleep_for(50ms);  // let the transfer start
  handle->cancel();
  handle->cancel();
  ASSERT_TRUE(DispatchQueue::main()->runUntil([&] { return completions.load() > 0; }, 5s));
  EXPECT_LT(std::chrono::steady_clock::now() - started, 2s);  // did not wait for the server's 3 s
  EXPECT_TRUE(cancelled);
  DispatchQueue::main()->runUntil([] { return false; }, 50ms);
  EXPECT_EQ(completions.load(), 1);
}

TEST_F(HTTPTransportTest, DestroyingTheTransportCancelsWhatIsInFlight) {
  std::atomic<int> cancelled{0};
  {
    auto transport = HTTPTransport::create();
    HTTPRequest slow;
    slow.url = server_.url("/slow");
    for (int i = 0; i < 3; ++i) {
      transport->send(slow, [&](Outcome result) {
        if (!result.ok() && result.error().kind == HTTPTransportError::Kind::Cancelled) cancelled.fetch_add(1);
      });
    }
  }
  EXPECT_EQ(cancelled.load(), 3);
}

TEST_F(HTTPTransportTest, RedirectsAreAnswersUnlessTheTransportFollowsThem) {
  HTTPRequest moved;
  moved.url = server_.url("/moved");
  const Outcome notFollowed = roundTrip(moved, transport_);
  ASSERT_TRUE(notFollowed.ok());
  EXPECT_EQ(notFollowed->statusCode, 302);
  EXPECT_EQ(notFollowed->location, server_.url("/json?q=moved"));

  HTTPTransport::Options following;
  following.maxRedirects = 2;
  const auto follower = HTTPTransport::create(following);
  const Outcome followed = roundTrip(moved, follower);
  ASSERT_TRUE(followed.ok());
  EXPECT_EQ(followed->body, R"({"q":"moved"})");

  HTTPRequest post;
  post.method = HTTPRequest::Method::POST;
  post.url = server_.url("/moved-form");
  post.body = "a=1&b=2";
  EXPECT_EQ(roundTrip(post, follower)->body, "1|2");  // still a POST, with its body

  HTTPRequest loop;
  loop.url = server_.url("/loop");
  const Outcome looping = roundTrip(loop, follower);
  ASSERT_FALSE(looping.ok());
  EXPECT_EQ(looping.error().kind, HTTPTransportError::Kind::TooManyRedirects);
  HTTPRequest elsewhere;
  elsewhere.url = server_.url("/elsewhere");
  EXPECT_FALSE(roundTrip(elsewhere, follower).ok());  // only to http and https
}

TEST_F(HTTPTransportTest, DroppedConnectionsAndMalformedURLsAreTheirOwnFailures) {
  // A server that reads the request and closes the connection without a word.
  const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), length), 0);
  ASSERT_EQ(::listen(listener, 1), 0);
  ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
  std::thread dropper([listener] {
    const int connection = ::accept(listener, nullptr, nullptr);
    char buffer[4096];
    (void)::recv(connection, buffer, sizeof buffer, 0);
    ::close(connection);
  });
  HTTPRequest dropped;
  dropped.url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/model.json";
  const Outcome cut = roundTrip(dropped, transport_);
  dropper.join();
  ::close(listener);
  ASSERT_FALSE(cut.ok());
  EXPECT_EQ(cut.error().kind, HTTPTransportError::Kind::ConnectionLost) << cut.error().message;

  HTTPRequest malformed;
  malformed.url = "http://exa mple.com/model.json";
  const Outcome bad = roundTrip(malformed, transport_);
  ASSERT_FALSE(bad.ok());
  EXPECT_EQ(bad.error().kind, HTTPTransportError::Kind::BadURL) << bad.error().message;

  EXPECT_EQ(HTTPTransport::urlProblem("https://example.com/model.json"), std::nullopt);
  EXPECT_EQ(HTTPTransport::urlProblem("http://exa mple.com"), "a URL with blanks or line breaks");
  EXPECT_EQ(HTTPTransport::urlProblem("ftp://example.com/x"), "not an http:// or https:// URL");
  EXPECT_EQ(HTTPTransport::urlProblem("http://"), "not a URL");
  EXPECT_EQ(HTTPTransport::urlProblem("model.json"), "not a URL");
}

TEST(HTTPTransportEncodingTest, PercentEncodingKeepsOnlyUnreservedCharacters) {
  EXPECT_EQ(HTTPTransport::percentEncode("a-b_c.d~e"), "a-b_c.d~e");
  EXPECT_EQ(HTTPTransport::percentEncode("a b/\"{}"), "a%20b%2F%22%7B%7D");
  EXPECT_EQ(HTTPTransport::formEncode({{"k", "v"}, {"x y", "1&2"}}), "k=v&x%20y=1%262");
}

}  // namespace
}  // namespace brivet
