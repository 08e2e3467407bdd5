#include "execution/ProcessRunner.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <string_view>

#include "execution/AttemptMark.h"
#include "execution/Children.h"
#include "execution/Leftovers.h"
#include "execution/PeakMemory.h"
#include "execution/findProgram.h"
#include "execution/spawnProcess.h"
#include "platform/errors/systemError.h"
#include "platform/files/UniqueFd.h"

namespace parallel::execution {

using errors::throwSystemError;
using files::UniqueFd;

namespace {

using Clock = std::chrono::steady_clock;
using Outcome = ProcessResult::Outcome;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

// A descriptor that becomes readable when stop is requested.
class StopEvent {
 public:
  explicit StopEvent(const std::stop_token& stop)
      : event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), onStop_(stop, Raise{event_.get()}) {
    if (!event_)
      throwSystemError("Making an event descriptor");
  }
  int fd() const noexcept { return event_.get(); }

 private:
  struct Raise {
    int fd;
    void operator()() const noexcept { ::eventfd_write(fd, 1); }
  };
  UniqueFd event_;
  std::stop_callback<Raise> onStop_;
};

// How many seconds hold that time; limits of the system count in whole ones.
rlim_t wholeSeconds(nanoseconds time) {
  return static_cast<rlim_t>(std::chrono::ceil<std::chrono::seconds>(time).count());
}

std::vector<ResourceLimit> resourceLimitsOf(const ProcessSpec& spec) {
  const ProcessLimits& limits = spec.limits;
  std::vector<ResourceLimit> result;
  const auto add = [&](int resource, const std::optional<std::uint64_t>& value) {
    if (value)
      result.push_back({resource, *value, *value});
  };
  add(RLIMIT_AS, limits.memoryBytes);
  add(RLIMIT_FSIZE, limits.fileBytes);
  add(RLIMIT_NOFILE, limits.openFiles);
  if (!limits.openFiles && spec.usualOpenFiles)
    result.push_back({RLIMIT_NOFILE, *spec.usualOpenFiles, RLIM_INFINITY});
  // At the soft limit comes SIGXCPU, which can be handled; a second later SIGKILL, which cannot.
  if (limits.cpuTime)
    result.push_back({RLIMIT_CPU, wholeSeconds(*limits.cpuTime), wholeSeconds(*limits.cpuTime) + 1});
  return result;
}

std::string searchPathOf(const std::vector<std::string>& environment) {
  constexpr std::string_view kName = "PATH=";
  for (const std::string& entry : environment) {
    if (entry.starts_with(kName))
      return entry.substr(kName.size());
  }
  return "/usr/local/bin:/usr/bin:/bin";
}

SpawnedProcess start(const ProcessSpec& spec, std::string program, const AttemptMark& mark) {
  SpawnRequest request;
  request.program = std::move(program);
  request.argv = spec.argv;
  request.environment = spec.environment;
  request.directory = spec.directory;
  request.standardInput = spec.standardInput;
  request.standardOutput = spec.standardOutput;
  request.standardError = spec.standardError;
  request.limits = resourceLimitsOf(spec);
  request.mark = mark;
  return spawnProcess(request);
}

// "2.5 s"
std::string secondsText(nanoseconds time) {
  std::string text = std::to_string(std::chrono::duration<double>(time).count());
  text.erase(text.find_last_not_of('0') + 1);
  if (text.ends_with('.'))
    text.pop_back();
  return text + " s";
}

std::string timedOutText(const ProcessSpec& spec) {
  return "Ended after its wall time of " + secondsText(*spec.limits.wallTime) + ".";
}

nanoseconds toNanoseconds(const struct timeval& time) {
  return std::chrono::seconds(time.tv_sec) + std::chrono::microseconds(time.tv_usec);
}

// One started process, watched until it has ended and been waited for.
class Watch {
 public:
  Watch(const ProcessSpec& spec, SpawnedProcess process, AttemptMark mark)
      : spec_(spec), process_(std::move(process)), mark_(std::move(mark)), peak_(process_.pid), began_(Clock::now()) {
    if (spec.limits.wallTime)
      deadline_ = began_ + std::min<nanoseconds>(*spec.limits.wallTime, kLongest);
  }

  ~Watch() {
    struct rusage usage {};
    if (!waitedFor_)
      killAndReap(usage);
  }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  // Until the main process has ended, by itself or by us.
  void wait(const StopEvent& stop) {
    peak_.sample();
    for (nextSample_ = began_ + samplePause_; !hasEnded(stop);) {
      const auto now = Clock::now();
      if (now >= nextSample_) {
        peak_.sample();
        samplePause_ = std::min(2 * samplePause_, kLongestSamplePause);
        nextSample_ = now + samplePause_;
      }
      if (!ending_ && stopRequested_)
        beginEnd(Outcome::Stopped);
      else if (!ending_ && deadline_ && now >= *deadline_)
        beginEnd(Outcome::TimedOut);
      if (killAt_ && now >= *killAt_) {
        signalGroup(SIGKILL);
        killAt_.reset();
      }
    }
    wallTime_ = Clock::now() - began_;
  }

  ProcessResult finish() {
    struct rusage usage {};
    const std::optional<int> status = killAndReap(usage);
    if (!status)
      throwSystemError("Waiting for a task's process");
    ProcessResult result;
    result.wallTime = wallTime_;
    result.userTime = toNanoseconds(usage.ru_utime);
    result.systemTime = toNanoseconds(usage.ru_stime);
    constexpr std::uint64_t kKibibyte = 1024;
    result.peakMemoryBytes = peak_.resolve(static_cast<std::uint64_t>(usage.ru_maxrss) * kKibibyte);
    describeEnd(*status, result);
    if (ending_)
      result.outcome = *ending_;
    if (result.outcome == Outcome::TimedOut)
      result.message = timedOutText(spec_);
    return result;
  }

 private:
  // Kills what is left of the group, then takes the main process's result. In this order: until it is waited for, its
  // process number, which is the group's, cannot be given to anybody else. Then what has left the group.
  std::optional<int> killAndReap(struct rusage& usage) noexcept {
    signalGroup(SIGKILL);
    const std::optional<int> status = Children::ofThisProcess().waitFor(process_.pid, usage);
    waitedFor_ = true;
    killLeftovers(mark_);
    return status;
  }

  static constexpr nanoseconds kLongest = std::chrono::hours(24 * 365 * 10);
  static constexpr nanoseconds kLongestSamplePause = milliseconds(250);

  // Waits for the next thing to happen. True when the main process has ended.
  bool hasEnded(const StopEvent& stop) {
    auto wake = nextSample_;
    if (!ending_ && deadline_)
      wake = std::min(wake, *deadline_);
    if (killAt_)
      wake = std::min(wake, *killAt_);
    const auto pause = std::chrono::ceil<milliseconds>(wake - Clock::now()).count();
    std::array<pollfd, 2> events{pollfd{process_.pidfd.get(), POLLIN, 0}, pollfd{stop.fd(), POLLIN, 0}};
    const nfds_t count = stopRequested_ ? 1 : 2;
    const int ready = ::poll(events.data(), count, static_cast<int>(std::max<long>(pause, 0)));
    if (ready < 0 && errno != EINTR)
      throwSystemError("Waiting for a task's process");
    if (ready <= 0)
      return false;
    stopRequested_ = stopRequested_ || events[1].revents != 0;
    return events[0].revents != 0;
  }

  void beginEnd(Outcome why) {
    ending_ = why;
    signalGroup(SIGTERM);
    signalGroup(SIGCONT);  // a stopped process takes no SIGTERM
    killAt_ = Clock::now() + spec_.killGrace;
  }

  void signalGroup(int signal) const noexcept { ::kill(-process_.pid, signal); }

  void describeEnd(int status, ProcessResult& result) const {
    if (WIFEXITED(status)) {
      result.outcome = Outcome::Exited;
      result.exitStatus = WEXITSTATUS(status);
      return;
    }
    result.outcome = Outcome::Signalled;
    result.signal = WTERMSIG(status);
    if (result.signal == SIGXCPU && spec_.limits.cpuTime)
      result.message = "Used up its processor time of " + secondsText(*spec_.limits.cpuTime) + ".";
    if (result.signal == SIGXFSZ && spec_.limits.fileBytes)
      result.message = "Wrote a file of more than " + std::to_string(*spec_.limits.fileBytes) + " bytes.";
  }

  const ProcessSpec& spec_;
  SpawnedProcess process_;
  AttemptMark mark_;
  PeakMemory peak_;
  Clock::time_point began_;
  std::optional<Clock::time_point> deadline_;
  std::optional<Clock::time_point> killAt_;
  std::optional<Outcome> ending_;
  Clock::time_point nextSample_;
  nanoseconds samplePause_ = milliseconds(4);
  nanoseconds wallTime_{0};
  bool stopRequested_ = false;
  bool waitedFor_ = false;
};

}  // namespace

ProcessResult runProcess(const ProcessSpec& spec, const std::stop_token& stop) {
  const StopEvent stopEvent(stop);
  const auto began = Clock::now();
  const auto isOver = [&] { return spec.limits.wallTime && Clock::now() - began >= *spec.limits.wallTime; };
  ProcessResult notRun;
  try {
    std::optional<std::string> program = findProgram(spec.argv.front(), searchPathOf(spec.environment), spec.directory,
                                                     [&] { return stop.stop_requested() || isOver(); });
    if (stop.stop_requested()) {
      notRun.outcome = Outcome::Stopped;
      return notRun;
    }
    if (!program) {
      notRun.outcome = Outcome::TimedOut;
      notRun.message = timedOutText(spec);
      return notRun;
    }
    const AttemptMark mark = AttemptMark::make();
    Watch watch(spec, start(spec, std::move(*program), mark), mark);
    watch.wait(stopEvent);
    return watch.finish();
  } catch (const StartFailure& failure) {
    notRun.message = failure.what();
    return notRun;
  }
}

}  // namespace parallel::execution
