// Runs one command to its end, with limits, and tells how it went.
//
// When its main process has ended, whatever is left of its process group is killed, and of what has left the group
// (Leftovers.h); so is the whole group when its time is over or stop is requested: SIGTERM first, and SIGKILL after a
// grace time. The environment gets one more variable, ZKS_MARK (AttemptMark.h).
// Threads: any number of runs at once, each blocks its thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

namespace parallel::execution {

// Absent: no limit. A limit beyond what the service itself may use has no effect.
struct ProcessLimits {
  std::optional<std::chrono::nanoseconds> wallTime;
  std::optional<std::chrono::nanoseconds> cpuTime;  // per process, rounded up to seconds
  std::optional<std::uint64_t> memoryBytes;         // address space of each process
  std::optional<std::uint64_t> fileBytes;           // of each file it writes, standard output and error included
  std::optional<std::uint64_t> openFiles;
};

struct ProcessSpec {
  std::vector<std::string> argv;         // not empty
  std::vector<std::string> environment;  // "NAME=value"; its PATH is where a program without a slash is searched
  int directory = -1;                    // where it runs; descriptors are borrowed
  int standardInput = -1;                // -1: empty
  int standardOutput = -1;
  int standardError = -1;
  ProcessLimits limits;
  std::optional<std::uint64_t> usualOpenFiles;  // the soft limit where `limits` sets none; the hard one stays
  std::chrono::nanoseconds killGrace = std::chrono::seconds(1);
};

struct ProcessResult {
  enum class Outcome { Exited, Signalled, TimedOut, Stopped, NotStarted };
  Outcome outcome = Outcome::NotStarted;
  int exitStatus = 0;   // Exited
  int signal = 0;       // Signalled
  std::string message;  // why it did not start, or which limit ended it
  std::chrono::nanoseconds wallTime{0};
  std::chrono::nanoseconds userTime{0};  // of its processes that were waited for
  std::chrono::nanoseconds systemTime{0};
  std::uint64_t peakMemoryBytes = 0;  // see PeakMemory.h
};

// Throws only when the system fails the runner itself (std::system_error), never for what the command does.
ProcessResult runProcess(const ProcessSpec& spec, const std::stop_token& stop);

}  // namespace parallel::execution
