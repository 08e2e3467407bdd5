#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <istream>
#include <string_view>
#include <vector>

#include "platform/spf/core/errors.h"
#include "platform/spf/core/internal/InputStreambuf.h"
#include "platform/spf/core/internal/OutputStreambuf.h"

namespace agent::spf::core::internal {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

// Records what is sent: "g5" gathered, "b300000" borrowed, "f2" the end.
class RecordingOutlet : public ByteOutlet {
 public:
  explicit RecordingOutlet(std::size_t room, int failAt = -1) : room_(room), failAt_(failAt) {}

  std::span<char> room() override { return room_; }
  void sendGathered(std::size_t nbytes) override { note('g', {room_.data(), nbytes}); }
  void sendBorrowed(std::span<const char> lent) override { note('b', {lent.data(), lent.size()}); }
  void finish(std::size_t nbytes) override { note('f', {room_.data(), nbytes}); }

  std::string bytes;
  std::vector<std::string> sent;

 private:
  void note(char how, std::string_view what) {
    if (static_cast<int>(sent.size()) == failAt_)
      throw Terminated("the outlet failed");
    bytes += what;
    sent.push_back(how + std::to_string(what.size()));
  }

  std::vector<char> room_;
  int failAt_;
};

class PiecesInlet : public ByteInlet {
 public:
  PiecesInlet(std::deque<std::string> pieces, std::optional<long> size, bool fails = false)
      : pieces_(std::move(pieces)), remaining_(size), fails_(fails) {}

  std::span<const char> next() override {
    if (pieces_.empty() && fails_)
      throw Timeout("broken off");
    current_ = pieces_.empty() ? "" : std::move(pieces_.front());
    if (!pieces_.empty())
      pieces_.pop_front();
    if (remaining_)
      *remaining_ -= static_cast<long>(current_.size());
    return current_;
  }
  std::optional<long> remaining() const noexcept override { return remaining_; }
  void close() noexcept override { ++closed; }

  int closed = 0;

 private:
  std::deque<std::string> pieces_;
  std::string current_;
  std::optional<long> remaining_;
  bool fails_;
};

TEST(OutputStreambuf, GathersSmallWritesAndSendsFullBuffers) {
  RecordingOutlet outlet(10);
  OutputStreambuf buffer(outlet, "x");
  std::ostream out(&buffer);
  out << "1234567"
      << "89" << 'a' << "bcdefghijklmn";
  buffer.finish();
  EXPECT_EQ(outlet.bytes, "123456789abcdefghijklmn");
  EXPECT_THAT(outlet.sent, ElementsAre("g10", "g10", "f3"));
}

TEST(OutputStreambuf, LendsLargeWritesAfterWhatWasGathered) {
  RecordingOutlet outlet(1000);
  OutputStreambuf buffer(outlet, "x");
  const std::string large(kBorrowBytes, 'L');
  buffer.sputn("ab", 2);
  buffer.sputn(large.data(), static_cast<long>(large.size()));
  buffer.sputn("cd", 2);
  buffer.finish();
  EXPECT_TRUE(outlet.bytes == "ab" + large + "cd");
  EXPECT_THAT(outlet.sent, ElementsAre("g2", "b" + std::to_string(kBorrowBytes), "f2"));
}

TEST(OutputStreambuf, FlushSendsWhatIsGathered) {
  RecordingOutlet outlet(10);
  OutputStreambuf buffer(outlet, "x");
  std::ostream out(&buffer);
  out << std::flush << "ab" << std::flush;
  EXPECT_THAT(outlet.sent, ElementsAre("g0", "g2"));
}

TEST(OutputStreambuf, FailureOfTheOutletAtEveryStepLeavesTheStreamAndFailsTheEnd) {
  for (int step = 0;; ++step) {
    RecordingOutlet outlet(4, step);
    OutputStreambuf buffer(outlet, "x");
    std::ostream out(&buffer);
    out.exceptions(std::ios::badbit);
    bool thrown = false;
    try {
      out << "abcdefghij";
      buffer.finish();
    } catch (const Terminated&) {
      thrown = true;
      EXPECT_THROW(buffer.finish(), Terminated);
    }
    if (!thrown) {
      EXPECT_EQ(outlet.bytes, "abcdefghij");
      EXPECT_EQ(step, 3);
      break;
    }
    EXPECT_EQ(outlet.sent.size(), static_cast<std::size_t>(step));
  }
}

TEST(OutputStreambuf, HoldsTheWriterToTheAnnouncedSize) {
  for (const long announced : {0L, 1L, 9L, 10L, 11L, 12L, 100L}) {
    RecordingOutlet outlet(4);
    OutputStreambuf buffer(outlet, "thing");
    buffer.announce(announced);
    std::ostream out(&buffer);
    out << "0123456789a";
    const bool fits = announced == 11;
    if (fits)
      EXPECT_NO_THROW(buffer.finish());
    else
      EXPECT_THROW(buffer.finish(), FrameworkError) << announced;
    EXPECT_LE(outlet.bytes.size(), static_cast<std::size_t>(announced));
  }
}

TEST(InputStreambuf, ReadsAcrossPiecesInPiecesOfEverySize) {
  for (long step = 1; step <= 12; ++step) {
    auto inlet = std::make_shared<PiecesInlet>(std::deque<std::string>{"abc", "d", "efghi"}, std::nullopt);
    InputStreambuf buffer(inlet);
    std::istream in(&buffer);
    std::string got;
    char part[12];
    while (in.read(part, step), in.gcount() > 0)
      got.append(part, static_cast<std::size_t>(in.gcount()));
    EXPECT_EQ(got, "abcdefghi") << step;
    EXPECT_TRUE(in.eof());
  }
}

TEST(InputStreambuf, InAvailIsWhatIsSureToComeAtEveryByte) {
  auto inlet = std::make_shared<PiecesInlet>(std::deque<std::string>{"abc", "d", "efghi"}, 9);
  InputStreambuf buffer(inlet);
  for (long left = 9; left > 0; --left) {
    EXPECT_EQ(buffer.in_avail(), left);
    EXPECT_EQ(buffer.sgetc(), "abcdefghi"[9 - left]);
    EXPECT_EQ(buffer.in_avail(), left);
    buffer.sbumpc();
  }
  EXPECT_EQ(buffer.in_avail(), 0);
  EXPECT_EQ(buffer.sgetc(), std::char_traits<char>::eof());
  EXPECT_EQ(buffer.in_avail(), -1);
}

TEST(InputStreambuf, InAvailIsWhatIsThereWhenTheSizeIsUnknown) {
  InputStreambuf buffer(std::make_shared<PiecesInlet>(std::deque<std::string>{"abc"}, std::nullopt));
  EXPECT_EQ(buffer.in_avail(), 0);
  buffer.sbumpc();
  EXPECT_EQ(buffer.in_avail(), 2);
}

TEST(InputStreambuf, LetsTheInletsErrorThroughAndKeepsWhatCameBefore) {
  InputStreambuf buffer(std::make_shared<PiecesInlet>(std::deque<std::string>{"abc"}, std::nullopt, true));
  std::istream in(&buffer);
  in.exceptions(std::ios::badbit);
  EXPECT_EQ(in.get(), 'a');
  char part[10];
  EXPECT_THROW(in.read(part, 10), Timeout);
  EXPECT_EQ(std::string(part, 2), "bc");
}

TEST(InputStreambuf, ClosesItsInletOnce) {
  auto inlet = std::make_shared<PiecesInlet>(std::deque<std::string>{"abc"}, std::nullopt);
  { InputStreambuf buffer(inlet); }
  EXPECT_EQ(inlet->closed, 1);
}

}  // namespace
}  // namespace agent::spf::core::internal
