// Object arrays: one native handle.
#include "platform/array/internal/ElementStorages.h"
#include "platform/array/internal/share.h"

using qx_detail::ObjectStorage;
using qx_detail::Shape;

qxArrayPtr qxCreateObject(std::string className, std::shared_ptr<void> native) {
  auto storage = std::make_unique<ObjectStorage>(std::move(className), std::move(native));
  return qx_detail::makeShare(qxClass::Object, false, Shape::makeChecked({}, 0, qxClass::Object), std::move(storage));
}

const std::string& qxGetObjectClassName(const qxArray* array) {
  qx_detail::checkClass(array, qxClass::Object);
  return qx_detail::storageOf<ObjectStorage>(array).className();
}

std::shared_ptr<void> qxGetNative(const qxArray* array) {
  qx_detail::checkClass(array, qxClass::Object);
  return qx_detail::storageOf<ObjectStorage>(array).native();
}
