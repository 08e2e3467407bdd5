// Class and shape of an array.
#include <array>

#include "platform/array/internal/share.h"
#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

using qx_detail::Shape;

namespace {

struct ClassFacts {
  std::string_view name;
  std::size_t nbytes;
};

// In the order of qxClass.
constexpr std::array<ClassFacts, 15> kClassFacts{{{"float64", 8},
                                                  {"float32", 4},
                                                  {"int8", 1},
                                                  {"uint8", 1},
                                                  {"int16", 2},
                                                  {"uint16", 2},
                                                  {"int32", 4},
                                                  {"uint32", 4},
                                                  {"int64", 8},
                                                  {"uint64", 8},
                                                  {"boolean", 1},
                                                  {"text", 2},
                                                  {"list", 0},
                                                  {"struct", 0},
                                                  {"object", 0}}};
static_assert(kClassFacts.size() == static_cast<std::size_t>(qxClass::Object) + 1);

}  // namespace

std::string_view qxClassName(qxClass cls) noexcept {
  return kClassFacts[static_cast<std::size_t>(cls)].name;
}

std::size_t qxClassBytes(qxClass cls) noexcept {
  return kClassFacts[static_cast<std::size_t>(cls)].nbytes;
}

qxClass qxGetClass(const qxArray* array) noexcept {
  return array->cls;
}

bool qxIsComplex(const qxArray* array) noexcept {
  return array->complex;
}

bool qxIsNumeric(const qxArray* array) noexcept {
  return qx_detail::isNumeric(array->cls);
}

qxDimensions qxGetDimensions(const qxArray* array) noexcept {
  return array->shape.dimensions();
}

std::size_t qxGetNumberOfElements(const qxArray* array) noexcept {
  return array->shape.count();
}

std::size_t qxGetElementBytes(const qxArray* array) noexcept {
  return qxClassBytes(array->cls) * (array->complex ? 2 : 1);
}

std::size_t qxGetDataBytes(const qxArray* array) noexcept {
  return qxGetNumberOfElements(array) * qxGetElementBytes(array);
}

void qxReshape(qxArray* array, qxDimensions dimensions) {
  auto shape = Shape::make(dimensions);
  if (!shape || shape->count() != array->shape.count()) {
    throw Exception<host::array::WrongShape>(qx_detail::dimensionsText(dimensions),
                                             std::to_string(array->shape.count()) + " elements");
  }
  array->shape = *std::move(shape);
}
