#include <cstddef>
#include <vector>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/interpreter/objectHooks.h"
#include "transport/data/internal/readers.h"
#include "transport/streams/readBytes.h"

namespace parallel::spf::transport::internal {

qxArrayPtr readQxArray(ByteStream& stream, const qxArray* defaultValue) {
  const std::vector<std::byte> bytes = readBytes(stream);
  if (bytes.empty() && defaultValue != nullptr)
    return qxCreateSharedCopy(defaultValue);

  qxArrayPtr array(qxDeserialize(bytes.data(), bytes.size()));
  if (array == nullptr)
    throw Exception<parallel::internal::DeserializationFailed>();
  inRunLoadObjFunction(array.get());
  inValidateLoadedObject(array.get());
  return array;
}

}  // namespace parallel::spf::transport::internal
