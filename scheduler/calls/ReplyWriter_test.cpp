#include "scheduler/calls/ReplyWriter.h"

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>

#include "platform/zksmessages/zksmessages.pb.h"
#include "scheduler/testing/containers.h"

namespace parallel::scheduler {
namespace {

using spf::transport::ByteSink;
using spf::transport::block_format::framedBytes;
using testing::raw;

ReplyWriter::Producer bytes(const std::string& text) {
  return [text](ByteSink& sink) { sink.write(reinterpret_cast<const std::byte*>(text.data()), text.size()); };
}

std::ostringstream replyStream() {
  std::ostringstream reply;
  reply.exceptions(std::ios::badbit);
  return reply;
}

TEST(ReplyWriter, GoldenBytesOfEveryKindOfItem) {
  std::ostringstream reply = replyStream();
  ReplyWriter writer(reply, 5);
  zksmessages::EchoRequest message;
  message.add_items()->set_kind(zksmessages::ITEM_KIND_PLAIN);
  writer.writeMessage(message);
  writer.writeItem(bytes("abc"));
  writer.writePlain(3, bytes("xyz"));
  writer.writeFramedPlain(2, bytes(raw("\0\1p\0\1q\xFF\xFF")));
  writer.writeItem([](ByteSink&) {});
  writer.finish();
  EXPECT_EQ(reply.str(), raw("\0\0\0\0\5"
                             "\0\4\x0A\x02\x08\x03\xFF\xFF"
                             "\0\3abc\xFF\xFF"
                             "\0\13\0\0\0\0\0\0\0\3xyz\xFF\xFF"
                             "\0\10\0\0\0\0\0\0\0\2\0\1p\0\1q\xFF\xFF"
                             "\xFF\xFF"));
}

TEST(ReplyWriter, EmptyReplyIsItsHead) {
  std::ostringstream reply = replyStream();
  ReplyWriter(reply, 0).finish();
  EXPECT_EQ(reply.str(), raw("\0\0\0\0\0"));
}

TEST(ReplyWriter, SizesAnnouncedAreSizesWritten) {
  for (const std::size_t nbytes : {0U, 1U, 32758U, 32759U, 32760U, 32766U, 32767U, 32768U, 65534U, 65535U, 70000U}) {
    SCOPED_TRACE(nbytes);
    const std::string content = testing::patternOf(nbytes);
    std::ostringstream item = replyStream();
    ReplyWriter(item, 1).writeItem(bytes(content));
    EXPECT_EQ(item.str().size(), ReplyWriter::kHeadBytes + framedBytes(nbytes));

    std::ostringstream plain = replyStream();
    ReplyWriter(plain, 1).writePlain(nbytes, bytes(content));
    EXPECT_EQ(plain.str().size(), ReplyWriter::kHeadBytes + ReplyWriter::framedPlainBytes(nbytes));
    EXPECT_EQ(testing::plainOf(testing::itemsOf(plain.str()).at(0)), content);
  }
}

TEST(ReplyWriter, PlainItemOfAnotherLengthIsRefused) {
  for (const char* content : {"", "ab", "abcd"}) {
    std::ostringstream reply = replyStream();
    ReplyWriter writer(reply, 1);
    EXPECT_THROW(writer.writePlain(3, bytes(content)), std::logic_error) << content;
  }
}

TEST(ReplyWriter, NumberOfItemsMustBeTheAnnouncedOne) {
  std::ostringstream reply = replyStream();
  ReplyWriter writer(reply, 1);
  EXPECT_THROW(writer.finish(), std::logic_error);
  writer.writeItem(bytes("a"));
  writer.finish();
  EXPECT_THROW(writer.writeItem(bytes("b")), std::logic_error);
}

TEST(ReplyWriter, FailureOfTheProducerPasses) {
  std::ostringstream reply = replyStream();
  ReplyWriter writer(reply, 1);
  EXPECT_THROW(writer.writeItem([](ByteSink&) { throw std::out_of_range("gone"); }), std::out_of_range);
}

// Takes so many bytes and then no more.
class FullBuffer : public std::stringbuf {
 public:
  explicit FullBuffer(std::streamsize room) : room_(room) {}

 protected:
  std::streamsize xsputn(const char* data, std::streamsize n) override {
    if (n > room_)
      return 0;
    room_ -= n;
    return std::stringbuf::xsputn(data, n);
  }

 private:
  std::streamsize room_;
};

TEST(ReplyWriter, StreamThatTakesNoMoreThrowsAtEveryStep) {
  const auto writeAll = [](std::ostream& reply) {
    ReplyWriter writer(reply, 2);
    writer.writeItem(bytes("abc"));
    writer.writePlain(3, bytes("xyz"));
    writer.finish();
  };
  constexpr std::streamsize kWhole = 5 + 7 + 15;
  for (std::streamsize room = 0; room <= kWhole; ++room) {
    FullBuffer buffer(room);
    std::ostream reply(&buffer);
    if (room == kWhole)
      EXPECT_NO_THROW(writeAll(reply));
    else
      EXPECT_THROW(writeAll(reply), std::ios_base::failure) << room;
  }
}

}  // namespace
}  // namespace parallel::scheduler
