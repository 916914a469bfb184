#include "brivet/platform/dispatch_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace brivet {
namespace {

using namespace std::chrono_literals;

constexpr int kThreads = 8;
constexpr int kPerThread = 400;

void fromThreads(int count, const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  for (int t = 0; t < count; ++t) threads.emplace_back(body, t);
  for (auto& thread : threads) thread.join();
}

bool waitFor(const std::function<bool()>& done) { return DispatchQueue::main()->runUntil(done, 20s); }

TEST(DispatchQueueTest, SerialQueueRunsOneBlockAtATimeInSubmissionOrder) {
  auto queue = DispatchQueue::serial("test.serial");
  std::atomic<int> inFlight{0};
  std::atomic<bool> overlapped{false};
  std::atomic<int> done{0};
  std::vector<int> lastSeen(kThreads, -1);  // touched only on the queue
  std::atomic<bool> outOfOrder{false};
  fromThreads(kThreads, [&](int t) {
    for (int i = 0; i < kPerThread; ++i) {
      queue->async([&, t, i] {
        if (inFlight.fetch_add(1) != 0) overlapped = true;
        if (lastSeen[t] != i - 1) outOfOrder = true;
        lastSeen[t] = i;
        inFlight.fetch_sub(1);
        done.fetch_add(1);
      });
    }
  });
  ASSERT_TRUE(waitFor([&] { return done.load() == kThreads * kPerThread; }));
  EXPECT_FALSE(overlapped);
  EXPECT_FALSE(outOfOrder);
}

TEST(DispatchQueueTest, BarrierNeverOverlapsAndLaterBlocksWaitForIt) {
  auto queue = DispatchQueue::concurrent("test.concurrent");
  std::atomic<int> readers{0};
  std::atomic<bool> barrierRunning{false};
  std::atomic<bool> violation{false};
  std::atomic<int> done{0};
  std::vector<std::atomic<int>> written(kThreads);
  fromThreads(kThreads, [&](int t) {
    for (int i = 0; i < kPerThread; ++i) {
      if (i % 10 == 0) {
        queue->asyncBarrier([&, t, i] {
          if (barrierRunning.exchange(true) || readers.load() != 0) violation = true;
          written[t] = i;
          std::this_thread::yield();
          barrierRunning = false;
          done.fetch_add(1);
        });
      } else {
        queue->async([&, t, i] {
          readers.fetch_add(1);
          if (barrierRunning.load()) violation = true;
          // Blocks queued after a barrier see its write.
          if (written[t].load() != i - i % 10) violation = true;
          readers.fetch_sub(1);
          done.fetch_add(1);
        });
      }
    }
  });
  ASSERT_TRUE(waitFor([&] { return done.load() == kThreads * kPerThread; }));
  EXPECT_FALSE(violation);
}

TEST(DispatchQueueTest, SyncSeesTheWritesOfEarlierBarriers) {
  auto queue = DispatchQueue::concurrent("test.sync");
  std::vector<int> values(kThreads, 0);  // written in barriers, read in sync blocks
  std::atomic<bool> stale{false};
  fromThreads(kThreads, [&](int t) {
    for (int i = 1; i <= kPerThread; ++i) {
      queue->asyncBarrier([&, t, i] { values[t] = i; });
      queue->sync([&] {
        if (values[t] != i) stale = true;
      });
    }
  });
  EXPECT_FALSE(stale);
  int total = 0;
  queue->syncBarrier([&] {
    for (int v : values) total += v;
  });
  EXPECT_EQ(total, kThreads * kPerThread);
}

TEST(DispatchQueueTest, SyncReportsWhereItRuns) {
  auto serial = DispatchQueue::serial("test.current");
  auto concurrent = DispatchQueue::concurrent("test.nested");
  bool nestedRan = false;
  serial->sync([&] {
    EXPECT_TRUE(serial->isCurrent());
    concurrent->sync([&] {
      EXPECT_TRUE(concurrent->isCurrent());
      concurrent->sync([&] { nestedRan = true; });  // a nested read runs at once
    });
  });
  EXPECT_TRUE(nestedRan);
  EXPECT_FALSE(serial->isCurrent());
}

TEST(DispatchQueueTest, SyncIfIdleRunsOnlyWhenNothingHoldsTheQueue) {
  auto serial = DispatchQueue::serial("test.idle");
  const std::thread::id caller = std::this_thread::get_id();
  bool ranHere = false;
  EXPECT_TRUE(serial->syncIfIdle([&] { ranHere = serial->isCurrent() && std::this_thread::get_id() == caller; }));
  EXPECT_TRUE(ranHere);

  // A running block makes the queue busy: nothing runs, nothing is queued.
  std::atomic<bool> release{false};
  std::atomic<bool> started{false};
  serial->async([&] {
    started = true;
    while (!release) std::this_thread::yield();
  });
  while (!started) std::this_thread::yield();
  bool ran = false;
  EXPECT_FALSE(serial->syncIfIdle([&] { ran = true; }));
  release = true;
  serial->sync([] {});
  EXPECT_FALSE(ran);

  // Nested on the queue it runs on, and on the main queue: never.
  serial->sync([&] { EXPECT_FALSE(serial->syncIfIdle([&] { ran = true; })); });
  EXPECT_FALSE(DispatchQueue::main()->syncIfIdle([&] { ran = true; }));
  EXPECT_FALSE(ran);
}

TEST(DispatchQueueTest, SyncIfIdleHoldsBackWhatIsQueuedWhileItRuns) {
  auto serial = DispatchQueue::serial("test.idle.order");
  std::vector<int> order;  // touched by one block at a time
  std::atomic<bool> queued{false};
  ASSERT_TRUE(serial->syncIfIdle([&] {
    std::thread([&] {
      serial->async([&] { order.push_back(2); });
      queued = true;
    }).join();
    order.push_back(1);
  }));
  ASSERT_TRUE(queued);
  serial->sync([] {});
  EXPECT_EQ(order, (std::vector<int>{1, 2}));

  // A concurrent queue admits it beside readers, not beside a barrier.
  auto concurrent = DispatchQueue::concurrent("test.idle.concurrent");
  concurrent->sync([&] {
    std::thread([&] { EXPECT_TRUE(concurrent->syncIfIdle([] {})); }).join();
  });
  std::atomic<bool> release{false};
  std::atomic<bool> started{false};
  concurrent->asyncBarrier([&] {
    started = true;
    while (!release) std::this_thread::yield();
  });
  while (!started) std::this_thread::yield();
  EXPECT_FALSE(concurrent->syncIfIdle([] {}));
  release = true;
  concurrent->syncBarrier([] {});
}

TEST(DispatchQueueTest, QueueOutlivesItsOwnerWhileItHasWork) {
  std::atomic<int> ran{0};
  {
    auto queue = DispatchQueue::serial("test.orphan");
    for (int i = 0; i < 100; ++i) queue->async([&] { ran.fetch_add(1); });
  }
  ASSERT_TRUE(waitFor([&] { return ran.load() == 100; }));
}

TEST(DispatchQueueTest, BlockedWorkersDoNotStarveThePool) {
  // Many blocks wait in sync behind a barrier that itself waits for a block
  // submitted last: the pool must grow past its width rather than deadlock.
  auto shared = DispatchQueue::concurrent("test.shared");
  auto late = DispatchQueue::serial("test.late");
  std::atomic<bool> released{false};
  std::atomic<int> finished{0};
  shared->asyncBarrier([&] {
    while (!released.load()) std::this_thread::sleep_for(1ms);
  });
  std::vector<std::shared_ptr<DispatchQueue>> waiters;
  for (int i = 0; i < 16; ++i) {
    waiters.push_back(DispatchQueue::serial("test.waiter"));
    waiters.back()->async([&] {
      shared->sync([] {});
      finished.fetch_add(1);
    });
  }
  std::this_thread::sleep_for(20ms);
  late->async([&] { released = true; });
  ASSERT_TRUE(waitFor([&] { return finished.load() == 16; }));
}

TEST(MainQueueTest, DeliversInSubmissionOrderWhenRun) {
  std::vector<std::vector<int>> seen(kThreads);  // touched only on the main queue
  std::atomic<int> submitted{0};
  fromThreads(kThreads, [&](int t) {
    for (int i = 0; i < 200; ++i) {
      DispatchQueue::main()->async([&, t, i] { seen[t].push_back(i); });
      submitted.fetch_add(1);
    }
  });
  DispatchQueue::main()->drain();
  for (int t = 0; t < kThreads; ++t) {
    ASSERT_EQ(seen[t].size(), 200u);
    for (int i = 0; i < 200; ++i) ASSERT_EQ(seen[t][i], i);
  }
}

TEST(MainQueueTest, SyncFromAnotherThreadRunsWhenTheMainQueueIsDriven) {
  std::atomic<bool> ranOnMain{false};
  std::thread worker([&] {
    DispatchQueue::main()->sync([&] { ranOnMain = DispatchQueue::main()->isCurrent(); });
  });
  EXPECT_TRUE(waitFor([&] { return ranOnMain.load(); }));
  worker.join();
  EXPECT_FALSE(DispatchQueue::main()->runUntil([] { return false; }, 5ms));
}

class RecordingExecutor final : public MainQueueExecutor {
 public:
  void post(std::function<void()> block) override {
    std::lock_guard<std::mutex> lock(mu);
    blocks.push_back(std::move(block));
  }
  void runAll() {
    std::vector<std::function<void()>> taken;
    {
      std::lock_guard<std::mutex> lock(mu);
      taken.swap(blocks);
    }
    for (auto& block : taken) block();
  }
  std::mutex mu;
  std::vector<std::function<void()>> blocks;
};

TEST(MainQueueTest, InstalledExecutorReceivesWaitingAndNewBlocks) {
  std::vector<int> order;
  DispatchQueue::main()->async([&] { order.push_back(1); });
  auto executor = std::make_shared<RecordingExecutor>();
  DispatchQueue::setMainExecutor(executor);
  DispatchQueue::main()->async([&] {
    EXPECT_TRUE(DispatchQueue::main()->isCurrent());
    order.push_back(2);
  });
  EXPECT_EQ(DispatchQueue::main()->drain(), 0u);
  executor->runAll();
  DispatchQueue::setMainExecutor(nullptr);
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

}  // namespace
}  // namespace brivet
