// Shares of one value: what a write through one of them shows, and many threads at once.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <barrier>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "platform/array/qxArray.h"

using testing::ElementsAre;
using Dimensions = std::vector<std::size_t>;

namespace {

qxArrayPtr numbers(std::size_t count) {
  qxArrayPtr array = qxCreateNumericArray(Dimensions{count}, qxClass::Int32);
  const auto elements = qxGetWritableElements<std::int32_t>(array.get());
  std::iota(elements.begin(), elements.end(), 0);
  return array;
}

std::int32_t first(const qxArray* array) {
  return qxGetElements<std::int32_t>(array)[0];
}

void setFirst(qxArray* array, std::int32_t value) {
  qxGetWritableElements<std::int32_t>(array)[0] = value;
}

}  // namespace

TEST(CopyOnWrite, SharesSeeTheSameMemory) {
  const qxArrayPtr array = numbers(4);
  const qxArrayPtr share = qxCreateSharedCopy(array.get());
  EXPECT_EQ(qxGetData(array.get()), qxGetData(share.get()));
}

TEST(CopyOnWrite, WriteThroughOneShareIsNotSeenByTheOther) {
  const qxArrayPtr array = numbers(4);
  const qxArrayPtr share = qxCreateSharedCopy(array.get());
  setFirst(share.get(), 9);
  EXPECT_THAT(qxGetElements<std::int32_t>(array.get()), ElementsAre(0, 1, 2, 3));
  EXPECT_THAT(qxGetElements<std::int32_t>(share.get()), ElementsAre(9, 1, 2, 3));
}

TEST(CopyOnWrite, OnlyShareIsWrittenInPlace) {
  const qxArrayPtr array = numbers(4);
  const void* data = qxGetData(array.get());
  EXPECT_EQ(qxGetWritableData(array.get()), data);
  qxCreateSharedCopy(array.get()).reset();
  EXPECT_EQ(qxGetWritableData(array.get()), data);
}

TEST(CopyOnWrite, AfterTheCopyBothAreWrittenInPlace) {
  const qxArrayPtr array = numbers(4);
  const qxArrayPtr share = qxCreateSharedCopy(array.get());
  const void* original = qxGetData(array.get());
  const void* copy = qxGetWritableData(share.get());
  EXPECT_NE(copy, original);
  EXPECT_EQ(qxGetWritableData(share.get()), copy);
  EXPECT_EQ(qxGetWritableData(array.get()), original);
}

TEST(CopyOnWrite, LargeArraysAreCopiedToo) {
  const qxArrayPtr array = numbers(2000000);
  const qxArrayPtr share = qxCreateSharedCopy(array.get());
  setFirst(share.get(), 9);
  EXPECT_EQ(first(array.get()), 0);
  EXPECT_EQ(qxGetElements<std::int32_t>(share.get())[1999999], 1999999);
}

TEST(CopyOnWrite, ListWrittenThroughOneShareKeepsTheOther) {
  const qxArrayPtr list = qxCreateListArray(Dimensions{2});
  qxSetListElement(list.get(), 0, numbers(2));
  const qxArrayPtr share = qxCreateSharedCopy(list.get());
  qxSetListElement(share.get(), 0, numbers(3));
  qxSetListElement(share.get(), 1, numbers(1));
  EXPECT_EQ(qxGetNumberOfElements(qxGetListElement(list.get(), 0)), 2U);
  EXPECT_EQ(qxGetListElement(list.get(), 1), nullptr);
  EXPECT_EQ(qxGetNumberOfElements(qxGetListElement(share.get(), 0)), 3U);
}

TEST(CopyOnWrite, CopiedListSharesTheElementsThatWereNotWritten) {
  const qxArrayPtr list = qxCreateListArray(Dimensions{2});
  qxSetListElement(list.get(), 0, numbers(2));
  const qxArrayPtr share = qxCreateSharedCopy(list.get());
  qxSetListElement(share.get(), 1, numbers(1));
  EXPECT_EQ(qxGetData(qxGetListElement(list.get(), 0)), qxGetData(qxGetListElement(share.get(), 0)));
}

TEST(CopyOnWrite, StructWrittenThroughOneShareKeepsTheOther) {
  const std::vector<std::string> names{"x"};
  const qxArrayPtr array = qxCreateStructArray({}, names);
  qxSetField(array.get(), 0, "x", numbers(2));
  const qxArrayPtr share = qxCreateSharedCopy(array.get());
  qxSetField(share.get(), 0, "x", numbers(3));
  qxAddField(share.get(), "y");
  EXPECT_EQ(qxGetNumberOfElements(qxGetField(array.get(), 0, "x")), 2U);
  EXPECT_FALSE(qxHasField(array.get(), "y"));
}

TEST(CopyOnWrite, ValueTakenOutOfAListIsIndependentOfIt) {
  const qxArrayPtr list = qxCreateListArray({});
  qxSetListElement(list.get(), 0, numbers(2));
  const qxArrayPtr taken = qxCreateSharedCopy(qxGetListElement(list.get(), 0));
  setFirst(taken.get(), 9);
  EXPECT_EQ(first(qxGetListElement(list.get(), 0)), 0);
}

// --- Threads ---

namespace {

constexpr int kThreads = 4;

// A share for each thread.
std::array<qxArrayPtr, kThreads> sharesOf(const qxArrayPtr& original) {
  std::array<qxArrayPtr, kThreads> shares;
  for (qxArrayPtr& share : shares)
    share = qxCreateSharedCopy(original.get());
  return shares;
}

// Runs `body(thread)` on kThreads threads that start together.
template <class Body>
void onThreads(Body body) {
  std::barrier start(kThreads);
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&start, &body, thread] {
      start.arrive_and_wait();
      body(thread);
    });
  }
}

}  // namespace

TEST(CopyOnWriteThreads, EachThreadWritesItsOwnShareOnly) {
  for (int round = 0; round < 200; ++round) {
    const qxArrayPtr original = numbers(64);
    std::array<qxArrayPtr, kThreads> shares = sharesOf(original);
    onThreads([&](int thread) {
      qxArray* mine = shares[static_cast<std::size_t>(thread)].get();
      EXPECT_EQ(first(mine), 0);
      setFirst(mine, thread + 1);
      EXPECT_EQ(first(mine), thread + 1);
    });
    EXPECT_EQ(first(original.get()), 0);
  }
}

// Reading a share and making others of it changes nothing in it.
TEST(CopyOnWriteThreads, OneShareIsReadAndSharedByAllThreads) {
  const qxArrayPtr scalar = qxCreateScalar(5);
  const qxArrayPtr original = numbers(64);
  const qxArrayPtr structure = qxCreateStructWithNames({}, qxMakeFieldNames(std::vector<std::string>{"x"}));
  onThreads([&](int thread) {
    for (int i = 0; i < 500; ++i) {
      const qxArrayPtr mine = qxCreateSharedCopy(original.get());
      setFirst(mine.get(), thread + 1);
      EXPECT_EQ(first(original.get()), 0);
      EXPECT_EQ(qxGetElements<double>(qxCreateSharedCopy(scalar.get()).get())[0], 5);
      const qxArrayPtr own = qxCreateSharedCopy(structure.get());
      qxSetField(own.get(), 0, "y", qxCreateScalar(thread));
      EXPECT_FALSE(qxHasField(structure.get(), "y"));
    }
  });
}

// All shares are given to the threads, so the last one writes in place what the others have read and given up.
TEST(CopyOnWriteThreads, LastShareWritesInPlaceAfterOthersRead) {
  for (int round = 0; round < 500; ++round) {
    qxArrayPtr original = numbers(16);
    std::array<qxArrayPtr, kThreads> shares = sharesOf(original);
    original.reset();
    onThreads([&](int thread) {
      qxArrayPtr mine = std::move(shares[static_cast<std::size_t>(thread)]);
      EXPECT_EQ(first(mine.get()), 0);
      if (thread % 2 == 0)
        setFirst(mine.get(), thread + 1);
    });
  }
}

TEST(CopyOnWriteThreads, SharesAreMadeAndEndedByAllThreadsAtOnce) {
  int released = 0;
  std::vector<double> memory(32, 1.0);
  {
    const qxArrayPtr original =
        qxAdoptArray(Dimensions{32}, qxClass::Float64, false, memory.data(), true, [&released] { ++released; });
    const std::array<qxArrayPtr, kThreads> starts = sharesOf(original);
    onThreads([&](int thread) {
      const qxArray* mine = starts[static_cast<std::size_t>(thread)].get();
      for (int i = 0; i < 2000; ++i) {
        const qxArrayPtr share = qxCreateSharedCopy(mine);
        EXPECT_EQ(qxGetElements<double>(share.get())[31], 1.0);
        if (i % 100 == 0)
          qxGetWritableElements<double>(share.get())[31] = 2.0;
      }
    });
  }
  EXPECT_EQ(released, 1);
  EXPECT_EQ(memory[31], 1.0);
}

TEST(CopyOnWriteThreads, AdoptedMemoryIsReleasedOnceByWhicheverThreadIsLast) {
  for (int round = 0; round < 300; ++round) {
    std::atomic<int> released{0};
    std::int32_t number = 5;
    qxArrayPtr original =
        qxAdoptArray({}, qxClass::Int32, false, &number, false, [&released] { released.fetch_add(1); });
    std::array<qxArrayPtr, kThreads> shares = sharesOf(original);
    original.reset();
    onThreads([&](int thread) {
      qxArrayPtr mine = std::move(shares[static_cast<std::size_t>(thread)]);
      if (thread % 2 == 0)
        setFirst(mine.get(), 6);
    });
    EXPECT_EQ(released, 1);
    EXPECT_EQ(number, 5);
  }
}

TEST(CopyOnWriteThreads, NestedValuesAreSharedSafely) {
  for (int round = 0; round < 100; ++round) {
    qxArrayPtr original = qxCreateListArray(Dimensions{8});
    for (std::size_t i = 0; i < 8; ++i)
      qxSetListElement(original.get(), i, numbers(4));
    std::array<qxArrayPtr, kThreads> shares = sharesOf(original);
    original.reset();
    onThreads([&](int thread) {
      qxArrayPtr mine = std::move(shares[static_cast<std::size_t>(thread)]);
      for (std::size_t i = 0; i < 8; ++i) {
        qxArrayPtr element = qxCreateSharedCopy(qxGetListElement(mine.get(), i));
        setFirst(element.get(), thread);
        qxSetListElement(mine.get(), i, std::move(element));
      }
      for (std::size_t i = 0; i < 8; ++i)
        EXPECT_EQ(first(qxGetListElement(mine.get(), i)), thread);
    });
  }
}
