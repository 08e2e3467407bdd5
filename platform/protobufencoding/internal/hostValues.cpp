#include "platform/protobufencoding/internal/hostValues.h"

#include <algorithm>
#include <cstring>

namespace parallel::protobufencoding {

qxArrayPtr createBytes(std::string_view bytes) {
  qxArrayPtr array = qxCreateUninitializedArray(column(bytes.size()), qxClass::Uint8);
  if (!bytes.empty())
    std::memcpy(qxGetWritableData(array.get()), bytes.data(), bytes.size());
  return array;
}

namespace {

bool isAscii(std::string_view bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](char byte) { return static_cast<unsigned char>(byte) < 0x80; });
}

// Their conversion is a plain copy.
qxArrayPtr createAsciiText(std::string_view ascii) {
  const std::array<std::size_t, 2> row{1, ascii.size()};
  qxArrayPtr text = qxCreateUninitializedArray(row, qxClass::Text);
  std::copy(ascii.begin(), ascii.end(), qxGetWritableElements<char16_t>(text.get()).begin());
  return text;
}

}  // namespace

qxArrayPtr createTextOrBytes(std::string_view utf8) {
  if (!utf8.empty() && isAscii(utf8))
    return createAsciiText(utf8);
  return fl::i18n::isWellFormed(utf8) ? qxCreateStringUtf8(utf8) : createBytes(utf8);
}

}  // namespace parallel::protobufencoding
