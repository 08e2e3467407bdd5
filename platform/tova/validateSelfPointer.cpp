#include "platform/tova/validateSelfPointer.h"

#include "platform/tova/BindingRegistry.h"
#include "platform/tova/handles.h"

namespace tova::factory::impl {

void validateSelfPointer(const qxArray* array) {
  if (array == nullptr)
    detail::throwInvalidHandle(array);
  if (qxGetClass(array) != qxClass::Object)
    return;
  if (qxGetNative(array) == nullptr)
    detail::throwInvalidHandle(array);
  const bool isOurs = basic::BindingRegistry::classOf(array) != nullptr;
  if (isOurs && !basic::BindingRegistry::isValid(array))
    detail::throwInvalidHandle(array);
}

}  // namespace tova::factory::impl
