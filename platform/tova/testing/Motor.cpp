#include "platform/tova/testing/Motor.h"

#include <stdexcept>

#include "platform/tova/dataTypes.h"
#include "platform/tova/makeMethod.h"

namespace tova::testing {

using factory::makeMethod;
using factory::MethodAttributes;
using factory::qxArrayProxy;

namespace {

double scalarOf(const qxArray* array) {
  return qxGetElements<double>(array)[0];
}

qxArrayProxy fullSpeed(Motor* /*motor*/) {
  return qxArrayProxy(qxCreateScalar(100));
}

}  // namespace

std::shared_ptr<Motor> Motor::open(const factory::qxConstArrayProxy& speed) {
  return std::make_shared<Motor>(scalarOf(speed.get()));
}

std::shared_ptr<Motor> Motor::openNone() {
  return nullptr;
}

qxArrayProxy Motor::faster(Motor* left, const std::shared_ptr<Motor>& right) {
  return qxArrayProxy(qxCreateBoolean(left->speed_ > right->speed_));
}

qxArrayProxy Motor::speed() const {
  return qxArrayProxy(qxCreateScalar(speed_));
}

qxArrayProxy Motor::speedTimes(const qxArrayProxy& factor) {
  return qxArrayProxy(qxCreateScalar(speed_ * scalarOf(factor.get())));
}

void Motor::burn() {
  throw std::runtime_error("the motor burned");
}

void addMotorMethods(COSClass& cls) {
  factory::detail::initStringDataTypes();
  cls.addMethod(makeMethod("open", {}, "Opens a motor", &Motor::open));
  cls.addMethod(makeMethod("openNone", {}, "", &Motor::openNone));
  cls.addMethod(makeMethod("faster", {}, "", &Motor::faster));
  cls.addMethod(makeMethod("speed", {}, "", &Motor::speed));
  cls.addMethod(makeMethod("speed", {}, "", &Motor::speedTimes));
  cls.addMethod(makeMethod("fullSpeed", {MethodAttributes::kInstance}, "", &fullSpeed));
  cls.addMethod(makeMethod("rename", {}, "", &Motor::rename));
  cls.addMethod(makeMethod("nothing", {}, "", &Motor::nothing));
  cls.addMethod(makeMethod("burn", {}, "", &Motor::burn));
}

std::unique_ptr<TestClassInfo> motorInfo() {
  return std::make_unique<TestClassInfo>("Motor", addMotorMethods);
}

}  // namespace tova::testing
