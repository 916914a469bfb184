#include "brivet/platform/json.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>

#include "brivet/testing/hard_numbers.h"

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

bool sameDouble(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

class JSONNumberTest : public ::testing::Test {
 protected:
  // Reads `text` as a fragment and checks it against the reference conversion.
  static void expectReadAsReference(const std::string& text) {
    const Result<Object> r = parseJSON(text, JSONReadingOptions::FragmentsAllowed);
    const testing::ReferenceNumber expected = testing::referenceValue(text);
    if (expected.kind == testing::ReferenceNumber::Kind::OutOfRange) {
      ASSERT_FALSE(r.ok()) << text << " read as " << r.value().description();
      EXPECT_NE(r.error().localizedDescription().find("byte offset 0: Number too big"), std::string::npos)
          << r.error().localizedDescription();
      return;
    }
    ASSERT_TRUE(r.ok()) << text << ": " << r.error().localizedDescription();
    const Number* n = r.value().asNumber();
    ASSERT_NE(n, nullptr) << text;
    switch (expected.kind) {
      case testing::ReferenceNumber::Kind::Signed:
        ASSERT_EQ(n->type(), Number::Type::Signed) << text;
        ASSERT_EQ(n->int64Value(), expected.i) << text;
        break;
      case testing::ReferenceNumber::Kind::Unsigned:
        ASSERT_EQ(n->type(), Number::Type::Unsigned) << text;
        ASSERT_EQ(n->uint64Value(), expected.u) << text;
        break;
      default:
        ASSERT_EQ(n->type(), Number::Type::Double) << text;
        ASSERT_TRUE(sameDouble(n->doubleValue(), expected.d))
            << text << " read as " << n->description() << ", expected " << Object(expected.d).description();
    }
  }
};

TEST_F(JSONNumberTest, HardCasesReadAsTheCorrectlyRoundedValue) {
  const std::vector<std::string> texts = testing::hardNumberTexts(2024);
  ASSERT_GT(texts.size(), 15000u);
  for (const std::string& text : texts) {
    ASSERT_NO_FATAL_FAILURE(expectReadAsReference(text));
  }
}

TEST_F(JSONNumberTest, NumbersThatUsedToCrashOrReadWrongly) {
  EXPECT_EQ(parseOK("[1.00000000000000001e-334]")[0].asNumber()->doubleValue(), 0.0);
  EXPECT_EQ(parseOK("[0." + std::string(400, '0') + "]")[0].asNumber()->doubleValue(), 0.0);
  EXPECT_EQ(parseOK("[0E40, 0e93, 1e-324]").description(), "(0, 0, 0)");
  EXPECT_EQ(parseOK("0." + std::string(50, '0')).asNumber()->doubleValue(), 0.0);
  EXPECT_EQ(parseOK("0e400").asNumber()->doubleValue(), 0.0);  // zero, however large its exponent
  EXPECT_EQ(parseOK("1" + std::string(400, '0') + "e-390").asNumber()->doubleValue(), 1e10);
  EXPECT_TRUE(std::signbit(parseOK("-0.0e-999").asNumber()->doubleValue()));
}

TEST_F(JSONNumberTest, BeyondTheDoubleRangeIsAParseErrorWithItsOffset) {
  for (const std::string number : {"1.00e310", "-1e400", "1e99999999999999999999", "1.7976931348623159e308"}) {
    const Result<Object> r = parseJSON("{\"a\": [true, " + number + "]}");
    ASSERT_FALSE(r.ok()) << number;
    EXPECT_EQ(r.error().code(), static_cast<std::int64_t>(JSONErrorCode::InvalidText));
    EXPECT_EQ(r.error().localizedDescription(),
              "JSON text is not valid at byte offset 13: Number too big to be stored in double.");
  }
}

TEST_F(JSONNumberTest, GrammarFaultsKeepTheirMessages) {
  const std::pair<const char*, const char*> cases[] = {
      {"[-]", "byte offset 2: Invalid value."},
      {"[1.]", "byte offset 3: Miss fraction part in number."},
      {"[1e+]", "byte offset 4: Miss exponent in number."},
      {"[01]", "byte offset 2: Missing a comma or ']' after an array element."},
      {"[+1]", "byte offset 1: Invalid value."},
      {"[.5]", "byte offset 1: Invalid value."},
  };
  for (const auto& [text, message] : cases) {
    const Result<Object> r = parseJSON(text);
    ASSERT_FALSE(r.ok()) << text;
    EXPECT_NE(r.error().localizedDescription().find(message), std::string::npos)
        << text << ": " << r.error().localizedDescription();
  }
}

TEST_F(JSONNumberTest, WrittenDoublesReadBackToTheSameBits) {
  const double edges[] = {DBL_MAX, -DBL_MAX, DBL_MIN, DBL_TRUE_MIN, -DBL_TRUE_MIN, 0.0, -0.0, 5e-324, 1e23,
                          9007199254740993.0, 0.1, 1.0 / 3};
  for (const double d : edges) {
    const std::string text = writeOK(Object::array({Object(d)}));
    ASSERT_TRUE(sameDouble(parseOK(text)[0].asNumber()->doubleValue(), d)) << text;
  }
  std::mt19937_64 random(11);
  for (int i = 0; i < 20000; ++i) {
    std::uint64_t bits = random();
    double d;
    std::memcpy(&d, &bits, sizeof d);
    if (!std::isfinite(d)) continue;
    const std::string text = writeOK(Object::array({Object(d)}));
    ASSERT_TRUE(sameDouble(parseOK(text)[0].asNumber()->doubleValue(), d)) << text;
  }
}

class JSONStringTest : public ::testing::Test {};

TEST_F(JSONStringTest, RawControlCharactersAreRefusedWhereverTheyStand) {
  for (int c = 0; c < 0x20; ++c) {
    // Before, inside and after the reader's vector scan blocks, and in keys.
    for (const std::size_t position : {0u, 5u, 15u, 16u, 17u, 40u}) {
      std::string value(48, 'x');
      value[position] = static_cast<char>(c);
      const std::string texts[] = {"[\"" + value + "\"]", "{\"" + value + "\": 1}"};
      for (const std::string& text : texts) {
        const Result<Object> r = parseJSON(text);
        ASSERT_FALSE(r.ok()) << "U+00" << c << " at " << position << " read as " << r.value().description();
        EXPECT_NE(r.error().localizedDescription().find("byte offset " + std::to_string(position + 2)),
                  std::string::npos)
            << r.error().localizedDescription();
      }
    }
  }
  // Tab, line feed and carriage return stay whitespace between tokens.
  EXPECT_EQ(parseOK("\t[\r\n1\n]\r\n").description(), "(1)");
  EXPECT_EQ(parseOK(R"(["\u0000\u001f\t"])")[0].stringValue(), std::string_view("\0\x1f\t", 3));
}

TEST_F(JSONStringTest, UnpairedSurrogatesAreRefusedWithTheEscapesOffset) {
  const std::pair<std::string, std::size_t> cases[] = {
      {R"(["\udc00"])", 2},           {R"(["ab\uDFFFcd"])", 4},       {R"({"\udc00": 1})", 2},
      {R"(["\\\udc00"])", 4},        {R"(["\ud800"])", 2},           {R"(["\ud800x"])", 2},
      {R"(["\ud800\u0041"])", 2},     {R"(["\ud83d\ude00\udc00"])", 14},
  };
  for (const auto& [text, offset] : cases) {
    const Result<Object> r = parseJSON(text);
    ASSERT_FALSE(r.ok()) << text << " read as " << r.value().description();
    EXPECT_NE(r.error().localizedDescription().find("byte offset " + std::to_string(offset)), std::string::npos)
        << text << ": " << r.error().localizedDescription();
  }
  // An escaped backslash followed by the letters of an escape is just text.
  EXPECT_EQ(parseOK(R"(["\\udc00"])")[0].stringValue(), "\\udc00");
}

TEST_F(JSONStringTest, EveryControlCharacterIsEscapedOnWritingAndReadsBack) {
  // Every control character at every offset of the writer's 16-byte scan blocks, in values and keys.
  for (int c = 0; c < 0x20; ++c) {
    for (std::size_t position = 0; position < 48; ++position) {
      std::string text(64, 'x');
      text[position] = static_cast<char>(c);
      const Object tree = Object::dictionary({{text, Object::array({text, "\x7f\"\\/"})}});
      for (const auto options : {JSONWritingOptions::None, JSONWritingOptions::PrettyPrinted}) {
        const std::string written = writeOK(tree, options);
        for (const char ch : written) {
          if (options == JSONWritingOptions::PrettyPrinted && ch == '\n') continue;
          ASSERT_GE(static_cast<unsigned char>(ch), 0x20u) << "U+00" << c << " at " << position << ": " << written;
        }
        ASSERT_TRUE(parseOK(written).isEqual(tree)) << written;
      }
    }
  }
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
      {"[\"\\ud800\"]", 2},      // lone high surrogate
      {"[\"\\udc00\"]", 2},      // lone low surrogate
      {"[\"a\x1f\"]", 3},         // raw control character
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
