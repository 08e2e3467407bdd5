#include "platform/spf/grpc/internal/endpoint/peerText.h"

#include <gtest/gtest.h>

namespace agent::spf::grpc_transport::internal {
namespace {

TEST(PeerText, IsAddressAndPort) {
  EXPECT_EQ(peerText("ipv4:127.0.0.1:40312"), "127.0.0.1:40312");
  EXPECT_EQ(peerText("ipv6:%5B::1%5D:40312"), "[::1]:40312");
  EXPECT_EQ(peerText("ipv6:[::1]:40312"), "[::1]:40312");
}

TEST(PeerText, ClientsOfASocketFileHaveNoNameOfTheirOwn) {
  EXPECT_EQ(peerText("unix:"), "unix");
  EXPECT_EQ(peerText("unix:/run/zksd.sock"), "unix");
  EXPECT_EQ(peerText("unix-abstract:name"), "unix");
}

TEST(PeerText, TextThatIsNotAnEscapeStays) {
  EXPECT_EQ(peerText("ipv6:%zz%5"), "%zz%5");
  EXPECT_EQ(peerText("unknown"), "unknown");
  EXPECT_EQ(peerText(""), "");
}

}  // namespace
}  // namespace agent::spf::grpc_transport::internal
