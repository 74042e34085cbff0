#include "kwqimage/DispatchQueue.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/foundation/timer.h"
#include "support/main_loop.h"

namespace kwq {
namespace {

using namespace std::chrono_literals;

TEST(DispatchQueueTest, SerialQueueRunsBlocksInOrderOnItsOwnThread) {
  auto queue = DispatchQueue::createSerial("com.example.videoCaptureQueue");
  EXPECT_EQ(queue->label(), "com.example.videoCaptureQueue");
  EXPECT_FALSE(queue->isCurrent());
  std::vector<int> order;  // touched only by the queue's thread until the sync below returns
  std::atomic<int> wrongThread{0};
  const auto caller = std::this_thread::get_id();
  std::thread::id worker;
  for (int i = 0; i < 200; ++i) {
    queue->async([&, i] {
      if (!queue->isCurrent() || std::this_thread::get_id() == caller) ++wrongThread;
      if (i == 0) worker = std::this_thread::get_id();
      if (std::this_thread::get_id() != worker) ++wrongThread;
      order.push_back(i);
    });
  }
  // sync waits for everything queued before it; inside the queue, sync runs inline.
  bool innerRan = false;
  queue->sync([&] { queue->sync([&] { innerRan = true; }); });
  EXPECT_TRUE(innerRan);
  ASSERT_EQ(order.size(), 200u);
  for (int i = 0; i < 200; ++i) EXPECT_EQ(order[i], i);
  EXPECT_EQ(wrongThread.load(), 0);
}

TEST(DispatchQueueTest, ThrowingBlockIsContainedAndDroppedHandleDrains) {
  std::atomic<int> ran{0};
  {
    auto queue = DispatchQueue::createSerial("throwing");
    queue->async([] { throw std::runtime_error("boom"); });
    queue->async([&] { ++ran; });
    queue->sync([&] { ++ran; });
    EXPECT_EQ(ran.load(), 2);
    for (int i = 0; i < 50; ++i) queue->async([&] { ++ran; });
  }  // the handle goes: queued blocks still run before the thread ends
  EXPECT_EQ(ran.load(), 52);

  // A block that drops the last handle of its own queue: the queue finishes without joining
  // itself, and blocks queued behind it still run.
  std::atomic<bool> after{false};
  auto selfOwned = DispatchQueue::createSerial("self");
  DispatchQueue* raw = selfOwned.get();
  auto holder = std::make_shared<std::shared_ptr<DispatchQueue>>(std::move(selfOwned));
  std::promise<void> gate;
  std::shared_future<void> open = gate.get_future().share();
  raw->async([holder, open] {
    open.wait();  // until the block behind this one is queued
    holder->reset();
  });
  raw->async([&] { after = true; });
  holder.reset();
  gate.set_value();
  EXPECT_TRUE(test::pumpMainContextUntil([&] { return after.load(); }, 5s));
}

TEST(DispatchQueueTest, MainQueueRunsOnThePumpingThreadInOrderAndLater) {
  DispatchQueue& main = DispatchQueue::main();
  EXPECT_TRUE(main.isCurrent());  // the test's initial thread, nobody else runs the context
  std::vector<int> order;
  std::atomic<int> offMain{0};
  std::thread poster([&] {
    EXPECT_FALSE(main.isCurrent());
    for (int i = 0; i < 100; ++i)
      main.async([&, i] {
        if (!main.isCurrent()) ++offMain;
        order.push_back(i);
      });
  });
  poster.join();
  ASSERT_TRUE(test::pumpMainContextUntil([&] { return order.size() == 100; }));
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order[i], i);
  EXPECT_EQ(offMain.load(), 0);

  // async from a main-queue block never runs inside the call; sync from the main thread runs
  // at once.
  bool inner = false, innerRanEarly = false, done = false;
  main.async([&] {
    main.async([&] { inner = true; });
    innerRanEarly = inner;
    done = true;
  });
  ASSERT_TRUE(test::pumpMainContextUntil([&] { return done && inner; }));
  EXPECT_FALSE(innerRanEarly);
  bool syncRan = false;
  main.sync([&] { syncRan = true; });
  EXPECT_TRUE(syncRan);

  // sync to the main queue from a serial queue waits for the pumping thread.
  auto queue = DispatchQueue::createSerial("VideoDataOutputQueue");
  std::atomic<bool> hopped{false}, onMain{false};
  queue->async([&] {
    main.sync([&] { onMain = main.isCurrent(); });
    hopped = true;
  });
  ASSERT_TRUE(test::pumpMainContextUntil([&] { return hopped.load(); }));
  EXPECT_TRUE(onMain.load());
}

TEST(DispatchQueueTest, GlobalPoolServesNewBlocksWhileItsThreadsWait) {
  // Blocks run at the same time, more of them waiting than the pool has threads a core on any
  // machine: a block queued behind them must still run, and so must the waiters once released.
  const int waiters = static_cast<int>(std::max(16u, 2 * std::thread::hardware_concurrency()));
  std::mutex mutex;
  std::condition_variable cv;
  bool released = false;
  std::atomic<int> waiting{0}, done{0};
  for (int i = 0; i < waiters; ++i) {
    DispatchQueue::global().async([&] {
      std::unique_lock lock(mutex);
      ++waiting;
      cv.wait(lock, [&] { return released; });
      ++done;
    });
  }
  std::atomic<bool> ran{false};
  DispatchQueue::global().async([&] { ran = true; });
  EXPECT_TRUE(test::pumpMainContextUntil([&] { return ran.load(); }, 30s));
  EXPECT_TRUE(test::pumpMainContextUntil([&] { return waiting.load() == waiters; }, 30s));
  {
    std::lock_guard lock(mutex);
    released = true;
  }
  cv.notify_all();
  ASSERT_TRUE(test::pumpMainContextUntil([&] { return done.load() == waiters; }, 60s));
}

TEST(TimerTest, RepeatsOnTheMainContextUntilInvalidated) {
  int fired = 0;
  std::shared_ptr<platform::Timer> timer;
  timer = platform::Timer::scheduledTimer(2ms, true, [&] {
    EXPECT_TRUE(DispatchQueue::main().isCurrent());
    if (++fired == 3) timer->invalidate();  // invalidating from the block itself
  });
  EXPECT_TRUE(timer->isValid());
  ASSERT_TRUE(test::pumpMainContextUntil([&] { return !timer->isValid(); }));
  // Nothing fires after invalidate: give the context time for several more intervals.
  bool waited = false;
  auto later = platform::Timer::scheduledTimer(30ms, false, [&] { waited = true; });
  ASSERT_TRUE(test::pumpMainContextUntil([&] { return waited; }));
  EXPECT_EQ(fired, 3);
  EXPECT_FALSE(later->isValid());  // a one-shot timer is spent after firing

  // Dropping the last handle stops a timer that has not fired yet.
  bool droppedFired = false;
  platform::Timer::scheduledTimer(1ms, true, [&] { droppedFired = true; }).reset();
  waited = false;
  later = platform::Timer::scheduledTimer(20ms, false, [&] { waited = true; });
  ASSERT_TRUE(test::pumpMainContextUntil([&] { return waited; }));
  EXPECT_FALSE(droppedFired);
}

}  // namespace
}  // namespace kwq
