// Name, description and the fixed answers that the descriptions of all native classes share.
#pragma once

#include <string>

#include "platform/tova/COSClassInfo.h"

namespace tova::factory {

class TovaFactoryClassInfo : public COSClassInfo {
 public:
  const char* name() const override { return name_.c_str(); }
  const char* description() const override { return description_.c_str(); }
  const char* detailedDescription() const override { return description(); }
  int version() const override { return 0; }
  TovaMethod* createConstructor() const override { return nullptr; }
  void releaseBoundObject(basic::Binding& binding) noexcept override;
  void finalizeClass(COSClass* cls) noexcept override;
  bool isHandle() const override { return false; }
  bool isAbstract() const override { return false; }
  bool isSealed() const override { return false; }
  bool isHidden() const override { return false; }

 protected:
  TovaFactoryClassInfo(const char* name, const char* description) : name_(name), description_(description) {}

 private:
  std::string name_;
  std::string description_;
};

}  // namespace tova::factory
