#include "platform/interpreter/internal/objectForms.h"
#include "platform/interpreter/internal/replaceInside.h"

namespace interpreter {

namespace {

// Changes nothing, ever.
qxArrayPtr validateObject(const qxArray* value) {
  if (qxGetClass(value) != qxClass::Object)
    return nullptr;
  const auto form = internal::findObjectForm(qxGetObjectClassName(value));
  if (form != nullptr && form->validate)
    form->validate(qxGetNative(value));
  return nullptr;
}

}  // namespace

}  // namespace interpreter

void inValidateLoadedObject(qxArray* array) {
  interpreter::internal::ReplacingWalk(interpreter::validateObject).run(array);
}
