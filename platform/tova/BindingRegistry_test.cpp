#include "platform/tova/BindingRegistry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <barrier>
#include <thread>
#include <vector>

#include "platform/tova/callMethod.h"
#include "platform/tova/handles.h"
#include "platform/tova/introspection.h"
#include "platform/tova/testing/Motor.h"
#include "platform/tova/validateSelfPointer.h"

namespace tova::factory {
namespace {

using basic::BindingRegistry;
using testing::identifiedError;
using testing::Motor;
using ::testing::StartsWith;
using testing::TestClassInfo;

class Bindings : public testing::ScopedClasses {
 protected:
  Bindings() { addMotor(); }
  ~Bindings() override {
    EXPECT_EQ(BindingRegistry::size(), 0U);
    EXPECT_EQ(Motor::alive, 0);
  }
};

TEST_F(Bindings, HandleSharesTheObject) {
  const auto motor = std::make_shared<Motor>();
  const qxArrayPtr handle = handleOf(motor);
  EXPECT_EQ(qxGetClass(handle.get()), qxClass::Object);
  EXPECT_EQ(qxGetNumberOfElements(handle.get()), 1U);
  EXPECT_EQ(qxGetObjectClassName(handle.get()), "plant.Motor");
  EXPECT_EQ(motor.use_count(), 2);
  EXPECT_EQ(nativeOf<Motor>(handle.get()), motor);
  EXPECT_EQ(BindingRegistry::size(), 1U);
}

TEST_F(Bindings, HostLetsGoFirst) {
  const auto motor = std::make_shared<Motor>(5);
  qxArrayPtr handle = handleOf(motor);
  qxArrayPtr copy = qxCreateSharedCopy(handle.get());
  handle.reset();
  EXPECT_EQ(TestClassInfo::released, 0);
  EXPECT_EQ(motor.use_count(), 2);
  copy.reset();
  EXPECT_EQ(TestClassInfo::released, 1);
  EXPECT_EQ(BindingRegistry::size(), 0U);
  EXPECT_EQ(motor.use_count(), 1);
  EXPECT_EQ(Motor::alive, 1);
  // Bound anew, as if for the first time.
  handle = handleOf(motor);
  EXPECT_EQ(qxGetElements<double>(callMethod(handle.get(), "speed", 1, {})[0].get())[0], 5);
}

TEST_F(Bindings, NativeLetsGoFirst) {
  auto motor = std::make_shared<Motor>(6);
  qxArrayPtr handle = handleOf(motor);
  motor.reset();
  EXPECT_EQ(Motor::alive, 1);
  EXPECT_EQ(qxGetElements<double>(callMethod(handle.get(), "speed", 1, {})[0].get())[0], 6);
  handle.reset();
  EXPECT_EQ(Motor::alive, 0);
}

TEST_F(Bindings, AnnouncedTwiceIsTheSameHandle) {
  const auto motor = std::make_shared<Motor>();
  const qxArrayPtr first = handleOf(motor);
  const qxArrayPtr second = handleOf(motor);
  EXPECT_TRUE(qxEqual(first.get(), second.get()));
  EXPECT_EQ(motor.use_count(), 2);
  EXPECT_EQ(BindingRegistry::size(), 1U);
  const qxArrayPtr other = handleOf(std::make_shared<Motor>());
  EXPECT_FALSE(qxEqual(first.get(), other.get()));
}

TEST_F(Bindings, RetractedObjectLeavesInvalidHandles) {
  auto motor = std::make_shared<Motor>();
  const qxArrayPtr handle = handleOf(motor);
  EXPECT_TRUE(isValidHandle(handle.get()));
  full::retract(motor.get());
  EXPECT_EQ(motor.use_count(), 1);
  motor.reset();
  EXPECT_EQ(Motor::alive, 0);
  EXPECT_FALSE(isValidHandle(handle.get()));
  const char* const expected = "host:classes:InvalidHandle: The object of this plant.Motor handle no longer exists.";
  EXPECT_EQ(identifiedError([&] { callMethod(handle.get(), "speed", 1, {}); }), expected);
  EXPECT_EQ(identifiedError([&] { nativeOf<Motor>(handle.get()); }), expected);
  EXPECT_EQ(identifiedError([&] { impl::validateSelfPointer(handle.get()); }), expected);
  const qxArray* const inputs[] = {handle.get()};
  EXPECT_EQ(identifiedError([&] { callStaticMethod("plant.Motor", "open", 1, inputs); }), expected);
  EXPECT_EQ(describeClassOf(handle.get()).fullName, "plant.Motor");
}

TEST_F(Bindings, RetractedObjectCanBeBoundAnewBesideItsOldHandles) {
  const auto motor = std::make_shared<Motor>();
  qxArrayPtr old = handleOf(motor);
  full::retract(motor.get());
  const qxArrayPtr fresh = handleOf(motor);
  EXPECT_FALSE(isValidHandle(old.get()));
  EXPECT_TRUE(isValidHandle(fresh.get()));
  old.reset();
  EXPECT_TRUE(isValidHandle(fresh.get()));
  EXPECT_EQ(BindingRegistry::size(), 1U);
}

TEST_F(Bindings, RetractOfAnUnboundObjectIsAccepted) {
  const Motor motor;
  full::retract(&motor);
  full::retract(nullptr);
  EXPECT_EQ(BindingRegistry::size(), 0U);
}

TEST_F(Bindings, ObjectAnnouncedByReferenceStaysItsOwners) {
  auto motor = std::make_unique<Motor>(3);
  const qxArrayPtr handle = BindingRegistry::announce(*motor, "plant.Motor").release();
  EXPECT_EQ(qxGetElements<double>(callMethod(handle.get(), "speed", 1, {})[0].get())[0], 3);
  motor.reset();
  EXPECT_FALSE(isValidHandle(handle.get()));
}

TEST_F(Bindings, NewObjectAtTheSameAddressDoesNotReviveOldHandles) {
  alignas(Motor) unsigned char room[sizeof(Motor)];
  Motor* first = new (room) Motor(1);
  const qxArrayPtr old = BindingRegistry::announce(*first, "plant.Motor").release();
  first->~Motor();
  Motor* second = new (room) Motor(2);
  const qxArrayPtr fresh = BindingRegistry::announce(*second, "plant.Motor").release();
  EXPECT_FALSE(isValidHandle(old.get()));
  EXPECT_EQ(qxGetElements<double>(callMethod(fresh.get(), "speed", 1, {})[0].get())[0], 2);
  second->~Motor();
}

TEST_F(Bindings, WithoutAnObjectTheHandleIsInvalid) {
  const qxArrayPtr handle = handleOf(std::shared_ptr<Motor>());
  EXPECT_EQ(qxGetObjectClassName(handle.get()), "plant.Motor");
  EXPECT_FALSE(isValidHandle(handle.get()));
  EXPECT_THAT(identifiedError([&] { callMethod(handle.get(), "speed", 1, {}); }),
              StartsWith("host:classes:InvalidHandle"));
}

// Records what state its binding was in when the last handle ended.
class StateClassInfo final : public StdShareableHandleClassInfo<Motor> {
 public:
  StateClassInfo() : StdShareableHandleClassInfo("Motor", "") {}
  void initializeClass(COSClass* /*cls*/, const COSClient* /*client*/) override {}
  void releaseBoundObject(basic::Binding& binding) noexcept override {
    last = BindingRegistry::state(binding);
    StdShareableHandleClassInfo::releaseBoundObject(binding);
    after = BindingRegistry::state(binding);
  }
  static inline basic::BindingState last{};
  static inline basic::BindingState after{};
};

TEST_F(Bindings, StateSaysWhoHoldsTheObject) {
  plant()->addClass(std::make_unique<StateClassInfo>(), nullptr, OnDuplicate::Replace);
  auto motor = std::make_shared<Motor>();
  handleOf(motor).reset();
  EXPECT_EQ(StateClassInfo::last, basic::BindingState::Shared);
  qxArrayPtr handle = handleOf(motor);
  motor.reset();
  handle.reset();
  EXPECT_EQ(StateClassInfo::last, basic::BindingState::HostOnly);
  motor = std::make_shared<Motor>();
  handle = handleOf(motor);
  full::retract(motor.get());
  handle.reset();
  EXPECT_EQ(StateClassInfo::last, basic::BindingState::NotHeld);
  EXPECT_EQ(StateClassInfo::after, basic::BindingState::NotHeld);
  EXPECT_EQ(static_cast<int>(basic::BindingState::Shared), 0);
  EXPECT_EQ(static_cast<int>(basic::BindingState::HostOnly), 2);
}

TEST_F(Bindings, OnlyConcreteHandleClassesThatAreRegisteredCanBeBound) {
  endScope();
  scope = std::make_unique<UserScope>();
  entry = std::make_unique<UserScopeEntry>(*scope);
  const auto motor = std::make_shared<Motor>();
  EXPECT_EQ(identifiedError([&] { handleOf(motor); }), "host:classes:NoSuchClass: There is no class plant.Motor.");
  auto info = testing::motorInfo();
  info->abstract = true;
  plant()->addClass(std::move(info), nullptr, OnDuplicate::Refuse);
  EXPECT_THAT(identifiedError([&] { handleOf(motor); }), StartsWith("host:classes:AbstractClass"));
  info = testing::motorInfo();
  info->handle = false;
  plant()->addClass(std::move(info), nullptr, OnDuplicate::Replace);
  EXPECT_THAT(identifiedError([&] { handleOf(motor); }), StartsWith("host:classes:NotAHandleClass"));
  EXPECT_EQ(motor.use_count(), 1);
}

class UnnamedMotor final : public Motor {};
class GeneratorMotor final : public Motor {};

TEST_F(Bindings, ObjectAppearsAsTheClassThatItsOwnTypeIsNamedAfter) {
  const std::shared_ptr<Motor> unnamed = std::make_shared<UnnamedMotor>();
  EXPECT_EQ(qxGetObjectClassName(handleOf(unnamed).get()), "plant.Motor");
  const std::shared_ptr<Motor> generator = std::make_shared<GeneratorMotor>();
  BindingRegistry::nameType(typeid(GeneratorMotor), "plant.Generator");
  const auto fill = [](COSClass& cls) { cls.addSuperclass(COSString("plant.Motor"), true, false, true); };
  plant()->addClass(std::make_unique<TestClassInfo>("Generator", fill), nullptr, OnDuplicate::Refuse);
  const qxArrayPtr handle = handleOf(generator);
  EXPECT_EQ(qxGetObjectClassName(handle.get()), "plant.Generator");
  EXPECT_EQ(callMethod(handle.get(), "speed", 1, {}).size(), 1U);
  EXPECT_NE(nativeOf<GeneratorMotor>(handle.get()), nullptr);
}

TEST_F(Bindings, NativeOfAnotherTypeIsRefused) {
  const qxArrayPtr handle = handleOf(std::make_shared<Motor>());
  EXPECT_THAT(identifiedError([&] { nativeOf<GeneratorMotor>(handle.get()); }),
              StartsWith("host:classes:InvalidHandle"));
}

TEST_F(Bindings, OtherArraysHaveNoNativeObject) {
  const qxArrayPtr number = qxCreateScalar(1);
  const qxArrayPtr foreign = qxCreateObject("some.Thing", std::make_shared<int>(1));
  const qxArrayPtr empty = qxCreateObject("some.Thing", nullptr);
  impl::validateSelfPointer(number.get());
  impl::validateSelfPointer(foreign.get());
  EXPECT_THAT(identifiedError([&] { impl::validateSelfPointer(empty.get()); }),
              StartsWith("host:classes:InvalidHandle"));
  EXPECT_EQ(identifiedError([] { impl::validateSelfPointer(nullptr); }),
            "host:classes:NotAHandle: A handle is expected; nothing was given.");
  EXPECT_EQ(identifiedError([&] { nativeOf<Motor>(number.get()); }),
            "host:classes:NotAHandle: A handle is expected; float64 was given.");
  EXPECT_THAT(identifiedError([&] { nativeOf<Motor>(foreign.get()); }), StartsWith("host:classes:InvalidHandle"));
  EXPECT_THAT(identifiedError([&] { callMethod(number.get(), "speed", 1, {}); }),
              StartsWith("host:classes:NotAHandle"));
  EXPECT_THAT(identifiedError([&] { callMethod(foreign.get(), "speed", 1, {}); }),
              StartsWith("host:classes:InvalidHandle"));
  EXPECT_EQ(BindingRegistry::classOf(nullptr), nullptr);
  EXPECT_FALSE(isValidHandle(nullptr));
  EXPECT_FALSE(isValidHandle(number.get()));
}

TEST_F(Bindings, HandlesOutliveTheirScope) {
  qxArrayPtr handle = handleOf(std::make_shared<Motor>(4));
  endScope();
  EXPECT_EQ(TestClassInfo::finalized, 0);
  EXPECT_EQ(qxGetElements<double>(callMethod(handle.get(), "speed", 1, {})[0].get())[0], 4);
  handle.reset();
  EXPECT_EQ(TestClassInfo::finalized, 1);
}

TEST_F(Bindings, HandlesInsideListsEndWithTheList) {
  const std::size_t dimensions[] = {1, 2};
  qxArrayPtr list = qxCreateListArray(dimensions);
  qxSetListElement(list.get(), 0, handleOf(std::make_shared<Motor>()));
  qxSetListElement(list.get(), 1, handleOf(std::make_shared<Motor>()));
  EXPECT_EQ(BindingRegistry::size(), 2U);
  list.reset();
  EXPECT_EQ(BindingRegistry::size(), 0U);
}

TEST_F(Bindings, OneObjectAnnouncedAndDroppedByManyThreads) {
  constexpr int kThreads = 6;
  constexpr int kRounds = 400;
  const auto motor = std::make_shared<Motor>(9);
  std::barrier start(kThreads);
  std::vector<std::thread> threads;
  for (int index = 0; index < kThreads; ++index) {
    threads.emplace_back([&] {
      const UserScopeEntry inside(*scope);
      start.arrive_and_wait();
      for (int round = 0; round < kRounds; ++round) {
        const qxArrayPtr handle = handleOf(motor);
        EXPECT_TRUE(isValidHandle(handle.get()));
        EXPECT_EQ(nativeOf<Motor>(handle.get()), motor);
        EXPECT_EQ(qxGetElements<double>(callMethod(handle.get(), "speed", 1, {})[0].get())[0], 9);
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(motor.use_count(), 1);
}

TEST_F(Bindings, SharesOfOneHandleEndOnManyThreads) {
  constexpr int kThreads = 6;
  for (int round = 0; round < 100; ++round) {
    auto motor = std::make_shared<Motor>();
    std::vector<qxArrayPtr> shares;
    for (int index = 0; index < kThreads; ++index)
      shares.push_back(handleOf(motor));
    std::barrier start(kThreads + 1);
    std::vector<std::thread> threads;
    for (int index = 0; index < kThreads; ++index) {
      threads.emplace_back([&start, share = std::move(shares[static_cast<std::size_t>(index)])]() mutable {
        start.arrive_and_wait();
        share.reset();
      });
    }
    start.arrive_and_wait();
    motor.reset();
    for (std::thread& thread : threads)
      thread.join();
    EXPECT_EQ(Motor::alive, 0);
  }
  EXPECT_EQ(TestClassInfo::released, 100);
}

TEST_F(Bindings, RetractAgainstCallsOnOtherThreads) {
  for (int round = 0; round < 100; ++round) {
    auto motor = std::make_shared<Motor>(1);
    const qxArrayPtr handle = handleOf(motor);
    std::barrier start(2);
    std::thread caller([&, share = qxCreateSharedCopy(handle.get())] {
      start.arrive_and_wait();
      const std::string error = identifiedError([&] { callMethod(share.get(), "speed", 1, {}); });
      EXPECT_TRUE(error.empty() || error.starts_with("host:classes:InvalidHandle")) << error;
    });
    start.arrive_and_wait();
    full::retract(motor.get());
    motor.reset();
    caller.join();
    EXPECT_FALSE(isValidHandle(handle.get()));
  }
}

}  // namespace
}  // namespace tova::factory
