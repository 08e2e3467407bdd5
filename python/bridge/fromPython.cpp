#include "python/bridge/fromPython.h"

#include <pybind11/numpy.h>

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/files/nativePath.h"
#include "python/bridge/Handle.h"
#include "python/bridge/PythonPath.h"
#include "python/bridge/RecursionLevel.h"
#include "python/bridge/arraysFromPython.h"
#include "python/bridge/checkSignals.h"

namespace zks::bridge {

namespace py = pybind11;

namespace {

constexpr std::size_t kScalar[] = {1, 1};

qxArrayPtr convert(py::handle value, Memory memory, const PythonPath& path);

std::string typeName(py::handle value) {
  return py::str(py::type::handle_of(value).attr("__qualname__")).cast<std::string>();
}

[[noreturn]] void refuseType(py::handle value, const PythonPath& path) {
  throw py::type_error("a value of type \"" + typeName(value) + "\" has no form in the host" + path.place());
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

qxArrayPtr fromInteger(py::handle value, const PythonPath& path) {
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
  const std::string text = "an integer of more than 64 bits has no form in the host" + path.place();
  PyErr_SetString(PyExc_OverflowError, text.c_str());
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
qxArrayPtr elementFromPython(py::handle value, Memory memory, const PythonPath& path) {
  return value.is_none() ? nullptr : convert(value, memory, path);
}

qxArrayPtr fromSequence(py::handle value, Memory memory, const PythonPath& path) {
  const RecursionLevel level(" while converting a value for the host");
  const auto elements = py::reinterpret_steal<py::tuple>(PySequence_Tuple(value.ptr()));
  const std::size_t dimensions[] = {1, elements.size()};
  qxArrayPtr list = qxCreateListArray(dimensions);
  for (std::size_t index = 0; index < elements.size(); ++index)
    qxSetListElement(list.get(), index, elementFromPython(elements[index], memory, path.element(index)));
  return list;
}

std::string fieldName(py::handle key, const PythonPath& path) {
  constexpr const char* kRule = "the keys of a dict become names of fields, which are texts in UTF-8 and not empty; ";
  if (!PyUnicode_Check(key.ptr()))
    throw py::type_error(kRule + ("a \"" + typeName(key)) + "\" was found" + path.place());
  Py_ssize_t nbytes = 0;
  const char* const name = PyUnicode_AsUTF8AndSize(key.ptr(), &nbytes);
  if (name == nullptr)
    PyErr_Clear();
  if (name == nullptr || nbytes == 0)
    throw py::value_error(kRule + py::repr(key).cast<std::string>() + " was found" + path.place());
  return {name, static_cast<std::size_t>(nbytes)};
}

qxArrayPtr fromDict(const py::dict& fields, Memory memory, const PythonPath& path) {
  const RecursionLevel level(" while converting a value for the host");
  std::vector<std::string> names;
  std::vector<std::pair<py::object, py::object>> entries;  // kept, whatever a conversion does to the dict
  for (const auto& [key, value] : fields) {
    names.push_back(fieldName(key, path));
    entries.emplace_back(py::reinterpret_borrow<py::object>(key), py::reinterpret_borrow<py::object>(value));
  }
  std::vector<qxArrayPtr> values;
  values.reserve(entries.size());
  for (const auto& [key, value] : entries)
    values.push_back(elementFromPython(value, memory, path.key(key)));
  return qxCreateStructWithNames(kScalar, qxMakeFieldNames(names), std::move(values));
}

using Objects = std::vector<py::object>;

// In column-major order.
Objects elementsOf(const py::array& array) {
  const py::array flat = array.attr("ravel")("F");
  auto* const* const slots = static_cast<PyObject* const*>(flat.data());
  Objects elements;
  for (py::ssize_t index = 0; index < flat.size(); ++index)
    elements.push_back(py::reinterpret_borrow<py::object>(slots[index] == nullptr ? Py_None : slots[index]));
  return elements;
}

// Whether all are dicts with the same keys.
bool areRecords(const Objects& elements) {
  if (elements.empty() || !PyDict_Check(elements.front().ptr()))
    return false;
  const py::object keys = elements.front().attr("keys")();
  return std::all_of(elements.begin(), elements.end(), [&](const py::object& element) {
    return PyDict_Check(element.ptr()) && element.attr("keys")().equal(keys);
  });
}

qxArrayPtr fromRecords(const Objects& records, qxDimensions dimensions, const std::vector<std::size_t>& shape,
                       Memory memory, const PythonPath& path) {
  std::vector<std::string> names;
  std::vector<qxArrayPtr> values;
  for (const auto& [key, first] : py::reinterpret_borrow<py::dict>(records.front())) {
    static_cast<void>(first);
    names.push_back(fieldName(key, path));
    for (std::size_t index = 0; index < records.size(); ++index) {
      const PythonPath element = path.element(index, shape);
      values.push_back(elementFromPython(records[index][key], memory, element.key(key)));
    }
  }
  return qxCreateStructWithNames(dimensions, qxMakeFieldNames(names), std::move(values));
}

// A struct array of dicts with the same keys, and a list of anything else.
qxArrayPtr fromObjects(const py::array& array, Memory memory, const PythonPath& path) {
  const RecursionLevel level(" while converting a value for the host");
  const Objects elements = elementsOf(array);
  const std::vector<std::size_t> dimensions = hostDimensions(array);
  const std::vector<std::size_t> shape(array.shape(), array.shape() + array.ndim());
  if (areRecords(elements))
    return fromRecords(elements, dimensions, shape, memory, path);
  qxArrayPtr list = qxCreateListArray(dimensions);
  for (std::size_t index = 0; index < elements.size(); ++index)
    qxSetListElement(list.get(), index, elementFromPython(elements[index], memory, path.element(index, shape)));
  return list;
}

qxArrayPtr fromArray(py::array array, Memory memory, const PythonPath& path) {
  const char kind = array.dtype().kind();
  if (kind == 'O') {
    refuseMasked(array, path);
    return fromObjects(array, memory, path);
  }
  if (kind == 'U' && array.ndim() == 0)
    return convert(array.attr("item")(), memory, path);
  return arrayFromNumPy(std::move(array), memory, path);
}

// Null when the value is no Python scalar.
qxArrayPtr fromScalar(py::handle value, const PythonPath& path) {
  PyObject* const object = value.ptr();
  if (PyBool_Check(object))
    return qxCreateBoolean(object == Py_True);
  if (PyLong_Check(object))
    return fromInteger(value, path);
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

qxArrayPtr convert(py::handle value, Memory memory, const PythonPath& path) {
  checkSignalsNowAndThen();
  PyObject* const object = value.ptr();
  if (py::isinstance<py::array>(value))
    return fromArray(py::reinterpret_borrow<py::array>(value), memory, path);
  if (PyUnicode_Check(object))
    return fromText(value);
  if (PyBytes_Check(object))
    return bytesFromBytes(py::reinterpret_borrow<py::object>(value));
  if (PyByteArray_Check(object))
    return bytesFromBuffer(value, memory);
  if (value.is_none()) {
    const std::size_t nothing[] = {0, 0};
    return qxCreateListArray(nothing);
  }
  if (py::isinstance(value, py::module_::import("numpy").attr("generic")))
    return fromArray(asArray(value), memory, path);
  if (auto array = fromScalar(value, path))
    return array;
  if (PyList_Check(object) || PyTuple_Check(object))
    return fromSequence(value, memory, path);
  if (PyDict_Check(object))
    return fromDict(py::reinterpret_borrow<py::dict>(value), memory, path);
  if (auto array = fromHostObject(value))
    return array;
  if (py::hasattr(value, "__fspath__"))
    return qxCreateString(files::hostPath(pathFromPython(value)));
  if (offersAnArray(value))
    return fromArray(asArray(value), memory, path);
  refuseType(value, path);
}

bool hasElementsOfOneByte(py::handle value) {
  return py::isinstance<py::array>(value) && py::reinterpret_borrow<py::array>(value).itemsize() == 1;
}

}  // namespace

qxArrayPtr fromPython(py::handle value, Memory memory) {
  return convert(value, memory, PythonPath());
}

qxArrayPtr bytesFromPython(py::handle value, Memory memory) {
  const bool isArray = py::isinstance<py::array>(value);
  if (isArray)
    refuseMasked(py::reinterpret_borrow<py::array>(value), PythonPath());
  if (PyBytes_Check(value.ptr()))
    return bytesFromBytes(py::reinterpret_borrow<py::object>(value));
  if (isArray ? hasElementsOfOneByte(value) : PyObject_CheckBuffer(value.ptr()) != 0)
    return bytesFromBuffer(value, memory);
  return fromPython(value, memory);
}

std::string pathFromPython(py::handle value) {
  PyObject* bytes = nullptr;
  if (PyUnicode_FSConverter(value.ptr(), &bytes) == 0)
    throw py::error_already_set();
  return py::reinterpret_steal<py::bytes>(bytes);
}

}  // namespace zks::bridge
