#include "brivet/core/values/json_value.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "brivet/core/values/internal/value_access.h"
#include "brivet/platform/date.h"

namespace brivet {
namespace {

JSONValue obj(std::vector<std::pair<std::string, JSONValue>> entries) { return JSONValue::object(std::move(entries)); }
JSONValue str(std::string_view s) { return JSONPrimitive::string(s); }
JSONValue num(std::int64_t i) { return JSONPrimitive::integer(i); }

TEST(JSONValueConversionTest, FromPlatformObjectsInTestOrder) {
  const Object input = Object::dictionary({{Object::integer(7), "seven"},
                                           {"flag", true},
                                           {"one", 1},
                                           {"half", 0.5},
                                           {"big", Object::unsignedInteger(18446744073709551615ULL)},
                                           {"none", Object::null()},
                                           {"when", Object::date(dateNow())},
                                           {"list", Object::array({"a", Object::integer(2)})}});
  const JSONValue v = JSONValue::fromAny(input);
  ASSERT_TRUE(v.isObject());
  EXPECT_EQ(v.size(), 8u);
  EXPECT_EQ(*v.find("7"), str("seven"));  // a number key becomes its text
  EXPECT_EQ(v.find("flag")->primitive().kind(), JSONPrimitive::Kind::Boolean);
  EXPECT_EQ(v.find("one")->primitive().kind(), JSONPrimitive::Kind::Number);
  EXPECT_NE(*v.find("flag"), *v.find("one"));  // a boolean is not the number 1
  EXPECT_EQ(v.find("none")->primitive().kind(), JSONPrimitive::Kind::Null);
  EXPECT_EQ(v.find("when")->primitive().kind(), JSONPrimitive::Kind::Null);  // unknown objects become null
  EXPECT_EQ(*v.find("list"), JSONValue::array({str("a"), num(2)}));

  const Object back = v.toAnyType();
  EXPECT_TRUE(back["flag"].isBoolean());
  EXPECT_EQ(back["one"].asNumber()->type(), Number::Type::Signed);
  EXPECT_EQ(back["half"].asNumber()->type(), Number::Type::Double);
  EXPECT_EQ(back["big"].asNumber()->type(), Number::Type::Unsigned);
  EXPECT_EQ(back["big"].asNumber()->uint64Value(), 18446744073709551615ULL);
  EXPECT_TRUE(back["when"].isNull());
  EXPECT_EQ(back["7"].stringValue(), "seven");
}

TEST(JSONValueConversionTest, ScalarsKeepTheirTypeAcrossEncodings) {
  // Values at the edges of the in-slot forms and beyond them come back unchanged.
  const std::vector<Object> numbers = {Object::integer(0),
                                       Object::integer(-1),
                                       Object::integer((std::int64_t{1} << 60) - 1),
                                       Object::integer(std::int64_t{1} << 60),
                                       Object::integer(INT64_MIN),
                                       Object::real(0.0),
                                       Object::real(-0.0),
                                       Object::real(4.9),
                                       Object::real(1e-300),
                                       Object::real(1e300),
                                       Object::real(3.0),
                                       Object::unsignedInteger(5)};
  for (const Object& n : numbers) {
    const Object back = JSONValue::fromAny(n).toAnyType();
    EXPECT_EQ(back.asNumber()->type(), n.asNumber()->type()) << n.description();
    EXPECT_TRUE(back.isEqual(n)) << n.description();
    EXPECT_EQ(back.description(), n.description());
  }
  for (const std::string& s : std::vector<std::string>{"", "abc", "1234567", "12345678", std::string(300, 'x')}) {
    EXPECT_EQ(JSONValue::fromAny(Object(s)).primitive().stringValue(), s);
  }
}

TEST(JSONValueConversionTest, EmptyContainersStayEmpty) {
  EXPECT_TRUE(JSONValue::fromAny(Object::dictionary()).isObject());
  EXPECT_EQ(JSONValue::fromAny(Object::dictionary()).size(), 0u);
  EXPECT_TRUE(JSONValue::fromAny(Object::array()).isArray());
  EXPECT_TRUE(JSONValue::emptyObject().toAnyType().isDictionary());
  EXPECT_EQ(JSONValue::array({}).toAnyType().count(), 0u);
}

TEST(JSONValueConversionTest, DeepNestingIsCutWithoutExhaustingTheStack) {
  // 100,000 nested arrays; every level is kept alive by `levels`, so the
  // platform tree is released one level at a time.
  std::vector<Object> levels;
  levels.push_back(Object::array({Object::integer(1)}));
  for (int i = 0; i < 100000; ++i) levels.push_back(Object::array({levels.back()}));
  const JSONValue v = JSONValue::fromAny(levels.back());
  std::size_t depth = 0;
  JSONValue cursor = v;
  while (cursor.isArray()) {
    cursor = *cursor.at(0);
    ++depth;
  }
  EXPECT_EQ(depth, 512u);  // below the limit the value is null
  EXPECT_TRUE(cursor.primitive().isNull());
  EXPECT_EQ(v, v);
  EXPECT_FALSE(v.description().empty());
  while (!levels.empty()) levels.pop_back();  // outermost first: no level releases a chain
}

TEST(JSONValueObjectTest, LargeObjectsFindUpdateAndCompare) {
  std::vector<std::pair<std::string, JSONValue>> entries;
  for (int i = 0; i < 2000; ++i) entries.emplace_back("key" + std::to_string(i), num(i));
  entries.emplace_back("key7", num(-7));  // a later duplicate wins
  const JSONValue big = obj(entries);
  EXPECT_EQ(big.size(), 2000u);
  EXPECT_EQ(*big.find("key1999"), num(1999));
  EXPECT_EQ(*big.find("key7"), num(-7));
  EXPECT_FALSE(big.find("key2000").has_value());

  std::reverse(entries.begin(), entries.end() - 1);
  EXPECT_EQ(obj(entries), big);  // order does not matter
  entries[0].second = num(5);
  EXPECT_NE(obj(entries), big);

  const JSONValue merged = JSONValue::merge(obj({{"key3", num(33)}, {"extra", str("x")}}), big);
  EXPECT_EQ(merged.size(), 2001u);
  EXPECT_EQ(*merged.find("key3"), num(33));
  EXPECT_EQ(*merged.find("key4"), num(4));
  EXPECT_EQ(*big.find("key3"), num(3));  // the original is unchanged
}

TEST(JSONValueObjectTest, LargeObjectUpdatesMatchAModel) {
  // Sets, removals and no-op changes on an object large enough to take its
  // updates in an overlay, over enough rounds to fold the overlay several times.
  std::mt19937 random(5);
  std::map<std::string, std::int64_t> model;
  std::vector<std::pair<std::string, JSONValue>> initial;
  for (int i = 0; i < 5000; ++i) {
    model["key" + std::to_string(i)] = i;
    initial.emplace_back("key" + std::to_string(i), num(i));
  }
  JSONValue object = obj(initial);
  for (int round = 0; round < 25; ++round) {
    std::vector<internal::Entry> changes;
    std::vector<internal::SlotRef> keep;  // owns the change slots
    for (int c = 0; c < 300; ++c) {
      // The change's number says what to do: 0 removes, 1 keeps, more sets it.
      const std::string key = "key" + std::to_string(random() % 6000);
      const std::int64_t op = static_cast<std::int64_t>(random() % 4);
      const std::int64_t v = op < 2 ? op : 2 + static_cast<std::int64_t>(random() % 1000);
      keep.emplace_back(internal::makeString(key));
      keep.emplace_back(internal::makeSignedNumber(v));
      changes.push_back({keep[keep.size() - 2].get(), keep.back().get()});
      if (v == 0) {
        model.erase(key);
      } else if (v >= 2) {
        model[key] = v;
      }
    }
    object = internal::valueFromSlot(internal::SlotRef(
        internal::objectUpdate(internal::slot(object), changes, [](internal::Slot old, internal::Slot change) -> internal::Slot {
          const std::int64_t v = internal::intOf(change);
          if (v == 0) return internal::kEmpty;
          if (v == 1) {
            internal::retain(old);
            return old;
          }
          return change;
        })));
    ASSERT_EQ(object.size(), model.size()) << "round " << round;
  }
  for (const auto& [key, value] : model) ASSERT_EQ(object.find(key), JSONValue(num(value))) << key;
  EXPECT_FALSE(object.find("key6000").has_value());
  std::size_t visited = 0;
  object.forEach([&](std::string_view key, const JSONValue& value) {
    ++visited;
    EXPECT_EQ(value, num(model.at(std::string(key))));
  });
  EXPECT_EQ(visited, model.size());
  std::vector<std::pair<std::string, JSONValue>> rebuilt;
  for (const auto& [key, value] : model) rebuilt.emplace_back(key, num(value));
  EXPECT_EQ(obj(rebuilt), object);
  // Versions that share a base compare through their overlays.
  const std::string some = model.begin()->first;
  const JSONValue sameValue =
      JSONValue::merge(obj({{some, JSONPrimitive::real(static_cast<double>(model.begin()->second))}}), object);
  EXPECT_EQ(sameValue, object);
  const JSONValue changed = JSONValue::merge(obj({{some, str("changed")}}), object);
  EXPECT_NE(changed, object);
  EXPECT_NE(changed, sameValue);
  EXPECT_NE(JSONValue::merge(obj({{"brand new", num(1)}}), object), object);
}

// The update primitive the cache merges and invalidates with.
class ObjectUpdateTest : public ::testing::Test {
 protected:
  // Applies `ops` (key, number) with: 0 removes, 1 keeps, anything else sets.
  static JSONValue update(const JSONValue& object, const std::vector<std::pair<std::string, std::int64_t>>& ops) {
    std::vector<internal::SlotRef> owned;
    std::vector<internal::Entry> changes;
    for (const auto& [key, v] : ops) {
      owned.emplace_back(internal::makeString(key));
      owned.emplace_back(internal::makeSignedNumber(v));
      changes.push_back({owned[owned.size() - 2].get(), owned.back().get()});
    }
    return internal::valueFromSlot(internal::SlotRef(
        internal::objectUpdate(internal::slot(object), changes, [](internal::Slot old, internal::Slot change) -> internal::Slot {
          const std::int64_t v = internal::intOf(change);
          if (v == 0) return internal::kEmpty;
          if (v == 1) {
            internal::retain(old);
            return old;
          }
          return change;
        })));
  }
  static JSONValue numbered(int n) {
    std::vector<std::pair<std::string, JSONValue>> entries;
    for (int i = 0; i < n; ++i) entries.emplace_back("k" + std::to_string(i), num(i + 2));
    return obj(entries);
  }
};

TEST_F(ObjectUpdateTest, NothingChangedGivesTheSameNode) {
  for (int n : {3, 40, 5000}) {
    const JSONValue object = numbered(n);
    EXPECT_EQ(internal::slot(update(object, {{"k0", 1}, {"absent", 1}, {"absent", 0}, {"k1", 3}})), internal::slot(object)) << n;
  }
}

TEST_F(ObjectUpdateTest, SmallObjectsGrowAndLargeOnesShrink) {
  JSONValue object = obj({{"title", str("a title long enough")}, {"n", num(5)}});
  std::vector<std::pair<std::string, std::int64_t>> grow;
  for (int i = 0; i < 30; ++i) grow.emplace_back("g" + std::to_string(i), i + 2);
  object = update(object, grow);
  EXPECT_EQ(object.size(), 32u);
  EXPECT_EQ(*object.find("title"), str("a title long enough"));  // embedded text carried into the trie
  std::vector<std::pair<std::string, std::int64_t>> shrink;
  for (int i = 0; i < 30; ++i) shrink.emplace_back("g" + std::to_string(i), 0);
  object = update(object, shrink);
  EXPECT_EQ(object, obj({{"title", str("a title long enough")}, {"n", num(5)}}));
  object = update(object, {{"title", 0}, {"n", 0}});
  EXPECT_EQ(object, JSONValue::emptyObject());
  EXPECT_EQ(update(numbered(5000),
                   [] {
                     std::vector<std::pair<std::string, std::int64_t>> all;
                     for (int i = 0; i < 5000; ++i) all.emplace_back("k" + std::to_string(i), 0);
                     return all;
                   }())
                .size(),
            0u);
}

TEST_F(ObjectUpdateTest, RepeatedKeysApplyInOrder) {
  const JSONValue object = update(numbered(3), {{"k0", 9}, {"k0", 0}, {"new", 7}, {"new", 8}, {"k1", 0}, {"k1", 6}});
  EXPECT_EQ(object, obj({{"k2", num(4)}, {"new", num(8)}, {"k1", num(6)}}));
  const JSONValue large = update(numbered(5000), {{"k0", 9}, {"k0", 0}, {"new", 7}, {"new", 8}});
  EXPECT_EQ(large.size(), 5000u);
  EXPECT_FALSE(large.find("k0").has_value());
  EXPECT_EQ(*large.find("new"), num(8));
}

TEST(JSONValueObjectTest, StringsStoredInAnObjectOutliveIt) {
  // Short strings live inside their object's allocation; every way out copies them.
  JSONValue title;
  JSONValue intoLarge;
  JSONValue intoSmall;
  std::vector<JSONValue> fromForEach;
  {
    const JSONValue video = JSONValue::fromAny(
        Object::dictionary({{"title", "Title 123456"}, {"genre", "Documentary"}, {"long", std::string(300, 'x')}}));
    title = *video.find("title");
    video.forEach([&](std::string_view, const JSONValue& v) { fromForEach.push_back(v); });
    std::vector<std::pair<std::string, JSONValue>> many;
    for (int i = 0; i < 40; ++i) many.emplace_back("k" + std::to_string(i), num(i));
    intoLarge = JSONValue::merge(video, obj(many));
    intoSmall = JSONValue::merge(video, obj({{"title", str("old title text")}, {"other", str("kept text value")}}));
  }
  EXPECT_EQ(title.primitive().stringValue(), "Title 123456");
  EXPECT_EQ(fromForEach[1].primitive().stringValue(), "Documentary");
  EXPECT_EQ(fromForEach[2].primitive().stringValue(), std::string(300, 'x'));
  EXPECT_EQ(intoLarge.size(), 43u);
  EXPECT_EQ(*intoLarge.find("genre"), str("Documentary"));
  EXPECT_EQ(*intoSmall.find("title"), str("Title 123456"));
  EXPECT_EQ(*intoSmall.find("other"), str("kept text value"));
  EXPECT_EQ(JSONValue::array({*intoSmall.find("genre")}).at(0), str("Documentary"));
}

TEST(JSONValueMergeTest, ObjectsMergeDeeplyAndEverythingElseIsReplaced) {
  const JSONValue old =
      obj({{"a", obj({{"x", num(1)}, {"y", num(2)}})}, {"b", num(1)}, {"list", JSONValue::array({num(1)})}});
  const JSONValue incoming = obj({{"a", obj({{"y", num(3)}})}, {"c", num(4)}, {"list", JSONValue::array({num(9)})}});
  const JSONValue merged = JSONValue::merge(incoming, old);
  EXPECT_EQ(merged, obj({{"a", obj({{"x", num(1)}, {"y", num(3)}})},
                         {"b", num(1)},
                         {"c", num(4)},
                         {"list", JSONValue::array({num(9)})}}));
  EXPECT_EQ(JSONValue::merge(num(1), old), num(1));
  EXPECT_EQ(JSONValue::merge(old, num(1)), old);
  // Growing a small object past its inline limit keeps every key.
  std::vector<std::pair<std::string, JSONValue>> many;
  for (int i = 0; i < 40; ++i) many.emplace_back("k" + std::to_string(i), num(i));
  EXPECT_EQ(JSONValue::merge(obj(many), old).size(), 43u);
}

TEST(JSONValueMergeTest, AMergeThatChangesNothingSharesTheOldValue) {
  const JSONValue old = obj({{"a", obj({{"x", num(1)}})}, {"b", str("long enough text")}});
  const JSONValue same = obj({{"a", obj({{"x", num(1)}})}});
  EXPECT_EQ(internal::slot(JSONValue::merge(same, old)), internal::slot(old));
}

TEST(JSONValueEqualityTest, CasesAndNumbers) {
  EXPECT_EQ(JSONPrimitive::integer(1), JSONPrimitive::real(1.0));
  EXPECT_EQ(JSONPrimitive::integer(1).hash(), JSONPrimitive::real(1.0).hash());
  EXPECT_NE(JSONPrimitive::integer(1), JSONPrimitive::boolean(true));
  EXPECT_NE(JSONPrimitive::integer(1), JSONPrimitive::string("1"));
  EXPECT_NE(JSONPrimitive::null().hash(), JSONPrimitive::string("").hash());
  EXPECT_EQ(JSONPrimitive::string("a longer string"), JSONPrimitive::string("a longer string"));
  EXPECT_EQ(JSONPrimitive::string("a longer string").hash(), JSONPrimitive::string("a longer string").hash());
  EXPECT_NE(obj({{"a", num(1)}}), obj({{"b", num(1)}}));
  EXPECT_NE(JSONValue::array({num(1), num(2)}), JSONValue::array({num(2), num(1)}));
}

TEST(JSONValueDescriptionTest, Renderings) {
  EXPECT_EQ(str("x").description(), "\"x\"");
  EXPECT_EQ(str("say \"hi\"").description(), "\"say \"hi\"\"");
  EXPECT_EQ(JSONPrimitive::null().description(), "(null)");
  EXPECT_EQ(JSONPrimitive::boolean(true).description(), "true");
  EXPECT_EQ(num(42).description(), "42");
  EXPECT_EQ(JSONPrimitive::real(3.5).description(), "3.5");
  EXPECT_EQ(obj({{"a", num(1)}}).description(), "[\"a\": 1]");
  EXPECT_EQ(JSONValue::array({num(1), str("b")}).description(), "[1, \"b\"]");
  EXPECT_EQ(JSONValue::emptyObject().description(), "[:]");
}

}  // namespace
}  // namespace brivet
