#include "brivet/platform/retry_policy.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace brivet {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

class RetryPolicyTest : public ::testing::Test {
 protected:
  RetryPolicy policyWithRandom(double u) {
    RetryPolicy policy;
    policy.random = [u] { return u; };
    return policy;
  }
};

TEST_F(RetryPolicyTest, BackoffDoublesUpToTheCap) {
  RetryPolicy policy = policyWithRandom(0.0);  // no share taken off
  policy.baseDelay = milliseconds(100);
  policy.maxDelay = milliseconds(1000);
  EXPECT_EQ(policy.delayBefore(1, std::nullopt), milliseconds(100));
  EXPECT_EQ(policy.delayBefore(2, std::nullopt), milliseconds(200));
  EXPECT_EQ(policy.delayBefore(4, std::nullopt), milliseconds(800));
  EXPECT_EQ(policy.delayBefore(5, std::nullopt), milliseconds(1000));
  EXPECT_EQ(policy.delayBefore(std::numeric_limits<std::int64_t>::max(), std::nullopt), milliseconds(1000));
}

TEST_F(RetryPolicyTest, JitterTakesAtMostItsShare) {
  RetryPolicy policy = policyWithRandom(0.999);
  policy.baseDelay = milliseconds(1000);
  policy.jitter = 0.5;
  const milliseconds d = *policy.delayBefore(1, std::nullopt);
  // 1000 * (1 - 0.5 * 0.999), whole milliseconds.
  EXPECT_EQ(d, milliseconds(500));
}

TEST_F(RetryPolicyTest, NonsenseSettingsAndRandomAnswersStayInRange) {
  for (double u : {-1.0, 1.0, 7.0, std::nan("")}) {
    RetryPolicy policy = policyWithRandom(u);
    policy.baseDelay = milliseconds(100);
    policy.jitter = 3.0;
    EXPECT_EQ(policy.delayBefore(1, std::nullopt), milliseconds(100)) << u;
  }
  RetryPolicy negative = policyWithRandom(0.5);
  negative.baseDelay = milliseconds(-100);
  negative.maxDelay = milliseconds(-5);
  EXPECT_EQ(negative.delayBefore(3, std::nullopt), milliseconds(0));
}

TEST_F(RetryPolicyTest, RetryAfterIsWaitedExactlyUnlessItIsTooLong) {
  RetryPolicy policy = policyWithRandom(0.5);
  policy.maxRetryAfter = milliseconds(60000);
  EXPECT_EQ(policy.delayBefore(1, seconds(7)), milliseconds(7000));
  EXPECT_EQ(policy.delayBefore(9, seconds(0)), milliseconds(0));
  EXPECT_EQ(policy.delayBefore(1, seconds(60)), milliseconds(60000));
  EXPECT_EQ(policy.delayBefore(1, seconds(61)), std::nullopt);
}

TEST_F(RetryPolicyTest, RetryAfterTextIsReadDefensively) {
  EXPECT_EQ(parseRetryAfter(std::string_view("120")), seconds(120));
  EXPECT_EQ(parseRetryAfter(std::string_view(" \t3 ")), seconds(3));
  EXPECT_EQ(parseRetryAfter(std::string_view("0")), seconds(0));
  EXPECT_EQ(parseRetryAfter(std::string_view("99999999999999999999999999")), seconds(365LL * 24 * 3600));
  for (std::string_view bad : {"", " ", "-1", "+5", "1.5", "5s", "Wed, 21 Oct 2015 07:28:00 GMT", "1 2"}) {
    EXPECT_EQ(parseRetryAfter(bad), std::nullopt) << bad;
  }
}

TEST_F(RetryPolicyTest, RetryAfterNumbersAreReadDefensively) {
  EXPECT_EQ(parseRetryAfter(Object(5)), seconds(5));
  EXPECT_EQ(parseRetryAfter(Object(0.2)), seconds(1));
  EXPECT_EQ(parseRetryAfter(Object(1e300)), seconds(365LL * 24 * 3600));
  EXPECT_EQ(parseRetryAfter(Object(-3)), std::nullopt);
  EXPECT_EQ(parseRetryAfter(Object(std::nan(""))), std::nullopt);
  EXPECT_EQ(parseRetryAfter(Object(true)), std::nullopt);
  EXPECT_EQ(parseRetryAfter(Object()), std::nullopt);
}

}  // namespace
}  // namespace brivet
