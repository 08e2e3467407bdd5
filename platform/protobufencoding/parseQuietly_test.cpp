// What parseQuietly gives is what protobuf's own parser gives, but for the lines on standard error.
#include "platform/protobufencoding/parseQuietly.h"

#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <string>
#include <vector>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/protobufencoding/testing/RandomMessages.h"
#include "platform/protobufencoding/testing/everything2.pb.h"
#include "platform/protobufencoding/testing/everything3.pb.h"
#include "platform/protobufencoding/testing/hostLiterals.h"
#include "platform/protobufencoding/testing/loadedDescriptors.h"

namespace parallel::protobufencoding::testing {
namespace {

using google::protobuf::Message;

// What the process writes to standard error meanwhile.
template <class Work>
std::string printedBy(Work work) {
  ::testing::internal::CaptureStderr();
  work();
  return ::testing::internal::GetCapturedStderr();
}

struct Parsed {
  bool whole = false;
  std::string bytes;  // of what is in the message then
  bool operator==(const Parsed&) const = default;
};

// Bytes of messages with bad text print when they are written, too.
std::string written(const Message& message) {
  std::string bytes;
  printedBy([&] { bytes = deterministic(message); });
  return bytes;
}

Parsed parsedQuietly(const Message& prototype, std::string_view bytes) {
  const std::unique_ptr<Message> message(prototype.New());
  Parsed parsed;
  EXPECT_EQ(printedBy([&] { parsed.whole = parseQuietly(*message, bytes); }), "") << toHex(bytes);
  parsed.bytes = written(*message);
  return parsed;
}

// Compares with protobuf's own parser; tells whether that printed something.
bool parserPrints(const Message& prototype, const std::string& bytes) {
  SCOPED_TRACE(toHex(bytes));
  const std::unique_ptr<Message> message(prototype.New());
  Parsed loud;
  const std::string printed = printedBy([&] { loud.whole = message->ParsePartialFromString(bytes); });
  loud.bytes = written(*message);
  const Parsed quiet = parsedQuietly(prototype, bytes);
  EXPECT_EQ(quiet.whole, loud.whole);
  EXPECT_EQ(toHex(quiet.bytes), toHex(loud.bytes));
  return !printed.empty();
}

// The bytes with each "@@@@" in them, which stands in texts of the test's messages, made bad text of the same length.
std::string spoiled(std::string bytes) {
  for (std::size_t at = bytes.find("@@@@"); at != std::string::npos; at = bytes.find("@@@@", at))
    bytes.replace(at, 4, "\xC3(\xFF.");
  return bytes;
}

std::string spoiled(const Message& message) {
  return spoiled(written(message));
}

TEST(ParseQuietly, ReadsValidMessagesAsTheParserDoes) {
  for (std::uint64_t seed = 0; seed < 50; ++seed) {
    for (const std::shared_ptr<Message>& message :
         {std::shared_ptr<Message>(new Everything), std::shared_ptr<Message>(new Everything2),
          std::shared_ptr<Message>(newLoaded())}) {
      RandomMessages(seed).fill(*message, 5);
      parserPrints(*message, written(*message));
    }
  }
}

TEST(ParseQuietly, ReplacesWhatTheMessageHeld) {
  Point point;
  point.set_y(7);
  EXPECT_TRUE(parseQuietly(point, "\x08\x03"));
  EXPECT_EQ(toHex(deterministic(point)), "08 03");
  EXPECT_TRUE(parseQuietly(point, nullptr, 0));
  EXPECT_EQ(point.ByteSizeLong(), 0U);
}

TEST(ParseQuietly, DoesNotAskForRequiredFields) {
  Demanding message;
  EXPECT_EQ(printedBy([&] { EXPECT_TRUE(parseQuietly(message, std::string_view("\x12\x01x", 3))); }), "");
  EXPECT_EQ(message.extra(), "x");
}

TEST(ParseQuietly, KeepsBadTextOfAFieldAndNothingBehindIt) {
  Scalars scalars;
  scalars.set_a_int32(5);
  scalars.set_a_string("ab@@@@");
  scalars.set_a_bytes("behind");
  EXPECT_TRUE(parserPrints(Scalars(), spoiled(scalars)));
  Scalars read;
  EXPECT_FALSE(parseQuietly(read, spoiled(scalars)));
  EXPECT_EQ(read.a_int32(), 5);
  EXPECT_EQ(read.a_string(), "ab\xC3(\xFF.");
  EXPECT_EQ(read.a_bytes(), "");
}

TEST(ParseQuietly, KeepsBadTextOfRepeatedFields) {
  Repeateds repeateds;
  for (const char* text : {"a", "@@@@", "c"})
    repeateds.add_a_string(text);
  EXPECT_TRUE(parserPrints(Repeateds(), spoiled(repeateds)));
}

TEST(ParseQuietly, KeepsBadTextOfMessagesInside) {
  Parcel parcel;
  parcel.add_more()->set_type_url("first");
  zksmessages::Any& second = *parcel.add_more();
  second.set_type_url("@@@@");
  second.set_value("behind");
  parcel.add_more()->set_type_url("third");
  EXPECT_TRUE(parserPrints(Parcel(), spoiled(parcel)));
  parcel.mutable_content()->set_type_url("@@@@");
  EXPECT_TRUE(parserPrints(Parcel(), spoiled(parcel)));
}

TEST(ParseQuietly, KeepsBadTextOfOneofsAndDropsWhatItReplaces) {
  Choice choice;
  choice.set_a_string("@@@@");
  EXPECT_TRUE(parserPrints(Choice(), "\x18\x05" + spoiled(choice)));
}

TEST(ParseQuietly, DropsEntriesOfMapsWithBadText) {
  Maps maps;
  (*maps.mutable_to_any())["a"].set_type_url("good");
  (*maps.mutable_to_any())["b"].set_type_url("@@@@");
  (*maps.mutable_to_any())["c"].set_type_url("behind");
  EXPECT_TRUE(parserPrints(Maps(), spoiled(maps)));
  Maps keys;
  (*keys.mutable_to_any())["a"].set_type_url("good");
  (*keys.mutable_to_any())["b@@@@"].set_type_url("dropped");
  EXPECT_TRUE(parserPrints(Maps(), spoiled(keys)));
}

TEST(ParseQuietly, LeavesAloneWhatTheParserDoesNotCheck) {
  Scalars scalars;
  scalars.set_a_bytes("@@@@");
  EXPECT_FALSE(parserPrints(Scalars(), spoiled(scalars)));
  EXPECT_FALSE(parserPrints(Point(), "\x72\x02\xFF\xFE"));                  // a field that Point does not have
  EXPECT_FALSE(parserPrints(Scalars(), std::string("\x70\x01", 2)));        // not the wire type of a text
  EXPECT_FALSE(parserPrints(Point(), "\x1B\x0A\x02\xFF\xFE\x1C\x08\x03"));  // in an unknown group
}

// Only text of proto3 has to be UTF-8. The parser of dynamic messages and of extensions reports other text all the same.
TEST(ParseQuietly, ReadsTheRestBehindBadTextOfProto2) {
  Demanding compiled;
  compiled.set_needed(1);
  compiled.set_extra("@@@@");
  parserPrints(Demanding(), spoiled(compiled));
  Extendable extended;
  extended.SetExtension(text_extension, "@@@@");
  extended.AddExtension(texts_extension, "good");
  extended.AddExtension(texts_extension, "@@@@");
  parserPrints(Extendable(), spoiled(extended));
  const auto dynamic = newLoaded();
  Everything2 everything;
  everything.mutable_optionals()->set_a_string("@@@@");
  everything.mutable_repeateds()->add_a_string("@@@@");
  (*everything.mutable_repeateds()->mutable_to_bytes())["@@@@"] = "value";
  const std::string inner = spoiled(everything);
  parserPrints(*dynamic, "\x2A" + std::string(1, static_cast<char>(inner.size())) + inner + "\x08\x05");
  EXPECT_EQ(parsedQuietly(Everything2(), inner).bytes, inner);
}

TEST(ParseQuietly, StopsAtTheFirstOfSeveralBadTexts) {
  Repeateds repeateds;
  for (const char* text : {"a", "@@@@", "b", "@@@@"})
    repeateds.add_a_string(text);
  EXPECT_TRUE(parserPrints(Repeateds(), spoiled(repeateds)));
}

// The parser looks at text past the end of the bytes as at zeros.
TEST(ParseQuietly, SaysNothingOfTextThatIsCutInsideACharacter) {
  Scalars scalars;
  scalars.set_a_int32(5);
  scalars.set_a_string(
      "Gr\xC3\xB6\xC3\x9F"
      "e \xF0\x9F\x98\x80 end");
  const std::string whole = deterministic(scalars);
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const Parsed quiet = parsedQuietly(Scalars(), whole.substr(0, length));
    EXPECT_EQ(quiet.whole, length == 0 || length == 2) << length;
    EXPECT_EQ(quiet.bytes.substr(0, 2), length < 2 ? "" : whole.substr(0, 2)) << length;
  }
}

// Whether a text is good is asked of our own function; the parser has another.
TEST(ParseQuietly, AgreesWithTheParserOnWhatIsUtf8) {
  const std::vector<int> interesting{0x00, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF, 0xC0};
  std::vector<std::string> texts;
  for (int lead = 0; lead < 256; ++lead) {
    texts.emplace_back(1, static_cast<char>(lead));
    if (lead < 0xC0)
      continue;
    for (const int second : interesting) {
      for (const int third : interesting) {
        for (const int fourth : interesting)
          texts.push_back({static_cast<char>(lead), static_cast<char>(second), static_cast<char>(third),
                           static_cast<char>(fourth)});
      }
    }
  }
  std::vector<bool> quiet;
  EXPECT_EQ(printedBy([&] {
              for (const std::string& text : texts) {
                google::protobuf::StringValue message;
                quiet.push_back(parseQuietly(message, std::string("\x0A") + static_cast<char>(text.size()) + text));
              }
            }),
            "");
  std::size_t disagreements = 0;
  printedBy([&] {
    for (std::size_t i = 0; i < texts.size(); ++i) {
      google::protobuf::StringValue message;
      const std::string bytes = std::string("\x0A") + static_cast<char>(texts[i].size()) + texts[i];
      disagreements += message.ParsePartialFromString(bytes) == quiet[i] ? 0 : 1;
    }
  });
  EXPECT_EQ(disagreements, 0U);
}

// --- Damaged bytes ---

void damage(std::string& bytes, std::mt19937_64& engine) {
  for (std::uint64_t i = 1 + engine() % 6; i > 0 && !bytes.empty(); --i) {
    const std::size_t at = engine() % bytes.size();
    if (engine() % 3 == 0)
      bytes.erase(at, 1 + engine() % 4);
    else
      bytes[at] = static_cast<char>(engine() % 2 == 0 ? 0x80 + engine() % 0x80 : engine());
  }
}

void expectSilence(const Message& prototype) {
  std::vector<std::string> inputs;
  std::mt19937_64 engine(1);
  for (std::uint64_t seed = 0; seed < 1000; ++seed) {
    const std::unique_ptr<Message> message(prototype.New());
    RandomMessages(seed % 50).fill(*message, 4);
    inputs.push_back(written(*message));
    damage(inputs.back(), engine);
  }
  std::vector<bool> quiet;
  EXPECT_EQ(printedBy([&] {
              for (const std::string& input : inputs) {
                const std::unique_ptr<Message> message(prototype.New());
                quiet.push_back(parseQuietly(*message, input));
              }
            }),
            "");
  std::size_t disagreements = 0;
  const std::string printed = printedBy([&] {
    for (std::size_t i = 0; i < inputs.size(); ++i) {
      const std::unique_ptr<Message> message(prototype.New());
      disagreements += message->ParsePartialFromString(inputs[i]) == quiet[i] ? 0 : 1;
    }
  });
  EXPECT_EQ(disagreements, 0U);
  EXPECT_NE(printed, "") << "no input had bad text";
}

TEST(ParseQuietly, SaysNothingOfDamagedBytes) {
  expectSilence(Everything());
  expectSilence(Parcel());
  expectSilence(*newLoaded());
}

// --- Lengths ---

TEST(ParseQuietly, LengthThatIsNegativeAsAnIntNeverReachesTheParser) {
  constexpr std::size_t kTwoGib = std::size_t{1} << 31U;
  for (const std::size_t nbytes : {kTwoGib, kTwoGib + 1, kTwoGib + 16, kTwoGib + 17, 2 * kTwoGib - 1}) {
    Point point;
    point.set_x(3);
    EXPECT_THROW(parseQuietly(point, "\x08\x04", nbytes), Exception<::parallel::protobuf::MessageTooLarge>) << nbytes;
    EXPECT_EQ(point.x(), 3) << "the parser clears the message first";
  }
}

TEST(ParseQuietly, LengthIsNarrowed) {
  constexpr std::size_t kFourGib = std::size_t{1} << 32U;
  Point point;
  EXPECT_TRUE(parseQuietly(point, "\x08\x04\x10\x05", kFourGib + 2));
  EXPECT_EQ(toHex(deterministic(point)), "08 04");
}

}  // namespace
}  // namespace parallel::protobufencoding::testing
