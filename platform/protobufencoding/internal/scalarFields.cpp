#include "platform/protobufencoding/internal/scalarFields.h"

#include <algorithm>

#include "platform/errors/ustring.h"
#include "platform/protobufencoding/internal/hostValues.h"
#include "platform/protobufencoding/internal/numericConversion.h"

namespace parallel::protobufencoding {

namespace {

std::u16string_view unitsOf(const qxArray* text) {
  const auto units = qxGetElements<char16_t>(text);
  return {units.data(), units.size()};
}

}  // namespace

bool isText(const qxArray* array, std::u16string_view text) {
  return array != nullptr && qxGetClass(array) == qxClass::Text && isVector(array) &&
         asBytes(unitsOf(array)) == asBytes(text);
}

bool isSameText(const qxArray* array, const qxArray* text) {
  return qxGetData(array) == qxGetData(text) && qxGetClass(array) == qxClass::Text && isVector(array) &&
         qxGetNumberOfElements(array) == qxGetNumberOfElements(text);
}

std::string textFrom(const qxArray* array, const FieldPath& path) {
  if (array == nullptr || qxGetClass(array) != qxClass::Text || !isVector(array))
    throwEncodeError(path, describe(array), "a text row");
  const std::u16string_view utf16 = unitsOf(array);
  // Nearly all texts are ASCII, whose conversion is a plain copy.
  if (std::all_of(utf16.begin(), utf16.end(), [](char16_t unit) { return unit < 0x80; }))
    return {utf16.begin(), utf16.end()};
  if (!fl::i18n::isWellFormed(utf16))
    throwEncodeError(path, "text with an unpaired surrogate", "well-formed UTF-16");
  return fl::i18n::to_string(utf16);
}

std::string bytesFrom(const qxArray* array, const FieldPath& path) {
  if (array == nullptr || qxGetClass(array) != qxClass::Uint8 || qxIsComplex(array) || !isVector(array))
    throwEncodeError(path, describe(array), "a uint8 column");
  return {static_cast<const char*>(qxGetData(array)), qxGetNumberOfElements(array)};
}

std::string stringFrom(const qxArray* array, const FieldShape& field, const FieldPath& path) {
  if (array == nullptr || qxGetClass(array) != qxClass::Uint8)
    return textFrom(array, path);
  std::string bytes = bytesFrom(array, path);
  if (field.requiresUtf8 && !fl::i18n::isWellFormed(std::string_view(bytes)))
    throwEncodeError(path, "bytes that are not UTF-8", "UTF-8");
  return bytes;
}

int checkedEnum(std::int32_t number, const FieldShape& field, const FieldPath& path) {
  const google::protobuf::EnumDescriptor* type = field.descriptor->enum_type();
  if (field.isClosedEnum && type->FindValueByNumber(number) == nullptr) {
    throwEncodeError(path, "the number " + std::to_string(number),
                     "a number that the closed enum " + std::string(type->full_name()) + " names");
  }
  return number;
}

int enumFrom(const qxArray* array, const FieldShape& field, const FieldPath& path) {
  if (array != nullptr && qxGetClass(array) == qxClass::Text) {
    const google::protobuf::EnumDescriptor* type = field.descriptor->enum_type();
    const std::string name = textFrom(array, path);
    const google::protobuf::EnumValueDescriptor* value = type->FindValueByName(name);
    if (value == nullptr)
      throwEncodeError(path, "\"" + name + "\"", "a name of the enum " + std::string(type->full_name()));
    return value->number();
  }
  if (array == nullptr || !qxIsNumeric(array) || !isScalar(array))
    throwEncodeError(path, describe(array), "the name or number of an enum value");
  std::int32_t number = 0;
  convertNumbers<std::int32_t>(array, path, [&](std::int32_t converted) { number = converted; });
  return checkedEnum(number, field, path);
}

}  // namespace parallel::protobufencoding
