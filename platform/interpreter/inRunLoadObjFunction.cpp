#include "platform/interpreter/internal/objectForms.h"
#include "platform/interpreter/internal/replaceInside.h"

namespace interpreter {

namespace {

// The value of a saved form's field; null when `value` is not a saved form.
const qxArray* savedField(const qxArray* value, const std::string& name) {
  const bool candidate =
      qxGetClass(value) == qxClass::Struct && qxGetNumberOfElements(value) == 1 && qxGetFieldNames(value).size() == 2;
  return candidate && qxHasField(value, name) ? qxGetField(value, 0, name) : nullptr;
}

// Null when the value is not a saved form of a class that can be loaded here.
qxArrayPtr loadedObject(const qxArray* value) {
  const qxArray* className = savedField(value, internal::kSavedClass);
  const qxArray* saved = savedField(value, internal::kSavedValue);
  if (className == nullptr || saved == nullptr || qxGetClass(className) != qxClass::Text)
    return nullptr;
  std::string name = qxGetStringUtf8(className);
  const auto form = internal::findObjectForm(name);
  if (form == nullptr || !form->load)
    return nullptr;
  return qxCreateObject(std::move(name), form->load(saved));
}

}  // namespace

}  // namespace interpreter

void inRunLoadObjFunction(qxArray* array) {
  qxArrayPtr loaded = interpreter::internal::ReplacingWalk(interpreter::loadedObject).run(array);
  if (loaded != nullptr)
    qxReplace(array, std::move(loaded));
}
