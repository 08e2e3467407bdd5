#include "cli/ProgressBar.h"

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <utility>

#include "cli/StandardStreams.h"
#include "cli/statusText.h"
#include "platform/threads/Mutex.h"

namespace zks {
namespace {

using parallel::toolbox::TransferProgress;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kDelay{1000};
constexpr std::chrono::milliseconds kInterval{100};

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
    showStatusLine(progressText(view_, view_.done - std::min(doneBefore_, view_.done), Clock::now() - since_,
                                statusLineColumns()));
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
  parallel::threads::Mutex mutex;
  parallel::threads::MutexLock lock(mutex);
  std::condition_variable_any stopped;
  while (!stopped.wait_for(lock, stop, kInterval, [&] { return stop.stop_requested(); })) {
    if (Clock::now() - start >= kDelay)
      painter.paint();
    else
      painter.look();
  }
  clearStatusLine();
}

double partOf(const ProgressView& view) {
  return std::min(static_cast<double>(view.done) / static_cast<double>(view.total), 1.0);
}

const char* verb(ProgressView::Phase phase) {
  switch (phase) {
    case ProgressView::Phase::Packing:
      return "packing";
    case ProgressView::Phase::Sending:
      return "sending";
    case ProgressView::Phase::Waiting:
      return "waiting";
    case ProgressView::Phase::Queued:
      return "queued";
    case ProgressView::Phase::Running:
      return "running";
    case ProgressView::Phase::Receiving:
      return "receiving";
  }
  return "";
}

bool hasNoBytes(ProgressView::Phase phase) {
  using Phase = ProgressView::Phase;
  return phase == Phase::Waiting || phase == Phase::Queued || phase == Phase::Running;
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
  switch (progress.turn) {
    case TransferProgress::Turn::queued:
      return {Phase::Queued, 0, 0};
    case TransferProgress::Turn::running:
      return {Phase::Running, 0, 0};
    default:
      return {Phase::Waiting, 0, 0};
  }
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

std::string progressText(const ProgressView& view, std::uint64_t doneInPhase, std::chrono::duration<double> elapsed,
                         std::size_t columns) {
  const std::string doing = verb(view.phase);
  if (hasNoBytes(view.phase)) {
    const std::string time = std::to_string(static_cast<long>(elapsed.count())) + " s";
    return firstThatFits({doing + " " + time, time}, columns);
  }
  const std::string done = bytesText(static_cast<double>(view.done));
  const std::string rate =
      elapsed.count() > 0 ? " " + bytesText(static_cast<double>(doneInPhase) / elapsed.count()) + "/s" : "";
  if (view.total == 0)
    return firstThatFits({doing + " " + done + rate, doing + " " + done, done}, columns);
  const std::string amount = doing + " " + done + " of " + bytesText(static_cast<double>(view.total));
  const std::size_t besideBar = amount.size() + rate.size();
  if (columns >= besideBar + kNarrowestBar)
    return amount + barText(partOf(view), std::min(columns - besideBar, kWidestBar)) + rate;
  const std::string percent = std::to_string(static_cast<int>(partOf(view) * 100)) + "%";
  return firstThatFits({amount + rate, doing + " " + percent + rate, doing + " " + percent, percent}, columns);
}

}  // namespace zks
