#include <gtest/gtest.h>

#include <string>

#include "platform/errors/InternalException.h"
#include "transport/data/SerializableData.h"
#include "transport/data/testing/LogCapture.h"
#include "transport/data/testing/RecordingByteSink.h"
#include "transport/data/testing/arrays.h"

namespace parallel::spf::transport {
namespace {

using testing::bytesOf;
using testing::RecordingByteSink;

qxArrayPtr emptyMessageStruct() {
  return testing::messageStruct("parallel.zksmessages.Missing");
}

// A task's description with one argument, "ls": field 1, length 2.
qxArrayPtr descriptionStruct() {
  qxArrayPtr description = testing::messageStruct("parallel.zksmessages.TaskDescription");
  qxArrayPtr argv = qxCreateListArray(std::array<std::size_t, 2>{1, 1});
  qxSetListElement(argv.get(), 0, qxCreateString(u"ls"));
  qxSetField(description.get(), 0, "argv", std::move(argv));
  qxSetField(description.get(), 0, "clear_environment", qxCreateBoolean(true));
  return description;
}

TEST(ProtobufItem, MessageGivesItsBinaryEncodingInOneWrite) {
  RecordingByteSink sink;
  SerializableData::createProtobuf(descriptionStruct())->serialize(sink);
  EXPECT_EQ(sink.bytes, bytesOf({0x0A, 0x02, 'l', 's', 0x18, 0x01}));
  EXPECT_EQ(sink.sizes, (std::vector<std::size_t>{6}));
}

TEST(ProtobufItem, MessageWithoutFieldsGivesOneEmptyWrite) {
  RecordingByteSink sink;
  SerializableData::createProtobuf(emptyMessageStruct())->serialize(sink);
  EXPECT_TRUE(sink.bytes.empty());
  EXPECT_EQ(sink.sizes, (std::vector<std::size_t>{0}));
}

TEST(ProtobufItem, ValueThatIsNotAMessageThrowsTheTextWithTheCauseAndANewline) {
  const auto item = SerializableData::createProtobuf(qxCreateScalar(1));
  RecordingByteSink sink;
  try {
    item->serialize(sink);
    FAIL() << "a number was taken for a message";
  } catch (const std::runtime_error& error) {
    const std::string text = error.what();
    EXPECT_NE(dynamic_cast<const InternalException*>(&error), nullptr);
    const std::string start = "Error occurred serializing protobuf message: ";
    EXPECT_EQ(text.substr(0, start.size()), start);
    EXPECT_EQ(text.back(), '\n');
    EXPECT_GT(text.size(), start.size() + 1) << "the cause is missing";
  }
  EXPECT_TRUE(sink.sizes.empty());
}

TEST(ProtobufItem, ErrorOfTheSinkIsNotWrapped) {
  RecordingByteSink full(1);
  EXPECT_THROW(SerializableData::createProtobuf(descriptionStruct())->serialize(full), testing::SinkFull);
}

TEST(ProtobufItem, FailureIsNotLogged) {
  const testing::LogCapture log;
  RecordingByteSink sink;
  EXPECT_THROW(SerializableData::createProtobuf(qxCreateScalar(1))->serialize(sink), InternalException);
  EXPECT_TRUE(log.records().empty());
}

}  // namespace
}  // namespace parallel::spf::transport
