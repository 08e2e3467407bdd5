#include "cli/ProgressBar.h"

#include <gtest/gtest.h>

namespace zks {
namespace {

using parallel::toolbox::TransferProgress;
using Phase = ProgressView::Phase;
using std::chrono::duration;

TEST(BytesText, UnitsChangeWhereTheNumberWouldHaveFourDigits) {
  EXPECT_EQ(bytesText(0), "0 B");
  EXPECT_EQ(bytesText(1023), "1023 B");
  EXPECT_EQ(bytesText(1024), "1.0 KiB");
  EXPECT_EQ(bytesText(1024 * 1023.9), "1023.9 KiB");
  EXPECT_EQ(bytesText(1024 * 1023.99), "1.0 MiB");
  EXPECT_EQ(bytesText(5.5 * (1ULL << 30)), "5.5 GiB");
  EXPECT_EQ(bytesText(2e6 * (1ULL << 50)), "2000000.0 PiB");
}

constexpr std::size_t kWide = 100;

std::string halfSent(std::size_t columns) {
  return progressText({Phase::Sending, 512 << 20, 1 << 30}, 512 << 20, duration<double>(4), columns);
}

TEST(ProgressText, KnownTotalShowsABarAndTheRate) {
  EXPECT_EQ(halfSent(kWide), "sending 512.0 MiB of 1.0 GiB [============>           ] 128.0 MiB/s");
  EXPECT_EQ(progressText({Phase::Receiving, 100, 100}, 100, duration<double>(1), kWide),
            "receiving 100 B of 100 B [========================] 100 B/s");
}

TEST(ProgressText, FewerColumnsShrinkTheBarAndThenLeaveTheLeastImportantOut) {
  EXPECT_EQ(halfSent(67), "sending 512.0 MiB of 1.0 GiB [============>           ] 128.0 MiB/s");
  EXPECT_EQ(halfSent(66), "sending 512.0 MiB of 1.0 GiB [===========>           ] 128.0 MiB/s");
  EXPECT_EQ(halfSent(49), "sending 512.0 MiB of 1.0 GiB [===>  ] 128.0 MiB/s");
  EXPECT_EQ(halfSent(48), "sending 512.0 MiB of 1.0 GiB 128.0 MiB/s");
  EXPECT_EQ(halfSent(39), "sending 50% 128.0 MiB/s");
  EXPECT_EQ(halfSent(22), "sending 50%");
  EXPECT_EQ(halfSent(10), "50%");
  EXPECT_EQ(halfSent(2), "50");
}

TEST(ProgressText, NeverShowsMoreThanTheColumns) {
  for (std::size_t columns = 0; columns < kWide; ++columns) {
    for (const ProgressView& view : {ProgressView{Phase::Packing, 3 << 20, 0}, ProgressView{Phase::Sending, 1, 3},
                                     ProgressView{Phase::Waiting, 0, 0}, ProgressView{Phase::Queued, 0, 0},
                                     ProgressView{Phase::Running, 0, 0}, ProgressView{Phase::Receiving, 9, 9}})
      EXPECT_LE(progressText(view, view.done, duration<double>(2), columns).size(), columns);
  }
}

TEST(ProgressText, UnknownTotalShowsBytesAndRate) {
  const auto text = [](std::size_t columns) {
    return progressText({Phase::Packing, 3 << 20, 0}, 3 << 20, duration<double>(2), columns);
  };
  EXPECT_EQ(text(25), "packing 3.0 MiB 1.5 MiB/s");
  EXPECT_EQ(text(24), "packing 3.0 MiB");
  EXPECT_EQ(text(14), "3.0 MiB");
}

TEST(ProgressText, MoreThanWasAnnouncedStaysInsideTheBar) {
  EXPECT_EQ(progressText({Phase::Receiving, 200, 100}, 0, duration<double>(0), kWide),
            "receiving 200 B of 100 B [========================]");
  EXPECT_EQ(progressText({Phase::Receiving, 200, 100}, 0, duration<double>(0), 15), "receiving 100%");
}

TEST(ProgressText, WaitingShowsSeconds) {
  EXPECT_EQ(progressText({Phase::Waiting, 0, 0}, 0, duration<double>(12.9), kWide), "waiting 12 s");
  EXPECT_EQ(progressText({Phase::Queued, 0, 0}, 0, duration<double>(12.9), kWide), "queued 12 s");
  EXPECT_EQ(progressText({Phase::Running, 0, 0}, 0, duration<double>(12.9), kWide), "running 12 s");
  EXPECT_EQ(progressText({Phase::Waiting, 0, 0}, 0, duration<double>(12.9), 11), "12 s");
}

TEST(ProgressView, PhasesFollowTheCounters) {
  TransferProgress progress;
  progress.packed = 5;
  EXPECT_EQ(viewOf(progress), (ProgressView{Phase::Packing, 5, 0}));
  progress.toSend = 10;
  progress.sent = 4;
  EXPECT_EQ(viewOf(progress), (ProgressView{Phase::Sending, 4, 10}));
  progress.sent = 10;
  EXPECT_EQ(viewOf(progress), (ProgressView{Phase::Waiting, 0, 0}));
  progress.turn = TransferProgress::Turn::queued;
  EXPECT_EQ(viewOf(progress), (ProgressView{Phase::Queued, 0, 0}));
  progress.turn = TransferProgress::Turn::running;
  EXPECT_EQ(viewOf(progress), (ProgressView{Phase::Running, 0, 0}));
  progress.answered = true;
  progress.received = 7;
  progress.toReceive = 8;
  EXPECT_EQ(viewOf(progress), (ProgressView{Phase::Receiving, 7, 8}));
}

}  // namespace
}  // namespace zks
