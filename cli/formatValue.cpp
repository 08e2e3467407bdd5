#include "cli/formatValue.h"

#include <array>
#include <charconv>
#include <functional>
#include <vector>

#include "platform/errors/ustring.h"
#include "platform/errors/visibleText.h"

namespace zks {
namespace {

template <class T>
std::string numberText(T value) {
  std::array<char, 64> text{};
  const auto end = std::to_chars(text.data(), text.data() + text.size(), value).ptr;
  return {text.data(), end};
}

template <class T>
std::string elementText(const qxArray* array, std::size_t index) {
  const auto elements = qxGetElements<T>(array);
  if (!qxIsComplex(array))
    return numberText(elements[index]);
  const T imaginary = elements[2 * index + 1];
  const std::string text = numberText(imaginary);
  return numberText(elements[2 * index]) + (text.front() == '-' ? "" : "+") + text + "i";
}

std::string structText(const qxArray* array, std::size_t index, std::size_t limit) {
  std::string text = "{";
  for (const std::string& field : qxGetFieldNames(array)) {
    text += text.size() > 1 ? ", " : "";
    text += quotedText(field) + ": " + formatValue(qxGetField(array, index, field), limit);
  }
  return text + "}";
}

std::string elementText(const qxArray* array, std::size_t index, std::size_t limit) {
  switch (qxGetClass(array)) {
    case qxClass::Float64:
      return elementText<double>(array, index);
    case qxClass::Float32:
      return elementText<float>(array, index);
    case qxClass::Int8:
      return elementText<std::int8_t>(array, index);
    case qxClass::Uint8:
      return elementText<std::uint8_t>(array, index);
    case qxClass::Int16:
      return elementText<std::int16_t>(array, index);
    case qxClass::Uint16:
      return elementText<std::uint16_t>(array, index);
    case qxClass::Int32:
      return elementText<std::int32_t>(array, index);
    case qxClass::Uint32:
      return elementText<std::uint32_t>(array, index);
    case qxClass::Int64:
      return elementText<std::int64_t>(array, index);
    case qxClass::Uint64:
      return elementText<std::uint64_t>(array, index);
    case qxClass::Boolean:
      return static_cast<const unsigned char*>(qxGetData(array))[index] != 0 ? "true" : "false";
    case qxClass::Text:
      return quotedText(fl::i18n::to_string(std::u16string_view(&qxGetElements<char16_t>(array)[index], 1)));
    case qxClass::List:
      return formatValue(qxGetListElement(array, index), limit);
    case qxClass::Struct:
      return structText(array, index, limit);
    case qxClass::Object:
      return "<" + qxGetObjectClassName(array) + ">";
  }
  return {};
}

// The levels of nesting: a column is one list, a scalar none.
std::vector<std::size_t> levels(const qxArray* array) {
  const qxDimensions dimensions = qxGetDimensions(array);
  std::vector<std::size_t> shape(dimensions.begin(), dimensions.end());
  if (shape.size() == 2 && shape[1] == 1)
    shape.pop_back();
  const bool scalar = shape.size() == 1 && shape[0] == 1 && qxGetClass(array) != qxClass::List;
  return scalar ? std::vector<std::size_t>{} : shape;
}

std::string nestedText(const std::vector<std::size_t>& shape, std::size_t level, std::size_t stride, std::size_t offset,
                       const std::function<std::string(std::size_t)>& element) {
  if (level == shape.size())
    return element(offset);
  std::string text = "[";
  for (std::size_t i = 0; i < shape[level]; ++i)
    text += (i == 0 ? "" : ", ") + nestedText(shape, level + 1, stride * shape[level], offset + i * stride, element);
  return text + "]";
}

bool isLineOfText(const qxArray* array) {
  const qxDimensions dimensions = qxGetDimensions(array);
  return qxGetClass(array) == qxClass::Text && dimensions.size() == 2 && (dimensions[0] == 1 || dimensions[0] == 0);
}

// A text may be longer than a list of numbers before it is tiresome.
constexpr std::size_t kTextFactor = 16;

}  // namespace

std::string quotedText(std::string_view utf8) {
  constexpr std::string_view digits = "0123456789abcdef";
  std::string text = "\"";
  for (const char c : utf8) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\')
      text += {'\\', c};
    else if (c == '\n')
      text += "\\n";
    else if (byte < 0x20 || byte == 0x7F)
      text += {'\\', 'u', '0', '0', digits[byte >> 4], digits[byte & 15]};
    else
      text += c;
  }
  return errors::visibleText(text + "\"", text.size() + 1);  // the control characters beyond ASCII
}

std::string formatClassAndShape(const qxArray* array) {
  std::string text = qxIsComplex(array) ? "complex " : "";
  text += qxClassName(qxGetClass(array));
  char separator = ' ';
  for (const std::size_t dimension : qxGetDimensions(array)) {
    text += separator + std::to_string(dimension);
    separator = 'x';
  }
  return text;
}

std::string formatValue(const qxArray* array, std::size_t limit) {
  if (array == nullptr)
    return "null";
  const std::size_t count = qxGetNumberOfElements(array);
  const qxDimensions dimensions = qxGetDimensions(array);
  const bool line = isLineOfText(array);
  // Rows without elements are as tiresome as elements.
  if (count > (line ? limit * kTextFactor : limit) || (count == 0 && !line && dimensions[0] > limit))
    return "<" + formatClassAndShape(array) + ">";
  if (line)
    return quotedText(qxGetStringUtf8(array));
  return nestedText(levels(array), 0, 1, 0, [&](std::size_t index) { return elementText(array, index, limit); });
}

}  // namespace zks
