// Fuzz target: what any bytes parse to becomes a struct; when they are a valid message, it comes back from the struct.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/protobufencoding/protobufencoding.h"
#include "platform/protobufencoding/testing/canonicalAnys.h"
#include "platform/protobufencoding/testing/everything2.pb.h"
#include "platform/protobufencoding/testing/everything3.pb.h"
#include "platform/protobufencoding/testing/hostLiterals.h"
#include "tests/fuzzing/quietProtobuf.h"

namespace {

using namespace parallel::protobufencoding;

void goOnceAround(google::protobuf::Message& message, const std::uint8_t* data, std::size_t nbytes) {
  const bool valid = message.ParseFromArray(data, static_cast<int>(nbytes));
  const qxArrayPtr value = decode(message, nullptr);
  if (!valid)
    return;
  testing::writeAnysAnew(message);
  if (testing::deterministic(*encode(value.get(), nullptr, 0)) != testing::deterministic(message))
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t nbytes) {
  quietProtobuf();
  testing::Everything proto3;
  goOnceAround(proto3, data, nbytes);
  testing::Everything2 proto2;
  goOnceAround(proto2, data, nbytes);
  return 0;
}
