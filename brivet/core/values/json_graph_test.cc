#include "brivet/core/values/json_graph.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "brivet/core/values/internal/value_access.h"
#include "brivet/testing/catalogue.h"
#include "brivet/testing/hard_numbers.h"

namespace brivet {
namespace {

Object leafDict(std::vector<Object::Entry> entries) { return Object::dictionary(std::move(entries)); }
double ms(Date d) { return timeIntervalSince1970(d) * 1000.0; }

TEST(JSONGraphParseTest, TypeRules) {
  const JSONGraph g = JSONGraph::fromAny(Object::dictionary({
      {"atom", leafDict({{"$type", "atom"}, {"value", 5}})},
      {"error", leafDict({{"$type", "error"}, {"value", Object::dictionary({{"message", "no"}})}})},
      {"ref", leafDict({{"$type", "ref"}, {"value", Object::array({"videos", "v1"})}})},
      {"badRef", leafDict({{"$type", "ref"}, {"value", Object::array({"a", 1})}})},
      {"unknown", leafDict({{"$type", "sentinel"}, {"value", 1}})},
      {"noValue", leafDict({{"$type", "atom"}})},
      {"numberType", leafDict({{"$type", 7}, {"$size", 3}})},
      {"prim", "text"},
      {"flag", false},
      {"list", Object::array({1, Object::null()})},
  }));
  EXPECT_EQ(g.find("atom")->leaf().kind(), JSONGraphLeaf::Kind::Atom);
  EXPECT_EQ(g.find("atom")->leaf().value(), JSONValue(JSONPrimitive::integer(5)));
  EXPECT_EQ(g.find("error")->leaf().kind(), JSONGraphLeaf::Kind::Error);
  EXPECT_EQ(g.find("ref")->leaf().path(), (std::vector<std::string>{"videos", "v1"}));
  EXPECT_EQ(g.find("badRef")->leaf(), JSONGraphLeaf::primitive(JSONPrimitive::null()));
  EXPECT_EQ(g.find("unknown")->leaf(), JSONGraphLeaf::primitive(JSONPrimitive::null()));
  EXPECT_EQ(g.find("noValue")->leaf().kind(), JSONGraphLeaf::Kind::Undefined);
  const JSONGraph branch = *g.find("numberType");  // a non-text "$type" is an ordinary child
  ASSERT_TRUE(branch.isObject());
  EXPECT_TRUE(branch.find("$type").has_value());
  EXPECT_TRUE(branch.find("$size").has_value());
  EXPECT_EQ(g.find("prim")->leaf().primitive(), JSONPrimitive::string("text"));
  EXPECT_EQ(g.find("flag")->leaf().primitive(), JSONPrimitive::boolean(false));
  EXPECT_TRUE(g.find("list")->isArray());

  const Object undefinedBack = g.find("noValue")->toAnyType();
  EXPECT_EQ(undefinedBack.count(), 1u);
  EXPECT_EQ(undefinedBack["$type"].stringValue(), "atom");
}

TEST(JSONGraphMetadataTest, DefaultExpiryAppliesToErrorsOnly) {
  const Object defaultExpires = Object::integer(-1000);
  const Date before = dateNow();
  const JSONGraph atom = JSONGraph::fromAny(leafDict({{"$type", "atom"}, {"value", 5}}), defaultExpires);
  const JSONGraph error = JSONGraph::fromAny(leafDict({{"$type", "error"}, {"value", 5}}), defaultExpires);
  const JSONGraph ref =
      JSONGraph::fromAny(leafDict({{"$type", "ref"}, {"value", Object::array({"a"})}}), defaultExpires);
  EXPECT_FALSE(atom.leaf().metadata().expires.has_value());
  EXPECT_FALSE(ref.leaf().metadata().expires.has_value());
  ASSERT_TRUE(error.leaf().metadata().expires.has_value());
  const Date expires = error.leaf().metadata().expires->dateValue();
  EXPECT_GE(ms(expires), ms(before) + 999);
  EXPECT_LE(ms(expires), ms(dateNow()) + 1001);
}

TEST(JSONGraphMetadataTest, ExpiresNumberRules) {
  auto expiresOf = [](const Object& wire) {
    return JSONGraph::fromAny(leafDict({{"$type", "atom"}, {"value", 1}, {"$expires", wire}}))
        .leaf()
        .metadata()
        .expires;
  };
  EXPECT_EQ(expiresOf(1), MetaDate::never());
  EXPECT_EQ(expiresOf(0), MetaDate::now());
  EXPECT_EQ(expiresOf(1.5), MetaDate::date(dateWithTimeIntervalSince1970(0.0015)));
  EXPECT_FALSE(expiresOf("1").has_value());  // text is not a number
  const Date before = dateNow();
  const std::optional<MetaDate> relative = expiresOf(-60000);
  ASSERT_TRUE(relative && relative->kind() == MetaDate::Kind::Date);
  EXPECT_GE(ms(relative->dateValue()), ms(before) + 59999);
  EXPECT_LE(ms(relative->dateValue()), ms(dateNow()) + 60001);
}

TEST(JSONGraphMetadataTest, ReadAndWrittenBack) {
  const Object node = leafDict({{"$type", "atom"},
                                {"value", "v"},
                                {"$timestamp", 1700000000000.0},
                                {"$size", 12},
                                {"$expires", -5000},
                                {"$refresh", 1}});
  const JSONGraph g = JSONGraph::fromAny(node);
  const JSONGraphMetadata m = g.leaf().metadata();
  EXPECT_EQ(ms(*m.timestamp), 1700000000000.0);
  EXPECT_TRUE(m.size.isEqual(Object(12)));
  EXPECT_EQ(m.refresh, MetaDate::never());
  const Object back = g.toAnyType();
  EXPECT_EQ(back["$timestamp"].asNumber()->doubleValue(), 1700000000000.0);
  EXPECT_EQ(back["$refresh"].asNumber()->doubleValue(), 1.0);
  EXPECT_GT(back["$expires"].asNumber()->doubleValue(), ms(dateNow()));  // absolute, no longer -5000
  JSONGraphMetadata again = JSONGraphMetadata::fromDictionary(node);
  again.expires = m.expires;  // the relative expiry differs between two parses
  EXPECT_EQ(again, m);
  EXPECT_NE(JSONGraph::fromAny(back), JSONGraph::fromAny(leafDict({{"$type", "atom"}, {"value", "v"}})));
}

TEST(JSONGraphEqualityTest, LeavesCompareByKindValueAndMetadata) {
  const JSONValue five = JSONPrimitive::integer(5);
  EXPECT_EQ(JSONGraphLeaf::atom(five), JSONGraphLeaf::atom(JSONPrimitive::real(5.0)));
  EXPECT_NE(JSONGraphLeaf::atom(five), JSONGraphLeaf::error(five));
  EXPECT_NE(JSONGraphLeaf::atom(five), JSONGraphLeaf::primitive(JSONPrimitive::integer(5)));
  JSONGraphMetadata m;
  m.expires = MetaDate::never();
  EXPECT_NE(JSONGraphLeaf::atom(five, m), JSONGraphLeaf::atom(five));
  EXPECT_EQ(JSONGraphLeaf::atom(five, m), JSONGraphLeaf::atom(five, m));
  EXPECT_EQ(JSONGraphLeaf::ref({"a", "b"}), JSONGraphLeaf::ref({"a", "b"}));
  EXPECT_NE(JSONGraphLeaf::ref({"a", "b"}), JSONGraphLeaf::ref({"a"}));
  EXPECT_EQ(MetaDate::never().hash(), MetaDate::never().hash());
  EXPECT_NE(MetaDate::never(), MetaDate::now());
}

TEST(JSONGraphDescriptionTest, Renderings) {
  EXPECT_EQ(MetaDate::never().description(), "never");
  EXPECT_EQ(MetaDate::now().description(), "now");
  EXPECT_EQ(JSONGraphLeaf::undefined().description(), "undefined");
  EXPECT_EQ(JSONGraphLeaf::primitive(JSONPrimitive::string("x")).description(), "primitive(\"x\")");
  EXPECT_EQ(JSONGraphLeaf::atom(JSONPrimitive::integer(1)).description(),
            "atom(1, JSONGraphMetadata(expires: nil, refresh: nil, size: nil, timestamp: nil))");
  EXPECT_EQ(JSONGraphLeaf::ref({"a"}).description(),
            "ref([\"a\"], JSONGraphMetadata(expires: nil, refresh: nil, size: nil, timestamp: nil))");
  EXPECT_EQ(JSONGraph::object({{"k", JSONGraphLeaf::undefined()}}).description(), "[\"k\": undefined]");
}

// --- JSON text ---

void expectSameAsGeneralRoad(std::string_view text, JSONReadingOptions options = JSONReadingOptions::FragmentsAllowed) {
  const Result<JSONGraph> direct = JSONGraph::fromJSONText(text, Object(), options);
  const Result<Object> parsed = parseJSON(text, options);
  ASSERT_EQ(direct.ok(), parsed.ok()) << text;
  if (!parsed.ok()) {
    EXPECT_EQ(direct.error().description(), parsed.error().description()) << text;
    return;
  }
  EXPECT_TRUE(direct.value() == JSONGraph::fromAny(parsed.value())) << text << "\n"
                                                                    << direct.value().description() << "\n"
                                                                    << JSONGraph::fromAny(parsed.value()).description();
}

TEST(JSONGraphTextTest, ReadingMatchesParseThenConvert) {
  for (const char* text : {
           R"({"a":{"$type":"atom","value":{"$type":"ref","value":["x"]}},"b":[1,2.5,true,null,"s"]})",
           R"({"v":{"value":{"$type":"atom","value":1},"$type":"atom"}})",  // "value" before "$type"
           R"({"v":{"$type":"atom","value":{"k":1},"$type":5}})",           // "$type" changes its kind
           R"({"v":{"$type":"ref","value":["a",1]},"w":{"$type":"ref","value":"a"}})",
           R"({"v":{"$type":"error","value":{"m":1},"$expires":1,"$size":true,"$refresh":"x"}})",
           R"({"dup":1,"dup":{"$type":"atom"}})",
           R"([{"$type":"atom","value":[[]]}])",
           R"("fragment")",
           R"({"a":1,})",
           "{\"a\":\"\xff\"}",
           R"({"a":1} x)",
       }) {
    expectSameAsGeneralRoad(text);
  }
  expectSameAsGeneralRoad("\"fragment\"", JSONReadingOptions::None);
  expectSameAsGeneralRoad(std::string(513, '[') + std::string(513, ']'));
  expectSameAsGeneralRoad(std::string(512, '[') + std::string(512, ']'));
}

TEST(JSONGraphTextTest, HostileScalarsAreReadOrRefusedAsByTheGeneralRoad) {
  // Numbers in a leaf value, a bare leaf and metadata; both readers must agree on every one.
  for (const std::string& number : testing::hardNumberTexts(99)) {
    expectSameAsGeneralRoad(R"({"a":{"$type":"atom","value":)" + number + R"(,"$size":)" + number + "},\"b\":[" +
                            number + "]}");
  }
  std::string control = R"({"k":{"$type":"atom","value":"0123456789abcdefghijklmnop"}})";
  for (const std::size_t at : {4u, 30u, 44u}) {
    for (const char c : {'\x01', '\x1a', '\x1f', '\t'}) {
      std::string text = control;
      text[at] = c;
      expectSameAsGeneralRoad(text);
      EXPECT_FALSE(JSONGraph::fromJSONText(text).ok()) << at;
    }
  }
  for (const char* text : {R"({"a":"\udc00"})", R"({"\udfff":1})", R"({"a":{"$type":"atom","value":["\ud800"]}})"}) {
    expectSameAsGeneralRoad(text);
    EXPECT_FALSE(JSONGraph::fromJSONText(text).ok()) << text;
  }
}

TEST(JSONGraphTextTest, WritingMatchesConvertThenWrite) {
  const JSONGraph g = JSONGraph::fromAny(testing::catalogueDocument(50, 10, 7));
  for (JSONWritingOptions options : {JSONWritingOptions::None, JSONWritingOptions::SortedKeys,
                                     JSONWritingOptions::PrettyPrinted | JSONWritingOptions::SortedKeys}) {
    EXPECT_EQ(g.toJSONText(options).value(), writeJSON(g.toAnyType(), options).value());
  }
  const Result<JSONGraph> back = JSONGraph::fromJSONText(g.toJSONText().value());
  ASSERT_TRUE(back.ok());
  EXPECT_EQ(back.value(), g);
  // What cannot be written fails as the platform writer fails.
  const JSONGraph scalar = JSONGraphLeaf::primitive(JSONPrimitive::integer(1));
  EXPECT_EQ(scalar.toJSONText().error(), writeJSON(Object(1)).error());
  const JSONGraph infinite = JSONGraph::object({{"x", JSONGraphLeaf::primitive(JSONPrimitive::real(INFINITY))}});
  EXPECT_FALSE(infinite.toJSONText().ok());
}

TEST(JSONGraphTextTest, StringsOfEveryLengthOutliveTheText) {
  // Short strings wait in a scratch area until their object is built, in
  // objects, arrays, leaf values and reference paths alike.
  std::string text = "{";
  for (int n = 0; n <= 300; n += 13) {
    const std::string s(static_cast<std::size_t>(n), static_cast<char>('a' + n % 26));
    text += "\"k" + std::to_string(n) + std::string(static_cast<std::size_t>(n % 20), 'x') + "\":{\"plain\":\"" + s +
            "\",\"list\":[\"" + s + "\",\"" + s + "\"],\"atom\":{\"$type\":\"atom\",\"value\":\"" + s +
            "\"},\"ref\":{\"$type\":\"ref\",\"value\":[\"" + s + "\",\"tail\"]}},";
  }
  text.back() = '}';
  std::optional<JSONGraph> g;
  {
    const std::string copy = text;
    g = JSONGraph::fromJSONText(copy).value();
  }
  EXPECT_EQ(*g, JSONGraph::fromAny(parseJSON(text).value()));
  const JSONGraph k260 = *g->find("k260" + std::string(0, 'x'));
  EXPECT_EQ(k260.find("plain")->leaf().primitive().stringValue(), std::string(260, 'a'));
  EXPECT_EQ(k260.find("list")->at(1)->leaf().primitive().stringValue(), std::string(260, 'a'));
  EXPECT_EQ(k260.find("ref")->leaf().path()[0], std::string(260, 'a'));
  EXPECT_EQ(g->toJSONText().value(), writeJSON(g->toAnyType()).value());
}

TEST(JSONGraphPlainTest, PlainBranchesReadAsJSONValues) {
  const Object video = testing::catalogueVideo(3, testing::Dialect::Core);
  const JSONGraph g = JSONGraph::fromAny(video);
  ASSERT_TRUE(internal::isPlain(internal::slot(g)));
  // Read as a JSON value, the atom is its value.
  const JSONValue asValue = internal::valueFromSlot(internal::SlotRef::retained(internal::slot(g)));
  Object expected = video.mutableCopy();
  expected.setValueForKey(video["boxart"]["value"], "boxart");
  EXPECT_EQ(asValue, JSONValue::fromAny(expected));
  EXPECT_TRUE(asValue.toAnyType().isEqual(expected));
  EXPECT_EQ(asValue.find("boxart")->find("w"), JSONValue(JSONPrimitive::integer(150)));
  EXPECT_EQ(writeJSON(asValue.toAnyType()).value(), writeJSON(expected).value());
  // A reference, an error or an atom with metadata below a branch makes it not plain.
  for (const char* leaf : {R"({"$type":"ref","value":["a"]})", R"({"$type":"error","value":1})",
                           R"({"$type":"atom","value":1,"$expires":1})", R"({"$type":"atom"})"}) {
    const JSONGraph branch = JSONGraph::fromJSONText(std::string(R"({"x":{"y":)") + leaf + "}}").value();
    EXPECT_FALSE(internal::isPlain(internal::slot(branch))) << leaf;
  }
}

// --- Round trips of generated documents ---

class GraphGenerator {
 public:
  explicit GraphGenerator(unsigned seed) : random_(seed) {}
  Object node(int depth) {
    const int choice = pick(depth > 4 ? 6 : 10);
    switch (choice) {
      case 0: return Object(text());
      case 1: return Object::integer(static_cast<std::int64_t>(random_()) - (1LL << 31));
      case 2: return Object::real(static_cast<double>(random_() % 100000) / 64.0);
      case 3: return Object::boolean(random_() % 2 == 0);
      case 4: return Object::null();
      case 5: return leafDict({{"$type", pick(2) ? "atom" : "error"}, {"value", value(depth + 1)}, {"$size", 3}});
      case 6: return leafDict({{"$type", "ref"}, {"value", Object::array({text(), text()})}, {"$expires", 1}});
      case 7: {
        std::vector<Object> items;
        for (int i = pick(4); i > 0; --i) items.push_back(node(depth + 1));
        return Object::array(std::move(items));
      }
      default: {
        std::vector<Object::Entry> entries;
        for (int i = pick(pick(2) ? 40 : 6); i > 0; --i) entries.emplace_back(Object(text()), node(depth + 1));
        return Object::dictionary(std::move(entries));
      }
    }
  }

 private:
  Object value(int depth) {
    if (depth > 5 || pick(3) == 0) return Object(text());
    std::vector<Object::Entry> entries;
    for (int i = pick(5); i > 0; --i) entries.emplace_back(Object(text()), value(depth + 1));
    return Object::dictionary(std::move(entries));
  }
  int pick(int n) { return static_cast<int>(random_() % static_cast<unsigned>(n)); }
  std::string text() {
    static const char* words[] = {"a", "title", "v12", "a longer key text", "$type", "value", "ünï", ""};
    return std::string(words[pick(8)]) + (pick(2) ? std::to_string(pick(50)) : "");
  }
  std::mt19937 random_;
};

TEST(JSONGraphPropertyTest, GeneratedDocumentsRoundTrip) {
  GraphGenerator generator(20261122);
  for (int i = 0; i < 300; ++i) {
    const Object document = generator.node(0);
    const JSONGraph g = JSONGraph::fromAny(document);
    const Object back = g.toAnyType();
    EXPECT_EQ(JSONGraph::fromAny(back), g) << document.description();
    EXPECT_EQ(JSONGraph::fromAny(back).toAnyType().description().size(), back.description().size());
    if (back.isDictionary() || back.isArray()) {
      const std::string text = writeJSON(back).value();
      const Result<JSONGraph> direct = JSONGraph::fromJSONText(text);
      ASSERT_TRUE(direct.ok());
      EXPECT_EQ(direct.value(), g) << text;
      EXPECT_EQ(g.toJSONText().value(), text);
    }
  }
}

TEST(JSONGraphPropertyTest, CatalogueRoundTripsThroughObjectsAndText) {
  const Object document = testing::catalogueDocument(300, 100, 10);
  const JSONGraph g = JSONGraph::fromAny(document);
  EXPECT_EQ(g.find("videos")->size(), 300u);
  EXPECT_EQ(g.find("videos")->find("v7")->find("boxart")->leaf().kind(), JSONGraphLeaf::Kind::Atom);
  EXPECT_EQ(g.find("videos")->find("v10")->find("rating")->leaf().kind(), JSONGraphLeaf::Kind::Error);
  EXPECT_EQ(JSONGraph::fromAny(g.toAnyType()), g);
  EXPECT_EQ(JSONGraph::fromJSONText(writeJSON(g.toAnyType()).value()).value(), g);  // relative expiry now absolute
}

}  // namespace
}  // namespace brivet
