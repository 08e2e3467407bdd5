#include "scheduler/TaskSlots.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

#include "execution/testing/waiting.h"

namespace parallel::scheduler {
namespace {

using execution::testing::eventually;
using execution::testing::kDeadline;

// Waits for a slot on a thread of its own.
class Contender {
 public:
  explicit Contender(TaskSlots& slots) {
    const std::size_t before = slots.waitingCount();
    result_ = std::async(std::launch::async, [&slots, token = stop_.get_token()] { return slots.acquire(token); });
    EXPECT_TRUE(eventually([&] { return slots.waitingCount() == before + 1; }));
  }
  void stop() { stop_.request_stop(); }
  bool isServed() const { return result_.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }
  TaskSlots::Slot slot() {
    EXPECT_EQ(result_.wait_for(kDeadline), std::future_status::ready);
    return result_.get();
  }

 private:
  std::stop_source stop_;
  std::future<TaskSlots::Slot> result_;
};

TEST(TaskSlots, FreeSlotsAreTakenAtOnceAndComeBack) {
  TaskSlots slots(2);
  {
    const auto first = slots.acquire({});
    const auto second = slots.acquire({});
    EXPECT_TRUE(first);
    EXPECT_TRUE(second);
    EXPECT_EQ(slots.freeCount(), 0U);
  }
  EXPECT_EQ(slots.freeCount(), 2U);
}

TEST(TaskSlots, OneThatIsNotFreeIsNotWaitedFor) {
  TaskSlots slots(1);
  auto held = slots.tryAcquire();
  EXPECT_TRUE(held);
  EXPECT_FALSE(slots.tryAcquire());
  EXPECT_EQ(slots.waitingCount(), 0U);
  held.release();
  EXPECT_TRUE(slots.tryAcquire());
}

TEST(TaskSlots, NoSlotsAtAllIsAMistake) {
  EXPECT_THROW(TaskSlots(0), std::invalid_argument);
}

TEST(TaskSlots, WaitersAreServedInTheOrderOfComing) {
  TaskSlots slots(1);
  auto held = slots.acquire({});
  Contender first(slots);
  Contender second(slots);
  Contender third(slots);
  held.release();
  auto firstSlot = first.slot();
  EXPECT_TRUE(firstSlot);
  EXPECT_FALSE(second.isServed());
  EXPECT_FALSE(third.isServed());
  EXPECT_EQ(slots.waitingCount(), 2U);
  firstSlot.release();
  auto secondSlot = second.slot();
  EXPECT_TRUE(secondSlot);
  EXPECT_EQ(slots.waitingCount(), 1U);
  secondSlot.release();
  EXPECT_TRUE(third.slot());
  EXPECT_EQ(slots.freeCount(), 1U);
}

TEST(TaskSlots, WaiterThatIsStoppedLeavesTheQueueAndTheNextMovesUp) {
  TaskSlots slots(1);
  auto held = slots.acquire({});
  Contender first(slots);
  Contender second(slots);
  first.stop();
  EXPECT_FALSE(first.slot());
  EXPECT_EQ(slots.waitingCount(), 1U);
  held.release();
  EXPECT_TRUE(second.slot());
  EXPECT_EQ(slots.freeCount(), 1U);
}

TEST(TaskSlots, StopRequestedBeforeGivesNoSlotEvenIfOneIsFree) {
  TaskSlots slots(1);
  std::stop_source stop;
  stop.request_stop();
  EXPECT_FALSE(slots.acquire(stop.get_token()));
  EXPECT_EQ(slots.freeCount(), 1U);
}

TEST(TaskSlots, SlotMovesWithItsOwner) {
  TaskSlots slots(2);
  auto slot = slots.acquire({});
  TaskSlots::Slot other = std::move(slot);
  EXPECT_TRUE(other);
  slot = slots.acquire({});
  slot = std::move(other);  // gives its own back
  EXPECT_EQ(slots.freeCount(), 1U);
  slot.release();
  slot.release();
  EXPECT_EQ(slots.freeCount(), 2U);
}

TEST(TaskSlots, ManyThreadsWithStopsNeverExceedTheCountAndLoseNoSlot) {
  constexpr int kSlots = 3;
  TaskSlots slots(kSlots);
  std::atomic<int> inside{0};
  std::atomic<bool> exceeded{false};
  std::vector<std::thread> threads;
  for (unsigned seed = 0; seed < 8; ++seed) {
    threads.emplace_back([&, seed] {
      std::minstd_rand random(seed + 1);
      for (int round = 0; round < 300; ++round) {
        std::stop_source stop;
        std::thread stopper;
        if (random() % 2 == 0)
          stopper = std::thread([&stop] { stop.request_stop(); });
        if (const auto slot = slots.acquire(stop.get_token())) {
          if (++inside > kSlots)
            exceeded = true;
          std::this_thread::yield();
          --inside;
        }
        if (stopper.joinable())
          stopper.join();
      }
    });
  }
  for (auto& thread : threads)
    thread.join();
  EXPECT_FALSE(exceeded);
  EXPECT_EQ(slots.freeCount(), static_cast<std::size_t>(kSlots));
  EXPECT_EQ(slots.waitingCount(), 0U);
}

}  // namespace
}  // namespace parallel::scheduler
