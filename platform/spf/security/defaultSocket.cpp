#include "platform/spf/security/defaultSocket.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "platform/errors/systemError.h"

namespace agent::spf::security {

namespace fs = std::filesystem;

namespace {

std::string octal(mode_t mode) {
  std::array<char, 16> text{};
  std::snprintf(text.data(), text.size(), "%04o", static_cast<unsigned>(mode));
  return text.data();
}

}  // namespace

fs::path defaultSocket() {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");  // NOLINT(concurrency-mt-unsafe): nothing here changes it
  std::error_code none;
  if (runtime != nullptr && *runtime == '/' && fs::is_directory(runtime, none))
    return fs::path(runtime) / "zks" / "zksd.sock";
  return fs::path("/tmp/zks-" + std::to_string(::geteuid())) / "zksd.sock";
}

std::string whyNotPrivate(const fs::path& directory) {
  constexpr mode_t kOthers = S_IRWXG | S_IRWXO;
  constexpr mode_t kPermissions = 07777;
  struct stat status {};
  if (::lstat(directory.c_str(), &status) != 0)
    return "cannot be looked at: " + errors::systemErrorText(errno);
  if (!S_ISDIR(status.st_mode))
    return "is not a directory";
  if (status.st_uid != ::geteuid())
    return "belongs to user " + std::to_string(status.st_uid) + ", not to " + std::to_string(::geteuid());
  if ((status.st_mode & kOthers) != 0)
    return "is open to others (mode " + octal(status.st_mode & kPermissions) + ", not 0700)";
  return {};
}

}  // namespace agent::spf::security
