#include "tools/server/http_wire.h"

#include <gtest/gtest.h>

namespace brivet::tools {
namespace {

using State = HeadScan::State;

class HTTPWireTest : public ::testing::Test {
 protected:
  HeadScan scan(std::string_view text) const { return scanRequestHead(text, limits_); }
  HTTPWireError failure(std::string_view text) const {
    HeadScan result = scan(text);
    EXPECT_EQ(result.state, State::Failed) << text;
    return result.error;
  }

  // Target, body and header fields.
  HTTPWireLimits limits_{64, 32, 128};
};

TEST_F(HTTPWireTest, ReadsARequestHeadWhoseBodyFollows) {
  const std::string text = "POST /model.json?a=1 HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n\r\nhello";
  const HeadScan result = scan(text);
  ASSERT_EQ(result.state, State::Complete);
  EXPECT_EQ(result.length, text.size() - 5);
  EXPECT_EQ(result.head.method, "POST");
  EXPECT_EQ(result.head.path, "/model.json");
  EXPECT_EQ(result.head.query, "a=1");
  EXPECT_EQ(result.head.contentLength, 5u);
  EXPECT_EQ(result.head.field("host"), "x");
  EXPECT_TRUE(result.head.keepAlive);
}

TEST_F(HTTPWireTest, WaitsForTheBlankLineAndTellsKeepAliveFromClose) {
  EXPECT_EQ(scan("GET /a HTTP/1.1\r\nHost: x\r\n").state, State::NeedMore);
  EXPECT_EQ(scan("GET /a HTT").state, State::NeedMore);
  EXPECT_FALSE(scan("GET /a HTTP/1.0\r\n\r\n").head.keepAlive);
  EXPECT_TRUE(scan("GET /a HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n").head.keepAlive);
  EXPECT_FALSE(scan("GET /a HTTP/1.1\r\nConnection: keep-alive, close\r\n\r\n").head.keepAlive);
  EXPECT_TRUE(scan("GET /a HTTP/1.1\r\nExpect: 100-continue\r\n\r\n").head.expectContinue);
  // Bare line feeds end lines too.
  EXPECT_EQ(scan("GET /a HTTP/1.1\nHost: x\n\n").state, State::Complete);
}

TEST_F(HTTPWireTest, OversizedPartsFailWithTheirStatusBeforeTheyHaveArrived) {
  const std::string longTarget = "/model.json?path=" + std::string(60, 'x');
  HTTPWireError error = failure("GET " + longTarget + " HTTP/1.1\r\n\r\n");
  EXPECT_EQ(error.status, 414);
  EXPECT_EQ(error.path, "/model.json");
  // A request line still arriving past every limit is refused without waiting for its end.
  error = failure("GET /legacy/model.json?path=" + std::string(200, 'x'));
  EXPECT_EQ(error.status, 414);
  EXPECT_EQ(error.path, "/legacy/model.json");

  EXPECT_EQ(failure("GET /a HTTP/1.1\r\nX-Long: " + std::string(200, 'y') + "\r\n\r\n").status, 431);
  EXPECT_EQ(failure("GET /a HTTP/1.1\r\nX-Long: " + std::string(200, 'y')).status, 431);
  EXPECT_EQ(failure("POST /a HTTP/1.1\r\nContent-Length: 33\r\n\r\n").status, 413);
  EXPECT_EQ(failure("POST /a HTTP/1.1\r\nContent-Length: 99999999999999999999999\r\n\r\n").status, 413);
}

TEST_F(HTTPWireTest, MalformedHeadsAreRefused) {
  EXPECT_EQ(failure("GET\r\n\r\n").status, 400);
  EXPECT_EQ(failure("GET model.json HTTP/1.1\r\n\r\n").status, 400);
  EXPECT_EQ(failure("GET /a\x01 HTTP/1.1\r\n\r\n").status, 400);
  EXPECT_EQ(failure("G(T /a HTTP/1.1\r\n\r\n").status, 400);
  EXPECT_EQ(failure("GET /a HTTP/2.0\r\n\r\n").status, 505);
  EXPECT_EQ(failure("GET /a SPDY\r\n\r\n").status, 400);
  EXPECT_EQ(failure("GET /a HTTP/1.1\r\nNo colon here\r\n\r\n").status, 400);
  EXPECT_EQ(failure("GET /a HTTP/1.1\r\nA: b\r\n folded\r\n\r\n").status, 400);
  EXPECT_EQ(failure("POST /a HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\n").status, 400);
  EXPECT_EQ(failure("POST /a HTTP/1.1\r\nContent-Length: -1\r\n\r\n").status, 400);
  EXPECT_EQ(failure("POST /a HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n").status, 501);
}

TEST(HTTPFormTest, DecodesEscapesAndBlanksAndRefusesBrokenEscapes) {
  auto pairs = decodeForm("path=%5B%22a%22%5D&x=1+2&flag&&empty=");
  ASSERT_TRUE(pairs.ok()) << pairs.error();
  const std::vector<std::pair<std::string, std::string>> expected = {
      {"path", "[\"a\"]"}, {"x", "1 2"}, {"flag", ""}, {"empty", ""}};
  EXPECT_EQ(pairs.value(), expected);
  EXPECT_TRUE(decodeForm("").value().empty());
  EXPECT_EQ(decodeForm("a=%2x").error(), "a malformed percent escape at byte 2");
  EXPECT_FALSE(decodeForm("a=%2").ok());
  EXPECT_FALSE(decodeForm("%").ok());
}

}  // namespace
}  // namespace brivet::tools
