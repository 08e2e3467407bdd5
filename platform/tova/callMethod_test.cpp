#include "platform/tova/callMethod.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/tova/HandleClassInfo.h"
#include "platform/tova/handles.h"
#include "platform/tova/introspection.h"
#include "platform/tova/testing/Motor.h"

namespace tova {

namespace {
class Counter;
}  // namespace

template <>
struct factory::HostClassName<Counter> {
  static constexpr const char* value = "plant.Counter";
};

namespace {

using testing::identifiedError;
using testing::Motor;
using ::testing::StartsWith;

class Calls : public testing::ScopedClasses {
 protected:
  Calls() {
    addMotor();
    motor = std::make_shared<Motor>(8);
    handle = factory::handleOf(motor);
    number = qxCreateScalar(3);
  }
  ~Calls() override {
    handle.reset();
    motor.reset();
    EXPECT_EQ(factory::basic::BindingRegistry::size(), 0U);
  }

  static double scalar(const std::vector<qxArrayPtr>& outputs) {
    EXPECT_EQ(outputs.size(), 1U);
    return qxGetElements<double>(outputs.at(0).get())[0];
  }
  std::string callError(const char* method, int wanted, std::vector<const qxArray*> inputs) const {
    return identifiedError([&] { callMethod(handle.get(), method, wanted, inputs); });
  }
  static std::string staticError(const char* method, int wanted, std::vector<const qxArray*> inputs) {
    return identifiedError([&] { callStaticMethod("plant.Motor", method, wanted, inputs); });
  }

  std::shared_ptr<Motor> motor;
  qxArrayPtr handle;
  qxArrayPtr number;
};

TEST_F(Calls, StaticMethodMakesAHandle) {
  const qxArray* const inputs[] = {number.get()};
  const auto outputs = callStaticMethod("plant.Motor", "open", 1, inputs);
  ASSERT_EQ(outputs.size(), 1U);
  EXPECT_EQ(describeClassOf(outputs[0].get()).fullName, "plant.Motor");
  EXPECT_EQ(scalar(callMethod(outputs[0].get(), "speed", 1, {})), 3);
}

TEST_F(Calls, OutputIsMadeEvenIfNoneIsRequested) {
  const qxArray* const inputs[] = {number.get()};
  const auto outputs = callStaticMethod("plant.Motor", "open", 0, inputs);
  ASSERT_EQ(outputs.size(), 1U);
  EXPECT_TRUE(isValidHandle(outputs[0].get()));
}

TEST_F(Calls, MethodWithoutAnOutputMakesNone) {
  const qxArrayPtr name = qxCreateStringUtf8("Z\xC3\xBCndung");
  const qxArray* const inputs[] = {name.get()};
  EXPECT_TRUE(callMethod(handle.get(), "rename", 0, inputs).empty());
  EXPECT_EQ(motor->name(), u"Z\u00FCndung");
}

TEST_F(Calls, EmptyProxyBecomesAnEmptyArray) {
  const auto outputs = callMethod(handle.get(), "nothing", 1, {});
  ASSERT_EQ(outputs.size(), 1U);
  EXPECT_EQ(qxGetNumberOfElements(outputs[0].get()), 0U);
  EXPECT_EQ(qxGetClass(outputs[0].get()), qxClass::Float64);
}

TEST_F(Calls, NullResultIsAnInvalidHandleOfTheClass) {
  const auto outputs = callStaticMethod("plant.Motor", "openNone", 1, {});
  EXPECT_EQ(qxGetObjectClassName(outputs[0].get()), "plant.Motor");
  EXPECT_FALSE(isValidHandle(outputs[0].get()));
}

TEST_F(Calls, NumberOfInputsChoosesTheOverload) {
  const qxArray* const inputs[] = {number.get()};
  EXPECT_EQ(scalar(callMethod(handle.get(), "speed", 1, {})), 8);
  EXPECT_EQ(scalar(callMethod(handle.get(), "speed", 1, inputs)), 24);
}

TEST_F(Calls, PlainFunctionWithTheInstanceFlagTakesTheObject) {
  EXPECT_EQ(scalar(callMethod(handle.get(), "fullSpeed", 1, {})), 100);
}

TEST_F(Calls, HandlesTravelAsInputs) {
  const qxArrayPtr slow = factory::handleOf(std::make_shared<Motor>(1));
  const qxArray* const inputs[] = {handle.get(), slow.get()};
  EXPECT_TRUE(qxGetElements<bool>(callStaticMethod("plant.Motor", "faster", 1, inputs)[0].get())[0]);
  const qxArray* const swapped[] = {slow.get(), handle.get()};
  EXPECT_FALSE(qxGetElements<bool>(callStaticMethod("plant.Motor", "faster", 1, swapped)[0].get())[0]);
}

TEST_F(Calls, WrongCountsNameTheMethodAndTheCounts) {
  EXPECT_EQ(callError("speed", 1, {number.get(), number.get()}),
            "host:classes:TooManyInputs: Too many inputs for plant.Motor.speed: it takes 0 or 1, and 2 were given.");
  EXPECT_EQ(callError("rename", 0, {}),
            "host:classes:NotEnoughInputs: Not enough inputs for plant.Motor.rename: it takes 1, and 0 were given.");
  EXPECT_EQ(staticError("open", 1, {}),
            "host:classes:NotEnoughInputs: Not enough inputs for plant.Motor.open: it takes 1, and 0 were given.");
  EXPECT_EQ(staticError("open", 2, {number.get()}),
            "host:classes:TooManyOutputs: Too many outputs of plant.Motor.open: it makes 1, and 2 were requested.");
  const qxArrayPtr name = qxCreateStringUtf8("x");
  EXPECT_EQ(callError("rename", 1, {name.get()}),
            "host:classes:TooManyOutputs: Too many outputs of plant.Motor.rename: it makes 0, and 1 were requested.");
  EXPECT_TRUE(motor->name().empty());
}

TEST_F(Calls, WrongTypesNameTheInputAndBothTypes) {
  EXPECT_EQ(
      callError("rename", 0, {number.get()}),
      "host:classes:WrongArgumentType: plant.Motor.rename expects TovaFactoryString scalar as input 1; 1-by-1 float64 "
      "was given.");
  EXPECT_EQ(
      staticError("faster", 1, {handle.get(), number.get()}),
      "host:classes:WrongArgumentType: plant.Motor.faster expects plant.Motor as input 2; 1-by-1 float64 was given.");
  const qxArrayPtr foreign = qxCreateObject("some.Thing", std::make_shared<int>(1));
  EXPECT_EQ(staticError("faster", 1, {foreign.get(), handle.get()}),
            "host:classes:WrongArgumentType: plant.Motor.faster expects plant.Motor as input 1; some.Thing was given.");
  EXPECT_EQ(staticError("open", 1, {nullptr}),
            "host:classes:WrongArgumentType: plant.Motor.open expects any as input 1; nothing was given.");
}

TEST_F(Calls, OneLineOfTextIsARowOrEmpty) {
  const auto text = [](std::vector<std::size_t> dimensions) { return qxCreateNumericArray(dimensions, qxClass::Text); };
  for (const auto& dimensions : std::vector<std::vector<std::size_t>>{{1, 3}, {1, 1}, {0, 0}, {1, 0}, {0, 5}})
    EXPECT_EQ(callError("rename", 0, {text(dimensions).get()}), "") << dimensions[0] << "-by-" << dimensions[1];
  for (const auto& dimensions : std::vector<std::vector<std::size_t>>{{2, 1}, {2, 3}, {1, 2, 2}}) {
    EXPECT_THAT(callError("rename", 0, {text(dimensions).get()}), StartsWith("host:classes:WrongArgumentType"))
        << dimensions[0] << "-by-" << dimensions[1];
  }
  EXPECT_THAT(callError("rename", 0, {text({2, 3}).get()}), ::testing::HasSubstr("2-by-3 text was given"));
}

TEST_F(Calls, MissingNamesAndWrongKinds) {
  EXPECT_EQ(identifiedError([] { callStaticMethod("plant.Pump", "open", 1, {}); }),
            "host:classes:NoSuchClass: There is no class plant.Pump.");
  EXPECT_EQ(staticError("stop", 0, {}), "host:classes:NoSuchMethod: Class plant.Motor has no method stop.");
  EXPECT_EQ(callError("stop", 0, {}), "host:classes:NoSuchMethod: Class plant.Motor has no method stop.");
  EXPECT_EQ(staticError("speed", 1, {}),
            "host:classes:WrongMethodKind: plant.Motor.speed is an instance method; call it on an object.");
  EXPECT_EQ(callError("open", 1, {number.get()}),
            "host:classes:WrongMethodKind: plant.Motor.open is a static method; call it on the class.");
}

TEST_F(Calls, WhatAMethodThrowsPassesThroughAndLeavesTheObjectUsable) {
  EXPECT_THROW(callMethod(handle.get(), "burn", 0, {}), std::runtime_error);
  EXPECT_EQ(scalar(callMethod(handle.get(), "speed", 1, {})), 8);
}

TEST_F(Calls, ByTheHostsConvention) {
  const auto cls = factory::basic::BindingRegistry::classOf(handle.get());
  const factory::TovaMethod& open = *cls->methods().front();
  qxArray* output = nullptr;
  const qxArray* input = number.get();
  open.call(0, &output, 1, &input);
  const qxArrayPtr owned(output);
  EXPECT_TRUE(isValidHandle(owned.get()));
  EXPECT_EQ(identifiedError([&] { open.call(1, &output, 0, nullptr); }),
            "host:classes:NotEnoughInputs: Not enough inputs for plant.Motor.open: it takes 1, and 0 were given.");
  const factory::TovaMethod& speed = *cls->methodsNamed("speed", MethodKind::Instance).front();
  EXPECT_EQ(identifiedError([&] { speed.call(1, &output, 0, nullptr); }),
            "host:classes:NotAHandle: A handle is expected; nothing was given.");
  EXPECT_EQ(identifiedError([&] { speed.call(1, &output, 1, &input); }),
            "host:classes:WrongArgumentType: plant.Motor.speed expects plant.Motor as its object; 1-by-1 float64 was "
            "given.");
}

class Counter : public factory::full::StdShareable {
 public:
  Counter() = default;
  ~Counter() override { factory::full::retract(this); }
};

class CounterClassInfo final : public factory::HandleClassInfo<Counter, true> {
 public:
  CounterClassInfo() : HandleClassInfo("Counter", "Counts") {}
  void initializeClass(COSClass* /*cls*/, const COSClient* /*client*/) override {}
};

TEST_F(Calls, ConstructorMakesAnObject) {
  plant()->addClass(std::make_unique<CounterClassInfo>(), nullptr, OnDuplicate::Refuse);
  EXPECT_TRUE(describeClass("plant.Counter").hasConstructor);
  qxArrayPtr counter = callConstructor("plant.Counter", {});
  EXPECT_TRUE(isValidHandle(counter.get()));
  EXPECT_NE(factory::nativeOf<Counter>(counter.get()), nullptr);
  const qxArray* const inputs[] = {number.get()};
  EXPECT_EQ(identifiedError([&] { callConstructor("plant.Counter", inputs); }),
            "host:classes:TooManyInputs: Too many inputs for plant.Counter.Counter: it takes 0, and 1 were given.");
}

TEST_F(Calls, ClassesWithoutAConstructorSaySo) {
  EXPECT_EQ(
      identifiedError([] { callConstructor("plant.Motor", {}); }),
      "host:classes:NoConstructor: Class plant.Motor has no constructor: its objects come from its static methods "
      "or from other calls.");
  EXPECT_EQ(identifiedError([] { callConstructor("tessel.mixin.Heterogeneous", {}); }),
            "host:classes:AbstractClass: Class tessel.mixin.Heterogeneous is abstract and has no objects of its own.");
}

TEST_F(Calls, ManyThreadsCallOneClass) {
  std::vector<std::thread> threads;
  for (int index = 0; index < 6; ++index) {
    threads.emplace_back([&, index] {
      const UserScopeEntry inside(*scope);
      const qxArrayPtr speed = qxCreateScalar(index);
      const qxArray* const inputs[] = {speed.get()};
      for (int round = 0; round < 200; ++round) {
        const auto opened = callStaticMethod("plant.Motor", "open", 1, inputs);
        EXPECT_EQ(scalar(callMethod(opened[0].get(), "speed", 1, {})), index);
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
}

}  // namespace
}  // namespace tova
