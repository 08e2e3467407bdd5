#include "python/bridge/toPython.h"

#include <pybind11/numpy.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "python/bridge/Handle.h"
#include "python/bridge/RecursionLevel.h"
#include "python/bridge/arrayTypes.h"
#include "python/bridge/checkSignals.h"
#include "python/bridge/counters.h"
#include "python/bridge/takeParts.h"

namespace zks::bridge {

namespace py = pybind11;

namespace {

// Never given back: the interpreter may be gone before static objects are.
PyObject* handleFactory = nullptr;

// A share of an array that a NumPy array stands on.
class Exported {
 public:
  explicit Exported(qxArrayPtr array) : array_(std::move(array)) {}

 private:
  qxArrayPtr array_;
  Counted counted_{counters().exported};
};

py::capsule ownerOf(qxArrayPtr array) {
  auto exported = std::make_unique<Exported>(std::move(array));
  py::capsule capsule(exported.get(), [](void* owned) { delete static_cast<Exported*>(owned); });
  static_cast<void>(exported.release());  // the capsule has it now
  return capsule;
}

std::vector<py::ssize_t> shapeOf(const qxArray* array) {
  const qxDimensions dimensions = qxGetDimensions(array);
  return {dimensions.begin(), dimensions.end()};
}

std::vector<py::ssize_t> columnMajorStrides(const std::vector<py::ssize_t>& shape, py::ssize_t itemBytes) {
  std::vector<py::ssize_t> strides(shape.size());
  py::ssize_t step = itemBytes;
  for (std::size_t axis = 0; axis < shape.size(); ++axis) {
    strides[axis] = step;
    step *= std::max<py::ssize_t>(shape[axis], 1);
  }
  return strides;
}

py::dtype checkedDtypeOf(const qxArray* array) {
  const ArrayType type{qxGetClass(array), qxIsComplex(array)};
  const bool isFloat = type.cls == qxClass::Float64 || type.cls == qxClass::Float32;
  if (type.isComplex && !isFloat)
    throw py::type_error("a complex array of class " + std::string(qxClassName(type.cls)) + " has no form in NumPy");
  return dtypeOf(type);
}

py::array numericToPython(qxArrayPtr array) {
  const py::dtype dtype = checkedDtypeOf(array.get());
  const auto shape = shapeOf(array.get());
  const auto strides = columnMajorStrides(shape, dtype.itemsize());
  if (qxGetNumberOfElements(array.get()) == 0)
    return py::array(dtype, shape, strides);
  void* const data = qxGetWritableData(array.get());
  return py::array(dtype, shape, strides, data, ownerOf(std::move(array)));
}

// int, float, complex and bool where Python has the type, NumPy's scalars for the others.
py::object scalarToPython(const qxArray* array) {
  const py::dtype dtype = checkedDtypeOf(array);
  const py::array value(dtype, std::vector<py::ssize_t>{}, qxGetData(array));
  switch (qxGetClass(array)) {
    case qxClass::Float64:
    case qxClass::Int64:
    case qxClass::Boolean:
      return value.attr("item")();
    default:
      return value[py::tuple()];
  }
}

// Element by element in the host's order, which is the array's own.
template <class Element>
py::object objectArray(const qxArray* array, Element element) {
  const py::module_ numpy = py::module_::import("numpy");
  py::array result = numpy.attr("empty")(py::cast(shapeOf(array)), py::arg("dtype") = "object", py::arg("order") = "F");
  auto* const slots = static_cast<PyObject**>(result.mutable_data());
  const std::size_t count = qxGetNumberOfElements(array);
  for (std::size_t index = 0; index < count; ++index)
    Py_XDECREF(std::exchange(slots[index], element(index).release().ptr()));
  return result;
}

bool isScalar(const qxArray* array) {
  const qxDimensions dimensions = qxGetDimensions(array);
  return dimensions.size() == 2 && dimensions[0] == 1 && dimensions[1] == 1;
}

py::str decoded(const char16_t* units, std::size_t count) {
  int littleEndian = -1;
  PyObject* const text =
      PyUnicode_DecodeUTF16(reinterpret_cast<const char*>(units), static_cast<Py_ssize_t>(count * sizeof(char16_t)),
                            "surrogatepass", &littleEndian);
  if (text == nullptr)
    throw py::error_already_set();
  return py::reinterpret_steal<py::str>(text);
}

py::object textToPython(const qxArray* array) {
  const qxDimensions dimensions = qxGetDimensions(array);
  const auto units = qxGetElements<char16_t>(array);
  if (units.empty() || (dimensions.size() == 2 && dimensions[0] == 1))
    return decoded(units.data(), units.size());
  const py::object characters = objectArray(array, [&](std::size_t index) { return decoded(&units[index], 1); });
  return characters.attr("astype")("U1");
}

py::object partToPython(qxArrayPtr part) {
  return part == nullptr ? py::object(py::none()) : toPython(std::move(part), Scalars::AsScalars);
}

py::object listToPython(qxArrayPtr array) {
  const RecursionLevel level(" while converting a value of the host");
  const qxDimensions dimensions = qxGetDimensions(array.get());
  const std::size_t count = qxGetNumberOfElements(array.get());
  if (dimensions.size() == 2 && dimensions[0] == 0 && dimensions[1] == 0)
    return py::none();
  if (dimensions.size() > 2 || dimensions[0] != 1)
    return objectArray(array.get(), [&](std::size_t index) { return partToPython(takeElement(array.get(), index)); });
  py::list list(count);
  for (std::size_t index = 0; index < count; ++index)
    list[index] = partToPython(takeElement(array.get(), index));
  return list;
}

py::object structToPython(qxArrayPtr array) {
  const RecursionLevel level(" while converting a value of the host");
  const std::vector<std::string> names = fieldNamesOf(array.get());
  const auto element = [&](std::size_t index) -> py::object {
    py::dict fields;
    for (std::size_t field = 0; field < names.size(); ++field)
      fields[py::str(names[field])] = partToPython(takeField(array.get(), index, field));
    return fields;
  };
  if (isScalar(array.get()))
    return element(0);
  return objectArray(array.get(), element);
}

py::object objectToPython(qxArrayPtr array) {
  auto handle = std::make_shared<Handle>(std::move(array));
  const std::string className = handle->className();
  if (handleFactory == nullptr)
    return py::cast(std::move(handle));
  return py::reinterpret_borrow<py::object>(handleFactory)(std::move(handle), className);
}

}  // namespace

py::object toPython(qxArrayPtr array, Scalars scalars) {
  checkSignalsNowAndThen();
  switch (qxGetClass(array.get())) {
    case qxClass::Text:
      return textToPython(array.get());
    case qxClass::List:
      return listToPython(std::move(array));
    case qxClass::Struct:
      return structToPython(std::move(array));
    case qxClass::Object:
      return objectToPython(std::move(array));
    default:
      if (scalars == Scalars::AsScalars && isScalar(array.get()))
        return scalarToPython(array.get());
      return numericToPython(std::move(array));
  }
}

py::bytes toBytes(const qxArray* array) {
  return {static_cast<const char*>(qxGetData(array)), qxGetDataBytes(array)};
}

void setHandleFactory(py::object factory) {
  Py_XDECREF(std::exchange(handleFactory, factory.release().ptr()));
}

}  // namespace zks::bridge
