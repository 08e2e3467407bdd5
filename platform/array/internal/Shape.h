// The dimensions of an array and their product.
//
// Always at least two dimensions, no trailing ones past the second. Two dimensions, the common case, need no heap.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/array/qxArray.h"

namespace qx_detail {

class Shape {
 public:
  // 1-by-1.
  Shape() noexcept = default;
  Shape(const Shape& other)
      : plane_(other.plane_),
        many_(other.many_ == nullptr ? nullptr : std::make_unique<Dimensions>(*other.many_)),
        count_(other.count_) {}
  Shape(Shape&&) noexcept = default;
  Shape& operator=(Shape&&) noexcept = default;
  ~Shape() = default;

  // Nothing when the product does not fit in a size_t. A dimension of 0 makes the product 0 whatever the others are.
  static std::optional<Shape> make(qxDimensions dimensions);

  // The shape of an array whose elements take `elementBytes` each. `TooLarge` when such an array could not be
  // addressed.
  static Shape makeChecked(qxDimensions dimensions, std::size_t elementBytes, qxClass cls);

  qxDimensions dimensions() const noexcept { return many_ == nullptr ? qxDimensions(plane_) : qxDimensions(*many_); }
  std::size_t count() const noexcept { return count_; }

  friend bool operator==(const Shape& left, const Shape& right) noexcept;

 private:
  using Dimensions = std::vector<std::size_t>;

  Shape(qxDimensions dimensions, std::size_t count);  // their product

  std::array<std::size_t, 2> plane_{1, 1};
  std::unique_ptr<const Dimensions> many_;  // all of them, when there are more than two
  std::size_t count_ = 1;
};

// "2-by-3-by-4", for messages.
std::string dimensionsText(qxDimensions dimensions);

}  // namespace qx_detail
