#include "cli/testing/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

#include "execution/testing/waiting.h"
#include "platform/errors/systemError.h"

namespace zks {
namespace {

using files::UniqueFd;
using parallel::execution::testing::TestPipe;

// The tests' own time limits are shorter, but for those that move several GiB.
constexpr int kSilenceMilliseconds = 900'000;

class SpawnActions {
 public:
  SpawnActions() { posix_spawn_file_actions_init(&actions_); }
  ~SpawnActions() { posix_spawn_file_actions_destroy(&actions_); }
  SpawnActions(const SpawnActions&) = delete;
  SpawnActions& operator=(const SpawnActions&) = delete;
  posix_spawn_file_actions_t* get() noexcept { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
};

// The signals that zks answers are the program's to handle, even if whoever runs the tests ignores them.
class DefaultSignals {
 public:
  DefaultSignals() {
    posix_spawnattr_init(&attributes_);
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
      sigaddset(&signals, signal);
    posix_spawnattr_setsigdefault(&attributes_, &signals);
    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF);
  }
  ~DefaultSignals() { posix_spawnattr_destroy(&attributes_); }
  DefaultSignals(const DefaultSignals&) = delete;
  DefaultSignals& operator=(const DefaultSignals&) = delete;
  const posix_spawnattr_t* get() const noexcept { return &attributes_; }

 private:
  posix_spawnattr_t attributes_{};
};

// Reads both until they end.
void collect(int output, int error, ProcessOutcome& outcome) {
  pollfd ends[] = {{output, POLLIN, 0}, {error, POLLIN, 0}};
  std::string* texts[] = {&outcome.output, &outcome.error};
  char piece[65536];
  while (ends[0].fd >= 0 || ends[1].fd >= 0) {
    if (::poll(ends, 2, kSilenceMilliseconds) <= 0)
      throw std::runtime_error("the program wrote nothing and did not end in time");
    for (int i = 0; i < 2; ++i) {
      if (ends[i].fd < 0 || ends[i].revents == 0)
        continue;
      const ssize_t got = ::read(ends[i].fd, piece, sizeof piece);
      if (got > 0)
        texts[i]->append(piece, static_cast<std::size_t>(got));
      else
        ends[i].fd = -1;
    }
  }
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& command, const std::string& directory) {
  TestPipe output;
  TestPipe error;
  SpawnActions actions;
  posix_spawn_file_actions_addopen(actions.get(), 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(actions.get(), output.writing.get(), 1);
  posix_spawn_file_actions_adddup2(actions.get(), error.writing.get(), 2);
  posix_spawn_file_actions_addchdir_np(actions.get(), directory.c_str());
  std::vector<char*> words;
  for (const std::string& word : command)
    words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  const DefaultSignals signals;
  const int failure = posix_spawnp(&pid_, words[0], actions.get(), signals.get(), words.data(), environ);
  if (failure != 0)
    errors::throwSystemError(command[0], failure);
  output_ = std::move(output.reading);
  error_ = std::move(error.reading);
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) {
    ::kill(pid_, SIGCONT);
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
}

void ChildProcess::send(int signal) const {
  ::kill(pid_, signal);
}

std::string ChildProcess::readLine() const {
  return parallel::execution::testing::readLine(output_.get());
}

ProcessOutcome ChildProcess::wait() {
  ProcessOutcome outcome;
  collect(output_.get(), error_.get(), outcome);
  int status = 0;
  struct rusage usage {};
  if (::wait4(pid_, &status, 0, &usage) != pid_)
    errors::throwSystemError("wait4");
  pid_ = -1;
  outcome.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  outcome.peakMemoryKiB = usage.ru_maxrss;
  return outcome;
}

ProcessOutcome runProgram(const std::vector<std::string>& command, const std::string& directory) {
  return ChildProcess(command, directory).wait();
}

}  // namespace zks
