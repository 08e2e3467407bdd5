#include "platform/array/internal/share.h"

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

namespace qx_detail {

void throwWrongClass(const qxArray* array, std::string_view wanted) {
  throw Exception<host::array::WrongClass>(qxClassName(array->cls), wanted);
}

void throwIndexOutOfRange(std::size_t index, std::size_t count) {
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
