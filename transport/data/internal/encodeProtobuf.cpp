#include <google/protobuf/message.h>

#include <boost/numeric/conversion/cast.hpp>
#include <cstddef>
#include <vector>

#include "transport/data/internal/encoders.h"
#include "transport/protobuf/detail.h"
#include "transport/protobuf/internal/withErrorText.h"
#include "transport/streams/ByteSink.h"

namespace parallel::spf::transport::internal {

namespace {

std::vector<std::byte> serializeMessage(const google::protobuf::Message& message) {
  const std::size_t nbytes = message.ByteSizeLong();
  std::vector<std::byte> bytes(nbytes);
  // The result only repeats what the size check has found; the buffer goes out as it is.
  static_cast<void>(message.SerializeToArray(bytes.data(), boost::numeric_cast<int>(nbytes)));
  return bytes;
}

}  // namespace

void encodeProtobuf(const qxArray* array, ByteSink& sink) {
  const std::vector<std::byte> bytes = protobuf::internal::withErrorText(
      "serializing", [&] { return serializeMessage(*protobuf::detail::encode(array)); });
  sink.write(bytes.data(), bytes.size());
}

}  // namespace parallel::spf::transport::internal
