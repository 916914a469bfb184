#include "brivet/core/datasource/http_data_source.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "brivet/platform/json.h"

namespace brivet {
namespace {

using Reason = BrivetError::DataSourceFailureReason;

Object json(std::string_view text) { return parseJSON(text).valueOr(Object()); }

TEST(HTTPDataSourceTest, RequestTextHoldsTheURLAndPrettyParameters) {
  const std::string text =
      HTTPDataSource::requestText("get", "https://x.example/model.json", json(R"({"path": [["a"]]})"));
  EXPECT_EQ(text,
            "get - url: https://x.example/model.json,\nparams: {\n  \"path\": [\n    [\n      \"a\"\n    ]\n  ]\n}");

  ::testing::internal::CaptureStdout();
  const std::string invalid = HTTPDataSource::requestText(
      "set", "u", Object::dictionary({{"param", Object(std::numeric_limits<double>::infinity())}}));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "json serialization error\n");
  EXPECT_EQ(invalid, "set - url: u,\nparams: ");
}

TEST(HTTPDataSourceTest, ResponseTimesAreWholeMilliseconds) {
  EXPECT_EQ(HTTPDataSource::wholeMilliseconds(0.0004), 0);
  EXPECT_EQ(HTTPDataSource::wholeMilliseconds(1.9999), 1999);
  EXPECT_EQ(HTTPDataSource::wholeMilliseconds(-0.0025), -2);
}

TEST(HTTPDataSourceTest, CallArgumentsSendDictionariesAsJSONText) {
  const JSONGraph args = JSONGraph::fromAny(json(R"([{"b": [1, 2]}, "s", null])"));
  EXPECT_TRUE(HTTPDataSource::callParameters({"f"}, args, std::nullopt, std::nullopt)
                  .isEqual(json(R"({"method": "call", "param": ["{\"b\":[1,2]}", "s", null], "callPath": ["f"]})")));
  // Arguments that are not an array go as they are.
  EXPECT_TRUE(HTTPDataSource::callParameters({"f"}, JSONGraph::fromAny(json(R"({"k": 1})")), std::nullopt,
                                             PathTree::fromKeyPaths({"a.@range(1,2)"}))
                  .isEqual(json(R"({"method": "call", "param": {"k": 1}, "callPath": ["f"],
                                    "path": [["a", {"from": 1, "to": 2}]]})")));
}

TEST(HTTPDataSourceTest, ClientFailuresMapToReasons) {
  auto reasonOf = [](const Error& error) -> std::optional<Reason::Kind> {
    const StreamError mapped = HTTPDataSource::failureFromClient(error);
    if (!mapped.isBrivetError()) return std::nullopt;
    return mapped.brivetError()->dataSourceReason()->kind();
  };
  EXPECT_EQ(reasonOf(httpFailure(400, json(R"({"code": "c", "message": "m"})"))), Reason::Kind::BadRequest);
  EXPECT_EQ(reasonOf(httpFailure(500, json(R"({"error": {"innerErrors": [{"message": "m", "pql": ["a"]}]}})"))),
            Reason::Kind::LegacyPathBoundInnerError);
  EXPECT_EQ(reasonOf(httpFailure(502)), Reason::Kind::HttpClientError);
  // A body with a reason decides even without a status.
  EXPECT_EQ(reasonOf(Error("x", 1, Object::dictionary({{"errorBody", json(R"({"code": "c", "message": "m"})")}}))),
            Reason::Kind::BadRequest);
  // No HTTP details: passed through; so is a core error.
  const Error plain("NetworkDomain", -1009, Object::dictionary({{"statusCode", "500"}}));
  EXPECT_EQ(HTTPDataSource::failureFromClient(plain), StreamError(plain));
  const StreamError core = BrivetError::invalidAttempt();
  EXPECT_EQ(HTTPDataSource::failureFromClient(core), core);

  const Error failure = httpFailure(418, Object("teapot"));
  EXPECT_EQ(failure.domain(), "io.brivet.Brivet.HTTP");
  EXPECT_EQ(failure.code(), 418);
  EXPECT_TRUE(failure.userInfo()[kHTTPStatusCodeKey].isEqual(Object(418)));
}

}  // namespace
}  // namespace brivet
