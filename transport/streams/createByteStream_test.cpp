#include "transport/streams/createByteStream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/array/qxArray.h"
#include "transport/streams/testing/streamTools.h"

namespace parallel::spf::transport {
namespace {

using namespace transport::testing;
using agent::spf::core::ExportedDataSource;
using Items = std::vector<std::shared_ptr<SerializableData>>;

qxArrayPtr column(const Bytes& bytes) {
  qxArrayPtr array = qxCreateNumericArray(std::array<std::size_t, 2>{bytes.size(), 1}, qxClass::Uint8);
  if (!bytes.empty())
    std::memcpy(qxGetWritableData(array.get()), bytes.data(), bytes.size());
  return array;
}

std::shared_ptr<SerializableData> plainItem(const Bytes& bytes) {
  return SerializableData::createPlain(column(bytes));
}

std::string writtenBy(const ExportedDataSource& source) {
  std::ostringstream stream;
  (*source.writer())(stream);
  return stream.str();
}

std::string textOf(const Bytes& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

TEST(CreateByteStream, EmptyPayloadHasTheSizeOfItsContainer) {
  const ExportedDataSource source = createByteStream(InputPayload({}));
  EXPECT_EQ(source.size(), 5);
  EXPECT_EQ(writtenBy(source), std::string(5, '\0'));
}

TEST(CreateByteStream, ItemsArriveFramedInOrder) {
  const Bytes large = patternBytes(70000);
  const ExportedDataSource source = createByteStream(InputPayload({plainItem(bytesOf("abc")), plainItem(large)}));
  const Bytes wire = join({bytesOf({0, 0, 0, 0, 2}), framed(bytesOf("abc")), framed(large)});
  EXPECT_EQ(source.size(), static_cast<long>(wire.size()));
  EXPECT_EQ(writtenBy(source), textOf(wire));
}

TEST(CreateByteStream, WriterWritesTheSameBytesAgainAndItsCopiesShareThem) {
  std::optional<ExportedDataSource> source(createByteStream(InputPayload({plainItem(patternBytes(40000))})));
  const std::string first = writtenBy(*source);
  EXPECT_EQ(writtenBy(*source), first);
  const ExportedDataSource::Writer copy = *source->writer();
  source.reset();
  std::ostringstream stream;
  copy(stream);
  EXPECT_EQ(stream.str(), first);
}

TEST(CreateByteStream, WholeVectorIsOneWriteThatIsNotChecked) {
  const ExportedDataSource source = createByteStream(InputPayload({plainItem(patternBytes(40000))}));
  std::ostringstream failed;
  failed.setstate(std::ios::badbit);
  EXPECT_NO_THROW((*source.writer())(failed));
  EXPECT_EQ(failed.str(), "");

  class CountingBuffer : public std::streambuf {
   public:
    std::vector<std::streamsize> writes;
    int flushes = 0;

   protected:
    std::streamsize xsputn(const char* /*data*/, std::streamsize nbytes) override {
      writes.push_back(nbytes);
      return nbytes;
    }
    int sync() override {
      ++flushes;
      return 0;
    }
  } buffer;
  std::ostream stream(&buffer);
  (*source.writer())(stream);
  EXPECT_THAT(buffer.writes, ::testing::ElementsAre(source.size()));
  EXPECT_EQ(buffer.flushes, 0);
}

TEST(CreateByteStream, ItemsAreSerializedOnceAndNotNeededAfterwards) {
  int serialized = 0;
  auto item = std::make_shared<SerializableData>(column({}), [&serialized](const qxArray*, ByteSink& sink) {
    ++serialized;
    sink.write(bytesOf("x").data(), 1);
  });
  const std::weak_ptr<SerializableData> watched = item;
  const ExportedDataSource source = createByteStream(InputPayload({std::move(item)}));
  EXPECT_EQ(serialized, 1);
  EXPECT_TRUE(watched.expired());
  writtenBy(source);
  EXPECT_EQ(serialized, 1);
}

TEST(CreateByteStream, FailureOfAnItemPassesThrough) {
  const auto failing =
      std::make_shared<SerializableData>(column({}), [](const qxArray*, ByteSink&) { throw FailingSink::Failure(); });
  EXPECT_THROW(createByteStream(InputPayload({plainItem(bytesOf("abc")), failing})), FailingSink::Failure);
}

}  // namespace
}  // namespace parallel::spf::transport
