#include "scheduler/calls/RequestReader.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <sstream>
#include <stdexcept>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/spf/core/errors.h"
#include "platform/zksmessages/zksmessages.pb.h"
#include "scheduler/testing/containers.h"
#include "scheduler/testing/expectError.h"
#include "transport/streams/FunctionalByteSink.h"

namespace parallel::scheduler {
namespace {

using spf::transport::FunctionalByteSink;
using testing::containerOf;
using testing::raw;

// Reads a container that is given as text.
class Request {
 public:
  explicit Request(const std::string& bytes) : stream_(bytes) { stream_.exceptions(std::ios::badbit); }

  RequestReader& reader() {
    if (!reader_)
      reader_ = std::make_unique<RequestReader>(stream_, "weigh");
    return *reader_;
  }
  std::string item() {
    std::string text;
    FunctionalByteSink sink = appendingTo(text);
    const std::uint64_t nbytes = reader().readItem(sink);
    EXPECT_EQ(nbytes, text.size());
    return text;
  }
  std::string framedItem(std::uint64_t* nbytes = nullptr) {
    std::string text;
    FunctionalByteSink sink = appendingTo(text);
    const std::uint64_t got = reader().copyFramedItem(sink);
    if (nbytes != nullptr)
      *nbytes = got;
    return text;
  }
  void readAll(bool framed) {
    for (std::int32_t i = 0; i < reader().itemCount(); ++i)
      framed ? framedItem() : item();
    reader().expectEnd();
  }

 private:
  static FunctionalByteSink appendingTo(std::string& text) {
    return FunctionalByteSink(
        [&text](const std::byte* data, std::size_t n) { text.append(reinterpret_cast<const char*>(data), n); });
  }
  std::istringstream stream_;
  std::unique_ptr<RequestReader> reader_;
};

std::string malformed(const std::string& problem) {
  return "The request to weigh is malformed: " + problem + ".";
}

TEST(RequestReader, GoldenContainerGivesItsItemsInOrder) {
  Request request(
      raw("\0\0\0\0\3"
          "\0\3abc\xFF\xFF"
          "\xFF\xFF"
          "\0\2de\0\3fgh\xFF\xFF"));
  EXPECT_EQ(request.reader().itemCount(), 3);
  EXPECT_EQ(request.item(), "abc");
  EXPECT_EQ(request.item(), "");
  EXPECT_EQ(request.item(), "defgh");
  request.reader().expectEnd();
  EXPECT_EQ(request.reader().nbytesConsumed(), 25U);
}

TEST(RequestReader, VersionByteIsNotLookedAt) {
  Request request(raw("\7\0\0\0\0"));
  EXPECT_EQ(request.reader().itemCount(), 0);
}

TEST(RequestReader, EmptyBlocksAreSkippedInDataAndKeptInFraming) {
  const std::string framing = raw("\0\0\0\2xy\0\0\0\0\0\1z\xFF\xFF");
  Request request(raw("\0\0\0\0\2") + framing + framing);
  EXPECT_EQ(request.item(), "xyz");
  std::uint64_t nbytes = 0;
  EXPECT_EQ(request.framedItem(&nbytes), framing);
  EXPECT_EQ(nbytes, 3U);
}

TEST(RequestReader, EveryTruncationIsMalformed) {
  const std::string whole = containerOf({"abc", "", "defgh"});
  for (const bool framed : {false, true}) {
    EXPECT_NO_THROW(Request(whole).readAll(framed));
    for (std::size_t length = 0; length < whole.size(); ++length) {
      SCOPED_TRACE(length);
      EXPECT_THROW(Request(whole.substr(0, length)).readAll(framed), Exception<parallel::scheduler::MalformedRequest>);
    }
  }
}

TEST(RequestReader, TruncatedLargeItemNamesTheItem) {
  const std::string whole = containerOf({"abc", testing::patternOf(70'000)});
  for (const bool framed : {false, true}) {
    for (const std::size_t missing : {1U, 2U, 3U, 4468U, 4469U, 4470U, 40'000U}) {
      SCOPED_TRACE(missing);
      EXPECT_IDENTIFIED(MalformedRequest, malformed("it ends inside item 2 of 2"),
                        Request(whole.substr(0, whole.size() - missing)).readAll(framed));
    }
  }
}

TEST(RequestReader, TruncatedHeadSaysSo) {
  EXPECT_IDENTIFIED(MalformedRequest, malformed("it ends inside the container's head"), Request("").reader());
  EXPECT_IDENTIFIED(MalformedRequest, malformed("it ends inside the container's head"),
                    Request(raw("\0\0\0\0")).reader());
}

TEST(RequestReader, NegativeCountIsMalformed) {
  EXPECT_IDENTIFIED(MalformedRequest, malformed("its item count is negative (-1)"),
                    Request(raw("\0\xFF\xFF\xFF\xFF")).reader());
  EXPECT_IDENTIFIED(MalformedRequest, malformed("its item count is negative (-2147483648)"),
                    Request(raw("\0\x80\0\0\0")).reader());
}

TEST(RequestReader, NegativeBlockHeaderIsMalformed) {
  for (const std::string& header : {raw("\x80\0"), raw("\xFF\xFE")}) {
    for (const bool framed : {false, true}) {
      EXPECT_IDENTIFIED(MalformedRequest, malformed("a block header in item 1 of 1 is negative"),
                        Request(raw("\0\0\0\0\1") + header + "rest").readAll(framed));
    }
  }
}

TEST(RequestReader, BytesAfterTheLastItemAreMalformed) {
  EXPECT_IDENTIFIED(MalformedRequest, malformed("it goes on after its last item"),
                    Request(containerOf({"abc"}) + "x").readAll(false));
}

TEST(RequestReader, WrongItemCountNamesMethodExpectedAndFound) {
  Request request(containerOf({"a", "b"}));
  request.reader().expectItems(2);
  request.reader().expectItemsAtLeast(2);
  EXPECT_IDENTIFIED(WrongItemCount, "The request to weigh has the wrong number of items: 3 expected, 2 found.",
                    request.reader().expectItems(3));
  EXPECT_IDENTIFIED(WrongItemCount, "The request to weigh has the wrong number of items: at least 3 expected, 2 found.",
                    request.reader().expectItemsAtLeast(3));
}

TEST(RequestReader, ItemPastTheLastIsTheCallersMistake) {
  Request request(containerOf({"a"}));
  request.item();
  EXPECT_THROW(request.item(), std::logic_error);
}

TEST(RequestReader, MessageIsParsed) {
  zksmessages::EchoRequest sent;
  sent.add_items()->set_kind(zksmessages::ITEM_KIND_FILE);
  Request request(testing::requestOf(sent));
  zksmessages::EchoRequest got;
  request.reader().readMessage(got, {});
  EXPECT_EQ(got.SerializeAsString(), sent.SerializeAsString());
}

TEST(RequestReader, UnparseableMessageNamesItemAndType) {
  Request request(containerOf({"first", raw("\xFF\xFF\xFF")}));
  request.item();
  zksmessages::EchoRequest message;
  EXPECT_IDENTIFIED(
      UnreadableDescription,
      "Item 2 of the request to weigh cannot be read as a parallel.zksmessages.EchoRequest message: its 3 "
      "bytes do not parse.",
      request.reader().readMessage(message, {}));
}

TEST(RequestReader, MessageWithTextThatIsNotUtf8IsRefusedWithoutAWordOnStandardError) {
  Request request(containerOf({raw("\x0A\x02\xFF\xFE")}));
  zksmessages::TaskDescription message;
  ::testing::internal::CaptureStderr();
  EXPECT_THROW(request.reader().readMessage(message, {}), Exception<parallel::scheduler::UnreadableDescription>);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST(RequestReader, MessageOverTheLimitIsRefused) {
  Request request(containerOf({std::string(RequestReader::kMaxMessageBytes + 1, 'x')}));
  zksmessages::EchoRequest message;
  EXPECT_IDENTIFIED(
      UnreadableDescription,
      "Item 1 of the request to weigh cannot be read as a parallel.zksmessages.EchoRequest message: it is "
      "larger than 67108864 bytes.",
      request.reader().readMessage(message, {}));
}

TEST(RequestReader, MessageWithTooManyFieldsIsRefused) {
  constexpr std::size_t kFields = 10;
  const auto readWith = [](std::size_t mostFields) {
    zksmessages::EchoRequest sent;
    for (std::size_t i = 0; i < kFields; ++i)
      sent.add_items();
    Request request(testing::requestOf(sent));
    zksmessages::EchoRequest message;
    request.reader().readMessage(message, {mostFields, "an option"});
    return static_cast<std::size_t>(message.items_size());
  };
  EXPECT_EQ(readWith(kFields), kFields);
  EXPECT_IDENTIFIED(
      UnreadableDescription,
      "Item 1 of the request to weigh cannot be read as a parallel.zksmessages.EchoRequest message: it has "
      "more than 9 fields (an option).",
      readWith(kFields - 1));
}

TEST(RequestReader, FailureOfTheSinkPassesUnchanged) {
  for (const bool framed : {false, true}) {
    std::istringstream stream(containerOf({"abc"}));
    RequestReader reader(stream, "weigh");
    FunctionalByteSink sink([](const std::byte*, std::size_t) { throw std::runtime_error("disk full"); });
    try {
      framed ? reader.copyFramedItem(sink) : reader.readItem(sink);
      ADD_FAILURE() << "nothing was thrown";
    } catch (const std::runtime_error& failure) {
      EXPECT_STREQ(failure.what(), "disk full");
    }
  }
}

// Gives some bytes, then fails as a lost connection does.
class BrokenBuffer : public std::stringbuf {
 public:
  explicit BrokenBuffer(const std::string& bytes) : std::stringbuf(bytes, std::ios::in) {}

 protected:
  int_type underflow() override { throw agent::spf::Terminated("connection lost"); }
  std::streamsize xsgetn(char* to, std::streamsize n) override {
    if (in_avail() < n)
      throw agent::spf::Terminated("connection lost");
    return std::stringbuf::xsgetn(to, n);
  }
};

TEST(RequestReader, FailureOfTheStreamPassesUnchangedWhereverItComes) {
  const std::string whole = containerOf({"abc", "defgh"});
  for (std::size_t length = 0; length < whole.size(); ++length) {
    BrokenBuffer buffer(whole.substr(0, length));
    std::istream stream(&buffer);
    stream.exceptions(std::ios::badbit);
    const auto readAll = [&] {
      RequestReader reader(stream, "weigh");
      FunctionalByteSink sink([](const std::byte*, std::size_t) {});
      reader.readItem(sink);
      reader.copyFramedItem(sink);
    };
    EXPECT_THROW(readAll(), agent::spf::Terminated) << length;
  }
}

RC_GTEST_PROP(RequestReader, AnyItemsComeOutAsTheyWentIn, (const std::vector<std::string>& items)) {
  Request request(containerOf(items));
  RC_ASSERT(request.reader().itemCount() == static_cast<std::int32_t>(items.size()));
  for (const std::string& item : items)
    RC_ASSERT(request.item() == item);
  request.reader().expectEnd();
}

RC_GTEST_PROP(RequestReader, AnyBytesAreReadOrRefused, (const std::string& bytes)) {
  const std::string head = raw("\0\0\0\0\2");
  for (const bool framed : {false, true}) {
    try {
      Request(head + bytes).readAll(framed);
    } catch (const Exception<parallel::scheduler::MalformedRequest>&) {
      // Refused.
    }
  }
}

}  // namespace
}  // namespace parallel::scheduler
