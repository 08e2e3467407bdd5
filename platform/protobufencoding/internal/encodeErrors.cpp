#include "platform/protobufencoding/internal/encodeErrors.h"

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

namespace parallel::protobufencoding {

void throwEncodeError(const FieldPath& path, std::string_view found, std::string_view wanted) {
  throw Exception<::parallel::protobuf::EncodeError>(path.text(), found, wanted);
}

std::string describe(const qxArray* array) {
  if (array == nullptr)
    return "no value";
  std::string text(qxIsComplex(array) ? "complex " : "");
  text.append(qxClassName(qxGetClass(array))).append(" ");
  const qxDimensions dimensions = qxGetDimensions(array);
  for (std::size_t i = 0; i < dimensions.size(); ++i)
    text.append(i == 0 ? "" : "-by-").append(std::to_string(dimensions[i]));
  return text;
}

void checkCount(const qxArray* array, const FieldPath& path) {
  if (qxGetNumberOfElements(array) > kMostCount)
    throwEncodeError(path, describe(array), "at most " + std::to_string(kMostCount) + " elements");
}

void checkMessageBytes(std::size_t nbytes, const FieldPath& path) {
  if (nbytes > kMostCount)
    throwEncodeError(path, "a message of " + std::to_string(nbytes) + " bytes",
                     "at most " + std::to_string(kMostCount) + " bytes");
}

bool isScalar(const qxArray* array) noexcept {
  return qxGetNumberOfElements(array) == 1;
}

bool isVector(const qxArray* array) noexcept {
  const qxDimensions dimensions = qxGetDimensions(array);
  if (dimensions.size() != 2)
    return false;
  return dimensions[0] == 1 || dimensions[1] == 1 || (dimensions[0] == 0 && dimensions[1] == 0);
}

bool isEmptyLiteral(const qxArray* array) noexcept {
  const qxDimensions dimensions = qxGetDimensions(array);
  return qxGetClass(array) == qxClass::Float64 && dimensions.size() == 2 && dimensions[0] == 0 && dimensions[1] == 0;
}

}  // namespace parallel::protobufencoding
