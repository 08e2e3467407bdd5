// Arrays of plain bytes: numeric, Boolean and Text.
#include <cstring>

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

// Columns of numbers do not: their shares have one memory, however short they are.
bool liesInShare(qxClass cls, std::size_t count) {
  return count <= 1 || (cls == qxClass::Text && count <= qx_detail::kMostBytesInShare / sizeof(char16_t));
}

qxArrayPtr createDataArray(qxDimensions dimensions, qxClass cls, bool complex, Fill fill) {
  const std::size_t nbytes = elementBytes(cls, complex);
  Shape shape = Shape::makeChecked(dimensions, nbytes, cls);
  if (liesInShare(cls, shape.count()))
    return qx_detail::makeShare(cls, complex, std::move(shape));
  auto storage = DataStorage::create(shape.count() * nbytes, fill);
  return qx_detail::makeShare(cls, complex, std::move(shape), std::move(storage));
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
  return qxCreateScalarOf(value);
}

qxArrayPtr qxCreateBoolean(bool value) {
  return qxCreateScalarOf(value);
}

const void* qxGetData(const qxArray* array) noexcept {
  if (!qx_detail::hasData(array->cls))
    return nullptr;
  if (array->storage.get() == nullptr)
    return array->bytes.data();
  return qx_detail::storageOf<DataStorage>(array).data();
}

void* qxGetWritableData(qxArray* array) {
  if (!qx_detail::hasData(array->cls))
    return nullptr;
  if (array->storage.get() == nullptr)
    return array->bytes.data();
  return qx_detail::uniqueStorage<DataStorage>(array).data();
}

namespace qx_detail {

qxArrayPtr createScalar(qxClass cls, const void* element) {
  qxArrayPtr array = makeShare(cls, false, Shape());
  std::memcpy(array->bytes.data(), element, qxClassBytes(cls));
  return array;
}

const void* scalarData(const qxArray* array, qxClass cls) noexcept {
  return array->cls == cls && !array->complex && array->shape.count() == 1 ? qxGetData(array) : nullptr;
}

const void* checkedData(const qxArray* array, qxClass cls) {
  checkClass(array, cls);
  return qxGetData(array);
}

void* checkedWritableData(qxArray* array, qxClass cls) {
  checkClass(array, cls);
  return qxGetWritableData(array);
}

}  // namespace qx_detail
