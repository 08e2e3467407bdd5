// Shows on the terminal how far a call has come, once it has taken a second. Shows nothing where there is no terminal.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "toolbox/TransferProgress.h"

namespace zks {

class ProgressBar {
 public:
  explicit ProgressBar(std::shared_ptr<const parallel::toolbox::TransferProgress> progress);
  ~ProgressBar();  // wipes the line
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

 private:
  std::jthread painter_;
};

// One phase of a call. Bytes that are not known are 0.
struct ProgressView {
  enum class Phase { Packing, Sending, Waiting, Queued, Running, Receiving };
  Phase phase = Phase::Packing;
  std::uint64_t done = 0;
  std::uint64_t total = 0;

  bool operator==(const ProgressView&) const = default;
};

ProgressView viewOf(const parallel::toolbox::TransferProgress& progress);

// "sending 12.0 MiB of 1.0 GiB [>        ] 11.2 MiB/s"; `doneInPhase` bytes took `elapsed`. As much of it as so many
// columns can show: first the bar shrinks, then the least important parts go.
std::string progressText(const ProgressView& view, std::uint64_t doneInPhase, std::chrono::duration<double> elapsed,
                         std::size_t columns);

// "999 B", "1.5 KiB", "20.0 GiB"
std::string bytesText(double nbytes);

}  // namespace zks
