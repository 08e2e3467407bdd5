#include <exception>
#include <ostream>
#include <sstream>
#include <vector>

#include "platform/errors/InternalException.h"
#include "platform/zksmessages/zksmessages.pb.h"
#include "transport/data/internal/readers.h"
#include "transport/protobuf/detail.h"
#include "transport/streams/readBytes.h"

namespace parallel::spf::transport::internal {

namespace {

qxArrayPtr decodeResult(const std::vector<std::byte>& bytes) {
  zksmessages::ResultPayload message;
  // Unchecked on purpose, the length too: a service newer or older than we are is read as far as we understand it.
  static_cast<void>(message.ParseFromArray(bytes.data(), static_cast<int>(bytes.size())));
  return protobuf::detail::decode(message);
}

}  // namespace

qxArrayPtr readProtobuf(ByteStream& stream) {
  const std::vector<std::byte> bytes = readBytes(stream);
  try {
    return decodeResult(bytes);
  } catch (const std::exception& cause) {
    std::ostringstream text;
    text << "Error occurred deserializing protobuf message: " << cause.what() << std::endl;
    throw InternalException(text.str());
  }
}

}  // namespace parallel::spf::transport::internal
