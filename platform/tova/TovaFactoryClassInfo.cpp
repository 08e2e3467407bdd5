#include "platform/tova/TovaFactoryClassInfo.h"

#include "platform/tova/BindingRegistry.h"

namespace tova::factory {

void TovaFactoryClassInfo::releaseBoundObject(basic::Binding& binding) noexcept {
  basic::BindingRegistry::remove(binding);
}

void TovaFactoryClassInfo::finalizeClass(COSClass* /*cls*/) noexcept {}

}  // namespace tova::factory
