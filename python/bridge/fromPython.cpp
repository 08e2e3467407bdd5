#include "python/bridge/fromPython.h"

#include <pybind11/numpy.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/files/nativePath.h"
#include "python/bridge/Handle.h"
#include "python/bridge/RecursionLevel.h"
#include "python/bridge/arrayTypes.h"
#include "python/bridge/counters.h"
#include "python/bridge/deferred.h"

namespace zks::bridge {

namespace py = pybind11;

namespace {

constexpr std::size_t kScalar[] = {1, 1};

std::string textOf(py::handle value) {
  return py::str(value).cast<std::string>();
}

[[noreturn]] void refuseType(py::handle value) {
  throw py::type_error("a value of type \"" + textOf(py::type::handle_of(value).attr("__qualname__")) +
                       "\" has no form in the host");
}

[[noreturn]] void refuseDtype(const py::dtype& dtype) {
  throw py::type_error("an array of dtype \"" + textOf(dtype) +
                       "\" has no form in the host; it takes float32, float64, complex64, complex128, bool and the "
                       "integers of 8 to 64 bits");
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

std::vector<std::size_t> hostDimensions(const py::array& array) {
  std::vector<std::size_t> dimensions(array.shape(), array.shape() + array.ndim());
  while (dimensions.size() < 2)
    dimensions.push_back(1);
  return dimensions;
}

bool isLaidOutAsHostArrays(const py::array& array) {
  constexpr int kNeeded = py::detail::npy_api::NPY_ARRAY_F_CONTIGUOUS_ | py::detail::npy_api::NPY_ARRAY_ALIGNED_;
  return (array.flags() & kNeeded) == kNeeded && array.dtype().attr("isnative").cast<bool>();
}

py::array copyLaidOutAsHostArrays(const py::array& array) {
  const py::module_ numpy = py::module_::import("numpy");
  return numpy.attr("array")(array, array.dtype().attr("newbyteorder")("="), py::arg("order") = "F",
                             py::arg("copy") = true, py::arg("subok") = false);
}

void refuseMasked(const py::array& array) {
  if (py::isinstance(array, py::module_::import("numpy.ma").attr("MaskedArray")))
    throw py::type_error("a masked array has no form in the host; fill it first (array.filled())");
}

qxArrayPtr fromArray(py::array array, Memory memory) {
  const std::optional<ArrayType> type = arrayTypeOf(array.dtype());
  if (!type)
    refuseDtype(array.dtype());
  refuseMasked(array);
  const std::vector<std::size_t> dimensions = hostDimensions(array);
  if (array.size() == 0)
    return qxCreateNumericArray(dimensions, type->cls, type->isComplex);
  if (memory == Memory::Copy || !isLaidOutAsHostArrays(array))
    array = copyLaidOutAsHostArrays(array);
  const void* const data = array.data();
  return adopt(dimensions, *type, data, std::move(array));
}

py::array asArray(py::handle value) {
  return py::module_::import("numpy").attr("asarray")(value);
}

qxArrayPtr fromText(py::handle text) {
  const auto units =
      py::reinterpret_steal<py::bytes>(PyUnicode_AsEncodedString(text.ptr(), "utf-16-le", "surrogatepass"));
  if (!units)
    throw py::error_already_set();
  const std::string_view bytes = units;
  std::u16string utf16(bytes.size() / sizeof(char16_t), u'\0');
  bytes.copy(reinterpret_cast<char*>(utf16.data()), bytes.size());
  return qxCreateString(utf16);
}

template <class T>
qxArrayPtr scalar(T value) {
  qxArrayPtr array = qxCreateNumericArray(kScalar, qxClassOf<T>());
  qxGetWritableElements<T>(array.get())[0] = value;
  return array;
}

qxArrayPtr fromInteger(py::handle value) {
  int overflow = 0;
  const long long number = PyLong_AsLongLongAndOverflow(value.ptr(), &overflow);
  if (overflow == 0) {
    if (number == -1 && PyErr_Occurred() != nullptr)
      throw py::error_already_set();
    return scalar<std::int64_t>(number);
  }
  if (overflow > 0) {
    const unsigned long long large = PyLong_AsUnsignedLongLong(value.ptr());
    if (PyErr_Occurred() == nullptr)
      return scalar<std::uint64_t>(large);
    PyErr_Clear();
  }
  PyErr_SetString(PyExc_OverflowError, "an integer of more than 64 bits has no form in the host");
  throw py::error_already_set();
}

qxArrayPtr fromComplex(py::handle value) {
  const Py_complex number = PyComplex_AsCComplex(value.ptr());
  if (PyErr_Occurred() != nullptr)
    throw py::error_already_set();
  qxArrayPtr array = qxCreateNumericArray(kScalar, qxClass::Float64, true);
  const auto parts = qxGetWritableElements<double>(array.get());
  parts[0] = number.real;
  parts[1] = number.imag;
  return array;
}

// None is a list's element that was never set, and so is it a field's value.
qxArrayPtr elementFromPython(py::handle value, Memory memory) {
  return value.is_none() ? nullptr : fromPython(value, memory);
}

qxArrayPtr fromSequence(py::handle value, Memory memory) {
  const RecursionLevel level(" while converting a value for the host");
  const auto elements = py::reinterpret_steal<py::tuple>(PySequence_Tuple(value.ptr()));
  const std::size_t dimensions[] = {1, elements.size()};
  qxArrayPtr list = qxCreateListArray(dimensions);
  for (std::size_t index = 0; index < elements.size(); ++index)
    qxSetListElement(list.get(), index, elementFromPython(elements[index], memory));
  return list;
}

qxArrayPtr fromDict(const py::dict& fields, Memory memory) {
  const RecursionLevel level(" while converting a value for the host");
  std::vector<std::string> names;
  std::vector<py::object> values;
  for (const auto& [key, value] : fields) {
    if (!PyUnicode_Check(key.ptr()))
      throw py::type_error("the keys of a dict become names of fields and are str; \"" +
                           textOf(py::type::handle_of(key).attr("__qualname__")) + "\" was found");
    names.push_back(key.cast<std::string>());
    if (names.back().empty())
      throw py::value_error("the keys of a dict become names of fields, and those are not empty");
    values.push_back(py::reinterpret_borrow<py::object>(value));
  }
  qxArrayPtr array = qxCreateStructArray(kScalar, names);
  for (std::size_t index = 0; index < names.size(); ++index)
    qxSetField(array.get(), 0, names[index], elementFromPython(values[index], memory));
  return array;
}

qxArrayPtr fromBytes(py::object bytes) {
  const auto nbytes = static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.ptr()));
  const std::size_t dimensions[] = {nbytes, 1};
  if (nbytes == 0)
    return qxCreateNumericArray(dimensions, qxClass::Uint8);
  const void* const data = PyBytes_AS_STRING(bytes.ptr());
  return adopt(dimensions, {qxClass::Uint8, false}, data, std::move(bytes));
}

// Null when the value is no Python scalar.
qxArrayPtr fromScalar(py::handle value) {
  PyObject* const object = value.ptr();
  if (PyBool_Check(object))
    return qxCreateBoolean(object == Py_True);
  if (PyLong_Check(object))
    return fromInteger(value);
  if (PyFloat_Check(object))
    return qxCreateScalar(PyFloat_AS_DOUBLE(object));
  if (PyComplex_Check(object))
    return fromComplex(value);
  return nullptr;
}

// Null when the value is none of these.
qxArrayPtr fromHostObject(py::handle value) {
  if (py::isinstance<Handle>(value))
    return qxCreateSharedCopy(value.cast<const Handle&>().array());
  if (py::hasattr(py::type::handle_of(value), "_zks_handle"))
    return qxCreateSharedCopy(value.attr("_zks_handle").cast<const Handle&>().array());
  return nullptr;
}

bool offersAnArray(py::handle value) {
  return PyObject_CheckBuffer(value.ptr()) != 0 || py::hasattr(py::type::handle_of(value), "__array__");
}

}  // namespace

qxArrayPtr fromPython(py::handle value, Memory memory) {
  PyObject* const object = value.ptr();
  if (py::isinstance<py::array>(value))
    return fromArray(py::reinterpret_borrow<py::array>(value), memory);
  if (PyUnicode_Check(object))
    return fromText(value);
  if (PyBytes_Check(object))
    return fromBytes(py::reinterpret_borrow<py::object>(value));
  if (PyByteArray_Check(object))
    return bytesFromPython(value, memory);
  if (value.is_none()) {
    const std::size_t nothing[] = {0, 0};
    return qxCreateListArray(nothing);
  }
  if (py::isinstance(value, py::module_::import("numpy").attr("generic")))
    return fromArray(asArray(value), memory);
  if (auto array = fromScalar(value))
    return array;
  if (PyList_Check(object) || PyTuple_Check(object))
    return fromSequence(value, memory);
  if (PyDict_Check(object))
    return fromDict(py::reinterpret_borrow<py::dict>(value), memory);
  if (auto array = fromHostObject(value))
    return array;
  if (py::hasattr(value, "__fspath__"))
    return qxCreateString(files::hostPath(pathFromPython(value)));
  if (offersAnArray(value))
    return fromArray(asArray(value), memory);
  refuseType(value);
}

qxArrayPtr bytesFromPython(py::handle value, Memory memory) {
  if (PyBytes_Check(value.ptr()))
    return fromBytes(py::reinterpret_borrow<py::object>(value));
  if (py::isinstance<py::array>(value) || PyObject_CheckBuffer(value.ptr()) == 0)
    return fromPython(value, memory);
  const py::object view = py::reinterpret_steal<py::object>(PyMemoryView_FromObject(value.ptr()));
  if (!view)
    throw py::error_already_set();
  if (view.attr("nbytes").cast<std::size_t>() == 0)  // such a view cannot be cast
    return fromBytes(py::bytes());
  const py::object bytes = view.attr("cast")("B");
  return fromArray(py::module_::import("numpy").attr("frombuffer")(bytes, py::dtype::of<std::uint8_t>()), memory);
}

std::string pathFromPython(py::handle value) {
  const py::object bytes = py::module_::import("os").attr("fsencode")(value);
  return bytes.cast<std::string>();
}

}  // namespace zks::bridge
