// Where in a nested Python value a conversion stands, for messages: `[2]["speed"]` is what value[2]["speed"] gives.
//
// Ownership: a step borrows the step before it, the key and the shape. It costs nothing until somebody asks for the
// text.
#pragma once

#include <pybind11/pybind11.h>

#include <cstddef>
#include <string>
#include <vector>

namespace zks::bridge {

class PythonPath {
 public:
  PythonPath() = default;  // the whole value
  PythonPath element(std::size_t index) const { return {this, index, {}, nullptr}; }
  // Of an array of that shape, in column-major order.
  PythonPath element(std::size_t index, const std::vector<std::size_t>& shape) const {
    return {this, index, {}, &shape};
  }
  PythonPath key(pybind11::handle key) const { return {this, 0, key, nullptr}; }

  // `, at [2]["speed"]`; nothing for the whole value. Needs the interpreter's lock.
  std::string place() const;

 private:
  PythonPath(const PythonPath* outer, std::size_t index, pybind11::handle key, const std::vector<std::size_t>* shape)
      : outer_(outer), index_(index), key_(key), shape_(shape) {}
  std::string text() const;
  std::string indexText() const;

  const PythonPath* outer_ = nullptr;
  std::size_t index_ = 0;
  pybind11::handle key_;
  const std::vector<std::size_t>* shape_ = nullptr;
};

}  // namespace zks::bridge
