// Host numbers to the number types of message fields: only where the value stays the same.
// A float64 or an integer of any class becomes an integer when it is one and in range; any number becomes a float64
// when that is exact. A float64 may be rounded to a float32, as a literal like 0.1 must be; one too large for it may
// not.
#pragma once

#include <cmath>
#include <concepts>
#include <cstddef>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "platform/array/qxArray.h"
#include "platform/protobufencoding/internal/encodeErrors.h"

namespace parallel::protobufencoding {

template <std::integral To, std::integral From>
bool convertNumber(From from, To& to) {
  to = static_cast<To>(from);  // NOLINT(bugprone-signed-char-misuse): int8 is a number here
  return std::in_range<To>(from);
}

template <std::integral To, std::floating_point From>
bool convertNumber(From from, To& to) {
  // Both bounds are powers of two (or 0), which floating-point numbers hold exactly; a NaN fails the comparisons.
  constexpr auto kLow = static_cast<From>(std::numeric_limits<To>::min());
  const auto high = std::ldexp(From{1}, std::numeric_limits<To>::digits);
  if (!(from >= kLow && from < high) || std::trunc(from) != from)
    return false;
  to = static_cast<To>(from);
  return true;
}

template <std::floating_point To, std::integral From>
bool convertNumber(From from, To& to) {
  to = static_cast<To>(from);
  From back{};
  return convertNumber(to, back) && back == from;
}

template <std::floating_point To, std::floating_point From>
bool convertNumber(From from, To& to) {
  to = static_cast<To>(from);
  return std::isfinite(to) || !std::isfinite(from);
}

// Calls `visit` with the elements of a real numeric array. False for any other array.
template <class Visit>
bool visitNumbers(const qxArray* array, Visit visit) {
  if (array == nullptr || qxIsComplex(array))
    return false;
  switch (qxGetClass(array)) {
    case qxClass::Float64:
      return visit(qxGetElements<double>(array)), true;
    case qxClass::Float32:
      return visit(qxGetElements<float>(array)), true;
    case qxClass::Int8:
      return visit(qxGetElements<std::int8_t>(array)), true;
    case qxClass::Uint8:
      return visit(qxGetElements<std::uint8_t>(array)), true;
    case qxClass::Int16:
      return visit(qxGetElements<std::int16_t>(array)), true;
    case qxClass::Uint16:
      return visit(qxGetElements<std::uint16_t>(array)), true;
    case qxClass::Int32:
      return visit(qxGetElements<std::int32_t>(array)), true;
    case qxClass::Uint32:
      return visit(qxGetElements<std::uint32_t>(array)), true;
    case qxClass::Int64:
      return visit(qxGetElements<std::int64_t>(array)), true;
    case qxClass::Uint64:
      return visit(qxGetElements<std::uint64_t>(array)), true;
    default:
      return false;
  }
}

std::string numberText(double number);
template <std::integral Number>
std::string numberText(Number number) {
  return std::to_string(number);
}

// Passes the elements of a real numeric array to `take`, each as a `To`. Throws EncodeError.
template <class To, class Take>
void convertNumbers(const qxArray* array, const FieldPath& path, Take take) {
  const std::string_view wanted = qxClassName(qxClassOf<To>());
  const bool numeric = visitNumbers(array, [&](auto elements) {
    for (std::size_t i = 0; i < elements.size(); ++i) {
      To converted{};
      if (!convertNumber(elements[i], converted)) {
        const FieldPath element(path, i);
        const std::string found = std::string(qxClassName(qxGetClass(array))) + " " + numberText(elements[i]);
        throwEncodeError(elements.size() == 1 ? path : element, found, std::string("a value of ").append(wanted));
      }
      take(converted);
    }
  });
  if (!numeric)
    throwEncodeError(path, describe(array), wanted);
}

}  // namespace parallel::protobufencoding
