#include "platform/spf/grpc/internal/wire/Frame.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string_view>

#include "platform/spf/core/errors.h"
#include "platform/spf/grpc/internal/wire/errorMessage.h"
#include "platform/spf/grpc/testing/errorReference.h"
#include "platform/spf/grpc/testing/rawMessages.h"

namespace agent::spf::grpc_transport::internal {
namespace {

using testing::bytesOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using testing::messageOf;

std::string dataOf(const Frame& frame) {
  std::string bytes;
  for (const grpc::Slice& slice : frame.data)
    bytes.append(slice.begin(), slice.end());
  EXPECT_EQ(bytes.size(), frame.dataBytes);
  return bytes;
}

// What the generated parser makes of the bytes must be what ours makes of them, or both refuse them.
void expectAsGenerated(const std::string& bytes, std::size_t step) {
  v1::Frame expected;
  const bool parses = expected.ParseFromString(bytes);
  Frame frame;
  try {
    frame = decodeFrame(messageOf(bytes, step));
  } catch (const FrameworkError& e) {
    EXPECT_FALSE(parses) << ::testing::PrintToString(bytes) << e.what();
    EXPECT_THAT(e.what(), HasSubstr("malformed frame"));
    return;
  }
  ASSERT_TRUE(parses) << ::testing::PrintToString(bytes);
  EXPECT_EQ(dataOf(frame), expected.data());
  EXPECT_EQ(frame.end, expected.end());
  EXPECT_EQ(frame.notice.value_or(""), expected.notice());
  ASSERT_EQ(frame.call.has_value(), expected.has_call());
  ASSERT_EQ(frame.reply.has_value(), expected.has_reply());
  ASSERT_EQ(frame.error.has_value(), expected.has_error());
  EXPECT_EQ(frame.call.value_or(v1::CallHead()).SerializeAsString(), expected.call().SerializeAsString());
  EXPECT_EQ(frame.reply.value_or(v1::ReplyHead()).SerializeAsString(), expected.reply().SerializeAsString());
  EXPECT_TRUE(testing::saysTheSame(frame.error.value_or(ReceivedError()), expected.error()));
  ASSERT_EQ(frame.errorPart.has_value(), expected.has_error_part());
  EXPECT_TRUE(testing::saysTheSame(frame.errorPart.value_or(ReceivedError()), expected.error_part()));
}

// A peer's bytes must not reach the terminal of whoever reads them.
TEST(Frame, HeadWithTextThatIsNotUtf8IsRefusedWithoutAWordOnStandardError) {
  const std::string bytes = "\x0A\x05\x12\x03\xFF\xFE.";  // call { method }
  ::testing::internal::CaptureStderr();
  EXPECT_THROW(decodeFrame(messageOf(bytes, 1)), FrameworkError);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

v1::CallHead exampleHead() {
  v1::CallHead head;
  head.set_protocol_version(1);
  head.set_method("echo");
  head.set_size(3);
  head.set_tag_high(1);
  return head;
}

v1::Frame exampleFrame() {
  v1::Frame frame;
  *frame.mutable_call() = exampleHead();
  frame.set_data("abc");
  frame.set_end(true);
  auto* level = frame.mutable_error()->add_levels();
  level->set_kind(v1::ErrorChain::Level::IDENTIFIED);
  level->set_component("c");
  level->set_text("text");
  frame.mutable_call()->add_capabilities(v1::ERROR_PARTS);
  frame.mutable_error_part()->add_levels()->set_continues(true);
  frame.set_notice("queued");
  return frame;
}

TEST(Frame, SmallCallIsOneMessageOfTheseBytes) {
  const std::string golden(
      "\x0A\x13"  // call, 19 bytes
      "\x08\x01"  // protocol_version 1
      "\x12\x04"
      "echo"                                  // method
      "\x18\x03"                              // size 3
      "\x21\x01\x00\x00\x00\x00\x00\x00\x00"  // tag_high 1
      "\x1A\x03"
      "abc"        // data
      "\x20\x01",  // end
      28);
  const FrameEnvelope envelope{encodeCallHead(exampleHead()), true, {}};
  EXPECT_EQ(bytesOf(encodeSmallFrame(envelope, "abc", 3)), golden);
  EXPECT_EQ(bytesOf(encodeFrame(envelope, grpc::Slice(std::string("abc")))), golden);
  expectAsGenerated(golden, 1);
}

TEST(Frame, NoticeIsAFrameOfTheseBytes) {
  const std::string golden("\x3A\x06queued", 8);
  EXPECT_EQ(bytesOf(encodeSmallFrame({encodeNotice("queued"), false, {}}, nullptr, 0)), golden);
  expectAsGenerated(golden, 1);
}

TEST(Frame, LongerNoticeThanAnyIsMalformed) {
  const auto decode = [](std::size_t nbytes) {
    return decodeFrame(messageOf(encodeNotice(std::string(nbytes, 'x')), 1000)).notice.value_or("").size();
  };
  EXPECT_EQ(decode(kMaxNoticeBytes), kMaxNoticeBytes);
  EXPECT_THROW(decode(kMaxNoticeBytes + 1), FrameworkError);
}

TEST(Frame, DataIsSharedNotCopied) {
  const std::string bytes(100'000, 'd');
  const grpc::Slice data(bytes);
  const grpc::ByteBuffer message = encodeFrame({{}, true, {}}, data);
  const Frame frame = decodeFrame(message);
  ASSERT_EQ(frame.data.size(), 1U);
  EXPECT_EQ(frame.data[0].begin(), data.begin());
  EXPECT_EQ(dataOf(frame), bytes);
  EXPECT_TRUE(frame.end);
}

TEST(Frame, EveryEnvelopeWithDataOfBorderSizesIsReadByTheGeneratedParser) {
  for (const std::size_t size : {0, 1, 127, 128, 1023, 1024, 1025, 16383, 16384, 100'000})
    for (const bool end : {false, true})
      for (const bool withHead : {false, true}) {
        const std::string data(size, 'x');
        const FrameEnvelope envelope{withHead ? encodeCallHead(exampleHead()) : "", end,
                                     encodeError(exampleFrame().error())};
        v1::Frame expected;
        ASSERT_TRUE(expected.ParseFromString(bytesOf(encodeFrame(envelope, grpc::Slice(data)))));
        EXPECT_EQ(expected.data(), data);
        EXPECT_EQ(expected.end(), end);
        EXPECT_EQ(expected.has_call(), withHead);
        EXPECT_EQ(expected.error().SerializeAsString(), exampleFrame().error().SerializeAsString());
      }
}

TEST(Frame, EveryTruncationIsTakenAsTheGeneratedParserTakesIt) {
  const std::string whole = exampleFrame().SerializeAsString();
  for (std::size_t size = 0; size <= whole.size(); ++size)
    for (const std::size_t step : {1, 2, 3, 5, 1000})
      expectAsGenerated(whole.substr(0, size), step);
}

// The generated parser writes a line to stderr about each text that is no UTF-8.
class Silence {
 public:
  Silence() { ::testing::internal::CaptureStderr(); }
  ~Silence() { ::testing::internal::GetCapturedStderr(); }
  Silence(const Silence&) = delete;
  Silence& operator=(const Silence&) = delete;
};

TEST(Frame, EveryByteTakenForAnyOtherIsTakenAsTheGeneratedParserTakesIt) {
  const Silence silence;
  const std::string whole = exampleFrame().SerializeAsString();
  for (std::size_t at = 0; at < whole.size(); ++at)
    for (int value = 0; value < 256; ++value) {
      std::string changed = whole;
      changed[at] = static_cast<char>(value);
      expectAsGenerated(changed, 3);
    }
}

TEST(Frame, RandomBytesAreTakenAsTheGeneratedParserTakesThem) {
  const Silence silence;
  std::mt19937 random(12345);
  // Mostly bytes that mean something: small tags, lengths, groups.
  std::uniform_int_distribution<int> small(0, 60);
  std::uniform_int_distribution<int> any(0, 255);
  for (int round = 0; round < 200'000; ++round) {
    std::string bytes(static_cast<std::size_t>(small(random)) / 3, '\0');
    for (char& byte : bytes)
      byte = static_cast<char>(small(random) < 50 ? small(random) : any(random));
    expectAsGenerated(bytes, 1 + static_cast<std::size_t>(round) % 4);
  }
}

// Frames that hold nothing but an error, made of bytes that mean something in one.
TEST(Frame, RandomErrorsAreTakenAsTheGeneratedParserTakesThem) {
  const Silence silence;
  std::mt19937 random(54321);
  const std::string_view pieces[] = {"\x0A\x00", "\x0A\x02", "\x08\x01", "\x08",     "\x12\x01", "\x1A\x02\xC3\xA4",
                                     "\x22\x03", "\x28\x01", "\x28\x81", "\x0A\x7F", "\x30",     "\x3B",
                                     "\x3C",     "a",        "\xFF"};
  std::uniform_int_distribution<std::size_t> some(0, std::size(pieces) - 1);
  for (int round = 0; round < 200'000; ++round) {
    std::string error;
    for (std::size_t left = some(random); left > 0; --left)
      error += pieces[some(random)];
    if (round % 2 == 0)
      error = "\x0A" + std::string(1, static_cast<char>(error.size())) + error;  // all of it one level
    expectAsGenerated("\x2A" + std::string(1, static_cast<char>(error.size())) + error,
                      1 + static_cast<std::size_t>(round) % 4);
  }
}

TEST(Frame, UnknownFieldsOfEveryKindAreSkipped) {
  const std::string unknown(
      "\x30\x05"
      "\x39"
      "12345678"
      "\x42\x02"
      "xy"
      "\x4B\x30\x01\x4C"
      "\x55"
      "1234",
      24);
  const Frame frame = decodeFrame(messageOf(unknown + "\x1A\x01z" + unknown, 2));
  EXPECT_EQ(dataOf(frame), "z");
}

TEST(Frame, LengthsBeyondTheFrameAreRefusedBeforeAnythingIsTaken) {
  for (const std::string tag : {"\x0A", "\x12", "\x1A", "\x2A", "\x42"}) {
    const std::string bytes = tag + "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x7F";
    EXPECT_THROW(decodeFrame(messageOf(bytes, 4)), FrameworkError);
  }
}

TEST(Frame, HeadsLongerThanAnyAreRefused) {
  v1::CallHead head;
  head.set_method(std::string(kMaxHeadBytes / 2, 'm'));
  const std::string once = encodeCallHead(head);
  expectAsGenerated(once, 1000);
  EXPECT_THROW(decodeFrame(messageOf(once + once, 1000)), FrameworkError);  // together they are one head
  head.set_method(std::string(kMaxHeadBytes, 'm'));
  EXPECT_THROW(decodeFrame(messageOf(encodeCallHead(head), 1000)), FrameworkError);
  v1::ReplyHead reply;
  for (std::size_t i = 0; i <= kMaxHeadBytes; ++i)
    reply.add_capabilities(v1::ERROR_PARTS);
  EXPECT_THROW(decodeFrame(messageOf(encodeReplyHead(reply), 1000)), FrameworkError);
}

// What arrives of a message, in slices of odd lengths.
ReceivedError received(const v1::ErrorChain& message) {
  return decodeFrame(messageOf(encodeError(message), 997)).error.value_or(ReceivedError());
}

TEST(ErrorMessage, ChainComesBackAsItWent) {
  using Kind = core::ErrorLevel::Kind;
  const core::ErrorChain chain{{Kind::framework, "", "", "a"},     {Kind::identified, "c:d", "N", "b\xFF"},
                               {Kind::standard, "", "", ""},       {Kind::timeout, "", "", "t"},
                               {Kind::terminated, "", "", "gone"}, {Kind::unknown, "", "", "?"}};
  EXPECT_EQ(ErrorParts().finish(received(toMessage(chain))), chain);
}

// What the parts of a chain add up to, each read from its bytes.
core::ErrorChain throughParts(const core::ErrorChain& chain) {
  ErrorParts gathered;
  const std::vector<v1::ErrorChain> parts = toParts(chain);
  for (std::size_t i = 0; i < parts.size(); ++i) {
    EXPECT_LE(parts[i].ByteSizeLong(), kErrorPartBytes + 100 * chain.size() + 100);
    if (i + 1 == parts.size())
      return gathered.finish(received(parts[i]));
    gathered.add(received(parts[i]));
  }
  return {};
}

TEST(ErrorMessage, ChainComesBackFromItsPartsAsItWent) {
  using Kind = core::ErrorLevel::Kind;
  EXPECT_EQ(throughParts({}), core::ErrorChain());
  const std::size_t sizes[] = {0, 1, kErrorPartBytes - 1, kErrorPartBytes, kErrorPartBytes + 1, 5 * kErrorPartBytes};
  for (const std::size_t first : sizes)
    for (const std::size_t second : sizes) {
      const core::ErrorChain chain{{Kind::identified, "c", "n", std::string(first, 'a')},
                                   {Kind::timeout, "", "", std::string(second, '\xFF')},
                                   {Kind::standard, "", "", "last"}};
      EXPECT_TRUE(throughParts(chain) == chain) << first << " " << second;
    }
}

TEST(ErrorMessage, LongErrorIsManyPartsAndAShortOneIsOne) {
  const auto partsOf = [](std::size_t nbytes) {
    return toParts({{core::ErrorLevel::Kind::standard, "", "", std::string(nbytes, 'x')}}).size();
  };
  EXPECT_EQ(partsOf(0), 1U);
  EXPECT_EQ(partsOf(kErrorPartBytes), 1U);
  EXPECT_EQ(partsOf(kErrorPartBytes + 1), 2U);
  EXPECT_EQ(partsOf(10 * kErrorPartBytes), 10U);
}

TEST(ErrorMessage, PartsWithoutEndAreRefused) {
  v1::ErrorChain part;
  part.add_levels()->set_text(std::string(1 << 20, 'x'));
  ErrorParts gathered;
  EXPECT_THROW(for (int i = 0; i < 100; ++i) gathered.add(received(part)), FrameworkError);
}

// A chain of so many levels, and what is to become of it.
v1::ErrorChain manyLevels(std::size_t count) {
  v1::ErrorChain message;
  for (std::size_t i = 0; i < count; ++i)
    message.add_levels()->set_text(std::to_string(i));
  return message;
}

TEST(ErrorMessage, LevelsPastTheMostAreCountedAndMarked) {
  constexpr std::size_t kMost = core::kMaxErrorLevels;
  EXPECT_EQ(ErrorParts().finish(received(manyLevels(kMost + 1))).back().text, "1000");  // a mark, where our peers cut
  for (const std::size_t count : {kMost + 2, kMost + 3, 10 * kMost}) {
    const ReceivedError error = received(manyLevels(count));
    EXPECT_EQ(error.levels.size(), kMost + 1);
    const core::ErrorChain chain = ErrorParts().finish(error);
    ASSERT_EQ(chain.size(), kMost + 1);
    EXPECT_EQ(chain[kMost - 1].text, std::to_string(kMost - 1));
    EXPECT_EQ(chain[kMost].text, "[" + std::to_string(count - kMost) + " more levels were left out]");
  }
}

TEST(ErrorMessage, LevelsOfAllPartsTogetherAreCounted) {
  ErrorParts gathered;
  v1::ErrorChain part = manyLevels(core::kMaxErrorLevels);
  part.mutable_levels()->rbegin()->set_continues(true);
  gathered.add(received(part));
  gathered.add(received(v1::ErrorChain()));  // one without levels changes nothing
  gathered.add(received(part));              // goes on where the first left off
  part.mutable_levels(0)->set_continues(true);
  const core::ErrorChain chain = gathered.finish(received(part));
  ASSERT_EQ(chain.size(), core::kMaxErrorLevels + 1);
  EXPECT_EQ(chain[core::kMaxErrorLevels - 1].text, "9990");
  EXPECT_EQ(chain.back().text, "[1997 more levels were left out]");
}

TEST(ErrorMessage, IdentifierThatIsNotUtf8TravelsRepaired) {
  const core::ErrorChain chain{{core::ErrorLevel::Kind::identified, "c\xFF", "n\xC0", "x"}};
  EXPECT_EQ(received(toMessage(chain)).levels.at(0).component, "c\xEF\xBF\xBD");
}

TEST(ErrorMessage, KindOfALaterVersionBecomesUnknown) {
  v1::ErrorChain message;
  message.add_levels()->set_kind(static_cast<v1::ErrorChain::Level::Kind>(99));
  message.mutable_levels(0)->set_text("new");
  EXPECT_EQ(received(message).levels, (core::ErrorChain{{core::ErrorLevel::Kind::unknown, "", "", "new"}}));
}

}  // namespace
}  // namespace agent::spf::grpc_transport::internal
