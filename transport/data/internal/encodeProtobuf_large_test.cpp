#include <gtest/gtest.h>

#include <array>
#include <cstddef>

#include "platform/errors/InternalException.h"
#include "transport/data/SerializableData.h"
#include "transport/data/testing/RecordingByteSink.h"
#include "transport/data/testing/arrays.h"

namespace parallel::spf::transport {
namespace {

using testing::RecordingByteSink;

// Takes 2 GiB of zeros and as much again for each of their encoded copies.
TEST(ProtobufItem, MessageOfTwoGibibytesOverflows) {
  qxArrayPtr any = testing::messageStruct("parallel.zksmessages.Any");
  qxSetField(any.get(), 0, "type_url", qxCreateString(u"x/y"));
  const std::size_t nbytes = std::size_t{1} << 31;
  qxSetField(any.get(), 0, "value", qxCreateNumericArray(std::array<std::size_t, 2>{nbytes, 1}, qxClass::Uint8));
  RecordingByteSink sink;
  try {
    SerializableData::createProtobuf(any)->serialize(sink);
    FAIL() << "protobuf counts to 2^31 - 1";
  } catch (const InternalException& error) {
    EXPECT_STREQ(error.what(),
                 "Error occurred serializing protobuf message: bad numeric conversion: positive overflow\n");
  }
  EXPECT_TRUE(sink.sizes.empty());
}

}  // namespace
}  // namespace parallel::spf::transport
