#include "brivet/platform/typed_access.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "brivet/platform/json.h"

namespace app {

struct Video {
  std::string title;
  int year = 0;
  std::optional<std::string> subtitle;
  friend bool operator==(const Video&, const Video&) = default;
};

std::optional<Video> fromObject(const brivet::Object& object, brivet::Tag<Video>) {
  auto title = brivet::get<std::string>(object, "title");
  auto year = brivet::get<int>(object, "year");
  if (!title || !year) return std::nullopt;
  return Video{*title, *year, brivet::read<std::optional<std::string>>(object, "subtitle").valueOr(std::nullopt)};
}
brivet::Object toObject(const Video& video) {
  return brivet::Object::dictionary(
      {{"title", video.title}, {"year", video.year}, {"subtitle", brivet::toObject(video.subtitle)}});
}

// A type whose conversion says why it refuses.
struct Rating {
  double stars = 0;
};
brivet::Result<Rating, brivet::Error> fromObject(const brivet::Object& object, brivet::Tag<Rating>) {
  brivet::Result<double, brivet::Error> stars = brivet::read<double>(object);
  if (!stars.ok()) return stars.error();
  if (stars.value() < 0 || stars.value() > 5) return brivet::Error::withDescription("app", 7, "stars out of 0...5");
  return Rating{stars.value()};
}

}  // namespace app

namespace brivet {
namespace {

Object json(std::string_view text) { return parseJSON(text).value(); }

std::string reason(const Error& error) { return error.localizedDescription(); }

// A library object that answers lookups by forwarding, as the legacy model's references do.
class Forwarder final : public CustomObject {
 public:
  explicit Forwarder(Object target) : target_(std::move(target)) {}
  Object valueForKey(std::string_view key) const override { return target_[key]; }

 private:
  Object target_;
};

class TypedReadTest : public ::testing::Test {};

TEST_F(TypedReadTest, BooleansAreNeverNumbersAndNumbersNeverBooleans) {
  EXPECT_EQ(as<bool>(Object(true)), true);
  EXPECT_FALSE(as<bool>(Object(1)).has_value());
  EXPECT_FALSE(as<int>(Object(true)).has_value());
  EXPECT_FALSE(as<double>(Object(false)).has_value());
  EXPECT_FALSE(as<bool>(Object("true")).has_value());
}

TEST_F(TypedReadTest, IntegersAreExactAndRangeChecked) {
  EXPECT_EQ(as<int>(Object(3.0)), 3);
  EXPECT_FALSE(as<int>(Object(3.5)).has_value());
  EXPECT_EQ(as<std::int8_t>(Object(-128)), -128);
  EXPECT_FALSE(as<std::int8_t>(Object(128)).has_value());
  EXPECT_FALSE(as<std::uint32_t>(Object(-1)).has_value());
  EXPECT_EQ(as<std::uint32_t>(Object(-0.0)), 0u);
  EXPECT_EQ(as<std::uint64_t>(Object(std::numeric_limits<std::uint64_t>::max())),
            std::numeric_limits<std::uint64_t>::max());
  EXPECT_FALSE(as<std::int64_t>(Object(std::numeric_limits<std::uint64_t>::max())).has_value());
  EXPECT_EQ(as<std::int64_t>(Object(std::numeric_limits<std::int64_t>::min())), std::numeric_limits<std::int64_t>::min());
  EXPECT_FALSE(as<std::int64_t>(Object(9223372036854775808.0)).has_value());  // 2^63
  EXPECT_FALSE(as<long>(Object(std::numeric_limits<double>::infinity())).has_value());
  EXPECT_FALSE(as<int>(Object("3")).has_value());

  const Result<std::int8_t, Error> tooBig = read<std::int8_t>(Object(1994));
  ASSERT_FALSE(tooBig.ok());
  EXPECT_EQ(tooBig.error().code(), static_cast<std::int64_t>(AccessErrorCode::OutOfRange));
  EXPECT_EQ(reason(tooBig.error()), "expected an integer from -128 to 127, found the number 1994");
  EXPECT_EQ(read<int>(Object(2.5)).error().code(), static_cast<std::int64_t>(AccessErrorCode::WrongType));
}

TEST_F(TypedReadTest, FloatingPointAndText) {
  EXPECT_EQ(as<double>(Object(std::int64_t{1} << 53)), 9007199254740992.0);
  EXPECT_EQ(as<float>(Object(0.5)), 0.5f);
  EXPECT_EQ(read<float>(Object(1e300)).error().code(), static_cast<std::int64_t>(AccessErrorCode::OutOfRange));
  EXPECT_EQ(as<std::string>(Object("héllo")), "héllo");
  EXPECT_FALSE(as<std::string>(Object(3)).has_value());
  const Object held("a text that is long enough to live on the heap");
  EXPECT_EQ(as<std::string_view>(held), "a text that is long enough to live on the heap");
  // Long texts are cut in messages, on a character boundary.
  EXPECT_EQ(reason(read<bool>(Object(std::string(39, 'x') + "é")).error()),
            "expected a boolean, found the string \"" + std::string(39, 'x') + "...\"");
}

TEST_F(TypedReadTest, NothingNullAndObject) {
  EXPECT_EQ(read<int>(Object()).error().code(), static_cast<std::int64_t>(AccessErrorCode::NoValue));
  EXPECT_EQ(reason(read<int>(Object::null()).error()), "expected an integer from -2147483648 to 2147483647, found null");
  EXPECT_FALSE(as<Object>(Object()).has_value());
  EXPECT_TRUE(as<Object>(Object::null()).has_value());
  EXPECT_EQ(as<std::optional<int>>(Object::null()), std::optional<std::optional<int>>(std::optional<int>()));
  EXPECT_EQ(as<std::optional<int>>(Object(4)), std::optional<std::optional<int>>(4));
}

class TypedWalkTest : public ::testing::Test {
 protected:
  // One title as the models hand it over: a core answer, an atom in wire
  // form, a legacy leaf and the facade's answer for one.
  const Object answer_ = json(R"({"lists": {"top": {"0": {"title": "Up", "year": 2009}}},
                                  "atom": {"$type": "atom", "value": "Up", "$expires": -1000},
                                  "leaf": {"$type": "leaf", "value": "Up"},
                                  "facade": {"value": "Up"},
                                  "boxart": {"$type": "atom", "value": {"url": "u", "w": 150}},
                                  "broken": {"$type": "error", "value": {"message": "no rights"}},
                                  "empty": {"$type": "atom"},
                                  "ref": {"$type": "ref", "value": ["videos", "v0"]},
                                  "data": {"value": 1, "other": 2},
                                  "list": [10, 20, 30]})");
};

TEST_F(TypedWalkTest, KeysWalkDictionariesArraysAndForwardingObjects) {
  EXPECT_EQ(get<std::string>(answer_, "lists", "top", 0, "title"), "Up");
  EXPECT_EQ(get<std::string>(answer_, "lists", "top", "0", "title"), "Up");
  EXPECT_EQ(get<int>(answer_, "list", 2), 30);
  EXPECT_EQ(get<int>(answer_, "list", "1"), 20);
  EXPECT_FALSE(get<int>(answer_, "list", "01").has_value());
  EXPECT_FALSE(get<int>(answer_, "list", -1).has_value());
  EXPECT_FALSE(get<int>(answer_, "list", std::size_t{3}).has_value());
  const Object reference(std::make_shared<Forwarder>(answer_["lists"]["top"]["0"]));
  const Object holder = Object::dictionary({{"top", Object::dictionary({{"0", reference}})}});
  EXPECT_EQ(get<int>(holder, "top", 0, "year"), 2009);
  EXPECT_EQ(readAt<int>(answer_, "lists.top.0.year").value(), 2009);
}

TEST_F(TypedWalkTest, EveryShapeOfOneTitleReadsTheSame) {
  for (const char* key : {"atom", "leaf", "facade"}) {
    EXPECT_EQ(get<std::string>(answer_, key), "Up") << key;
  }
  EXPECT_EQ(get<int>(answer_, "boxart", "w"), 150);  // a key the wrapper lacks is looked up in its value
  EXPECT_EQ((get<std::map<std::string, Object>>(answer_, "facade")->size()), 1u);  // maps see the dictionary
  EXPECT_FALSE(get<int>(answer_, "data").has_value());  // not a wrapper: it holds a key without "$"
  EXPECT_FALSE(get<std::vector<std::string>>(answer_, "ref").has_value());
  const Result<std::string, Error> broken = read<std::string>(answer_, "broken");
  ASSERT_FALSE(broken.ok());
  EXPECT_EQ(reason(broken.error()), "broken: found an error leaf: no rights");
  EXPECT_EQ(read<std::string>(answer_, "empty").error().code(), static_cast<std::int64_t>(AccessErrorCode::NoValue));
  const Object nested = json(R"({"value": {"$type": "atom", "value": {"value": 5}}})");
  EXPECT_EQ(as<int>(nested), 5);
}

TEST_F(TypedWalkTest, FailuresSayWhere) {
  const Result<std::string, Error> missing = read<std::string>(answer_, "lists", "top", 7, "title");
  ASSERT_FALSE(missing.ok());
  EXPECT_EQ(missing.error().code(), static_cast<std::int64_t>(AccessErrorCode::NoValue));
  EXPECT_EQ(reason(missing.error()), "lists.top.7: no value");
  EXPECT_EQ(reason(read<bool>(answer_, "lists", "top", 0, "year").error()),
            "lists.top.0.year: expected a boolean, found the number 2009");
  EXPECT_EQ(read<std::optional<int>>(answer_, "lists", "missing").value(), std::nullopt);
  EXPECT_NE(reason(readAt<int>(answer_, "list.@range(0,1)").error()).find("names many values"), std::string::npos);
}

class TypedContainerTest : public ::testing::Test {};

TEST_F(TypedContainerTest, VectorsAndMapsReadElementByElement) {
  const Object object = json(R"({"a": [1, 2], "b": [], "c": {"x": [3]}})");
  using Lists = std::map<std::string, std::vector<int>>;
  const Result<Lists, Error> lists = read<Lists>(object, "c");
  EXPECT_EQ(lists.value(), (Lists{{"x", {3}}}));
  EXPECT_EQ((as<std::unordered_map<std::string, Object>>(object)->size()), 3u);
  const Result<std::vector<std::vector<int>>, Error> nested = read<std::vector<std::vector<int>>>(json(R"([[1], [2, "x"]])"));
  EXPECT_EQ(reason(nested.error()), "[1][1]: expected an integer from -2147483648 to 2147483647, found the string \"x\"");
  EXPECT_EQ(reason(read<std::map<std::string, std::vector<int>>>(object).error()), "c: expected an array, found a dictionary of 1 entries");
  // Number keys are read by their description.
  const Object numbered = Object::dictionary({{Object(3), Object("three")}});
  EXPECT_EQ((as<std::map<std::string, std::string>>(numbered)->at("3")), "three");
}

TEST_F(TypedContainerTest, ApplicationTypesRoundTripThroughOneFunctionEach) {
  const std::vector<app::Video> videos{{"Up", 2009, std::nullopt}, {"Heat", 1995, "A Los Angeles crime saga"}};
  const Object written = toObject(videos);
  EXPECT_EQ(writeJSON(written).value(),
            R"([{"title":"Up","year":2009,"subtitle":null},{"title":"Heat","year":1995,"subtitle":"A Los Angeles crime saga"}])");
  EXPECT_EQ(as<std::vector<app::Video>>(written), videos);
  EXPECT_EQ((as<std::map<std::string, app::Video>>(Object::dictionary({{"v", toObject(videos[0])}}))->at("v")), videos[0]);

  const Result<std::vector<app::Video>, Error> refused = read<std::vector<app::Video>>(json(R"([{"title": "Up"}])"));
  EXPECT_EQ(reason(refused.error()), "[0]: the application's conversion refused a dictionary of 1 entries");
  // An application's own error passes through unchanged.
  const Result<app::Rating, Error> rating = read<app::Rating>(json(R"({"r": 9})"), "r");
  EXPECT_EQ(rating.error().domain(), "app");
  EXPECT_EQ(as<app::Rating>(Object(4.5))->stars, 4.5);
}

TEST_F(TypedContainerTest, WritingScalarsAndOptionals) {
  const std::map<std::string, std::optional<double>> values{{"a", 1.5}, {"b", std::nullopt}};
  EXPECT_EQ(writeJSON(toObject(values)).value(), R"({"a":1.5,"b":null})");
  EXPECT_TRUE(toObject(true).isBoolean());
  EXPECT_EQ(toObject(std::uint8_t{7}).description(), "7");
  EXPECT_EQ(toObject(std::string_view("x")).stringValue(), "x");
}

}  // namespace
}  // namespace brivet
