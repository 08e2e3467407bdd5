#include <array>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/interpreter/internal/objectForms.h"
#include "platform/interpreter/internal/replaceInside.h"

namespace interpreter {

namespace {

// Null when the class has no form, or its save function gave nothing.
qxArrayPtr savedForm(const qxArray* object) {
  const std::string& className = qxGetObjectClassName(object);
  const auto form = internal::findObjectForm(className);
  if (form == nullptr || !form->save)
    return nullptr;
  qxArrayPtr value = form->save(qxGetNative(object));
  if (value == nullptr)
    return nullptr;
  const std::array<std::string, 2> fields{internal::kSavedClass, internal::kSavedValue};
  qxArrayPtr saved = qxCreateStructArray({}, fields);
  qxSetField(saved.get(), 0, internal::kSavedClass, qxCreateStringUtf8(className));
  qxSetField(saved.get(), 0, internal::kSavedValue, std::move(value));
  return saved;
}

}  // namespace

}  // namespace interpreter

qxArray* inRunSaveObjFunction(qxArray* array) {
  using namespace interpreter;
  internal::ReplacingWalk walk([&walk](const qxArray* value) -> qxArrayPtr {
    if (qxGetClass(value) != qxClass::Object)
      return nullptr;
    qxArrayPtr saved = savedForm(value);
    if (saved == nullptr) {
      throw Exception<host::interpreter::CannotSave>(walk.path(), qxGetObjectClassName(value));
    }
    return saved;
  });
  qxArrayPtr saved = walk.run(array);
  return saved == nullptr ? array : saved.release();
}
