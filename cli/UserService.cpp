#include "cli/UserService.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "cli/CliError.h"
#include "cli/StandardStreams.h"
#include "platform/errors/systemError.h"
#include "platform/files/UniqueFd.h"
#include "platform/interrupt/throwIfInterrupted.h"
#include "toolbox/Address.h"
#include "toolbox/folders.h"

extern char** environ;

namespace zks {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kStartLimit{20};
constexpr std::chrono::seconds kStopLimit{60};
constexpr std::chrono::milliseconds kLook{10};
constexpr const char* kLeaveAfterSeconds = "86400";

std::string socketPath() {
  return parallel::toolbox::resolveAddress("unix:").substr(std::string_view("unix:").size());
}

// Asks, with patience, until the question is answered. False when the time is over.
template <class Question>
bool waitUntil(Question isSo, Clock::duration limit) {
  const auto end = Clock::now() + limit;
  while (!isSo()) {
    if (Clock::now() >= end)
      return false;
    throwIfInterrupted();
    std::this_thread::sleep_for(kLook);
  }
  return true;
}

// Beside zks itself, or where the tree's own build puts it; else whatever PATH has.
std::string serviceProgram() {
  std::error_code unknown;
  const fs::path own = fs::read_symlink("/proc/self/exe", unknown).parent_path();
  if (!unknown) {
    for (const fs::path& place : {own / "zksd", own.parent_path() / "scheduler" / "zksd"}) {
      if (::access(place.c_str(), X_OK) == 0)
        return place.string();
    }
  }
  return "zksd";
}

fs::path stateDirectory() {
  if (const char* state = std::getenv("XDG_STATE_HOME"); state != nullptr && *state == '/')
    return fs::path(state) / "zks";
  if (const char* home = std::getenv("HOME"); home != nullptr && *home == '/')
    return fs::path(home) / ".local" / "state" / "zks";
  throw CliError("there is no place for the service's log: neither $XDG_STATE_HOME nor $HOME names one");
}

std::string makeLogPath() {
  const fs::path directory = stateDirectory();
  std::error_code failure;
  fs::create_directories(directory, failure);
  if (failure)
    throw CliError("the directory \"" + directory.string() + "\" cannot be made: " + failure.message());
  return directory / "zksd.log";
}

// posix_spawn's two descriptions, freed with the object.
class Spawning {
 public:
  explicit Spawning(const std::string& log) {
    ::posix_spawn_file_actions_init(&files_);
    ::posix_spawnattr_init(&attributes_);
    ::posix_spawn_file_actions_addopen(&files_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_addopen(&files_, STDOUT_FILENO, log.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                       S_IRUSR | S_IWUSR);
    ::posix_spawn_file_actions_adddup2(&files_, STDOUT_FILENO, STDERR_FILENO);
    ::posix_spawn_file_actions_addchdir_np(&files_, "/");
    sigset_t none;
    sigemptyset(&none);
    sigset_t all;
    sigfillset(&all);
    ::posix_spawnattr_setsigmask(&attributes_, &none);
    ::posix_spawnattr_setsigdefault(&attributes_, &all);
    ::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }
  ~Spawning() {
    ::posix_spawn_file_actions_destroy(&files_);
    ::posix_spawnattr_destroy(&attributes_);
  }
  Spawning(const Spawning&) = delete;
  Spawning& operator=(const Spawning&) = delete;

  pid_t run(std::vector<std::string> words) const {
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words)
      arguments.push_back(word.data());
    arguments.push_back(nullptr);
    pid_t process = -1;
    const int error = ::posix_spawnp(&process, arguments.front(), &files_, &attributes_, arguments.data(), environ);
    if (error != 0)
      throw CliError("no service runs, and \"" + words.front() +
                     "\" cannot be started: " + errors::systemErrorText(error));
    return process;
  }

 private:
  posix_spawn_file_actions_t files_{};
  posix_spawnattr_t attributes_{};
};

// Of any process, whether or not somebody has asked how it ended.
bool isOver(const files::UniqueFd& process) {
  pollfd ended{process.get(), POLLIN, 0};
  return ::poll(&ended, 1, 0) == 1;
}

bool hasEnded(pid_t process) {
  return ::waitpid(process, nullptr, WNOHANG) == process;
}

}  // namespace

std::optional<pid_t> findUserService() {
  const std::string path = socketPath();
  const files::UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  path.copy(name.sun_path, sizeof name.sun_path - 1);
  if (!socket || ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0)
    return std::nullopt;
  ucred peer{};
  socklen_t length = sizeof peer;
  if (::getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0)
    return std::nullopt;
  return peer.pid;
}

void startUserService() {
  if (findUserService())
    return;
  const std::string log = makeLogPath();
  const pid_t started = Spawning(log).run({serviceProgram(), "--leave-after", kLeaveAfterSeconds});
  bool ended = false;
  std::optional<pid_t> listening;
  // One that found another already there ends, and the other one is about to listen.
  const auto isListening = [&] {
    ended = ended || hasEnded(started);
    listening = findUserService();
    return listening.has_value() ||
           (ended && !waitUntil([&] { return (listening = findUserService()).has_value(); }, std::chrono::seconds(2)));
  };
  waitUntil(isListening, kStartLimit);
  if (!listening)
    throw CliError("the service (zksd) that was started here does not answer; its log is " + log);
  if (*listening == started)
    say("started the service (zksd, process " + std::to_string(started) + "); its log is " + log);
}

bool stopUserService() {
  const auto process = findUserService();
  if (!process)
    return false;
  const files::UniqueFd handle(static_cast<int>(::syscall(SYS_pidfd_open, *process, 0)));
  if (::kill(*process, SIGTERM) != 0 && errno != ESRCH)
    throw CliError("the service (process " + std::to_string(*process) +
                   ") cannot be ended: " + errors::systemErrorText(errno));
  if (handle && !waitUntil([&] { return isOver(handle); }, kStopLimit))
    throw CliError("the service (process " + std::to_string(*process) + ") was told to end and still runs");
  return true;
}

}  // namespace zks
