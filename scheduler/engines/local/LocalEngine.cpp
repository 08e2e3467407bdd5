#include "scheduler/engines/local/LocalEngine.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <sstream>

#include "execution/Children.h"
#include "platform/errors/systemError.h"
#include "platform/logging/sinks.h"

namespace parallel::scheduler::engines {

using execution::Children;

namespace {

// How to start a process in a session of its own, with no signal blocked, its streams away from ours.
class SpawnPlan {
 public:
  explicit SpawnPlan(const std::filesystem::path& log) {
    ::posix_spawnattr_init(&attributes_);
    ::posix_spawn_file_actions_init(&files_);
    sigset_t none;
    sigemptyset(&none);
    sigset_t usual;
    sigfillset(&usual);
    ::posix_spawnattr_setsigmask(&attributes_, &none);
    ::posix_spawnattr_setsigdefault(&attributes_, &usual);
    ::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    ::posix_spawn_file_actions_addopen(&files_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_addopen(&files_, STDOUT_FILENO, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    ::posix_spawn_file_actions_adddup2(&files_, STDOUT_FILENO, STDERR_FILENO);
  }
  ~SpawnPlan() {
    ::posix_spawnattr_destroy(&attributes_);
    ::posix_spawn_file_actions_destroy(&files_);
  }
  SpawnPlan(const SpawnPlan&) = delete;
  SpawnPlan& operator=(const SpawnPlan&) = delete;

  // 0, or the error.
  int spawn(std::vector<std::string> command, pid_t& pid) const {
    std::vector<char*> argv;
    argv.reserve(command.size() + 1);
    for (std::string& argument : command)
      argv.push_back(argument.data());
    argv.push_back(nullptr);
    return ::posix_spawn(&pid, argv[0], &files_, &attributes_, argv.data(), environ);
  }

 private:
  posix_spawnattr_t attributes_{};
  posix_spawn_file_actions_t files_{};
};

bool hasEnded(pid_t pid) {
  siginfo_t ended{};
  return ::waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOHANG | WNOWAIT) != 0 || ended.si_pid == pid;
}

std::string endText(int status) {
  return WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                             : "exit code " + std::to_string(WEXITSTATUS(status));
}

}  // namespace

void LocalEngine::tend(const std::function<bool()>& isWanted) {
  lookAfterWorker();
  if (!worker_ && Clock::now() >= nextStart_ && isWanted())
    start();
}

void LocalEngine::lookAfterWorker() {
  if (!worker_ || !hasEnded(*worker_))
    return;
  struct rusage usage {};
  const std::optional<int> status = Children::ofThisProcess().waitFor(*worker_, usage);
  worker_.reset();
  const bool hasLived = Clock::now() - startedAt_ > options_.soon;
  if (hasLived)
    pause_ = std::chrono::nanoseconds(0);
  if (hasLived && status == 0) {
    FOUNDATION_LOG(logger_, logging::kInfo) << "The local worker has ended.";
    return;
  }
  failed("has ended: " + (status ? endText(*status) : std::string("nobody knows how")));
}

void LocalEngine::failed(const std::string& why) {
  pause_ = std::clamp(2 * pause_, options_.firstPause, options_.longestPause);
  nextStart_ = Clock::now() + std::chrono::duration_cast<Clock::duration>(pause_);
  FOUNDATION_LOG(logger_, logging::kWarning)
      << "The local worker " << why << ". Another one is started after "
      << std::chrono::duration<double>(pause_).count() << " s where there is work. See " << options_.log.string();
}

void LocalEngine::start() {
  pid_t pid = -1;
  int error = 0;
  {
    // It must not pass for an orphan.
    Children::Start starting(Children::ofThisProcess());
    error = SpawnPlan(options_.log).spawn(options_.command, pid);
    if (error == 0)
      starting.succeeded(pid, std::nullopt);
  }
  startedAt_ = Clock::now();
  if (error != 0)
    return failed("cannot be started as " + options_.command.front() + ": " + ::errors::systemErrorText(error));
  worker_ = pid;
  FOUNDATION_LOG(logger_, logging::kInfo) << "Started a local worker, process " << pid;
}

bool isLoginNode(const std::string& searchPath, bool isInsideBatchJob) {
  if (isInsideBatchJob)
    return false;
  std::istringstream folders(searchPath);
  for (std::string folder; std::getline(folders, folder, ':');) {
    if (!folder.empty() && ::access((folder + "/sbatch").c_str(), X_OK) == 0)
      return true;
  }
  return false;
}

}  // namespace parallel::scheduler::engines
