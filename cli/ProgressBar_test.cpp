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

TEST(ProgressText, KnownTotalShowsABarAndTheRate) {
  EXPECT_EQ(progressText({Phase::Sending, 512 << 20, 1 << 30}, 512 << 20, duration<double>(4)),
            "sending 512.0 MiB of 1.0 GiB [============>           ] 128.0 MiB/s");
  EXPECT_EQ(progressText({Phase::Receiving, 100, 100}, 100, duration<double>(1)),
            "receiving 100 B of 100 B [========================] 100 B/s");
}

TEST(ProgressText, UnknownTotalShowsBytesAndRate) {
  EXPECT_EQ(progressText({Phase::Packing, 3 << 20, 0}, 3 << 20, duration<double>(2)), "packing 3.0 MiB 1.5 MiB/s");
}

TEST(ProgressText, MoreThanWasAnnouncedStaysInsideTheBar) {
  EXPECT_EQ(progressText({Phase::Receiving, 200, 100}, 0, duration<double>(0)),
            "receiving 200 B of 100 B [========================]");
}

TEST(ProgressText, WaitingShowsSeconds) {
  EXPECT_EQ(progressText({Phase::Waiting, 0, 0}, 0, duration<double>(12.9)), "waiting 12 s");
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
  progress.answered = true;
  progress.received = 7;
  progress.toReceive = 8;
  EXPECT_EQ(viewOf(progress), (ProgressView{Phase::Receiving, 7, 8}));
}

}  // namespace
}  // namespace zks
