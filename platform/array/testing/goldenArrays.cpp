#include "platform/array/testing/goldenArrays.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <complex>
#include <fstream>
#include <memory>
#include <stdexcept>

namespace array_testing {

namespace {

using Dimensions = std::vector<std::size_t>;

template <class T>
qxArrayPtr filled(const Dimensions& dimensions, const std::vector<T>& values) {
  qxArrayPtr array = qxCreateNumericArray(dimensions, qxClassOf<T>());
  std::copy(values.begin(), values.end(), qxGetWritableElements<T>(array.get()).begin());
  return array;
}

qxArrayPtr complexRow() {
  qxArrayPtr array = qxCreateNumericArray(Dimensions{1, 2}, qxClass::Float32, true);
  const std::array<float, 4> parts{1, 2, 0, -0.5F};
  std::copy(parts.begin(), parts.end(), qxGetWritableElements<float>(array.get()).begin());
  return array;
}

qxArrayPtr booleanColumn() {
  qxArrayPtr array = qxCreateNumericArray(Dimensions{3, 1}, qxClass::Boolean);
  const auto elements = qxGetWritableElements<bool>(array.get());
  elements[0] = elements[2] = true;
  return array;
}

qxArrayPtr mixedList() {
  qxArrayPtr array = qxCreateListArray(Dimensions{1, 3});
  qxSetListElement(array.get(), 0, filled<std::uint8_t>({1, 1}, {7}));
  qxSetListElement(array.get(), 2, qxCreateString(u"a"));
  return array;
}

qxArrayPtr structColumn() {
  const std::array<std::string, 2> fields{"x", "größe"};
  qxArrayPtr array = qxCreateStructArray(Dimensions{2, 1}, fields);
  qxSetField(array.get(), 0, "x", filled<std::uint8_t>({1, 1}, {1}));
  qxSetField(array.get(), 0, "größe", qxCreateBoolean(true));
  qxSetField(array.get(), 1, "x", filled<std::uint8_t>({1, 1}, {2}));
  return array;
}

qxArrayPtr savedObject() {
  qxArrayPtr array = qxCreateStructArray({}, {});
  qxSetField(array.get(), 0, "SavedClass", qxCreateString(u"counter"));
  qxSetField(array.get(), 0, "SavedValue", filled<std::uint32_t>({1, 1}, {258}));
  return array;
}

}  // namespace

std::map<std::string, qxArrayPtr> documentedArrays() {
  std::map<std::string, qxArrayPtr> arrays;
  arrays["scalar"] = qxCreateScalar(1.5);
  arrays["matrix"] = filled<std::int16_t>({2, 3}, {1, 4, 2, 5, 3, -6});
  arrays["three-dimensions"] = filled<std::uint8_t>({2, 1, 3}, {1, 2, 3, 4, 5, 6});
  arrays["complex"] = complexRow();
  arrays["empty"] = filled<std::uint64_t>({0, 5}, {});
  arrays["boolean"] = booleanColumn();
  arrays["text"] = qxCreateStringUtf8("Añ😀");
  arrays["empty-text"] = qxCreateString(u"");
  arrays["list"] = mixedList();
  arrays["struct"] = structColumn();
  arrays["struct-without-fields"] = qxCreateStructArray(Dimensions{1, 2}, {});
  arrays["saved-object"] = savedObject();
  return arrays;
}

std::map<std::string, Bytes> documentedBytes() {
  const std::string fence = "```";
  const std::string opening = fence + "hex ";
  std::ifstream document(std::string(ZKS_SOURCE_DIR) + "/docs/array-format.md");
  std::map<std::string, Bytes> blocks;
  std::string name;
  for (std::string line; std::getline(document, line);) {
    if (line.starts_with(opening)) {
      name = line.substr(opening.size());
    } else if (line.starts_with(fence)) {
      name.clear();
    } else if (!name.empty()) {
      const Bytes more = bytesFromHex(line.substr(0, line.find('#')));
      blocks[name].insert(blocks[name].end(), more.begin(), more.end());
    }
  }
  return blocks;
}

Bytes serialised(const qxArray* array) {
  const qxArrayPtr bytes(qxSerializeEx(array, qxSerializeDefaults));
  const auto elements = qxGetElements<std::uint8_t>(bytes.get());
  return {elements.begin(), elements.end()};
}

qxArrayPtr deserialised(const Bytes& bytes) {
  const auto exact = std::make_unique<unsigned char[]>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), exact.get());
  return qxArrayPtr(qxDeserialize(exact.get(), bytes.size()));
}

std::string hexText(const Bytes& bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  for (const unsigned char byte : bytes) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

Bytes bytesFromHex(const std::string& text) {
  std::string digits;
  std::copy_if(text.begin(), text.end(), std::back_inserter(digits), [](unsigned char c) { return !std::isspace(c); });
  if (digits.size() % 2 != 0)
    throw std::invalid_argument("an odd number of hex digits: " + text);
  Bytes bytes;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    bytes.push_back(static_cast<unsigned char>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

}  // namespace array_testing
