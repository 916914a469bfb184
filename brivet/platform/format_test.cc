#include "brivet/platform/format.h"

#include <gtest/gtest.h>

#include "brivet/platform/error.h"

namespace brivet {
namespace {

TEST(FormatTest, ObjectSpecifierAndIntegers) {
  EXPECT_EQ(formatString("getKeyPaths: missedKeyPaths %ld", 3), "getKeyPaths: missedKeyPaths 3");
  EXPECT_EQ(formatString("path = %@", Object::array({"a.b", "c"})), "path = (a.b, c)");
  EXPECT_EQ(formatString("%@ and %@", Object(), "text"), "(null) and text");
  EXPECT_EQ(formatString("miss=%lu, signed=%d", static_cast<std::size_t>(1), -4), "miss=1, signed=-4");
  EXPECT_EQ(formatString("%d", Object(7.9)), "7");  // an object's number for %d
  EXPECT_EQ(formatString("%@", 2.5), "2.5");        // a number for %@
  EXPECT_EQ(formatString("100%% sure"), "100% sure");
}

TEST(FormatTest, FloatsWidthsAndOddInput) {
  EXPECT_EQ(formatString("%f millisecond(s)", 1.5), "1.500000 millisecond(s)");
  EXPECT_EQ(formatString("[%5d|%-4@]", 42, "ab"), "[   42|ab  ]");
  EXPECT_EQ(formatString("no args: %d %@"), "no args:  ");
  EXPECT_EQ(formatString("dangling %"), "dangling %");
  EXPECT_EQ(formatString("%k unknown", 1), "%k unknown");
  const Error error = Error::withDescription("D", 1, "boom");
  EXPECT_EQ(formatString("error %@", error), "error Error Domain=D Code=1 \"boom\" UserInfo={localizedDescription = boom;}");
}

}  // namespace
}  // namespace brivet
