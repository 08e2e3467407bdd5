// Bytes changed at random: decoding never fails or crashes, and what was decoded encodes to the same message.
#include <gtest/gtest.h>

#include <random>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/protobufencoding/testing/RandomMessages.h"
#include "platform/protobufencoding/testing/SchedulerAnyEncoder.h"
#include "platform/protobufencoding/testing/canonicalAnys.h"
#include "platform/protobufencoding/testing/everything2.pb.h"
#include "platform/protobufencoding/testing/everything3.pb.h"
#include "platform/protobufencoding/testing/golden.h"
#include "platform/protobufencoding/testing/loadedDescriptors.h"

namespace parallel::protobufencoding::testing {
namespace {

void mutate(std::string& bytes, std::mt19937_64& engine) {
  for (std::uint64_t i = 1 + engine() % 8; i > 0 && !bytes.empty(); --i) {
    const std::size_t at = engine() % bytes.size();
    switch (engine() % 4) {
      case 0:
        bytes[at] = static_cast<char>(engine());
        break;
      case 1:
        bytes.erase(at, 1 + engine() % 4);
        break;
      case 2:
        bytes.insert(at, 1, static_cast<char>(engine()));
        break;
      default:
        bytes.insert(at, bytes.substr(engine() % bytes.size(), engine() % 16));
    }
  }
}

// Empty when the parser refused the bytes: what it left is decoded, but may not be a valid message.
std::string bytesOnceAround(const google::protobuf::Message& message, bool valid) {
  SchedulerAnyEncoder encoder;
  const qxArrayPtr value = decode(message, &encoder);
  EXPECT_NE(value, nullptr);
  return valid ? deterministic(*encode(value.get(), &encoder, 0)) : "";
}

struct Mutated {
  std::unique_ptr<google::protobuf::Message> message;
  bool valid;
};

Mutated mutated(const google::protobuf::Message& prototype, std::uint64_t seed) {
  std::unique_ptr<google::protobuf::Message> message(prototype.New());
  RandomMessages(seed % 20).fill(*message, 4);
  std::string bytes = deterministic(*message);
  std::mt19937_64 engine(seed);
  mutate(bytes, engine);
  message->Clear();
  const bool valid = message->ParseFromString(bytes);
  return {std::move(message), valid};
}

void expectMutationsComeBack(const google::protobuf::Message& prototype) {
  for (std::uint64_t seed = 0; seed < 1000; ++seed) {
    const auto [message, valid] = mutated(prototype, seed);
    const std::string bytes = bytesOnceAround(*message, valid);
    SchedulerAnyEncoder encoder;
    writeAnysAnew(*message, &encoder);
    ASSERT_EQ(toHex(bytes), toHex(valid ? deterministic(*message) : "")) << "seed " << seed;
  }
}

TEST(MutatedBytes, OfProto3MessagesComeBackAsTheyWereParsed) {
  expectMutationsComeBack(Everything());
}

TEST(MutatedBytes, OfProto2MessagesComeBackAsTheyWereParsed) {
  expectMutationsComeBack(Everything2());
}

// Dynamic messages keep map entries with equal keys until they are written, of which a struct has the last. Of a
// damaged scheduler's Any a struct has what could be read, which may not be valid: text cut inside a character.
TEST(MutatedBytes, OfLoadedTypesAreTheSameFromTheFirstTimeAround) {
  const auto prototype = newLoaded();
  int refused = 0;
  for (std::uint64_t seed = 0; seed < 1000; ++seed) {
    const auto [message, valid] = mutated(*prototype, seed);
    std::string once;
    try {
      once = bytesOnceAround(*message, valid);
    } catch (const Exception<::parallel::protobuf::EncodeError>&) {
      ++refused;
      continue;
    }
    const auto again = newLoaded();
    ASSERT_TRUE(again->ParseFromString(once)) << "seed " << seed;
    ASSERT_EQ(toHex(bytesOnceAround(*again, true)), toHex(once)) << "seed " << seed;
  }
  EXPECT_LT(refused, 20);
}

TEST(MutatedBytes, OfDescriptorSetsLoadOrSayWhy) {
  const std::string whole = loadedDescriptors();
  int refused = 0;
  for (std::uint64_t i = 0; i < 300; ++i) {
    std::string bytes = whole;
    std::mt19937_64 engine(i);
    mutate(bytes, engine);
    try {
      loadDescriptorSet(bytes);
    } catch (const Exception<::parallel::protobuf::DescriptorSetError>& error) {
      EXPECT_STRNE(error.what(), "");
      ++refused;
    }
  }
  EXPECT_GT(refused, 0);
}

}  // namespace
}  // namespace parallel::protobufencoding::testing
