#include "platform/tova/classMode.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "platform/tova/handles.h"
#include "platform/tova/introspection.h"
#include "platform/tova/testing/CountingAllocator.h"
#include "platform/tova/testing/Motor.h"

namespace tova {
namespace {

void addMotor() {
  omGetNamespace("plant")->addClass(testing::motorInfo(), nullptr, OnDuplicate::Refuse);
}

// Leaves the process as it found it: process-wide mode, no classes of its own.
class Modes : public ::testing::Test {
 protected:
  Modes() { clearProcessClasses(); }
  ~Modes() override {
    setClassMode(ClassMode::ProcessWide);
    clearProcessClasses();
  }
};

TEST_F(Modes, ProcessWideIsTheDefault) {
  EXPECT_EQ(classMode(), ClassMode::ProcessWide);
  EXPECT_FALSE(omGetTovaUsingUSM());
  setClassMode(ClassMode::PerUserScope);
  EXPECT_TRUE(omGetTovaUsingUSM());
}

TEST_F(Modes, ProcessWideClassesAreSeenByEveryThreadAndInEveryScope) {
  addMotor();
  const UserScope scope;
  const UserScopeEntry inside(scope);
  EXPECT_TRUE(hasClass("plant.Motor"));
  std::thread([] { EXPECT_TRUE(hasClass("plant.Motor")); }).join();
}

TEST_F(Modes, EachUserScopeHasClassesOfItsOwn) {
  setClassMode(ClassMode::PerUserScope);
  const UserScope first;
  const UserScope second;
  {
    const UserScopeEntry inside(first);
    addMotor();
    EXPECT_TRUE(hasClass("plant.Motor"));
    {
      const UserScopeEntry deeper(second);
      EXPECT_FALSE(hasClass("plant.Motor"));
      EXPECT_TRUE(hasClass("tessel.mixin.Heterogeneous"));
      addMotor();
    }
    EXPECT_EQ(describeClass("plant.Motor").registration, 1U);
  }
  EXPECT_FALSE(hasClass("plant.Motor"));
}

TEST_F(Modes, ThreadsOfOneScopeShareItsClasses) {
  setClassMode(ClassMode::PerUserScope);
  const UserScope scope;
  std::thread([&] {
    const UserScopeEntry inside(scope);
    addMotor();
  }).join();
  EXPECT_FALSE(hasClass("plant.Motor"));
  const UserScopeEntry inside(scope);
  EXPECT_TRUE(hasClass("plant.Motor"));
}

TEST_F(Modes, ScopeThatEndsWhileAThreadIsInsideLivesUntilItLeaves) {
  setClassMode(ClassMode::PerUserScope);
  auto scope = std::make_unique<UserScope>();
  auto inside = std::make_unique<UserScopeEntry>(*scope);
  addMotor();
  scope.reset();
  EXPECT_TRUE(hasClass("plant.Motor"));
  testing::TestClassInfo::finalized = 0;
  inside.reset();
  EXPECT_EQ(testing::TestClassInfo::finalized, 1);
}

TEST_F(Modes, ClearEndsTheProcessClassesAndTheirMemory) {
  testing::CountingAllocator counting;
  addMotor();
  qxArrayPtr handle = factory::handleOf(std::make_shared<testing::Motor>());
  clearProcessClasses();
  EXPECT_FALSE(hasClass("plant.Motor"));
  EXPECT_TRUE(isValidHandle(handle.get()));
  EXPECT_GT(counting.outstanding(), 0U);
  handle.reset();
  clearProcessClasses();
  EXPECT_EQ(counting.outstanding(), 0U);
}

}  // namespace
}  // namespace tova
