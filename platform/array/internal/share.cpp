#include "platform/array/internal/share.h"

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

namespace qx_detail {

qxArrayPtr makeShare(qxClass cls, bool complex, Shape shape, std::unique_ptr<Storage> storage) {
  return qxArrayPtr(new qxArray{cls, complex, std::move(shape), StorageRef(std::move(storage))});
}

bool isNumeric(qxClass cls) noexcept {
  return cls <= qxClass::Uint64;
}

bool hasData(qxClass cls) noexcept {
  return cls <= qxClass::Text;
}

void throwWrongClass(const qxArray* array, std::string_view wanted) {
  throw Exception<host::array::WrongClass>(qxClassName(array->cls), wanted);
}

void checkClass(const qxArray* array, qxClass wanted) {
  if (array->cls != wanted)
    throwWrongClass(array, qxClassName(wanted));
}

void checkIndex(std::size_t index, std::size_t count) {
  if (index >= count)
    throw Exception<host::array::IndexOutOfRange>(index, count);
}

}  // namespace qx_detail

void qxDestroyArray(qxArray* array) noexcept {
  delete array;
}

qxArrayPtr qxCreateSharedCopy(const qxArray* array) {
  return qxArrayPtr(new qxArray(*array));
}

void qxReplace(qxArray* array, qxArrayPtr value) noexcept {
  std::swap(*array, *value);
}
