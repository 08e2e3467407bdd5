// Text arrays: UTF-16 code units.
#include <algorithm>
#include <array>

#include "platform/array/qxArray.h"
#include "platform/errors/ustring.h"

qxArrayPtr qxCreateString(std::u16string_view text) {
  const std::array<std::size_t, 2> dimensions{text.empty() ? std::size_t{0} : std::size_t{1}, text.size()};
  qxArrayPtr array = qxCreateUninitializedArray(dimensions, qxClass::Text);
  std::copy(text.begin(), text.end(), qxGetWritableElements<char16_t>(array.get()).begin());
  return array;
}

qxArrayPtr qxCreateStringUtf8(std::string_view utf8) {
  return qxCreateString(fl::i18n::to_ustring(utf8));
}

std::u16string qxGetString(const qxArray* array) {
  const auto units = qxGetElements<char16_t>(array);
  return {units.begin(), units.end()};
}

std::string qxGetStringUtf8(const qxArray* array) {
  return fl::i18n::to_string(qxGetString(array));
}
