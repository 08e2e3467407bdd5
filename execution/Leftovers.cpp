#include "execution/Leftovers.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>

#include <atomic>
#include <chrono>
#include <functional>
#include <utility>
#include <vector>

#include "execution/Children.h"
#include "execution/procFiles.h"
#include "platform/errors/systemError.h"
#include "platform/files/UniqueFd.h"

namespace parallel::execution {

using files::UniqueFd;

namespace {

using Clock = std::chrono::steady_clock;

// A killed process that waits for a device ends when the device answers; nobody waits longer than this for it.
constexpr std::chrono::seconds kPatience{10};

std::atomic<bool> adoptsOrphans{false};

// A process that cannot become another one under the same number while it is looked at.
UniqueFd openProcess(pid_t pid) {
  return UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
}

void kill(const UniqueFd& process) {
  ::syscall(SYS_pidfd_send_signal, process.get(), SIGKILL, nullptr, 0);
}

// True when it is gone. Takes its status if it is a child.
bool waitUntilGone(const UniqueFd& process, Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  pollfd event{process.get(), POLLIN, 0};
  if (::poll(&event, 1, static_cast<int>(std::max<long>(left, 0))) <= 0)
    return false;
  siginfo_t ended{};
  ::waitid(P_PIDFD, static_cast<id_t>(process.get()), &ended, WEXITED | WNOHANG);
  return true;
}

using Choice = std::function<bool(pid_t)>;

// One look at the processes: kills those chosen, and waits for their end. Says how many.
std::size_t killChosen(const std::vector<pid_t>& processes, const Choice& isChosen, Clock::time_point deadline) {
  std::vector<UniqueFd> killed;
  for (const pid_t pid : processes) {
    UniqueFd process = openProcess(pid);
    if (!process || !isChosen(pid))
      continue;
    kill(process);
    killed.push_back(std::move(process));
  }
  std::size_t gone = 0;
  for (const UniqueFd& process : killed)
    gone += waitUntilGone(process, deadline) ? 1 : 0;
  return gone;
}

// Takes the status of a child that has ended. False for one that runs, and for a process that is no child of ours.
bool isRunningChild(const UniqueFd& process) {
  siginfo_t ended{};
  return ::waitid(P_PIDFD, static_cast<id_t>(process.get()), &ended, WEXITED | WNOHANG) == 0 && ended.si_pid == 0;
}

bool belongsToNobody(pid_t orphan, const Children::Running& running) {
  if (const std::optional<AttemptMark> mark = AttemptMark::ofProcess(orphan))
    return mark->isOurs() ? !running.bears(*mark) : mark->isOfTheDead();
  const std::optional<ProcessStatus> status = processStatus(orphan);
  return status && !running.reachesBackTo(status->startTicks);
}

}  // namespace

void adoptOrphans() {
  if (!canListChildren())
    return;
  if (::prctl(PR_SET_CHILD_SUBREAPER, 1) != 0)
    errors::throwSystemError("Adopting orphans");
  adoptsOrphans = true;
}

void killLeftovers(const AttemptMark& mark) {
  const auto deadline = Clock::now() + kPatience;
  const Choice isChosen = [&](pid_t pid) { return AttemptMark::ofProcess(pid) == mark; };
  // Again and again: children of those killed were hidden behind them.
  while (killChosen(adoptsOrphans ? childrenOfMainThread() : processesOfThisUser(), isChosen, deadline) > 0) {
  }
}

void tendOrphans() {
  Children::ofThisProcess().forEachOrphan([](pid_t orphan, const Children::Running& running) {
    const UniqueFd process = openProcess(orphan);
    if (process && isRunningChild(process) && belongsToNobody(orphan, running))
      kill(process);
  });
}

std::size_t killLeftoversOfTheDead() {
  std::size_t count = 0;
  const auto deadline = Clock::now() + kPatience;
  const Choice isChosen = [](pid_t pid) {
    const std::optional<AttemptMark> mark = AttemptMark::ofProcess(pid);
    return mark && mark->isOfTheDead();
  };
  for (std::size_t killed = 1; killed > 0; count += killed)
    killed = killChosen(processesOfThisUser(), isChosen, deadline);
  return count;
}

}  // namespace parallel::execution
