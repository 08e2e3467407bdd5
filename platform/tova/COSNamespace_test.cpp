#include "platform/tova/COSNamespace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <new>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/tova/COSClient.h"
#include "platform/tova/callMethod.h"
#include "platform/tova/handles.h"
#include "platform/tova/introspection.h"
#include "platform/tova/testing/CountingAllocator.h"
#include "platform/tova/testing/Motor.h"

namespace tova {
namespace {

using ::testing::ElementsAre;
using testing::identifiedError;
using testing::TestClassInfo;

class Namespaces : public testing::ScopedClasses {};

TEST_F(Namespaces, SameNameGivesTheSameNamespace) {
  COSNamespace* const outer = omGetNamespace("parallel");
  COSNamespace* const inner = omGetInnerNamespace(outer, "internal");
  EXPECT_EQ(omGetNamespace("parallel"), outer);
  EXPECT_EQ(omGetInnerNamespace(outer, "internal"), inner);
  EXPECT_NE(omGetNamespace("internal"), inner);
  EXPECT_EQ(omGetInnerNamespace(inner, "cluster")->fullName(), "parallel.internal.cluster");
}

TEST_F(Namespaces, NamesMustBeIdentifiers) {
  EXPECT_THAT(identifiedError([] { omGetNamespace("a.b"); }), ::testing::StartsWith("host:classes:BadName"));
  COSNamespace* const outer = omGetNamespace("a");
  EXPECT_THAT(identifiedError([&] { omGetInnerNamespace(outer, ""); }), ::testing::StartsWith("host:classes:BadName"));
  EXPECT_THAT(
      identifiedError([&] { outer->addClass(std::make_unique<TestClassInfo>("9"), nullptr, OnDuplicate::Refuse); }),
      ::testing::StartsWith("host:classes:BadName"));
  EXPECT_TRUE(listClasses("a").empty());
}

TEST_F(Namespaces, NamespaceAndClassOfOneNameStandSideBySide) {
  COSNamespace* const outer = omGetNamespace("a");
  omGetInnerNamespace(outer, "B");
  outer->addClass(std::make_unique<TestClassInfo>("B"), nullptr, OnDuplicate::Refuse);
  EXPECT_TRUE(hasClass("a.B"));
  EXPECT_TRUE(listClasses("a.B").empty());
}

TEST_F(Namespaces, DuplicateIsRefusedKeptOrReplaced) {
  const auto add = [](const char* method, OnDuplicate onDuplicate) {
    const auto fill = [method](COSClass& cls) {
      cls.addMethod(factory::makeMethod(method, {}, "", &testing::Motor::openNone));
    };
    plant()->addClass(std::make_unique<TestClassInfo>("Motor", fill), nullptr, onDuplicate);
  };
  add("first", OnDuplicate::Refuse);
  EXPECT_EQ(identifiedError([&] { add("second", OnDuplicate::Refuse); }),
            "host:classes:ClassExists: Class plant.Motor is registered already.");
  EXPECT_EQ(describeClass("plant.Motor").methods[0].name, "first");
  EXPECT_EQ(TestClassInfo::finalized, 1);
  add("third", OnDuplicate::Keep);
  EXPECT_EQ(describeClass("plant.Motor").methods[0].name, "first");
  EXPECT_EQ(describeClass("plant.Motor").registration, 1U);
  EXPECT_EQ(TestClassInfo::finalized, 2);
  add("fourth", OnDuplicate::Replace);
  EXPECT_EQ(describeClass("plant.Motor").methods[0].name, "fourth");
  EXPECT_EQ(describeClass("plant.Motor").registration, 2U);
  EXPECT_EQ(TestClassInfo::finalized, 3);
  EXPECT_THAT(listClasses("plant"), ElementsAre("plant.Motor"));
}

TEST_F(Namespaces, ReplacedClassServesItsHandlesToTheEnd) {
  addMotor();
  auto handle = factory::handleOf(std::make_shared<testing::Motor>(7));
  plant()->addClass(std::make_unique<TestClassInfo>("Motor"), nullptr, OnDuplicate::Replace);
  EXPECT_EQ(TestClassInfo::finalized, 0);
  EXPECT_EQ(qxGetElements<double>(callMethod(handle.get(), "speed", 1, {})[0].get())[0], 7);
  EXPECT_EQ(describeClassOf(handle.get()).registration, 1U);
  handle.reset();
  EXPECT_EQ(TestClassInfo::finalized, 1);
}

TEST_F(Namespaces, ClassWhoseInitializationFailsIsFreedAndNeverAppears) {
  testing::CountingAllocator counting;
  const auto fill = [](COSClass& cls) {
    testing::addMotorMethods(cls);
    throw std::runtime_error("no");
  };
  EXPECT_THROW(plant()->addClass(std::make_unique<TestClassInfo>("Motor", fill), nullptr, OnDuplicate::Refuse),
               std::runtime_error);
  EXPECT_GT(counting.allocations(), 5);
  EXPECT_EQ(counting.outstanding(), 0U);
  EXPECT_FALSE(hasClass("plant.Motor"));
}

TEST_F(Namespaces, EveryFailedAllocationLeavesNothingBehind) {
  plant();
  testing::CountingAllocator counting;
  long step = 1;
  for (bool failed = true; failed; ++step) {
    ASSERT_LT(step, 100);
    counting.failAt(step);
    failed = false;
    try {
      addMotor();
    } catch (const std::bad_alloc&) {
      failed = true;
      EXPECT_EQ(counting.outstanding(), 0U) << step;
      EXPECT_FALSE(hasClass("plant.Motor")) << step;
    }
  }
  EXPECT_EQ(step - 2, 1 + 9);  // the description and its methods
  EXPECT_TRUE(hasClass("plant.Motor"));
  counting.failAt(0);
  endScope();
  EXPECT_EQ(counting.outstanding(), 0U);
}

TEST_F(Namespaces, EndOfTheScopeFreesEveryDescriptionAndMethod) {
  testing::CountingAllocator counting;
  entry.reset();
  scope = std::make_unique<UserScope>();
  entry = std::make_unique<UserScopeEntry>(*scope);
  addMotor();
  EXPECT_EQ(counting.outstanding(), 11U);  // with the platform's own class
  endScope();
  EXPECT_EQ(counting.outstanding(), 0U);
}

TEST_F(Namespaces, ClientIsRememberedByName) {
  const COSClient client("the plant");
  plant()->addClass(testing::motorInfo(), &client, OnDuplicate::Refuse);
  EXPECT_EQ(describeClass("plant.Motor").client, "the plant");
  EXPECT_EQ(describeClass("tessel.mixin.Heterogeneous").client, "");
}

TEST_F(Namespaces, RegistrationsAndLookupsFromManyThreads) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 50;
  std::vector<std::thread> threads;
  for (int index = 0; index < kThreads; ++index) {
    threads.emplace_back([&, index] {
      const UserScopeEntry inside(*scope);
      for (int round = 0; round < kRounds; ++round) {
        plant()->addClass(testing::motorInfo(), nullptr, OnDuplicate::Replace);
        omGetInnerNamespace(plant(), ("n" + std::to_string(index) + "x" + std::to_string(round)).c_str());
        EXPECT_EQ(describeClass("plant.Motor").methods.size(), 9U);
        EXPECT_GE(listNamespaces().size(), 3U);
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(describeClass("plant.Motor").registration, static_cast<unsigned long>(kThreads * kRounds));
  EXPECT_EQ(TestClassInfo::finalized, kThreads * kRounds - 1);
  EXPECT_EQ(listNamespaces().size(), 3U + kThreads * kRounds);
}

}  // namespace
}  // namespace tova
