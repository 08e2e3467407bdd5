#include "platform/spf/grpc/internal/endpoint/RepeatedLines.h"

#include <gtest/gtest.h>

namespace agent::spf::grpc_transport::internal {
namespace {

constexpr RepeatedLines::TimePoint kBegin{};

TEST(RepeatedLines, AreToldOnceInAWhileAndCountedInBetween) {
  RepeatedLines lines;
  EXPECT_EQ(lines.take("a", kBegin), "");
  EXPECT_EQ(lines.take("a", kBegin), std::nullopt);
  EXPECT_EQ(lines.take("a", kBegin + RepeatedLines::kInterval - std::chrono::milliseconds(1)), std::nullopt);
  EXPECT_EQ(lines.take("a", kBegin + RepeatedLines::kInterval), " (2 more like this since the last one)");
  EXPECT_EQ(lines.take("a", kBegin + 2 * RepeatedLines::kInterval), "");
}

TEST(RepeatedLines, OfOtherKindsAreToldToo) {
  RepeatedLines lines;
  EXPECT_EQ(lines.take("a", kBegin), "");
  EXPECT_EQ(lines.take("b", kBegin), "");
}

TEST(RepeatedLines, OfMoreKindsThanAreToldApartCountAsOne) {
  RepeatedLines lines;
  for (std::size_t i = 0; i < RepeatedLines::kKinds; ++i)
    EXPECT_EQ(lines.take(std::to_string(i), kBegin), "");
  EXPECT_EQ(lines.take("one more", kBegin), "");
  EXPECT_EQ(lines.take("and another", kBegin), std::nullopt);
  EXPECT_EQ(lines.take("0", kBegin), std::nullopt);
}

}  // namespace
}  // namespace agent::spf::grpc_transport::internal
