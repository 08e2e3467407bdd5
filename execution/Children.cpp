#include "execution/Children.h"

#include <sys/wait.h>

#include <algorithm>
#include <cerrno>

#include "execution/procFiles.h"

namespace parallel::execution {

using threads::MutexLock;

Children& Children::ofThisProcess() {
  static Children children;
  return children;
}

Children::Start::Start(Children& children) : children_(children), ticks_(ticksNow()) {
  const MutexLock lock(children_.mutex_);
  ++children_.starting_;
}

Children::Start::~Start() {
  const MutexLock lock(children_.mutex_);
  --children_.starting_;
}

void Children::Start::succeeded(pid_t pid, const std::optional<AttemptMark>& mark) {
  const MutexLock lock(children_.mutex_);
  children_.children_[pid] = {ticks_, mark};
}

std::optional<int> Children::waitFor(pid_t pid, struct rusage& usage) noexcept {
  siginfo_t ended{};
  while (::waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT) != 0) {
    if (errno != EINTR)
      break;
  }
  // From here on the number may be given to an orphan: it is forgotten in the same step.
  const MutexLock lock(mutex_);
  int status = 0;
  const pid_t got = ::wait4(pid, &status, WNOHANG, &usage);
  children_.erase(pid);
  return got == pid ? std::optional<int>(status) : std::nullopt;
}

void Children::forEachOrphan(const std::function<void(pid_t pid, const Running& running)>& visit) {
  const MutexLock lock(mutex_);
  if (starting_ > 0)
    return;
  for (const pid_t pid : childrenOfMainThread()) {
    if (!children_.contains(pid))
      visit(pid, Running(*this));
  }
}

// Both are called with the lock held, by forEachOrphan().
bool Children::Running::bears(const AttemptMark& mark) const ZKS_NO_THREAD_SAFETY_ANALYSIS {
  return std::any_of(children_.children_.begin(), children_.children_.end(),
                     [&](const auto& child) { return child.second.mark == mark; });
}

bool Children::Running::reachesBackTo(std::uint64_t ticks) const ZKS_NO_THREAD_SAFETY_ANALYSIS {
  return std::any_of(children_.children_.begin(), children_.children_.end(),
                     [&](const auto& child) { return child.second.ticks <= ticks; });
}

}  // namespace parallel::execution
