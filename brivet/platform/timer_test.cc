#include "brivet/platform/timer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <vector>

#include "brivet/platform/dispatch_queue.h"

namespace brivet {
namespace {

using std::chrono::milliseconds;

class SystemTimerTest : public ::testing::Test {
 protected:
  const std::shared_ptr<Timer>& timer = Timer::system();
};

TEST_F(SystemTimerTest, RunsBlocksOnTheirQueueInDeadlineOrder) {
  std::vector<int> order;  // touched only on the main queue
  timer->schedule(milliseconds(30), DispatchQueue::main(), [&] { order.push_back(2); });
  timer->schedule(milliseconds(1), DispatchQueue::main(), [&] { order.push_back(1); });
  timer->schedule(milliseconds(-5), DispatchQueue::main(), [&] { order.push_back(0); });
  ASSERT_TRUE(DispatchQueue::main()->runUntil([&] { return order.size() == 3; }, milliseconds(5000)));
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
}

TEST_F(SystemTimerTest, ACancelledBlockNeverRunsAndIsReleased) {
  auto held = std::make_shared<int>(7);
  std::weak_ptr<int> watch = held;
  bool ran = false;
  bool later = false;
  std::shared_ptr<TimerHandle> handle =
      timer->schedule(milliseconds(10), DispatchQueue::main(), [&ran, held] { ran = *held == 7; });
  held.reset();
  handle->cancel();
  EXPECT_TRUE(watch.expired());
  // A block scheduled after it with a longer delay has run by the time we look.
  timer->schedule(milliseconds(20), DispatchQueue::main(), [&] { later = true; });
  ASSERT_TRUE(DispatchQueue::main()->runUntil([&] { return later; }, milliseconds(5000)));
  EXPECT_FALSE(ran);
}

TEST_F(SystemTimerTest, AnAbsurdDelayIsAcceptedAndCancellable) {
  std::shared_ptr<TimerHandle> handle =
      timer->schedule(milliseconds::max(), DispatchQueue::main(), [] { ADD_FAILURE() << "ran"; });
  handle->cancel();
}

}  // namespace
}  // namespace brivet
