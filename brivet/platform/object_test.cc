#include "brivet/platform/object.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <unordered_set>

#include "brivet/platform/error.h"
#include "brivet/platform/json.h"
#include "brivet/platform/uuid.h"

namespace brivet {
namespace {

TEST(ObjectNumberTest, NumbersCompareNumericallyAcrossKindsWithEqualHashes) {
  const Object one = 1;
  const Object oneDouble = 1.0;
  const Object oneUnsigned = static_cast<std::uint64_t>(1);
  const Object yes = true;
  EXPECT_TRUE(one.isEqual(oneDouble));
  EXPECT_TRUE(one.isEqual(oneUnsigned));
  EXPECT_TRUE(yes.isEqual(one));  // a boolean is still a number for equality
  EXPECT_EQ(one.hash(), oneDouble.hash());
  EXPECT_EQ(one.hash(), oneUnsigned.hash());
  EXPECT_EQ(one.hash(), yes.hash());
  EXPECT_EQ(Object(0.0).hash(), Object(-0.0).hash());
  EXPECT_FALSE(Object(1.5).isEqual(one));
  EXPECT_FALSE(Object("1").isEqual(one));
  EXPECT_FALSE(Object("true").isEqual(yes));
  EXPECT_TRUE(yes.isBoolean());
  EXPECT_FALSE(one.isBoolean());
}

TEST(ObjectNumberTest, ExtremesCompareExactly) {
  const Object maxSigned = std::numeric_limits<std::int64_t>::max();
  const Object maxUnsigned = std::numeric_limits<std::uint64_t>::max();
  const Object minSigned = std::numeric_limits<std::int64_t>::min();
  // 2^63 as a double is one more than INT64_MAX: not equal, though a rounding
  // comparison would say so.
  EXPECT_FALSE(maxSigned.isEqual(Object(9223372036854775808.0)));
  EXPECT_EQ(maxSigned.asNumber()->compare(*Object(9223372036854775808.0).asNumber()), -1);
  EXPECT_TRUE(Object(static_cast<std::uint64_t>(1) << 63).isEqual(Object(9223372036854775808.0)));
  EXPECT_EQ(minSigned.asNumber()->compare(*maxUnsigned.asNumber()), -1);
  EXPECT_EQ(maxUnsigned.asNumber()->compare(*minSigned.asNumber()), 1);
  EXPECT_TRUE(minSigned.isEqual(Object(-9223372036854775808.0)));
  const Object nan = std::nan("");
  EXPECT_FALSE(nan.isEqual(nan.copy()) && !nan.isIdentical(nan.copy()));
  EXPECT_EQ(Object(9007199254740993LL).asNumber()->compare(*Object(9007199254740992.0).asNumber()), 1);
}

TEST(ObjectNumberTest, DescriptionsAreStable) {
  EXPECT_EQ(Object(3).description(), "3");
  EXPECT_EQ(Object(3.0).description(), "3");
  EXPECT_EQ(Object(0.1).description(), "0.1");
  EXPECT_EQ(Object(-2.5).description(), "-2.5");
  EXPECT_EQ(Object(std::numeric_limits<std::uint64_t>::max()).description(), "18446744073709551615");
  EXPECT_EQ(Object(true).description(), "1");
  EXPECT_EQ(Object::null().description(), "<null>");
  EXPECT_EQ(Object().description(), "(nil)");
}

TEST(ObjectContainerTest, DescriptionLayout) {
  const Object o = Object::dictionary(
      {{"a", 1}, {"b", Object::array({"x", "two words", "", Object::null()})}, {"c", Object::dictionary()}});
  EXPECT_EQ(o.description(), R"({a = 1; b = (x, "two words", "", <null>); c = {};})");
}

TEST(ObjectContainerTest, CopyAndMutableCopyFollowThePlatform) {
  const Object immutable = Object::array({1, 2});
  EXPECT_TRUE(immutable.copy().isIdentical(immutable));
  const Object mutableArray = immutable.mutableCopy();
  EXPECT_TRUE(mutableArray.isMutableArray());
  mutableArray.asMutableArray()->add(3);
  EXPECT_EQ(immutable.count(), 2u);
  const Object frozen = mutableArray.copy();
  EXPECT_FALSE(frozen.isMutableArray());
  EXPECT_FALSE(frozen.isIdentical(mutableArray));
  EXPECT_TRUE(frozen.isEqual(mutableArray));
  EXPECT_TRUE(Object("s").mutableCopy().isNil());
}

TEST(ObjectContainerTest, DictionaryKeepsInsertionOrderAndLastDuplicate) {
  const Object d = Object::dictionary({{"z", 1}, {"a", 2}, {"z", 3}});
  ASSERT_EQ(d.count(), 2u);
  EXPECT_EQ(d.description(), "{z = 3; a = 2;}");
  // Number and string keys are distinct.
  const Object mixed = Object::dictionary({{5, "number"}, {"5", "string"}});
  EXPECT_EQ(mixed.count(), 2u);
  EXPECT_EQ(mixed.asDictionary()->objectForKey(Object(5.0)).stringValue(), "number");
  EXPECT_EQ(mixed["5"].stringValue(), "string");
}

TEST(ObjectContainerTest, LargeDictionarySurvivesChurn) {
  const Object d = Object::mutableDictionary();
  Dictionary* m = d.asMutableDictionary();
  for (int i = 0; i < 5000; ++i) m->setObject(i, "k" + std::to_string(i));
  for (int i = 0; i < 5000; i += 2) m->removeObject("k" + std::to_string(i));
  for (int i = 0; i < 100; ++i) m->setObject(-i, "k" + std::to_string(i));  // re-add some evens, replace odds
  EXPECT_EQ(m->size(), 2500u + 50u);
  for (int i = 0; i < 5000; ++i) {
    const Object v = d["k" + std::to_string(i)];
    if (i < 100) {
      EXPECT_EQ(v.asNumber()->int64Value(), -i);
    } else if (i % 2 == 0) {
      EXPECT_TRUE(v.isNil()) << i;
    } else {
      EXPECT_EQ(v.asNumber()->int64Value(), i);
    }
  }
  std::size_t iterated = 0;
  for (const auto& entry : *m) iterated += entry.first.isNil() ? 0 : 1;
  EXPECT_EQ(iterated, m->size());
  EXPECT_TRUE(d.isEqual(d.mutableCopy()));
  EXPECT_TRUE(d.copy().isEqual(d));
}

TEST(ObjectContainerTest, EqualityIsStructural) {
  const Object a = Object::dictionary({{"x", Object::array({1, 2.0, "s"})}, {"y", Object::null()}});
  const Object b = Object::mutableDictionary({{"y", Object::null()}, {"x", Object::array({1.0, 2, "s"})}});
  EXPECT_TRUE(a.isEqual(b));
  EXPECT_EQ(a.hash(), b.hash());
  EXPECT_FALSE(a.isEqual(Object::dictionary({{"x", Object::array({1, 2, "t"})}, {"y", Object::null()}})));
  std::unordered_set<Object, ObjectHash, ObjectEqual> set{Object(1), Object(1.0), Object("1"), Object(true)};
  EXPECT_EQ(set.size(), 2u);  // {1, "1"}
}

// A library object that forwards lookups to a target dictionary, the way the
// legacy path reference does.
class Forwarder final : public CustomObject {
 public:
  explicit Forwarder(Object target) : target_(std::move(target)) {}
  std::string_view className() const override { return "Forwarder"; }
  Object valueForKey(std::string_view key) const override { return target_.valueForKey(key); }
  Object valueForKeyPath(std::string_view path) const override { return target_.valueForKeyPath(path); }
  void setValueForKey(const Object& value, std::string_view key) override { target_.setValueForKey(value, key); }

 private:
  Object target_;
};

TEST(ObjectKeyValueTest, LookupsWalkDictionariesAndForwardThroughCustomObjects) {
  const Object leaf = Object::mutableDictionary({{"title", "Hello"}});
  const Object root = Object::mutableDictionary(
      {{"videos", Object::mutableDictionary({{"v1", leaf}})},
       {"lists", Object::mutableDictionary({{"top", Object(std::make_shared<Forwarder>(leaf))}})},
       {"text", "plain"}});
  EXPECT_EQ(root.valueForKeyPath("videos.v1.title").stringValue(), "Hello");
  EXPECT_EQ(root.valueForKeyPath("lists.top.title").stringValue(), "Hello");
  EXPECT_TRUE(root.valueForKeyPath("lists.top.missing").isNil());
  EXPECT_TRUE(root.valueForKeyPath("text.length").isNil());
  EXPECT_TRUE(root.valueForKeyPath("nothing.here").isNil());

  root.setValueForKeyPath("Bye", "lists.top.title");  // forwarded into the leaf
  EXPECT_EQ(leaf["title"].stringValue(), "Bye");
  root.setValueForKeyPath(Object(), "videos.v1");  // nil removes
  EXPECT_TRUE(root.valueForKeyPath("videos.v1").isNil());
  root.setValueForKeyPath("x", "missing.path");  // no intermediate: nothing happens
  EXPECT_EQ(root.count(), 3u);
  EXPECT_NE(root.valueForKeyPath("lists.top").description().find("<Forwarder: 0x"), std::string::npos);
}

// An interface an app implements next to CustomObject; it is the second base, so finding it moves the pointer.
class Cancellable {
 public:
  virtual ~Cancellable() = default;
  virtual void cancel() = 0;
};

class Job final : public CustomObject, public Cancellable {
 public:
  void cancel() override { ++cancels; }
  void* castTo(CustomTypeId type) override { return castAs<Job, Cancellable>(this, type); }
  int cancels = 0;
};

TEST(ObjectCustomTypeTest, AsCustomFindsTheClassesAnObjectNamesWithoutRTTI) {
  const auto job = std::make_shared<Job>();
  const Object object(std::static_pointer_cast<CustomObject>(job));
  EXPECT_EQ(object.asCustom<Job>(), job);
  const std::shared_ptr<Cancellable> cancellable = object.asCustom<Cancellable>();
  ASSERT_EQ(cancellable.get(), static_cast<Cancellable*>(job.get()));
  cancellable->cancel();
  EXPECT_EQ(job->cancels, 1);
  EXPECT_EQ(object.asCustom<CustomObject>().get(), job.get());
  EXPECT_EQ(job.use_count(), 3);  // `job`, `object` and the interface view share one owner
  // A class it does not name, a class that names nothing, and objects of other kinds answer nullptr.
  EXPECT_EQ(object.asCustom<Forwarder>(), nullptr);
  EXPECT_EQ(Object(std::make_shared<Forwarder>(Object())).asCustom<Forwarder>(), nullptr);
  EXPECT_EQ(Object("text").asCustom<Job>(), nullptr);
  EXPECT_NE(customTypeId<Job>(), customTypeId<Cancellable>());
  EXPECT_EQ(customTypeId<const Job>(), customTypeId<Job>());
}

TEST(ObjectKeyValueTest, ImmutableDictionariesIgnoreWrites) {
  const Object frozen = Object::dictionary({{"a", 1}});
  frozen.setValueForKey(2, "a");
  EXPECT_EQ(frozen["a"].asNumber()->int64Value(), 1);
  const Object weakTarget = Object::dictionary();
  WeakObject weak = weakTarget;
  EXPECT_TRUE(weak.lock().isIdentical(weakTarget));
}

// Trees an app can build, far deeper than any call stack holds one level per frame.
class DeepTreeTest : public ::testing::Test {
 protected:
  static constexpr int kDepth = 100000;

  // {"a": {"a": ... {"leaf": leaf} ...}} alternating with one-element arrays every
  // third level, and a custom object every thousandth.
  static Object deepTree(const Object& leaf) {
    Object node = Object::dictionary({{"leaf", leaf}});
    for (int i = 0; i < kDepth; ++i) {
      if (i % 1000 == 999) {
        node = Object(std::make_shared<Forwarder>(node));
      } else if (i % 3 == 2) {
        node = Object::array({node});
      } else {
        node = Object::mutableDictionary({{"a", node}, {"n", i}});
      }
    }
    return node;
  }
};

TEST_F(DeepTreeTest, DestroyingADeepTreeUsesBoundedStack) {
  Object tree = deepTree(1);
  WeakObject bottom = tree;
  tree = Object();
  EXPECT_TRUE(bottom.lock().isNil());
  // A wide tree below the depth where members start to be parked.
  Object wide = Object::array();
  for (int i = 0; i < 200; ++i) {
    std::vector<Object> level(3, wide);
    wide = Object::array(std::move(level));
  }
  wide = Object();
}

TEST_F(DeepTreeTest, DeepTreesCompareAndHashWithoutRecursion) {
  Object plain = Object::dictionary({{"leaf", 1}});
  Object plainCopy = Object::dictionary({{"leaf", 1.0}});
  Object different = Object::dictionary({{"leaf", 2}});
  for (int i = 0; i < kDepth; ++i) {
    if (i % 2) {
      plain = Object::array({"x", plain});
      plainCopy = Object::array({"x", plainCopy});
      different = Object::array({"x", different});
    } else {
      plain = Object::dictionary({{"a", plain}});
      plainCopy = Object::dictionary({{"a", plainCopy}});
      different = Object::dictionary({{"a", different}});
    }
  }
  EXPECT_TRUE(plain.isEqual(plainCopy));
  EXPECT_EQ(plain.hash(), plainCopy.hash());
  EXPECT_FALSE(plain.isEqual(different));
  EXPECT_FALSE(Object::dictionary({{"a", plain}}).isEqual(Object::dictionary({{"b", plainCopy}})));
}

TEST_F(DeepTreeTest, DeepTreesAreDescribedAndLookedUpWithoutRecursion) {
  Object nested = Object::array({"x y"});
  for (int i = 0; i < kDepth; ++i) nested = Object::dictionary({{"k", nested}});
  const std::string description = nested.description();
  EXPECT_EQ(description.size(), static_cast<std::size_t>(kDepth) * std::string("{k = ;}").size() + 7);
  EXPECT_EQ(description.substr(static_cast<std::size_t>(kDepth) * 5 - 10, 21), "{k = {k = (\"x y\");};}");

  std::string keyPath = "k";
  for (int i = 1; i < kDepth; ++i) keyPath += ".k";
  EXPECT_EQ(nested.valueForKeyPath(keyPath).description(), "(\"x y\")");
  EXPECT_TRUE(nested.valueForKeyPath(keyPath + ".k.k").isNil());
  Object mutableNested = Object::mutableDictionary();
  for (int i = 0; i < kDepth; ++i) mutableNested = Object::mutableDictionary({{"k", mutableNested}});
  mutableNested.setValueForKeyPath("set", keyPath + ".leaf");
  EXPECT_EQ(mutableNested.valueForKeyPath(keyPath + ".leaf").stringValue(), "set");
}

TEST_F(DeepTreeTest, WritingADeepTreeIsAnError) {
  const Object tree = deepTree(Object::null());
  EXPECT_FALSE(isValidJSONObject(tree));
  const Result<std::string> text = writeJSON(tree);
  ASSERT_FALSE(text.ok());
  EXPECT_EQ(text.error().code(), static_cast<std::int64_t>(JSONErrorCode::InvalidObject));
  // The custom objects inside make it unwritable anyway; a plain deep tree is refused for its depth.
  Object plain = Object::array();
  for (int i = 0; i < kDepth; ++i) plain = Object::array({plain});
  EXPECT_NE(writeJSON(plain).error().localizedDescription().find("nesting deeper"), std::string::npos);
  EXPECT_FALSE(deepTree(1).description().empty());
}

TEST(ErrorTest, CarriesDomainCodeAndDescription) {
  const Error e = Error::withDescription("io.brivet.Brivet", -999, "BrivetModel:getKeyPaths ERROR: oops");
  EXPECT_EQ(e.domain(), "io.brivet.Brivet");
  EXPECT_EQ(e.code(), -999);
  EXPECT_EQ(e.localizedDescription(), "BrivetModel:getKeyPaths ERROR: oops");
  EXPECT_EQ(e.userInfo()[kLocalizedDescriptionKey].stringValue(), "BrivetModel:getKeyPaths ERROR: oops");
  const Error bare("Domain", 3);
  EXPECT_NE(bare.localizedDescription().find("Domain error 3"), std::string::npos);
  EXPECT_TRUE(bare == Error("Domain", 3, Object::dictionary()));
  EXPECT_FALSE(bare == e);
}

TEST(UUIDTest, RandomVersion4InUpperCaseText) {
  const UUID a = UUID::random();
  const UUID b = UUID::random();
  EXPECT_FALSE(a == b);
  const std::string text = a.uuidString();
  ASSERT_EQ(text.size(), 36u);
  EXPECT_EQ(text[14], '4');
  EXPECT_NE(std::string("89AB").find(text[19]), std::string::npos);
  for (char c : text) EXPECT_TRUE(c == '-' || (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F')) << text;
  EXPECT_EQ(UUID::fromString(text), a);
  EXPECT_FALSE(UUID::fromString("not-a-uuid").has_value());
}

TEST(DateTest, ConversionsClampOutOfRangeSeconds) {
  const Date d = dateWithTimeIntervalSince1970(1.5);
  EXPECT_DOUBLE_EQ(timeIntervalSince1970(d), 1.5);
  EXPECT_EQ(dateDescription(dateWithTimeIntervalSince1970(0)), "1970-01-01 00:00:00 +0000");
  // Far beyond the clock's range: clamped, never undefined behaviour.
  EXPECT_GT(timeIntervalSince1970(dateWithTimeIntervalSince1970(1e300)), 1e9);
  EXPECT_LT(timeIntervalSince1970(dateWithTimeIntervalSince1970(-1e300)), -1e9);
  EXPECT_EQ(dateWithTimeIntervalSince1970(std::nan("")), Date());
}

}  // namespace
}  // namespace brivet
