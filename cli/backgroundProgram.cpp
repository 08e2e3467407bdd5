#include "cli/backgroundProgram.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>

#include "cli/CliError.h"
#include "platform/errors/systemError.h"

namespace zks {
namespace {

namespace fs = std::filesystem;

fs::path stateDirectory() {
  if (const char* state = std::getenv("XDG_STATE_HOME"); state != nullptr && *state == '/')
    return fs::path(state) / "zks";
  if (const char* home = std::getenv("HOME"); home != nullptr && *home == '/')
    return fs::path(home) / ".local" / "state" / "zks";
  throw CliError("there is no place for the service's log: neither $XDG_STATE_HOME nor $HOME names one");
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
      throw CliError("\"" + words.front() + "\" cannot be started: " + errors::systemErrorText(error));
    return process;
  }

 private:
  posix_spawn_file_actions_t files_{};
  posix_spawnattr_t attributes_{};
};

}  // namespace

std::string userStateFolder() {
  const fs::path directory = stateDirectory();
  std::error_code failure;
  fs::create_directories(directory, failure);
  if (failure)
    throw CliError("the directory \"" + directory.string() + "\" cannot be made: " + failure.message());
  return directory.string();
}

std::string logPath(const std::string& program) {
  return userStateFolder() + "/" + program + ".log";
}

pid_t startInBackground(std::vector<std::string> words, const std::string& log) {
  return Spawning(log).run(std::move(words));
}

}  // namespace zks
