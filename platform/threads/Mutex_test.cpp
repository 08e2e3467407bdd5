#include "platform/threads/Mutex.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include "platform/threads/SharedMutex.h"

namespace parallel::threads {
namespace {

constexpr std::chrono::seconds kDeadline{60};

class Counter {
 public:
  void add() {
    const MutexLock lock(mutex_);
    ++count_;
    changed_.notifyAll();
  }
  bool waitFor(int count) {
    MutexLock lock(mutex_);
    return changed_.waitFor(lock, kDeadline, [&]() ZKS_REQUIRES(mutex_) { return count_ >= count; });
  }
  int waitEndlesslyFor(int count) {
    MutexLock lock(mutex_);
    changed_.wait(lock, [&]() ZKS_REQUIRES(mutex_) { return count_ >= count; });
    return count_;
  }

 private:
  Mutex mutex_;
  ConditionVariable changed_;
  int count_ ZKS_GUARDED_BY(mutex_) = 0;
};

TEST(Mutex, ThreadsThatAddUnderItLoseNothing) {
  Counter counter;
  std::vector<std::jthread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&] {
      for (int j = 0; j < 1000; ++j)
        counter.add();
    });
  EXPECT_TRUE(counter.waitFor(4000));
  EXPECT_EQ(counter.waitEndlesslyFor(4000), 4000);
}

TEST(Mutex, IsTakenWhileALockHoldsIt) {
  Mutex mutex;
  MutexLock lock(mutex);
  const auto isFree = [&] {
    bool taken = false;
    std::jthread([&] {
      if (mutex.try_lock()) {
        taken = true;
        mutex.unlock();
      }
    }).join();
    return taken;
  };
  EXPECT_FALSE(isFree());
  lock.unlock();
  EXPECT_TRUE(isFree());
  lock.lock();
  EXPECT_FALSE(isFree());
}

TEST(ConditionVariable, WaitThatEndsByItsDeadlineSaysSo) {
  Mutex mutex;
  ConditionVariable changed;
  MutexLock lock(mutex);
  EXPECT_FALSE(changed.waitFor(lock, std::chrono::milliseconds(1), [] { return false; }));
  EXPECT_FALSE(changed.waitUntil(lock, std::chrono::steady_clock::now(), [] { return false; }));
  EXPECT_TRUE(changed.waitUntil(lock, std::chrono::steady_clock::now(), [] { return true; }));
}

TEST(SharedMutex, ReadersMeetAndWritersDoNot) {
  SharedMutex mutex;
  int value = 0;
  {
    const ReaderLock first(mutex);
    std::jthread([&] { const ReaderLock second(mutex); }).join();  // would hang if readers shut each other out
  }
  std::vector<std::jthread> writers;
  for (int i = 0; i < 4; ++i)
    writers.emplace_back([&] {
      for (int j = 0; j < 1000; ++j) {
        const WriterLock lock(mutex);
        ++value;
      }
    });
  writers.clear();
  EXPECT_EQ(value, 4000);
}

}  // namespace
}  // namespace parallel::threads
