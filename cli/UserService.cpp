#include "cli/UserService.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <string>
#include <string_view>
#include <thread>

#include "cli/CliError.h"
#include "cli/StandardStreams.h"
#include "cli/backgroundProgram.h"
#include "platform/errors/systemError.h"
#include "platform/files/UniqueFd.h"
#include "platform/interrupt/throwIfInterrupted.h"
#include "programs/siblingProgram.h"
#include "toolbox/Address.h"

namespace zks {
namespace {

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
  const std::string log = logPath("zksd");
  const pid_t started =
      startInBackground({programs::siblingProgram("zksd", "scheduler"), "--leave-after", kLeaveAfterSeconds}, log);
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
