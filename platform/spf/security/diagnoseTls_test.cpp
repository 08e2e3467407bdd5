// Peers that are no TLS services at all; how real ones refuse is tested over gRPC
// (platform/spf/grpc/security_test.cpp).
#include "platform/spf/security/diagnoseTls.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

#include "platform/spf/security/testing/TestAuthority.h"

namespace agent::spf::security {
namespace {

using std::chrono::milliseconds;
using ::testing::HasSubstr;

class DiagnoseTls : public ::testing::Test {
 protected:
  DiagnoseTls() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_), 0); }
  ~DiagnoseTls() override {
    ::close(ends_[0]);
    hangUp();
  }

  void say(const std::string& bytes) const {
    EXPECT_EQ(::send(ends_[1], bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
  }
  void hangUp() {
    if (ends_[1] >= 0)
      ::close(ends_[1]);
    ends_[1] = -1;
  }
  std::string diagnosis(const Patience& patience) const {
    static const Credentials client = testing::TestAuthority().client();
    return whyTlsFails(ends_[0], "localhost", client, patience, "");
  }
  bool peerSpeaksTls(const Patience& patience) const { return speaksTls(ends_[0], patience); }

 private:
  int ends_[2] = {-1, -1};
};

const Patience kShort{milliseconds(30), nullptr};
const Patience kLong{milliseconds(60'000), nullptr};

TEST_F(DiagnoseTls, SilentPeerIsGivenUpWhenTheLimitIsOver) {
  EXPECT_THAT(diagnosis(kShort), HasSubstr("does not answer a TLS client"));
  EXPECT_FALSE(peerSpeaksTls(kShort));
}

TEST_F(DiagnoseTls, WaitForASilentPeerCanBeInterrupted) {
  int asked = 0;
  const Patience interrupted{milliseconds(60'000), [&] {
                               if (++asked == 2)
                                 throw std::out_of_range("interrupted");
                             }};
  EXPECT_THROW(diagnosis(interrupted), std::out_of_range);
}

TEST_F(DiagnoseTls, PeerThatSpeaksSomethingElseIsRecognised) {
  for (const std::string& greeting : {std::string("HTTP/1.1 400 Bad Request\r\n\r\n"), std::string("220 smtp\r\n"),
                                      std::string("\0\0\x06\x04\0\0\0\0\0\0\x05\0\0\x40\0", 15)}) {
    say(greeting);
    EXPECT_THAT(diagnosis(kLong), HasSubstr("does not speak TLS"));
  }
}

TEST_F(DiagnoseTls, PeerThatHangsUpDoesNotSpeakTls) {
  hangUp();
  EXPECT_THAT(diagnosis(kLong), HasSubstr("does not speak TLS"));
  EXPECT_FALSE(peerSpeaksTls(kLong));
}

}  // namespace
}  // namespace agent::spf::security
