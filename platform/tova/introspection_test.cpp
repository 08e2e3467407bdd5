#include "platform/tova/introspection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/tova/testing/Motor.h"

namespace tova {
namespace {

using ::testing::ElementsAre;
using testing::identifiedError;

class Introspection : public testing::ScopedClasses {};

TEST_F(Introspection, FreshScopeHoldsThePlatformsClassesOnly) {
  EXPECT_THAT(listNamespaces(), ElementsAre("tessel", "tessel.mixin"));
  EXPECT_TRUE(listClasses("tessel").empty());
  EXPECT_THAT(listClasses("tessel.mixin"), ElementsAre("tessel.mixin.Heterogeneous"));
  const ClassDescription mixin = describeClass("tessel.mixin.Heterogeneous");
  EXPECT_EQ(mixin.name, "Heterogeneous");
  EXPECT_TRUE(mixin.isHandle);
  EXPECT_TRUE(mixin.isAbstract);
  EXPECT_TRUE(mixin.methods.empty());
}

TEST_F(Introspection, NamespacesComeBeforeWhatIsInsideThem) {
  omGetInnerNamespace(omGetInnerNamespace(omGetNamespace("b"), "z"), "q");
  omGetInnerNamespace(omGetNamespace("b"), "a");
  omGetNamespace("a");
  EXPECT_THAT(listNamespaces(), ElementsAre("a", "b", "b.a", "b.z", "b.z.q", "tessel", "tessel.mixin"));
}

TEST_F(Introspection, LookingCreatesNothing) {
  EXPECT_FALSE(hasClass("plant.Motor"));
  EXPECT_EQ(identifiedError([] { listClasses("plant"); }),
            "host:classes:NoSuchNamespace: There is no namespace plant.");
  EXPECT_EQ(identifiedError([] { describeClass("plant.Motor"); }),
            "host:classes:NoSuchClass: There is no class plant.Motor.");
  EXPECT_EQ(identifiedError([] { isSubclass("Motor", "plant.Motor"); }),
            "host:classes:NoSuchClass: There is no class Motor.");
  EXPECT_FALSE(hasClass(""));
  EXPECT_FALSE(hasClass("."));
  EXPECT_THAT(listNamespaces(), ElementsAre("tessel", "tessel.mixin"));
}

TEST_F(Introspection, ClassesStandInTheOrderOfRegistrationHiddenOnesApart) {
  for (const char* name : {"C", "A", "B"}) {
    auto info = std::make_unique<testing::TestClassInfo>(name);
    info->hidden = *name == 'A';
    plant()->addClass(std::move(info), nullptr, OnDuplicate::Refuse);
  }
  EXPECT_THAT(listClasses("plant"), ElementsAre("plant.C", "plant.B"));
  EXPECT_THAT(listClasses("plant", Listing::All), ElementsAre("plant.C", "plant.A", "plant.B"));
  EXPECT_TRUE(describeClass("plant.A").isHidden);
}

TEST_F(Introspection, ClassIsDescribedWhole) {
  addMotor();
  const ClassDescription cls = describeClass("plant.Motor");
  EXPECT_EQ(cls.name, "Motor");
  EXPECT_EQ(cls.fullName, "plant.Motor");
  EXPECT_EQ(cls.description, "A class of a test");
  EXPECT_EQ(cls.detailedDescription, "A class of a test");
  EXPECT_EQ(cls.version, 0);
  EXPECT_EQ(cls.registration, 1U);
  EXPECT_TRUE(cls.isHandle);
  EXPECT_FALSE(cls.isAbstract);
  EXPECT_FALSE(cls.isSealed);
  EXPECT_FALSE(cls.isHidden);
  EXPECT_FALSE(cls.hasConstructor);
  std::vector<std::string> signatures;
  for (const MethodDescription& method : cls.methods)
    signatures.push_back(method.signature);
  EXPECT_THAT(signatures,
              ElementsAre("plant.Motor = open(any)", "plant.Motor = openNone()",
                          "any = faster(plant.Motor, plant.Motor)", "any = speed()", "any = speed(any)",
                          "any = fullSpeed()", "rename(TovaFactoryString scalar)", "any = nothing()", "burn()"));
}

TEST_F(Introspection, MethodsAreDescribedWhole) {
  addMotor();
  const auto methods = describeClass("plant.Motor").methods;
  const MethodDescription& open = methods.at(0);
  EXPECT_EQ(open.name, "open");
  EXPECT_EQ(open.description, "Opens a motor");
  EXPECT_EQ(open.owner, "plant.Motor");
  EXPECT_EQ(open.flags, 0x8U);
  EXPECT_TRUE(open.isStatic);
  EXPECT_THAT(open.inputs, ElementsAre("any"));
  EXPECT_THAT(open.outputs, ElementsAre("plant.Motor"));
  EXPECT_EQ(open.outputCount, 1U);
  const MethodDescription& rename = methods.at(6);
  EXPECT_FALSE(rename.isStatic);
  EXPECT_THAT(rename.outputs, ElementsAre("void"));
  EXPECT_EQ(rename.outputCount, 0U);
}

}  // namespace
}  // namespace tova
