// For tests: a native class with every sort of method, its host class "plant.Motor", and a scope of classes to put it
// in.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "platform/errors/IException.h"
#include "platform/tova/COSNamespace.h"
#include "platform/tova/HostClassName.h"
#include "platform/tova/StdShareableHandleClassInfo.h"
#include "platform/tova/classMode.h"
#include "platform/tova/omNamespaces.h"

namespace tova::testing {

class Motor : public factory::full::StdShareable {
 public:
  Motor() { ++alive; }
  explicit Motor(double speed) : speed_(speed) { ++alive; }
  ~Motor() override {
    factory::full::retract(this);
    --alive;
  }

  static std::shared_ptr<Motor> open(const factory::qxConstArrayProxy& speed);
  static std::shared_ptr<Motor> openNone();
  static factory::qxArrayProxy faster(Motor* left, const std::shared_ptr<Motor>& right);
  factory::qxArrayProxy speed() const;
  factory::qxArrayProxy speedTimes(const factory::qxArrayProxy& factor);
  void rename(const std::u16string& name) { name_ = name; }
  factory::qxArrayProxy nothing() { return {}; }
  void burn();  // throws std::runtime_error

  const std::u16string& name() const { return name_; }

  static inline std::atomic<int> alive{0};

 private:
  double speed_ = 0;
  std::u16string name_;
};

// A description that is filled and answers as a test wants.
class TestClassInfo final : public factory::StdShareableHandleClassInfo<Motor> {
 public:
  using Fill = std::function<void(COSClass&)>;
  explicit TestClassInfo(const char* name, Fill fill = nullptr)
      : StdShareableHandleClassInfo(name, "A class of a test"), fill_(std::move(fill)) {}

  void initializeClass(COSClass* cls, const COSClient* /*client*/) override {
    if (fill_)
      fill_(*cls);
  }
  void finalizeClass(COSClass* /*cls*/) noexcept override { ++finalized; }
  void releaseBoundObject(factory::basic::Binding& binding) noexcept override {
    ++released;
    StdShareableHandleClassInfo::releaseBoundObject(binding);
  }
  bool isHandle() const override { return handle; }
  bool isAbstract() const override { return abstract; }
  bool isSealed() const override { return sealed; }
  bool isHidden() const override { return hidden; }

  bool handle = true;
  bool abstract = false;
  bool sealed = false;
  bool hidden = false;

  static inline std::atomic<int> finalized{0};
  static inline std::atomic<int> released{0};

 private:
  Fill fill_;
};

// Adds all methods of Motor.
void addMotorMethods(COSClass& cls);
std::unique_ptr<TestClassInfo> motorInfo();

// A scope of classes of its own for each test, entered by the test's thread.
class ScopedClasses : public ::testing::Test {
 protected:
  ScopedClasses() {
    setClassMode(ClassMode::PerUserScope);
    scope = std::make_unique<UserScope>();
    entry = std::make_unique<UserScopeEntry>(*scope);
    TestClassInfo::finalized = 0;
    TestClassInfo::released = 0;
  }
  ~ScopedClasses() override {
    endScope();
    setClassMode(ClassMode::ProcessWide);
  }

  void endScope() {
    entry.reset();
    scope.reset();
  }

  static COSNamespace* plant() { return omGetNamespace("plant"); }
  static void addMotor() { plant()->addClass(motorInfo(), nullptr, OnDuplicate::Refuse); }

  std::unique_ptr<UserScope> scope;
  std::unique_ptr<UserScopeEntry> entry;
};

// "component:Name: text" of the identified error that the call throws; empty when it throws none.
template <class Call>
std::string identifiedError(Call&& call) {
  try {
    std::forward<Call>(call)();
  } catch (const IException& error) {
    return error.identifier() + ": " + fl::i18n::to_string(error.ToUstring());
  }
  return {};
}

}  // namespace tova::testing

template <>
struct tova::factory::HostClassName<tova::testing::Motor> {
  static constexpr const char* value = "plant.Motor";
};
