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
  std::size_t count = 1;
  bool overflown = false;
  for (const std::size_t dimension : dimensions) {
    if (dimension == 0)
      return 0;
    overflown |= __builtin_mul_overflow(count, dimension, &count);
  }
  return overflown ? std::nullopt : std::optional(count);
}

bool addressable(std::size_t count, std::size_t elementBytes) {
  constexpr std::size_t kMostBytes = std::numeric_limits<std::ptrdiff_t>::max();
  std::size_t nbytes = 0;
  return !__builtin_mul_overflow(count, elementBytes, &nbytes) && nbytes <= kMostBytes;
}

}  // namespace

Shape::Shape(qxDimensions dimensions, std::size_t count) : count_(count) {
  const qxDimensions kept = withoutTrailingOnes(dimensions);
  if (kept.size() <= plane_.size()) {
    plane_ = {kept.empty() ? 1 : kept[0], kept.size() < 2 ? 1 : kept[1]};
  } else {
    many_ = std::make_unique<Dimensions>(kept.begin(), kept.end());
  }
}

std::optional<Shape> Shape::make(qxDimensions dimensions) {
  const auto count = product(dimensions);
  return count ? std::optional(Shape(dimensions, *count)) : std::nullopt;
}

Shape Shape::makeChecked(qxDimensions dimensions, std::size_t elementBytes, qxClass cls) {
  const auto count = product(dimensions);
  if (!count || !addressable(*count, elementBytes)) {
    throw Exception<host::array::TooLarge>(dimensionsText(dimensions), qxClassName(cls));
  }
  return Shape(dimensions, *count);
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
