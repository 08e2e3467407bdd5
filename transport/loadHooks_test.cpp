#include "transport/loadHooks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <barrier>
#include <new>
#include <thread>
#include <vector>

#include "platform/tova/introspection.h"
#include "platform/tova/testing/CountingAllocator.h"
#include "platform/tova/testing/Motor.h"

namespace {

using ::testing::ElementsAre;

constexpr const char* kSerializable = "parallel.internal.cluster.SerializableData";
constexpr const char* kDeserializable = "parallel.internal.cluster.DeserializableData";

class HooksPerScope : public tova::testing::ScopedClasses {};

TEST_F(HooksPerScope, EveryCallRegisters) {
  TSInitialize_libcvparallelspftransport();
  EXPECT_EQ(tova::describeClass(kSerializable).registration, 1U);
  TSInitialize_libcvparallelspftransport();
  EXPECT_EQ(tova::describeClass(kSerializable).registration, 2U);
  EXPECT_EQ(tova::describeClass(kDeserializable).registration, 2U);
  EXPECT_THAT(tova::listClasses("parallel.internal.cluster"), ElementsAre(kDeserializable, kSerializable));
}

TEST_F(HooksPerScope, EachScopeGetsItsOwn) {
  TSInitialize_libcvparallelspftransport();
  const tova::UserScope other;
  const tova::UserScopeEntry inside(other);
  EXPECT_FALSE(tova::hasClass(kSerializable));
  TSInitialize_libcvparallelspftransport();
  EXPECT_EQ(tova::describeClass(kSerializable).registration, 1U);
}

TEST_F(HooksPerScope, ThreadsOfOneScopeMayCallAtOnce) {
  std::vector<std::thread> threads;
  for (int index = 0; index < 8; ++index) {
    threads.emplace_back([this] {
      const tova::UserScopeEntry inside(*scope);
      TSInitialize_libcvparallelspftransport();
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(tova::describeClass(kSerializable).registration, 8U);
  EXPECT_EQ(tova::listClasses("parallel.internal.cluster").size(), 2U);
}

TEST_F(HooksPerScope, ClassesEndWithTheScope) {
  tova::testing::CountingAllocator counting;
  TSInitialize_libcvparallelspftransport();
  TSInitialize_libcvparallelspftransport();
  EXPECT_EQ(counting.allocations(), 2 * 11);
  EXPECT_EQ(counting.outstanding(), 11U);
  endScope();
  EXPECT_EQ(counting.outstanding(), 0U);
}

TEST_F(HooksPerScope, UnloadHookLeavesTheClasses) {
  TSTerminate_libcvparallelspftransport();
  TSTerminate_libcvparallelspftransport();
  TSInitialize_libcvparallelspftransport();
  TSTerminate_libcvparallelspftransport();
  TSTerminate_libcvparallelspftransport();
  EXPECT_EQ(tova::describeClass(kSerializable).registration, 1U);
}

// ThreadSanitizer's pthread_once does not take an exception: the next call would wait for ever.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ONCE_CANNOT_FAIL
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define ONCE_CANNOT_FAIL
#endif

// One test, because a process has one first time.
TEST(HooksProcessWide, RegisterOnceHoweverManyCallsAndThreads) {
  tova::setClassMode(tova::ClassMode::ProcessWide);
  EXPECT_FALSE(tova::hasClass(kSerializable)) << "loading alone registers nothing";
  TSTerminate_libcvparallelspftransport();
#ifndef ONCE_CANNOT_FAIL
  {
    tova::hasClass(kSerializable);  // makes the tree
    tova::testing::CountingAllocator counting;
    counting.failAt(8);
    EXPECT_THROW(TSInitialize_libcvparallelspftransport(), std::bad_alloc);
    EXPECT_FALSE(tova::hasClass(kSerializable));
  }
#endif
  constexpr int kThreads = 8;
  std::barrier start(kThreads);
  std::vector<std::thread> threads;
  for (int index = 0; index < kThreads; ++index) {
    threads.emplace_back([&start] {
      start.arrive_and_wait();
      TSInitialize_libcvparallelspftransport();
      // Whoever was first, the classes are there when the hook returns.
      EXPECT_EQ(tova::describeClass(kSerializable).registration, 1U);
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  const unsigned long registered = tova::describeClass(kDeserializable).registration;
  TSInitialize_libcvparallelspftransport();
  TSTerminate_libcvparallelspftransport();
  TSInitialize_libcvparallelspftransport();
  EXPECT_EQ(tova::describeClass(kDeserializable).registration, registered);
  EXPECT_EQ(tova::describeClass(kSerializable).registration, 1U);
  EXPECT_EQ(tova::listClasses("parallel.internal.cluster").size(), 2U);
}

}  // namespace
