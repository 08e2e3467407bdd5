#include "platform/spf/grpc/internal/client/Silence.h"

#include <gtest/gtest.h>

#include "platform/spf/grpc/connect.h"

namespace agent::spf::grpc_transport::internal {
namespace {

using namespace std::chrono_literals;
using TimePoint = Silence::TimePoint;
using Step = Silence::Step;

// A connection to a peer that answers at once whatever it is asked, until it freezes.
class SilentPeer {
 public:
  SilentPeer(const ConnectOptions& options, TimePoint lastUsed, TimePoint frozen)
      : silence_(options.keepaliveInterval, options.keepaliveTimeout), lastSign_(lastUsed), frozen_(frozen) {}

  // Follows the checks until the peer is given up.
  TimePoint givenUp() {
    for (TimePoint now = silence_.next(lastSign_);; now = silence_.next(lastSign_)) {
      const Step step = silence_.step(lastSign_, now);
      if (step == Step::GiveUp)
        return now;
      if (step == Step::Ask && now < frozen_)
        lastSign_ = now + 1ms;
    }
  }
  TimePoint lastSign() const { return lastSign_; }

 private:
  Silence silence_;
  TimePoint lastSign_;
  TimePoint frozen_;
};

TEST(Silence, PeerIsGivenUpThirtySecondsAfterItsLastSign) {
  const ConnectOptions options;
  EXPECT_EQ(options.keepaliveInterval + options.keepaliveTimeout, 30s) << "docs/zks.md and docs/protocol.md say so";
  const TimePoint begin;
  for (auto frozen = 0s; frozen <= 100s; frozen += 1s) {
    SilentPeer peer(options, begin, begin + frozen);
    const TimePoint givenUp = peer.givenUp();
    EXPECT_EQ(givenUp - peer.lastSign(), 30s) << "frozen after " << frozen.count() << " s";
    EXPECT_GT(givenUp - (begin + frozen), 9s) << "frozen after " << frozen.count() << " s";
    EXPECT_LE(givenUp - (begin + frozen), 30s) << "frozen after " << frozen.count() << " s";
  }
}

TEST(Silence, SignThatComesWhileOneLooksElsewhereCounts) {
  Silence silence(20s, 10s);
  const TimePoint begin;
  EXPECT_EQ(silence.step(begin, begin + 19s), Step::Wait);
  EXPECT_EQ(silence.step(begin + 19s, begin + 20s), Step::Wait);
  EXPECT_EQ(silence.next(begin + 19s), begin + 39s);
  EXPECT_EQ(silence.step(begin + 19s, begin + 39s), Step::Ask);
  EXPECT_EQ(silence.step(begin + 19s, begin + 48s), Step::Wait);
  EXPECT_EQ(silence.next(begin + 19s), begin + 49s);
  EXPECT_EQ(silence.step(begin + 45s, begin + 49s), Step::Wait);
  EXPECT_EQ(silence.next(begin + 45s), begin + 65s);
}

// A machine that slept may find the answer still on its way.
TEST(Silence, PeerIsAskedBeforeItIsGivenUpHoweverLateOneLooks) {
  Silence silence(20s, 10s);
  const TimePoint begin;
  EXPECT_EQ(silence.step(begin, begin + 1h), Step::Ask);
  EXPECT_EQ(silence.step(begin, begin + 1h + 9s), Step::Wait);
  EXPECT_EQ(silence.step(begin, begin + 1h + 10s), Step::GiveUp);
}

}  // namespace
}  // namespace agent::spf::grpc_transport::internal
