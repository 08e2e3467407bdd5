#include "platform/protobufencoding/internal/hostValues.h"

#include <cstring>

namespace parallel::protobufencoding {

qxArrayPtr createBytes(std::string_view bytes) {
  qxArrayPtr array = qxCreateUninitializedArray(column(bytes.size()), qxClass::Uint8);
  if (!bytes.empty())
    std::memcpy(qxGetWritableData(array.get()), bytes.data(), bytes.size());
  return array;
}

qxArrayPtr createTextOrBytes(std::string_view utf8) {
  return fl::i18n::isWellFormed(utf8) ? qxCreateStringUtf8(utf8) : createBytes(utf8);
}

}  // namespace parallel::protobufencoding
