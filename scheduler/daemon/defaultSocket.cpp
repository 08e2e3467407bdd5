#include "scheduler/daemon/defaultSocket.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <system_error>

#include "scheduler/daemon/DaemonError.h"

namespace parallel::scheduler {

namespace fs = std::filesystem;

namespace {

std::string octal(mode_t mode) {
  std::array<char, 16> text{};
  std::snprintf(text.data(), text.size(), "%04o", static_cast<unsigned>(mode));
  return text.data();
}

[[noreturn]] void refuse(const fs::path& directory, const std::string& problem) {
  throw DaemonError("The socket's directory \"" + directory.string() + "\" " + problem +
                    "; put it right, or choose another place with --socket PATH");
}

fs::path socketDirectory() {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");  // NOLINT(concurrency-mt-unsafe): before any thread
  if (runtime != nullptr && *runtime == '/' && fs::is_directory(runtime))
    return fs::path(runtime) / "zks";
  return "/tmp/zks-" + std::to_string(::geteuid());
}

}  // namespace

void requirePrivateDirectory(const fs::path& directory) {
  constexpr mode_t kOthers = S_IRWXG | S_IRWXO;
  constexpr mode_t kPermissions = 07777;
  if (::mkdir(directory.c_str(), S_IRWXU) != 0 && errno != EEXIST)
    refuse(directory, "cannot be made: " + std::generic_category().message(errno));
  struct stat status {};
  if (::lstat(directory.c_str(), &status) != 0)
    refuse(directory, "cannot be looked at: " + std::generic_category().message(errno));
  if (!S_ISDIR(status.st_mode))
    refuse(directory, "is not a directory");
  if (status.st_uid != ::geteuid())
    refuse(directory, "belongs to user " + std::to_string(status.st_uid) + ", not to " + std::to_string(::geteuid()));
  if ((status.st_mode & kOthers) != 0)
    refuse(directory, "is open to others (mode " + octal(status.st_mode & kPermissions) + ", not 0700)");
}

fs::path defaultSocket() {
  const fs::path directory = socketDirectory();
  requirePrivateDirectory(directory);
  return directory / "zksd.sock";
}

}  // namespace parallel::scheduler
