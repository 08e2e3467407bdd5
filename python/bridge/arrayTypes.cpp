#include "python/bridge/arrayTypes.h"

#include <complex>
#include <cstdint>

namespace zks::bridge {

namespace py = pybind11;

namespace {

struct Row {
  char kind;  // NumPy's letter
  py::ssize_t nbytes;
  ArrayType type;
};

constexpr Row kRows[] = {
    {'f', 8, {qxClass::Float64, false}}, {'f', 4, {qxClass::Float32, false}}, {'c', 16, {qxClass::Float64, true}},
    {'c', 8, {qxClass::Float32, true}},  {'b', 1, {qxClass::Boolean, false}}, {'i', 1, {qxClass::Int8, false}},
    {'u', 1, {qxClass::Uint8, false}},   {'i', 2, {qxClass::Int16, false}},   {'u', 2, {qxClass::Uint16, false}},
    {'i', 4, {qxClass::Int32, false}},   {'u', 4, {qxClass::Uint32, false}},  {'i', 8, {qxClass::Int64, false}},
    {'u', 8, {qxClass::Uint64, false}},
};

}  // namespace

std::optional<ArrayType> arrayTypeOf(const py::dtype& dtype) {
  for (const Row& row : kRows)
    if (row.kind == dtype.kind() && row.nbytes == dtype.itemsize())
      return row.type;
  return std::nullopt;
}

py::dtype dtypeOf(ArrayType type) {
  switch (type.cls) {
    case qxClass::Float64:
      return type.isComplex ? py::dtype::of<std::complex<double>>() : py::dtype::of<double>();
    case qxClass::Float32:
      return type.isComplex ? py::dtype::of<std::complex<float>>() : py::dtype::of<float>();
    case qxClass::Int8:
      return py::dtype::of<std::int8_t>();
    case qxClass::Uint8:
      return py::dtype::of<std::uint8_t>();
    case qxClass::Int16:
      return py::dtype::of<std::int16_t>();
    case qxClass::Uint16:
      return py::dtype::of<std::uint16_t>();
    case qxClass::Int32:
      return py::dtype::of<std::int32_t>();
    case qxClass::Uint32:
      return py::dtype::of<std::uint32_t>();
    case qxClass::Int64:
      return py::dtype::of<std::int64_t>();
    case qxClass::Uint64:
      return py::dtype::of<std::uint64_t>();
    case qxClass::Boolean:
      return py::dtype::of<bool>();
    default:
      throw py::type_error("the class " + std::string(qxClassName(type.cls)) + " has no dtype");
  }
}

}  // namespace zks::bridge
