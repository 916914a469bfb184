#include "brivet/platform/json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

namespace brivet {
namespace {

Object parseOK(std::string_view text, JSONReadingOptions options = JSONReadingOptions::FragmentsAllowed) {
  Result<Object> r = parseJSON(text, options);
  EXPECT_TRUE(r.ok()) << text << ": " << (r.ok() ? "" : r.error().localizedDescription());
  return r.ok() ? r.value() : Object();
}

std::string writeOK(const Object& o, JSONWritingOptions options = JSONWritingOptions::FragmentsAllowed) {
  Result<std::string> r = writeJSON(o, options);
  EXPECT_TRUE(r.ok()) << (r.ok() ? "" : r.error().localizedDescription());
  return r.ok() ? r.value() : std::string();
}

TEST(JSONReadTest, ScalarsKeepTheirKinds) {
  const Object o = parseOK(R"([true, false, 0, 1, -1, 1.0, 2.5, null, "s"])");
  ASSERT_EQ(o.count(), 9u);
  EXPECT_TRUE(o[0].isBoolean());
  EXPECT_TRUE(o[1].isBoolean());
  EXPECT_FALSE(o[2].isBoolean());
  EXPECT_FALSE(o[3].isBoolean());
  EXPECT_EQ(o[3].asNumber()->type(), Number::Type::Signed);
  EXPECT_EQ(o[5].asNumber()->type(), Number::Type::Double);
  EXPECT_TRUE(o[7].isNull());
  EXPECT_EQ(writeOK(o), R"([true,false,0,1,-1,1.0,2.5,null,"s"])");
}

TEST(JSONReadTest, IntegerRanges) {
  const Object o = parseOK("[9223372036854775807, -9223372036854775808, 9223372036854775808, "
                           "18446744073709551615, 18446744073709551616]");
  EXPECT_EQ(o[0].asNumber()->type(), Number::Type::Signed);
  EXPECT_EQ(o[0].asNumber()->int64Value(), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(o[1].asNumber()->int64Value(), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(o[2].asNumber()->type(), Number::Type::Unsigned);
  EXPECT_EQ(o[3].asNumber()->uint64Value(), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(o[4].asNumber()->type(), Number::Type::Double);  // beyond 64 bits
  EXPECT_EQ(writeOK(Object::array({o[0], o[1], o[2], o[3]})),
            "[9223372036854775807,-9223372036854775808,9223372036854775808,18446744073709551615]");
}

TEST(JSONReadTest, DoublesRoundTripExactly) {
  std::mt19937_64 random(7);
  std::uniform_real_distribution<double> exponent(-300, 300);
  for (int i = 0; i < 2000; ++i) {
    const double d = std::pow(10.0, exponent(random)) * (i % 2 ? -1 : 1) * (1 + static_cast<double>(i) / 7919);
    const std::string text = writeOK(Object(d));
    const Object back = parseOK(text);
    ASSERT_EQ(back.asNumber()->doubleValue(), d) << text;
  }
  EXPECT_EQ(parseOK("0.1").asNumber()->doubleValue(), 0.1);
  EXPECT_EQ(parseOK("2.2250738585072014e-308").asNumber()->doubleValue(), 2.2250738585072014e-308);
}

TEST(JSONReadTest, EscapesAndSurrogatePairs) {
  const Object o = parseOK(R"(["a\"b\\c\/d\n\t\u00e9", "\ud83d\ude00", "\u0000x"])");
  EXPECT_EQ(o[0].stringValue(), "a\"b\\c/d\n\t\xc3\xa9");
  EXPECT_EQ(o[1].stringValue(), "\xf0\x9f\x98\x80");
  EXPECT_EQ(o[2].stringValue(), std::string_view("\0x", 2));
  const Object back = parseOK(writeOK(o));
  EXPECT_TRUE(back.isEqual(o));
}

TEST(JSONReadTest, OptionsControlMutabilityAndFragments) {
  const Object frozen = parseOK(R"({"a": [1]})", JSONReadingOptions::None);
  EXPECT_FALSE(frozen.isMutableDictionary());
  const Object mutableTree = parseOK(R"({"a": [1]})", JSONReadingOptions::MutableContainers);
  EXPECT_TRUE(mutableTree.isMutableDictionary());
  EXPECT_TRUE(mutableTree["a"].isMutableArray());
  const Result<Object> fragment = parseJSON("5");
  ASSERT_FALSE(fragment.ok());
  EXPECT_EQ(fragment.error().code(), static_cast<std::int64_t>(JSONErrorCode::FragmentNotAllowed));
  EXPECT_EQ(parseOK("\"x\"").stringValue(), "x");
  EXPECT_EQ(parseOK(R"({"k": 1, "k": 2})")["k"].asNumber()->int64Value(), 2);
}

TEST(JSONReadTest, MalformedTextGivesAnErrorWithItsOffset) {
  struct Case {
    std::string text;
    std::size_t offset;
  };
  const Case cases[] = {
      {"", 0},
      {"{\"a\": 1", 7},          // truncated
      {"[1, 2", 5},              // truncated
      {"{\"a\" 1}", 5},          // missing colon
      {"[1] [2]", 4},            // trailing value
      {"[\"\xff\"]", 2},         // invalid UTF-8
      {"[\"\xc3\"]", 2},         // truncated UTF-8 sequence
      {"[\"\\ud800\"]", 2},      // lone surrogate
      {"[nul]", 4},              // noticed at the closing bracket
      {std::string("[1]\0[2]", 7), 3},  // NUL then trailing data
  };
  for (const Case& c : cases) {
    const Result<Object> r = parseJSON(c.text, JSONReadingOptions::FragmentsAllowed);
    ASSERT_FALSE(r.ok()) << c.text;
    EXPECT_EQ(r.error().domain(), kJSONErrorDomain);
    const std::string message = r.error().localizedDescription();
    EXPECT_NE(message.find("byte offset"), std::string::npos) << message;
    EXPECT_NE(message.find(std::to_string(c.offset)), std::string::npos) << c.text << " -> " << message;
  }
}

TEST(JSONReadTest, DeepNestingIsAnErrorNotACrash) {
  const std::string deep = std::string(100000, '[') + std::string(100000, ']');
  const Result<Object> r = parseJSON(deep);
  ASSERT_FALSE(r.ok());
  EXPECT_EQ(r.error().code(), static_cast<std::int64_t>(JSONErrorCode::NestingTooDeep));
  const std::string atLimit = std::string(kMaxJSONNestingDepth, '[') + std::string(kMaxJSONNestingDepth, ']');
  EXPECT_TRUE(parseJSON(atLimit).ok());
  std::string deepObject;
  for (int i = 0; i < 100000; ++i) deepObject += "{\"a\":";
  EXPECT_FALSE(parseJSON(deepObject).ok());
}

TEST(JSONReadTest, RandomBytesNeverCrash) {
  std::mt19937 random(42);
  const std::string alphabet = "{}[]\",:0123456789.eE+-tfnul \\\x80\xff";
  for (int i = 0; i < 3000; ++i) {
    std::string text;
    const int length = static_cast<int>(random() % 40);
    for (int j = 0; j < length; ++j) text += alphabet[random() % alphabet.size()];
    (void)parseJSON(text, JSONReadingOptions::FragmentsAllowed | JSONReadingOptions::MutableContainers);
  }
}

TEST(JSONWriteTest, ValidityCheckRejectsWhatCannotBeWritten) {
  EXPECT_TRUE(isValidJSONObject(Object::dictionary({{"a", Object::array({1, "x", Object::null()})}})));
  EXPECT_FALSE(isValidJSONObject(Object("top-level string")));
  EXPECT_TRUE(isValidJSONObject(Object("top-level string"), JSONWritingOptions::FragmentsAllowed));
  EXPECT_FALSE(isValidJSONObject(Object::dictionary({{5, "number key"}})));
  EXPECT_FALSE(isValidJSONObject(Object::array({std::nan("")})));
  EXPECT_FALSE(isValidJSONObject(Object::array({std::numeric_limits<double>::infinity()})));
  EXPECT_FALSE(isValidJSONObject(Object::array({Object::date(dateNow())})));
  EXPECT_FALSE(isValidJSONObject(Object::array({std::string("\xff")})));
  Object deep = Object::array();
  for (std::size_t i = 0; i < kMaxJSONNestingDepth; ++i) deep = Object::array({deep});
  EXPECT_FALSE(isValidJSONObject(deep));
  const Result<std::string> r = writeJSON(Object::dictionary({{5, "x"}}));
  ASSERT_FALSE(r.ok());
  EXPECT_NE(r.error().localizedDescription().find("key that is not a string"), std::string::npos);
}

TEST(JSONWriteTest, CompactPrettyAndSorted) {
  const Object o = Object::dictionary({{"b", 1}, {"a", Object::array({true, "/"})}});
  EXPECT_EQ(writeOK(o), R"({"b":1,"a":[true,"/"]})");
  EXPECT_EQ(writeOK(o, JSONWritingOptions::SortedKeys), R"({"a":[true,"/"],"b":1})");
  EXPECT_EQ(writeOK(o, JSONWritingOptions::PrettyPrinted),
            "{\n  \"b\": 1,\n  \"a\": [\n    true,\n    \"/\"\n  ]\n}");
}

}  // namespace
}  // namespace brivet
