#include "platform/tova/COSClass.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/tova/callMethod.h"
#include "platform/tova/dataTypes.h"
#include "platform/tova/handles.h"
#include "platform/tova/introspection.h"
#include "platform/tova/testing/CountingAllocator.h"
#include "platform/tova/testing/Motor.h"

namespace tova {
namespace {

using factory::makeMethod;
using factory::MethodAttributes;
using factory::qxArrayProxy;
using ::testing::ElementsAre;
using testing::identifiedError;
using testing::Motor;
using ::testing::StartsWith;
using testing::TestClassInfo;

qxArrayProxy one(Motor* /*self*/) {
  return qxArrayProxy(qxCreateScalar(1));
}
qxArrayProxy two(Motor* /*self*/) {
  return qxArrayProxy(qxCreateScalar(2));
}
qxArrayProxy twoWith(Motor* /*self*/, const qxArrayProxy& /*value*/) {
  return qxArrayProxy(qxCreateScalar(22));
}
qxArrayProxy staticThree() {
  return qxArrayProxy(qxCreateScalar(3));
}

constexpr MethodAttributes kInstance{MethodAttributes::kInstance};

class Classes : public testing::ScopedClasses {
 protected:
  static void add(const char* name, TestClassInfo::Fill fill = nullptr) {
    plant()->addClass(std::make_unique<TestClassInfo>(name, std::move(fill)), nullptr, OnDuplicate::Refuse);
  }
};

TEST_F(Classes, SameNameAndInputCountIsRefusedButNotOtherCountsOrKinds) {
  add("Motor", [](COSClass& cls) {
    cls.addMethod(makeMethod("m", kInstance, "", &one));
    cls.addMethod(makeMethod("m", kInstance, "", &twoWith));
    cls.addMethod(makeMethod("m", {}, "", &staticThree));
    EXPECT_EQ(identifiedError([&] { cls.addMethod(makeMethod("m", kInstance, "", &two)); }),
              "host:classes:MethodExists: Class plant.Motor has a method m with 0 inputs already.");
    EXPECT_THAT(identifiedError([&] { cls.addMethod(makeMethod("m.n", kInstance, "", &two)); }),
                StartsWith("host:classes:BadName"));
  });
  EXPECT_EQ(describeClass("plant.Motor").methods.size(), 3U);
}

TEST_F(Classes, NothingCanBeAddedOnceRegistered) {
  COSClass* kept = nullptr;
  add("Motor", [&](COSClass& cls) { kept = &cls; });
  EXPECT_EQ(identifiedError([&] { kept->addMethod(makeMethod("late", kInstance, "", &one)); }),
            "host:classes:ClassComplete: Class plant.Motor is registered; late can no longer be added to it.");
  EXPECT_THAT(identifiedError([&] { kept->addSuperclass(COSString("a.B"), false, false, true); }),
              StartsWith("host:classes:ClassComplete"));
}

TEST_F(Classes, SuperclassMustExistOnlyIfRequired) {
  EXPECT_EQ(identifiedError([] {
              add("Motor", [](COSClass& cls) { cls.addSuperclass(COSString("plant.Base"), true, false, true); });
            }),
            "host:classes:NoSuchSuperclass: Class plant.Motor derives from plant.Base, which is not registered.");
  EXPECT_FALSE(hasClass("plant.Motor"));
  add("Motor", [](COSClass& cls) { cls.addSuperclass(COSString("plant.Base"), false, true, true); });
  const auto superclass = describeClass("plant.Motor").superclasses.at(0);
  EXPECT_EQ(superclass.name, "plant.Base");
  EXPECT_TRUE(superclass.isHidden);
  EXPECT_FALSE(superclass.isRegistered);
  EXPECT_TRUE(isSubclass("plant.Motor", "plant.Base"));
}

TEST_F(Classes, SealedClassHasNoSubclasses) {
  auto sealed = std::make_unique<TestClassInfo>("Base");
  sealed->sealed = true;
  plant()->addClass(std::move(sealed), nullptr, OnDuplicate::Refuse);
  EXPECT_EQ(identifiedError([] {
              add("Motor", [](COSClass& cls) { cls.addSuperclass(COSString("plant.Base"), true, false, true); });
            }),
            "host:classes:SealedSuperclass: Class plant.Motor cannot derive from plant.Base, which is sealed.");
}

TEST_F(Classes, OwnMethodHidesTheInheritedOneOfTheSameCountOnly) {
  add("Base", [](COSClass& cls) {
    cls.addMethod(makeMethod("m", kInstance, "", &two));
    cls.addMethod(makeMethod("m", kInstance, "", &twoWith));
    cls.addMethod(makeMethod("s", {}, "", &staticThree));
  });
  add("Motor", [](COSClass& cls) {
    cls.addSuperclass(COSString("plant.Base"), true, false, true);
    cls.addMethod(makeMethod("m", kInstance, "", &one));
  });
  const ClassDescription cls = describeClass("plant.Motor");
  ASSERT_EQ(cls.methods.size(), 1U);
  ASSERT_EQ(cls.inheritedMethods.size(), 2U);
  EXPECT_EQ(cls.inheritedMethods[0].owner, "plant.Base");
  EXPECT_THAT(cls.inheritedMethods[0].inputs, ElementsAre("any"));
  EXPECT_EQ(cls.inheritedMethods[1].name, "s");
  const auto handle = factory::handleOf(std::make_shared<Motor>());
  const qxArray* const input[] = {handle.get()};
  EXPECT_EQ(qxGetElements<double>(callMethod(handle.get(), "m", 1, {})[0].get())[0], 1);
  EXPECT_EQ(qxGetElements<double>(callMethod(handle.get(), "m", 1, input)[0].get())[0], 22);
  EXPECT_EQ(qxGetElements<double>(callStaticMethod("plant.Motor", "s", 1, {})[0].get())[0], 3);
}

TEST_F(Classes, MethodsOfASuperclassThatKeepsThemAreNotInherited) {
  add("Base", [](COSClass& cls) { cls.addMethod(makeMethod("s", {}, "", &staticThree)); });
  add("Motor", [](COSClass& cls) { cls.addSuperclass(COSString("plant.Base"), true, false, false); });
  EXPECT_TRUE(describeClass("plant.Motor").inheritedMethods.empty());
  EXPECT_THAT(identifiedError([] { callStaticMethod("plant.Motor", "s", 1, {}); }),
              StartsWith("host:classes:NoSuchMethod"));
}

TEST_F(Classes, SubclassIsASuperclassAllTheWayUp) {
  add("A");
  add("B", [](COSClass& cls) { cls.addSuperclass(COSString("plant.A"), true, false, true); });
  add("C", [](COSClass& cls) {
    cls.addSuperclass(COSString("tessel.mixin.Heterogeneous"), true, false, true);
    cls.addSuperclass(COSString("plant.B"), true, false, true);
  });
  for (const char* ancestor : {"plant.A", "plant.B", "plant.C", "tessel.mixin.Heterogeneous"})
    EXPECT_TRUE(isSubclass("plant.C", ancestor)) << ancestor;
  EXPECT_FALSE(isSubclass("plant.A", "plant.C"));
}

TEST_F(Classes, StringTypesAreUnknownUntilTheyAreInitialised) {
  EXPECT_EQ(identifiedError([] { makeMethod("rename", {}, "", &Motor::rename); }),
            "host:classes:UnknownDataType: \"TovaFactoryString scalar\" is neither a data type that fits here nor the "
            "full name of a class.");
  factory::detail::initStringDataTypes();
  factory::detail::initStringDataTypes();
  EXPECT_THAT(makeMethod("rename", {}, "", &Motor::rename)->signature().inputs,
              ElementsAre("TovaFactoryString scalar"));
}

class FreeMethod final : public factory::TovaMethod {
 public:
  FreeMethod(std::vector<std::string> inputs, std::vector<std::string> outputs, const char* self = "")
      : TovaMethod("free", {}, "") {
    createSignatureImpl(self, std::move(inputs), std::move(outputs));
  }

 private:
  void invoke(qxArray** /*plhs*/, const qxArray** /*prhs*/) const override {}
};

TEST_F(Classes, SignaturesNameKnownTypes) {
  const auto error = [](std::vector<std::string> inputs, std::vector<std::string> outputs, const char* self = "") {
    return identifiedError([&] { FreeMethod(std::move(inputs), std::move(outputs), self); });
  };
  EXPECT_EQ(error({"any", "a.B"}, {"void"}, "c.D"), "");
  EXPECT_THAT(error({"void"}, {"any"}), StartsWith("host:classes:UnknownDataType: \"void\""));
  EXPECT_THAT(error({"nonsense"}, {"any"}), StartsWith("host:classes:UnknownDataType: \"nonsense\""));
  EXPECT_THAT(error({}, {"a..B"}), StartsWith("host:classes:UnknownDataType: \"a..B\""));
  EXPECT_THAT(error({}, {"any"}, "self"), StartsWith("host:classes:UnknownDataType: \"self\""));
}

TEST_F(Classes, MethodThatCannotBeBuiltIsFreed) {
  testing::CountingAllocator counting;
  EXPECT_NE(identifiedError([] { makeMethod("rename", {}, "", &Motor::rename); }), "");
  EXPECT_EQ(counting.allocations(), 1);
  EXPECT_EQ(counting.outstanding(), 0U);
}

TEST_F(Classes, FlagsSayStaticUnlessInstance) {
  EXPECT_EQ(makeMethod("s", {}, "", &staticThree)->flags(), 0x8U);
  EXPECT_EQ(makeMethod("m", kInstance, "", &one)->flags(), 0x1000U);
  EXPECT_EQ(makeMethod("n", {}, "", &Motor::nothing)->flags(), 0U);
  EXPECT_FALSE(makeMethod("n", {}, "", &Motor::nothing)->isStatic());
  EXPECT_EQ(makeMethod("m", kInstance, "", &one)->signature().self, "plant.Motor");
  EXPECT_EQ(makeMethod("m", {}, "", &one)->signature().self, "");
  EXPECT_THROW(makeMethod("s", kInstance, "", &staticThree), std::invalid_argument);
}

}  // namespace
}  // namespace tova
