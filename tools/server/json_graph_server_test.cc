// The loopback server as raw HTTP clients meet it: limits, error bodies in
// each dialect, kept-alive connections, and writes through references. The
// library's own clients against it are tested in tests/server_http_test.cc.
#include "tools/server/json_graph_server.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "brivet/platform/json.h"
#include "tools/server/sample_catalogue.h"

namespace brivet::tools {
namespace {

std::string encoded(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    if (std::isalnum(c) != 0 || c == '-' || c == '.' || c == '_') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

struct Response {
  int status = 0;
  std::string head;
  Object body;  // the JSON body (nil when it is not JSON)
};

// One connection to the server, speaking raw HTTP/1.1.
class Connection {
 public:
  explicit Connection(int port) {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    timeval timeout{10, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  }
  ~Connection() { ::close(fd_); }

  bool send(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (n <= 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
  }
  // Reads one response (head and Content-Length body).
  Response receive() {
    Response response;
    std::size_t end;
    while ((end = buffer_.find("\r\n\r\n")) == std::string::npos) {
      if (!fill()) return response;
    }
    response.head = buffer_.substr(0, end + 4);
    response.status = std::stoi(response.head.substr(9, 3));
    std::size_t length = 0;
    if (const std::size_t at = response.head.find("Content-Length: "); at != std::string::npos) {
      length = std::stoul(response.head.substr(at + 16));
    }
    while (buffer_.size() < end + 4 + length) {
      if (!fill()) return response;
    }
    response.body = parseJSON(buffer_.substr(end + 4, length)).valueOr(Object());
    buffer_.erase(0, end + 4 + length);
    return response;
  }
  // Whether the server closed the connection (nothing more to read).
  bool closedByServer() {
    char byte;
    return buffer_.empty() && ::recv(fd_, &byte, 1, 0) == 0;
  }
  bool connected() const { return connected_; }

 private:
  bool fill() {
    char chunk[65536];
    const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
    if (n <= 0) return false;
    buffer_.append(chunk, static_cast<std::size_t>(n));
    return true;
  }
  int fd_ = -1;
  bool connected_ = false;
  std::string buffer_;
};

std::string get(std::string_view path, std::string_view query) {
  return "GET " + std::string(path) + "?" + std::string(query) + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
}
std::string post(std::string_view path, std::string_view body, std::string_view extraFields = "") {
  return "POST " + std::string(path) + " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/x-www-form-urlencoded\r\n" +
         std::string(extraFields) + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + std::string(body);
}

class JSONGraphServerTest : public ::testing::Test {
 protected:
  void start(HTTPWireLimits limits = {}) {
    auto started = JSONGraphServer::start(sampleCatalogue(), 0, limits);
    ASSERT_TRUE(started.ok()) << started.error();
    server_ = std::move(started).value();
    registerSampleFunctions(*server_);
  }
  Response once(const std::string& request) {
    Connection connection(server_->port());
    EXPECT_TRUE(connection.connected());
    EXPECT_TRUE(connection.send(request));
    return connection.receive();
  }
  std::string title(const std::string& video) const {
    return std::string(server_->document().toAnyType().valueForKeyPath("videos." + video + ".title").stringValue());
  }

  std::unique_ptr<JSONGraphServer> server_;
};

TEST_F(JSONGraphServerTest, RequestsPastTheLimitsGetAJSONErrorInTheirDialectAndAClosedConnection) {
  start(HTTPWireLimits{2048, 2048, 4096});
  const std::string longQuery = "path=" + encoded("[[\"" + std::string(3000, 'k') + "\"]]");
  Connection connection(server_->port());
  ASSERT_TRUE(connection.send(get("/model.json", longQuery)));
  const Response tooLong = connection.receive();
  EXPECT_EQ(tooLong.status, 414);
  EXPECT_EQ(tooLong.body["code"].stringValue(), "uriTooLong");
  EXPECT_NE(tooLong.body["message"].stringValue().find("2048 bytes"), std::string::npos);
  EXPECT_NE(tooLong.head.find("Connection: close"), std::string::npos);
  EXPECT_TRUE(connection.closedByServer());

  const Response legacy = once(get("/legacy/model.json", longQuery));
  EXPECT_EQ(legacy.status, 414);
  EXPECT_EQ(legacy.body.valueForKeyPath("error.code").stringValue(), "uriTooLong");

  const Response tooLarge = once(post("/model.json", "method=%22set%22&param=" + std::string(3000, 'x')));
  EXPECT_EQ(tooLarge.status, 413);
  EXPECT_EQ(tooLarge.body["code"].stringValue(), "payloadTooLarge");
}

TEST_F(JSONGraphServerTest, DefaultLimitsTakeAMegabyteOfTargetAndOfBody) {
  start();
  const std::string key(1000000 - 64, 'k');
  const Response longGet = once(get("/model.json", "path=" + encoded("[[\"" + key + "\"]]")));
  EXPECT_EQ(longGet.status, 200) << longGet.head;
  EXPECT_TRUE(longGet.body["jsonGraph"].isDictionary());

  const std::string largeSet = "method=%22set%22&param=" + encoded("{\"notes\": \"" + std::string(1000000 - 64, 'n') + "\"}");
  ASSERT_LT(largeSet.size(), 1u << 20);
  const Response largePost = once(post("/model.json", largeSet));
  EXPECT_EQ(largePost.status, 200) << largePost.head;
  EXPECT_EQ(server_->document().toAnyType()["notes"].stringValue().size(), 1000000u - 64);

  EXPECT_EQ(once(post("/model.json", std::string((1u << 20) + 1, 'x'))).status, 413);
}

TEST_F(JSONGraphServerTest, KeepsTheConnectionOpenAndAnswersExpectContinue) {
  start();
  Connection connection(server_->port());
  ASSERT_TRUE(connection.send(get("/model.json", "path=" + encoded(R"([["lists","top","length"]])"))));
  EXPECT_EQ(connection.receive().body.valueForKeyPath("jsonGraph.lists.top.length").description(), "10");
  const std::string body = "method=%22call%22&callPath=" + encoded(R"(["lists","top","push"])") +
                           "&param=" + encoded(R"(["Late Show"])");
  // The head first: the server asks for the body.
  const std::string request = post("/model.json", body, "Expect: 100-continue\r\n");
  ASSERT_TRUE(connection.send(request.substr(0, request.size() - body.size())));
  EXPECT_EQ(connection.receive().status, 100);
  ASSERT_TRUE(connection.send(body));
  const Response called = connection.receive();
  ASSERT_EQ(called.status, 200);
  EXPECT_EQ(called.body.valueForKeyPath("jsonGraph.lists.top.length").description(), "11");
}

TEST_F(JSONGraphServerTest, AWriteThroughAReferenceChangesItsTarget) {
  start();
  const std::string written = R"({"lists": {"top": {"0": {"title": "Harbour Lights"}, "1": {"$type": "ref", "value": ["videos", "v5"]}}}})";
  const Response set = once(post("/model.json", "method=%22set%22&param=" + encoded(written)));
  ASSERT_EQ(set.status, 200) << set.head;
  const Object document = server_->document().toAnyType();
  EXPECT_EQ(title("v0"), "Harbour Lights");
  EXPECT_EQ(document.valueForKeyPath("lists.top.0.$type").stringValue(), "ref");
  // A reference written where one was replaces it.
  EXPECT_EQ(document.valueForKeyPath("lists.top.1.value").description(), "(videos, v5)");
  EXPECT_EQ(title("v1"), "Northern Lights");
  // The answer holds the reference and its target, as a get of the written paths would.
  EXPECT_EQ(set.body.valueForKeyPath("jsonGraph.lists.top.0.$type").stringValue(), "ref");
  EXPECT_EQ(set.body.valueForKeyPath("jsonGraph.videos.v0.title").stringValue(), "Harbour Lights");
}

TEST_F(JSONGraphServerTest, AWriteThroughACycleOfReferencesEndsWhereTheChainIsCut) {
  start();
  const std::string loop = R"({"a": {"$type": "ref", "value": ["b"]}, "b": {"$type": "ref", "value": ["a"]}})";
  ASSERT_EQ(once(post("/model.json", "method=%22set%22&param=" + encoded(loop))).status, 200);
  const Response through = once(post("/model.json", "method=%22set%22&param=" + encoded(R"({"a": {"x": 1}})")));
  EXPECT_EQ(through.status, 200) << through.head;
}

TEST_F(JSONGraphServerTest, EachDialectReportsFailuresTheWayItsDataSourceReadsThem) {
  start();
  const std::string wide = "path=" + encoded(R"([["videos", {"from": 0, "to": 200000}, "title"]])");
  const Response core = once(get("/model.json", wide));
  EXPECT_EQ(core.status, 400);
  EXPECT_EQ(core.body["code"].stringValue(), "rangeTooWide");
  EXPECT_TRUE(core.body["message"].isString());

  const std::string legacyWide = "path=" + encoded(R"(["[\"videos\",{\"from\":0,\"to\":200000},\"title\"]"])");
  const Response legacy = once(get("/legacy/model.json", legacyWide));
  EXPECT_EQ(legacy.status, 400);
  EXPECT_EQ(legacy.body.valueForKeyPath("error.code").stringValue(), "rangeTooWide");
  EXPECT_TRUE(legacy.body.valueForKeyPath("error.message").isString());

  const Response unknown = once(post("/legacy/model.json", "method=%22call%22&callPath=" + encoded(R"("[\"no\",\"such\"]")")));
  EXPECT_EQ(unknown.status, 404);
  EXPECT_EQ(unknown.body.valueForKeyPath("error.message").stringValue(), "no function \"no.such\"");

  EXPECT_EQ(once(get("/other.json", "")).body["code"].stringValue(), "notFound");
  EXPECT_EQ(once("DELETE /model.json HTTP/1.1\r\n\r\n").status, 405);
  EXPECT_EQ(once(get("/model.json", "path=%ZZ")).body["code"].stringValue(), "badParameter");
}

}  // namespace
}  // namespace brivet::tools
