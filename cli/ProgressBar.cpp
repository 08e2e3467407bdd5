#include "cli/ProgressBar.h"

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <utility>

#include "cli/StandardStreams.h"

namespace zks {
namespace {

using parallel::toolbox::TransferProgress;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kDelay{1000};
constexpr std::chrono::milliseconds kInterval{100};
constexpr std::size_t kBarWidth = 24;

// Keeps what the rate is reckoned from: the moment when the phase was first seen and the bytes then.
class Painter {
 public:
  explicit Painter(std::shared_ptr<const TransferProgress> progress) : progress_(std::move(progress)) { look(); }

  void look() {
    const ProgressView view = viewOf(*progress_);
    if (view.phase != view_.phase || first_) {
      since_ = Clock::now();
      doneBefore_ = view.done;
      first_ = false;
    }
    view_ = view;
  }

  void paint() {
    look();
    showStatusLine(progressText(view_, view_.done - std::min(doneBefore_, view_.done), Clock::now() - since_));
  }

 private:
  std::shared_ptr<const TransferProgress> progress_;
  ProgressView view_;
  bool first_ = true;
  Clock::time_point since_;
  std::uint64_t doneBefore_ = 0;
};

void paintUntilStopped(const std::stop_token& stop, std::shared_ptr<const TransferProgress> progress) {
  Painter painter(std::move(progress));
  const Clock::time_point start = Clock::now();
  std::mutex mutex;
  std::unique_lock lock(mutex);
  std::condition_variable_any stopped;
  while (!stopped.wait_for(lock, stop, kInterval, [&] { return stop.stop_requested(); })) {
    if (Clock::now() - start >= kDelay)
      painter.paint();
    else
      painter.look();
  }
  clearStatusLine();
}

std::string barText(const ProgressView& view) {
  const double part = static_cast<double>(view.done) / static_cast<double>(view.total);
  const auto filled = std::min(static_cast<std::size_t>(part * kBarWidth), kBarWidth);
  std::string bar(filled, '=');
  if (filled < kBarWidth)
    bar += '>';
  bar.resize(kBarWidth, ' ');
  return " [" + bar + "]";
}

const char* verb(ProgressView::Phase phase) {
  switch (phase) {
    case ProgressView::Phase::Packing:
      return "packing ";
    case ProgressView::Phase::Sending:
      return "sending ";
    case ProgressView::Phase::Waiting:
      return "waiting ";
    case ProgressView::Phase::Receiving:
      return "receiving ";
  }
  return "";
}

}  // namespace

ProgressBar::ProgressBar(std::shared_ptr<const TransferProgress> progress) {
  if (isStatusLineVisible())
    painter_ = std::jthread(paintUntilStopped, std::move(progress));
}

ProgressBar::~ProgressBar() = default;

ProgressView viewOf(const TransferProgress& progress) {
  using Phase = ProgressView::Phase;
  if (progress.answered)
    return {Phase::Receiving, progress.received, progress.toReceive};
  if (progress.toSend == 0)
    return {Phase::Packing, progress.packed, 0};
  if (progress.sent < progress.toSend)
    return {Phase::Sending, progress.sent, progress.toSend};
  return {Phase::Waiting, 0, 0};
}

std::string bytesText(double nbytes) {
  const char* const units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
  std::size_t unit = 0;
  while (nbytes >= 1023.95 && unit + 1 < std::size(units)) {  // what would be shown as 1024.0
    nbytes /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", nbytes, units[unit]);
  return text;
}

std::string progressText(const ProgressView& view, std::uint64_t doneInPhase, std::chrono::duration<double> elapsed) {
  std::string text = verb(view.phase);
  if (view.phase == ProgressView::Phase::Waiting)
    return text + std::to_string(static_cast<long>(elapsed.count())) + " s";
  text += bytesText(static_cast<double>(view.done));
  if (view.total > 0)
    text += " of " + bytesText(static_cast<double>(view.total)) + barText(view);
  if (elapsed.count() > 0)
    text += " " + bytesText(static_cast<double>(doneInPhase) / elapsed.count()) + "/s";
  return text;
}

}  // namespace zks
