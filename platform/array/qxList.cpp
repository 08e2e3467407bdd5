// List arrays: each element a value of any class, or unset.
#include "platform/array/internal/ElementStorages.h"
#include "platform/array/internal/share.h"

using qx_detail::ListStorage;
using qx_detail::Shape;

qxArrayPtr qxCreateListArray(qxDimensions dimensions) {
  Shape shape = Shape::makeChecked(dimensions, sizeof(qxArrayPtr), qxClass::List);
  auto storage = std::make_unique<ListStorage>(qx_detail::unsetElements(shape.count()));
  return qx_detail::makeShare(qxClass::List, false, std::move(shape), std::move(storage));
}

const qxArray* qxGetListElement(const qxArray* array, std::size_t index) {
  qx_detail::checkClass(array, qxClass::List);
  qx_detail::checkIndex(index, qxGetNumberOfElements(array));
  return qx_detail::storageOf<ListStorage>(array).elements()[index].get();
}

void qxSetListElement(qxArray* array, std::size_t index, qxArrayPtr value) {
  qx_detail::checkClass(array, qxClass::List);
  qx_detail::checkIndex(index, qxGetNumberOfElements(array));
  qx_detail::uniqueStorage<ListStorage>(array).elements()[index] = std::move(value);
}
