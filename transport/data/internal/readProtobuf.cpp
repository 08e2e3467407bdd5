#include <vector>

#include "platform/protobufencoding/parseQuietly.h"
#include "platform/zksmessages/zksmessages.pb.h"
#include "transport/data/internal/readers.h"
#include "transport/protobuf/detail.h"
#include "transport/protobuf/internal/withErrorText.h"
#include "transport/streams/readBytes.h"

namespace parallel::spf::transport::internal {

namespace {

qxArrayPtr decodeResult(const std::vector<std::byte>& bytes) {
  zksmessages::ResultPayload message;
  // Unchecked on purpose, the length too: a service newer or older than we are is read as far as we understand it.
  static_cast<void>(protobufencoding::parseQuietly(message, bytes.data(), bytes.size()));
  return protobuf::detail::decode(message);
}

}  // namespace

qxArrayPtr readProtobuf(ByteStream& stream) {
  const std::vector<std::byte> bytes = readBytes(stream);
  return protobuf::internal::withErrorText("deserializing", [&] { return decodeResult(bytes); });
}

}  // namespace parallel::spf::transport::internal
