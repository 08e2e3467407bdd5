#include "scheduler/EchoMethod.h"

#include <gtest/gtest.h>

#include <unistd.h>
#include <limits>

#include <streambuf>
#include <string>
#include <vector>

#include "execution/PeakMemory.h"
#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/zksmessages/zksmessages.pb.h"
#include "scheduler/calls/ReplyWriter.h"
#include "scheduler/testing/FakeServerCall.h"
#include "scheduler/testing/containers.h"
#include "scheduler/testing/expectError.h"

namespace parallel::scheduler {
namespace {

using testing::FakeServerCall;
using testing::itemsOf;
using testing::patternOf;
using testing::raw;
using testing::requestOf;
using zksmessages::EchoRequest;
using zksmessages::ItemKind;

constexpr ItemKind kKinds[] = {zksmessages::ITEM_KIND_PROTOBUF, zksmessages::ITEM_KIND_ARRAY,
                               zksmessages::ITEM_KIND_PLAIN, zksmessages::ITEM_KIND_FILE};

void addItem(EchoRequest& request, ItemKind kind, std::size_t nbytes) {
  auto* item = request.add_items();
  item->set_kind(kind);
  if (kind == zksmessages::ITEM_KIND_PLAIN)
    item->set_nbytes(nbytes);
}

std::string echoed(const std::string& request) {
  FakeServerCall call(request, "echo");
  echo(call, {});
  EXPECT_EQ(call.replySize(), static_cast<long>(call.replyText().size()));
  return call.replyText();
}

TEST(Echo, GoldenRequestAndReply) {
  const std::string request =
      raw("\0\0\0\0\3"
          "\0\x0A\x0A\x04\x08\x03\x10\x03\x0A\x02\x08\x04\xFF\xFF"
          "\0\3abc\xFF\xFF"
          "\0\4file\xFF\xFF");
  EXPECT_EQ(echoed(request), raw("\0\0\0\0\2"
                                 "\0\10\0\0\0\0\0\0\0\3\0\3abc\xFF\xFF"
                                 "\0\4file\xFF\xFF"));
}

TEST(Echo, NoItemsGiveAnEmptyReply) {
  EXPECT_EQ(echoed(requestOf(EchoRequest())), raw("\0\0\0\0\0"));
}

TEST(Echo, EveryKindAndSizeComesBack) {
  for (const std::size_t nbytes : {0U, 1U, 32766U, 32767U, 32768U, 65534U, 65535U, 70000U}) {
    SCOPED_TRACE(nbytes);
    EchoRequest description;
    for (const ItemKind kind : kKinds)
      addItem(description, kind, nbytes);
    const std::string content = patternOf(nbytes);
    const auto items = itemsOf(echoed(requestOf(description, {content, content, content, content})));
    ASSERT_EQ(items.size(), 4U);
    EXPECT_EQ(items[0], content);
    EXPECT_EQ(items[1], content);
    EXPECT_EQ(testing::plainOf(items[2]), content);
    EXPECT_EQ(items[3], content);
  }
}

TEST(Echo, ForeignFramingIsMirroredAndTheSizeStillRight) {
  EchoRequest description;
  addItem(description, zksmessages::ITEM_KIND_FILE, 0);
  addItem(description, zksmessages::ITEM_KIND_PLAIN, 3);
  const std::string framing = raw("\0\0\0\1x\0\0\0\2yz\0\0\xFF\xFF");
  std::string request = requestOf(description, {"", ""});
  request.resize(request.size() - 4);
  request += framing + framing;
  const std::string reply = echoed(request);
  EXPECT_EQ(reply, raw("\0\0\0\0\2") + framing + raw("\0\10\0\0\0\0\0\0\0\3") + framing);
}

TEST(Echo, UnknownRequestSizeAnnouncesNone) {
  EchoRequest description;
  addItem(description, zksmessages::ITEM_KIND_FILE, 0);
  FakeServerCall call(requestOf(description, {"abc"}), "echo");
  call.forgetRequestSize();
  echo(call, {});
  EXPECT_FALSE(call.replySize().has_value());
  EXPECT_EQ(itemsOf(call.replyText()).at(0), "abc");
}

void expectMismatch(std::size_t described, const std::string& content) {
  EchoRequest description;
  addItem(description, zksmessages::ITEM_KIND_FILE, 0);
  addItem(description, zksmessages::ITEM_KIND_PLAIN, described);
  EXPECT_IDENTIFIED(PlainSizeMismatch,
                    "Item 3 of the request to echo was described as " + std::to_string(described) +
                        " plain bytes, but it holds " + std::to_string(content.size()) + ".",
                    echoed(requestOf(description, {"first", content})));
}

TEST(Echo, PlainItemOfOtherSizeNamesBoth) {
  expectMismatch(3, "");
  expectMismatch(3, "ab");
  expectMismatch(3, "abcd");
  expectMismatch(0, patternOf(70'000));
}

TEST(Echo, WrongNumberOfItemsIsRefused) {
  EchoRequest description;
  addItem(description, zksmessages::ITEM_KIND_FILE, 0);
  EXPECT_IDENTIFIED(WrongItemCount, "The request to echo has the wrong number of items: 2 expected, 1 found.",
                    echoed(requestOf(description)));
  EXPECT_IDENTIFIED(WrongItemCount, "The request to echo has the wrong number of items: 2 expected, 3 found.",
                    echoed(requestOf(description, {"a", "b"})));
  EXPECT_IDENTIFIED(WrongItemCount, "The request to echo has the wrong number of items: at least 1 expected, 0 found.",
                    echoed(raw("\0\0\0\0\0")));
}

TEST(Echo, DescriptionThatDoesNotParseIsRefused) {
  EXPECT_THROW(echoed(testing::containerOf({raw("\xFF\xFF")})), Exception<parallel::scheduler::UnreadableDescription>);
}

TEST(Echo, ItemsThatCannotBeUsedAreNamed) {
  EchoRequest noKind;
  addItem(noKind, zksmessages::ITEM_KIND_FILE, 0);
  noKind.add_items();
  EXPECT_IDENTIFIED(BadEchoItem, "The EchoRequest cannot be used: items[1]: kind is 0, which is not a kind of item.",
                    echoed(requestOf(noKind, {"", ""})));
  EchoRequest unknownKind;
  unknownKind.add_items()->set_kind(static_cast<ItemKind>(9));
  EXPECT_IDENTIFIED(BadEchoItem, "The EchoRequest cannot be used: items[0]: kind is 9, which is not a kind of item.",
                    echoed(requestOf(unknownKind, {""})));
  EchoRequest noSize;
  noSize.add_items()->set_kind(zksmessages::ITEM_KIND_PLAIN);
  EXPECT_IDENTIFIED(BadEchoItem,
                    "The EchoRequest cannot be used: items[0]: nbytes is missing, and a plain item needs it.",
                    echoed(requestOf(noSize, {""})));
  EchoRequest hugeSize;
  addItem(hugeSize, zksmessages::ITEM_KIND_PLAIN, 0x8000'0000'0000'0000);
  EXPECT_IDENTIFIED(BadEchoItem,
                    "The EchoRequest cannot be used: items[0]: nbytes is 9223372036854775808, more than a length can "
                    "say.",
                    echoed(requestOf(hugeSize, {""})));
}

TEST(Echo, EveryTruncationIsRefused) {
  EchoRequest description;
  addItem(description, zksmessages::ITEM_KIND_FILE, 0);
  addItem(description, zksmessages::ITEM_KIND_PLAIN, 3);
  const std::string whole = requestOf(description, {"ab", "xyz"});
  for (std::size_t length = 0; length < whole.size(); ++length)
    EXPECT_THROW(echoed(whole.substr(0, length)), Exception<parallel::scheduler::MalformedRequest>) << length;
  EXPECT_THROW(echoed(whole + "x"), Exception<parallel::scheduler::MalformedRequest>);
}

// Gives a head, then one unit so many times, then a tail, without holding it all.
class Repeating : public std::streambuf {
 public:
  Repeating(std::string head, std::string unit, int times, std::string tail)
      : piece_(std::move(head)), unit_(std::move(unit)), times_(times), tail_(std::move(tail)) {}

 protected:
  int_type underflow() override {
    if (times_ < 0)
      return traits_type::eof();
    if (gptr() != nullptr)
      piece_ = times_-- > 0 ? unit_ : tail_;
    setg(piece_.data(), piece_.data(), piece_.data() + piece_.size());
    return traits_type::to_int_type(*gptr());
  }

 private:
  std::string piece_;
  std::string unit_;
  int times_;
  std::string tail_;
};

// Counts and forgets.
class Counting : public std::streambuf {
 public:
  std::uint64_t nbytes = 0;

 protected:
  std::streamsize xsputn(const char*, std::streamsize n) override {
    nbytes += static_cast<std::uint64_t>(n);
    return n;
  }
  int_type overflow(int_type c) override {
    ++nbytes;
    return traits_type::not_eof(c);
  }
};

class StreamedCall : public FakeServerCall {
 public:
  StreamedCall(std::streambuf& request, std::streambuf& reply)
      : FakeServerCall("", "echo"), request_(&request), reply_(&reply) {}
  std::istream& request() override { return request_; }
  std::ostream& reply() override { return reply_; }

 private:
  std::istream request_;
  std::ostream reply_;
};

// AddressSanitizer keeps 256 MiB of freed memory aside; the item must be far larger than that to show.
#if defined(__SANITIZE_ADDRESS__)
constexpr std::uint64_t kBlocks = 40'000;
constexpr std::uint64_t kMemoryBound = std::uint64_t{400} << 20;
#else
constexpr std::uint64_t kBlocks = 8192;
constexpr std::uint64_t kMemoryBound = std::uint64_t{16} << 20;
#endif

TEST(Echo, MemoryDoesNotGrowWithTheItem) {
  const std::string block = raw("\x7F\xFF") + testing::patternOf(32767);
  const std::string endMark = raw("\xFF\xFF");
  EchoRequest description;
  addItem(description, zksmessages::ITEM_KIND_FILE, 0);
  std::string head = requestOf(description, {""});
  head.resize(head.size() - endMark.size());
  Repeating request(head, block, static_cast<int>(kBlocks), endMark);
  Counting reply;
  StreamedCall call(request, reply);
  const std::uint64_t before = execution::residentHighWaterMark(::getpid());
  echo(call, {});
  EXPECT_EQ(reply.nbytes, ReplyWriter::kHeadBytes + kBlocks * block.size() + endMark.size());
  EXPECT_LT(execution::residentHighWaterMark(::getpid()) - before, kMemoryBound);
}

TEST(Echo, SizeThatNoReplyCanSayIsNotAnnounced) {
  EchoRequest description;
  for (int i = 0; i < 100; ++i)
    addItem(description, zksmessages::ITEM_KIND_PLAIN, 1);
  const std::string request = requestOf(description, std::vector<std::string>(100, "x"));
  FakeServerCall exact(request, "echo");
  echo(exact, {});
  EXPECT_EQ(exact.replySize(), static_cast<long>(exact.replyText().size()));
  FakeServerCall liar(request, "echo");
  liar.setRequestSize(std::numeric_limits<long>::max());
  echo(liar, {});
  EXPECT_EQ(liar.replySize(), std::nullopt);
  EXPECT_EQ(liar.replyText(), exact.replyText());
}

}  // namespace
}  // namespace parallel::scheduler
