// Items whose length is negative as an int. Takes 2 GiB for each.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "transport/data/DeserializableData.h"
#include "transport/data/testing/LogCapture.h"
#include "transport/streams/ByteSink.h"
#include "transport/streams/ByteStream.h"

namespace parallel::spf::transport {
namespace {

// So many zeros, a MiB a write.
class Zeros : public ByteStream {
 public:
  explicit Zeros(std::size_t count) : left_(count) {}
  std::size_t read(ByteSink& sink, std::size_t nbytes) override {
    const std::vector<std::byte> piece(std::size_t{1} << 20U);
    const std::size_t wanted = std::min(nbytes, left_);
    for (std::size_t done = 0; done < wanted;) {
      const std::size_t size = std::min(piece.size(), wanted - done);
      sink.write(piece.data(), size);
      done += size;
    }
    left_ -= wanted;
    return wanted;
  }

 private:
  std::size_t left_;
};

TEST(DeserializeProtobuf, ItemWhoseLengthIsNegativeAsAnIntFailsBeforeTheParser) {
  constexpr std::size_t kTwoGib = std::size_t{1} << 31U;
  for (const std::size_t nbytes : {kTwoGib, kTwoGib + 8}) {
    const testing::LogCapture log(16);
    DeserializableData item(std::make_shared<Zeros>(nbytes));
    EXPECT_THROW(item.deserializeProtobuf(), Exception<cluster::DeserializeProtobufError>);
    ASSERT_EQ(log.texts().size(), 1U);
    EXPECT_NE(log.texts()[0].find("Error occurred deserializing protobuf message: A message of " +
                                  std::to_string(nbytes) + " bytes"),
              std::string::npos)
        << log.texts()[0];
  }
}

}  // namespace
}  // namespace parallel::spf::transport
