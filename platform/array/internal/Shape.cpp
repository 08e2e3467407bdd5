#include "platform/array/internal/Shape.h"

#include <algorithm>
#include <limits>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

namespace qx_detail {

namespace {

qxDimensions withoutTrailingOnes(qxDimensions dimensions) {
  while (dimensions.size() > 2 && dimensions.back() == 1)
    dimensions = dimensions.first(dimensions.size() - 1);
  return dimensions;
}

std::optional<std::size_t> product(qxDimensions dimensions) {
  if (std::find(dimensions.begin(), dimensions.end(), 0U) != dimensions.end())
    return 0;
  std::size_t count = 1;
  for (const std::size_t dimension : dimensions) {
    if (__builtin_mul_overflow(count, dimension, &count))
      return std::nullopt;
  }
  return count;
}

bool addressable(std::size_t count, std::size_t elementBytes) {
  constexpr std::size_t kMostBytes = std::numeric_limits<std::ptrdiff_t>::max();
  std::size_t nbytes = 0;
  return !__builtin_mul_overflow(count, elementBytes, &nbytes) && nbytes <= kMostBytes;
}

}  // namespace

std::optional<Shape> Shape::make(qxDimensions dimensions) {
  const auto count = product(dimensions);
  if (!count)
    return std::nullopt;
  Shape shape;
  shape.count_ = *count;
  const qxDimensions kept = withoutTrailingOnes(dimensions);
  if (kept.size() <= shape.plane_.size()) {
    std::copy(kept.begin(), kept.end(), shape.plane_.begin());
  } else {
    shape.many_ = std::make_unique<Dimensions>(kept.begin(), kept.end());
  }
  return shape;
}

Shape Shape::makeChecked(qxDimensions dimensions, std::size_t elementBytes, qxClass cls) {
  auto shape = make(dimensions);
  if (!shape || !addressable(shape->count(), elementBytes)) {
    throw Exception<host::array::TooLarge>(dimensionsText(dimensions), qxClassName(cls));
  }
  return *std::move(shape);
}

bool operator==(const Shape& left, const Shape& right) noexcept {
  const qxDimensions a = left.dimensions();
  const qxDimensions b = right.dimensions();
  return std::equal(a.begin(), a.end(), b.begin(), b.end());
}

std::string dimensionsText(qxDimensions dimensions) {
  std::string text;
  for (const std::size_t dimension : dimensions) {
    if (!text.empty())
      text += "-by-";
    text += std::to_string(dimension);
  }
  return text;
}

}  // namespace qx_detail
