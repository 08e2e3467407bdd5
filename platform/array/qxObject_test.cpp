#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "platform/array/qxArray.h"
#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

TEST(ObjectArray, HoldsItsNativeObject) {
  const auto native = std::make_shared<int>(42);
  const qxArrayPtr object = qxCreateObject("acme.Motor", native);
  EXPECT_EQ(qxGetClass(object.get()), qxClass::Object);
  EXPECT_THAT(qxGetDimensions(object.get()), testing::ElementsAre(1, 1));
  EXPECT_EQ(qxGetObjectClassName(object.get()), "acme.Motor");
  EXPECT_EQ(qxGetNative(object.get()), native);
}

TEST(ObjectArray, SharesHoldTheSameObjectUntilTheLastGoes) {
  auto native = std::make_shared<int>(42);
  const std::weak_ptr<int> watch = native;
  qxArrayPtr object = qxCreateObject("acme.Motor", std::move(native));
  qxArrayPtr share = qxCreateSharedCopy(object.get());
  EXPECT_EQ(qxGetNative(object.get()), qxGetNative(share.get()));
  object.reset();
  EXPECT_FALSE(watch.expired());
  share.reset();
  EXPECT_TRUE(watch.expired());
}

TEST(ObjectArray, OtherClassesThrowWrongClass) {
  const qxArrayPtr scalar = qxCreateScalar(1);
  EXPECT_THROW(qxGetNative(scalar.get()), Exception<host::array::WrongClass>);
  EXPECT_THROW(qxGetObjectClassName(scalar.get()), Exception<host::array::WrongClass>);
}
