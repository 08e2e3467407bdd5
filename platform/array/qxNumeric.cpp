// Arrays of plain bytes: numeric, Boolean and Text.
#include "platform/array/internal/AdoptedStorage.h"
#include "platform/array/internal/DataStorage.h"
#include "platform/array/internal/share.h"
#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

using qx_detail::AdoptedStorage;
using qx_detail::DataStorage;
using qx_detail::Fill;
using qx_detail::Shape;

namespace {

// Bytes of one element; `WrongClass` for what has no element bytes, or no complex form.
std::size_t elementBytes(qxClass cls, bool complex) {
  if (complex ? !qx_detail::isNumeric(cls) : !qx_detail::hasData(cls)) {
    throw Exception<host::array::WrongClass>(qxClassName(cls),
                                             complex ? "a numeric class" : "a numeric class, boolean or text");
  }
  return qxClassBytes(cls) * (complex ? 2 : 1);
}

qxArrayPtr createDataArray(qxDimensions dimensions, qxClass cls, bool complex, Fill fill) {
  const std::size_t nbytes = elementBytes(cls, complex);
  Shape shape = Shape::makeChecked(dimensions, nbytes, cls);
  if (shape.count() <= 1)
    return qx_detail::makeShare(cls, complex, std::move(shape));
  auto storage = DataStorage::create(shape.count() * nbytes, fill);
  return qx_detail::makeShare(cls, complex, std::move(shape), std::move(storage));
}

template <class T>
qxArrayPtr createScalar(T value) {
  qxArrayPtr array = createDataArray({}, qxClassOf<T>(), false, Fill::Unspecified);
  *static_cast<T*>(qxGetWritableData(array.get())) = value;
  return array;
}

}  // namespace

qxArrayPtr qxCreateNumericArray(qxDimensions dimensions, qxClass cls, bool complex) {
  return createDataArray(dimensions, cls, complex, Fill::Zero);
}

qxArrayPtr qxCreateUninitializedArray(qxDimensions dimensions, qxClass cls, bool complex) {
  return createDataArray(dimensions, cls, complex, Fill::Unspecified);
}

qxArrayPtr qxAdoptArray(qxDimensions dimensions, qxClass cls, bool complex, void* data, bool writable,
                        std::function<void()> release) {
  const std::size_t nbytes = elementBytes(cls, complex);
  Shape shape = Shape::makeChecked(dimensions, nbytes, cls);
  auto storage = std::make_unique<AdoptedStorage>(data, shape.count() * nbytes, writable);
  AdoptedStorage& adopted = *storage;
  qxArrayPtr array = qx_detail::makeShare(cls, complex, std::move(shape), std::move(storage));
  adopted.setRelease(std::move(release));  // last: until here a failure leaves the memory with the caller
  return array;
}

qxArrayPtr qxCreateScalar(double value) {
  return createScalar(value);
}

qxArrayPtr qxCreateBoolean(bool value) {
  return createScalar(value);
}

const void* qxGetData(const qxArray* array) noexcept {
  if (!qx_detail::hasData(array->cls))
    return nullptr;
  if (array->storage.get() == nullptr)
    return array->element.data();
  return qx_detail::storageOf<DataStorage>(array).data();
}

void* qxGetWritableData(qxArray* array) {
  if (!qx_detail::hasData(array->cls))
    return nullptr;
  if (array->storage.get() == nullptr)
    return array->element.data();
  return qx_detail::uniqueStorage<DataStorage>(array).data();
}

namespace qx_detail {

const void* checkedData(const qxArray* array, qxClass cls) {
  checkClass(array, cls);
  return qxGetData(array);
}

void* checkedWritableData(qxArray* array, qxClass cls) {
  checkClass(array, cls);
  return qxGetWritableData(array);
}

}  // namespace qx_detail
