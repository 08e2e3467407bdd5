#include "python/bridge/arraysFromPython.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "python/bridge/arrayTypes.h"
#include "python/bridge/counters.h"
#include "python/bridge/deferred.h"
#include "python/bridge/interpreterLock.h"

namespace zks::bridge {

namespace py = pybind11;

namespace {

[[noreturn]] void refuseDtype(const py::dtype& dtype, const PythonPath& path) {
  const char* const advice = dtype.kind() == 'U'
                                 ? "; texts of several characters travel as a list (array.tolist())"
                                 : "; it takes float32, float64, complex64, complex128, bool, the integers of 8 to 64 "
                                   "bits, U1 and object";
  throw py::type_error("an array of dtype \"" + py::str(py::handle(dtype)).cast<std::string>() +
                       "\" has no form in the host" + advice + path.place());
}

// An array over memory that `owner` keeps in place.
qxArrayPtr adopt(qxDimensions dimensions, ArrayType type, const void* data, py::object owner) {
  auto counted = std::make_shared<Counted>(counters().borrowed);
  PyObject* const reference = owner.ptr();
  auto release = [reference, counted] { releaseLater(reference); };
  // Not written to: the host copies before it writes.
  qxArrayPtr array =
      qxAdoptArray(dimensions, type.cls, type.isComplex, const_cast<void*>(data), false, std::move(release));
  owner.release();
  return array;
}

bool isLaidOutAsHostArrays(const py::array& array) {
  constexpr int kNeeded = py::detail::npy_api::NPY_ARRAY_F_CONTIGUOUS_ | py::detail::npy_api::NPY_ARRAY_ALIGNED_;
  return (array.flags() & kNeeded) == kNeeded && array.dtype().attr("isnative").cast<bool>();
}

py::array copyLaidOutAsHostArrays(const py::array& array) {
  const py::object copied = py::module_::import("zks._layout").attr("copied");
  return callPython([&] { return copied(array, "F"); });
}

// Each character as the UTF-16 unit that it is; NumPy leaves NUL characters out of its texts.
qxArrayPtr fromCharacters(py::array array, const PythonPath& path) {
  if (!isLaidOutAsHostArrays(array))
    array = copyLaidOutAsHostArrays(array);
  qxArrayPtr text = qxCreateNumericArray(hostDimensions(array), qxClass::Text);
  const auto* const characters = static_cast<const char32_t*>(array.data());
  const auto count = static_cast<std::size_t>(array.size());
  if (std::any_of(characters, characters + count,
                  [](char32_t each) { return each > std::numeric_limits<char16_t>::max(); }))
    throw py::value_error(
        "an array of characters holds one that is two units of UTF-16, and the host's arrays have a "
        "unit for each element; send a str" +
        path.place());
  std::copy_n(characters, count, qxGetWritableElements<char16_t>(text.get()).begin());
  return text;
}

bool isOneCharacterEach(const py::dtype& dtype) {
  return dtype.kind() == 'U' && dtype.itemsize() == sizeof(char32_t);
}

}  // namespace

void refuseMasked(const py::array& array, const PythonPath& path) {
  if (py::isinstance(array, py::module_::import("numpy.ma").attr("MaskedArray")))
    throw py::type_error("a masked array has no form in the host; fill it first (array.filled())" + path.place());
}

std::vector<std::size_t> hostDimensions(const py::array& array) {
  std::vector<std::size_t> dimensions(array.shape(), array.shape() + array.ndim());
  while (dimensions.size() < 2)
    dimensions.push_back(1);
  return dimensions;
}

qxArrayPtr arrayFromNumPy(py::array array, Memory memory, const PythonPath& path) {
  refuseMasked(array, path);
  if (isOneCharacterEach(array.dtype()))
    return fromCharacters(std::move(array), path);
  const std::optional<ArrayType> type = arrayTypeOf(array.dtype());
  if (!type)
    refuseDtype(array.dtype(), path);
  const std::vector<std::size_t> dimensions = hostDimensions(array);
  if (array.size() == 0)
    return qxCreateNumericArray(dimensions, type->cls, type->isComplex);
  if (memory == Memory::Copy || !isLaidOutAsHostArrays(array))
    array = copyLaidOutAsHostArrays(array);
  const void* const data = array.data();
  return adopt(dimensions, *type, data, std::move(array));
}

qxArrayPtr bytesFromBytes(py::object bytes) {
  const auto nbytes = static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.ptr()));
  const std::size_t dimensions[] = {nbytes, 1};
  if (nbytes == 0)
    return qxCreateNumericArray(dimensions, qxClass::Uint8);
  const void* const data = PyBytes_AS_STRING(bytes.ptr());
  return adopt(dimensions, {qxClass::Uint8, false}, data, std::move(bytes));
}

qxArrayPtr bytesFromBuffer(py::handle value, Memory memory) {
  const auto view = py::reinterpret_steal<py::object>(PyMemoryView_FromObject(value.ptr()));
  if (!view)
    throw py::error_already_set();
  const Py_buffer& buffer = *PyMemoryView_GET_BUFFER(view.ptr());
  constexpr char kRowOrColumnMajor = 'A';
  if (memory == Memory::Copy || buffer.len == 0 || PyBuffer_IsContiguous(&buffer, kRowOrColumnMajor) == 0)
    return bytesFromBytes(view.attr("tobytes")("A"));
  const std::size_t dimensions[] = {static_cast<std::size_t>(buffer.len), 1};
  return adopt(dimensions, {qxClass::Uint8, false}, buffer.buf, view);
}

}  // namespace zks::bridge
