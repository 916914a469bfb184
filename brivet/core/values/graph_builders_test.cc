#include "brivet/core/values/graph_builders.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "brivet/core/values/json_graph.h"
#include "brivet/platform/json.h"

namespace brivet {
namespace {

using namespace std::chrono_literals;

Object json(std::string_view text) { return parseJSON(text).value(); }

class LeafBuilderTest : public ::testing::Test {};

TEST_F(LeafBuilderTest, WireFormReadsBackAsTheLeavesMeant) {
  const Date when = dateWithTimeIntervalSince1970(1700000000.0);
  const Object atom = leaf::atom("Up", {.expires = Expiry::at(when), .timestamp = when, .size = 3});
  EXPECT_EQ(writeJSON(atom).value(),
            R"({"$type":"atom","value":"Up","$expires":1700000000000,"$timestamp":1700000000000,"$size":3})");
  const JSONGraphLeaf parsed = JSONGraph::fromAny(atom).leaf();
  EXPECT_EQ(parsed.kind(), JSONGraphLeaf::Kind::Atom);
  EXPECT_EQ(parsed.metadata().expires, MetaDate::date(when));
  EXPECT_EQ(parsed.metadata().timestamp, when);

  const Date readAt = dateNow();
  const Object inAMinute = leaf::atom(1, {.expires = Expiry::after(60s)});
  EXPECT_EQ(inAMinute["$expires"].asNumber()->doubleValue(), -60000);
  EXPECT_GE(JSONGraph::fromAny(inAMinute).leaf().metadata().expires->dateValue(), readAt + 60s);
  EXPECT_EQ(Expiry::after(0ms), Expiry::now());
  EXPECT_EQ(Expiry::at(dateWithTimeIntervalSince1970(0.001)), Expiry::now());  // would read as "never"
  EXPECT_EQ(JSONGraph::fromAny(leaf::atom(1, {.expires = Expiry::never()})).leaf().metadata().expires, MetaDate::never());

  const JSONGraphLeaf reference = JSONGraph::fromAny(leaf::ref("videos", 7, std::string("a.b"))).leaf();
  EXPECT_EQ(reference.path(), (std::vector<std::string>{"videos", "7", "a.b"}));
  const JSONGraphLeaf failure = JSONGraph::fromAny(leaf::error("no rights")).leaf();
  EXPECT_EQ(failure.kind(), JSONGraphLeaf::Kind::Error);
  EXPECT_EQ(failure.value(), JSONValue::fromAny(json(R"({"message": "no rights"})")));
  EXPECT_EQ(JSONGraph::fromAny(leaf::atom(Object())).leaf().value(), JSONValue());  // nil goes as null
}

}  // namespace
}  // namespace brivet
