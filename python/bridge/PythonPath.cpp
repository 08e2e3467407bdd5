#include "python/bridge/PythonPath.h"

namespace zks::bridge {

namespace py = pybind11;

std::string PythonPath::place() const {
  return outer_ == nullptr ? std::string() : ", at " + text();
}

std::string PythonPath::text() const {
  if (outer_ == nullptr)
    return {};
  const std::string step = key_ ? py::repr(key_).cast<std::string>() : indexText();
  return outer_->text() + "[" + step + "]";
}

std::string PythonPath::indexText() const {
  if (shape_ == nullptr)
    return std::to_string(index_);
  std::string indices;
  std::size_t rest = index_;
  for (const std::size_t extent : *shape_) {
    indices += (indices.empty() ? "" : ", ") + std::to_string(rest % extent);
    rest /= extent;
  }
  return indices;
}

}  // namespace zks::bridge
