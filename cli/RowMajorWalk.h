// Walks the elements of an array in row-major order, the last dimension fastest, as nested lists and C programs have
// them, and tells where each lies in the column-major order of a host array.
#pragma once

#include <cstddef>
#include <vector>

namespace zks {

class RowMajorWalk {
 public:
  explicit RowMajorWalk(const std::vector<std::size_t>& shape) {
    std::size_t stride = 1;
    for (const std::size_t length : shape) {
      dimensions_.push_back({length, stride, 0});
      stride *= length;
    }
  }

  // The column-major index of the next element. There are as many as the product of the shape; with none, do not call.
  std::size_t next() noexcept {
    const std::size_t place = place_;
    for (auto dimension = dimensions_.rbegin(); dimension != dimensions_.rend(); ++dimension) {
      place_ += dimension->stride;
      if (++dimension->index < dimension->length)
        break;
      place_ -= dimension->stride * dimension->length;
      dimension->index = 0;
    }
    return place;
  }

 private:
  struct Dimension {
    std::size_t length;
    std::size_t stride;
    std::size_t index;
  };
  std::vector<Dimension> dimensions_;
  std::size_t place_ = 0;
};

}  // namespace zks
