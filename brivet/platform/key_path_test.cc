#include "brivet/platform/key_path.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace brivet {
namespace {

using namespace brivet::literals;
using detail::KeyPathProblem;

// The checks run in constant evaluation: these are what the compiler refuses.
static_assert(detail::checkKeyPath("lists.top.@range(0,9).title").problem == KeyPathProblem::None);
static_assert(detail::checkKeyPath("").problem == KeyPathProblem::Empty);
static_assert(detail::checkKeyPath("a..b").component == 1);
static_assert(detail::checkKeyPath("a.@range(1,2)x").problem == KeyPathProblem::MalformedRange);
static_assert(detail::checkKeyPath("@Range(1,2)").problem == KeyPathProblem::RangeNotLowerCase);
static_assert(detail::checkKeyPath("a.@range(0,2147483648)").problem == KeyPathProblem::RangeTooLarge);

std::string messageOf(const Result<KeyPath, Error>& r) {
  EXPECT_FALSE(r.ok());
  if (r.ok()) return "";
  EXPECT_EQ(r.error().domain(), kAccessErrorDomain);
  EXPECT_EQ(r.error().code(), static_cast<std::int64_t>(AccessErrorCode::InvalidKeyPath));
  return r.error().localizedDescription();
}

class KeyPathTest : public ::testing::Test {};

TEST_F(KeyPathTest, LiteralsAndParsedTextAgree) {
  const KeyPath literal = "lists.top.@range(0,9).title";
  const Result<KeyPath, Error> parsed = KeyPath::parse("lists.top.@range(0,9).title");
  ASSERT_TRUE(parsed.ok());
  EXPECT_EQ(literal, parsed.value());
  EXPECT_EQ("lists.top.@range(0,9).title"_path, literal);
  EXPECT_EQ(literal.components(), (std::vector<std::string_view>{"lists", "top", "@range(0,9)", "title"}));
  EXPECT_TRUE(literal.hasRange());
  EXPECT_FALSE(KeyPath("videos.123.title").hasRange());
  // Where key-path strings are taken.
  const std::vector<std::string> strings{"a.b"_path, KeyPath("c")};
  EXPECT_EQ(strings, (std::vector<std::string>{"a.b", "c"}));
}

TEST_F(KeyPathTest, CopiesOfRunTimeTextShareIt) {
  std::string text = "videos.v1.title";
  KeyPath copy = "x";
  {
    const KeyPath parsed = KeyPath::parse(text).value();
    copy = parsed;
    KeyPath moved = std::move(copy);
    copy = moved;
  }
  text.assign("changed");
  EXPECT_EQ(copy.text(), "videos.v1.title");
}

TEST_F(KeyPathTest, ParseNamesTheComponentAndTheRule) {
  EXPECT_EQ(messageOf(KeyPath::parse("")), "invalid key path \"\": a key path needs at least one key");
  EXPECT_EQ(messageOf(KeyPath::parse("a..b")),
            "invalid key path \"a..b\": component 2 (\"\") is empty (a doubled, leading or trailing \".\")");
  EXPECT_NE(messageOf(KeyPath::parse(".a")).find("component 1"), std::string::npos);
  EXPECT_NE(messageOf(KeyPath::parse("a.")).find("component 2"), std::string::npos);
  EXPECT_NE(messageOf(KeyPath::parse("list.@range(1, 2)")).find("(\"@range(1, 2)\") mentions \"@range\""),
            std::string::npos);
  EXPECT_NE(messageOf(KeyPath::parse("x@range(1,2)")).find("mentions"), std::string::npos);
  EXPECT_NE(messageOf(KeyPath::parse("list.@range(1,2)x")).find("mentions"), std::string::npos);
  EXPECT_NE(messageOf(KeyPath::parse("@range(a,b)")).find("mentions"), std::string::npos);
  EXPECT_NE(messageOf(KeyPath::parse("@range(99999999999999999999,1)")).find("mentions"), std::string::npos);
  EXPECT_NE(messageOf(KeyPath::parse("list.@RANGE(1,2)")).find("lower case"), std::string::npos);
  EXPECT_NE(messageOf(KeyPath::parse("list.@range(5,2)")).find("ends before it starts"), std::string::npos);
  EXPECT_NE(messageOf(KeyPath::parse("list.@range(0,2147483648)")).find("2147483647"), std::string::npos);
  EXPECT_NE(messageOf(KeyPath::parse("a.\xff")).find("not UTF-8"), std::string::npos);
  EXPECT_NE(messageOf(KeyPath::parse("a.\xed\xa0\x80")).find("not UTF-8"), std::string::npos);  // a surrogate
  EXPECT_NE(messageOf(KeyPath::parse("a.\xc0\xaf")).find("not UTF-8"), std::string::npos);      // overlong
  std::string longest;
  for (int i = 0; i < 512; ++i) longest += i == 0 ? "a" : ".a";
  EXPECT_TRUE(KeyPath::parse(longest).ok());
  EXPECT_NE(messageOf(KeyPath::parse(longest + ".a")).find("component 513"), std::string::npos);
  // Text that only resembles the grammar is text.
  EXPECT_TRUE(KeyPath::parse("videos.-1.@*.r@nge(1,2).\xc3\xa9t\xc3\xa9").ok());
  EXPECT_TRUE(KeyPath::parse("@range(0,0).@range(2147483647,2147483647)").ok());
}

TEST_F(KeyPathTest, BuilderChecksEachKey) {
  const Result<KeyPath, Error> built = path("lists", "top", range(0, 9), "title");
  ASSERT_TRUE(built.ok());
  EXPECT_EQ(built.value(), KeyPath("lists.top.@range(0,9).title"));
  EXPECT_EQ(path("videos", 42, std::string("title")).value(), KeyPath("videos.42.title"));
  EXPECT_EQ(path(std::uint64_t{18446744073709551615u}, std::int64_t{-1}, short{7}).value().text(),
            "18446744073709551615.-1.7");
  EXPECT_EQ(path("a"_path, "b", KeyPath("c.d")).value(), KeyPath("a.b.c.d"));

  EXPECT_NE(messageOf(path("videos", std::string("v1.title"))).find("cannot hold \".\""), std::string::npos);
  EXPECT_NE(messageOf(path("videos", "")).find("cannot be empty"), std::string::npos);
  EXPECT_NE(messageOf(path("videos", "@RANGE(0,1)")).find("use range(from, to)"), std::string::npos);
  EXPECT_NE(messageOf(path("videos", "\xff")).find("not UTF-8"), std::string::npos);
  EXPECT_NE(messageOf(path("videos", range(3, 2))).find("ends before it starts"), std::string::npos);
  EXPECT_NE(messageOf(path("videos", range(-1, 2))).find("negative"), std::string::npos);
  EXPECT_NE(messageOf(path("videos", range(0, 2147483648))).find("2147483647"), std::string::npos);
  // The first refusal is the one reported.
  EXPECT_NE(messageOf(path("a.b", "")).find("\"a.b\""), std::string::npos);

  KeyPathBuilder many;
  for (int i = 0; i < 513; ++i) many.add(i);
  EXPECT_NE(messageOf(many.build()).find("more than 512"), std::string::npos);
  EXPECT_NE(messageOf(KeyPathBuilder().build()).find("at least one key"), std::string::npos);
}

}  // namespace
}  // namespace brivet
