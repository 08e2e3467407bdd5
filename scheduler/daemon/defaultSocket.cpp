#include "scheduler/daemon/defaultSocket.h"

#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "platform/errors/systemError.h"
#include "platform/spf/security/defaultSocket.h"
#include "scheduler/daemon/DaemonError.h"

namespace parallel::scheduler {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void refuse(const fs::path& directory, const std::string& problem) {
  throw DaemonError("The socket's directory \"" + directory.string() + "\" " + problem +
                    "; put it right, or choose another place with --socket PATH");
}

}  // namespace

void requirePrivateDirectory(const fs::path& directory) {
  if (::mkdir(directory.c_str(), S_IRWXU) != 0 && errno != EEXIST)
    refuse(directory, "cannot be made: " + errors::systemErrorText(errno));
  if (const std::string problem = agent::spf::security::whyNotPrivate(directory); !problem.empty())
    refuse(directory, problem);
}

fs::path prepareDefaultSocket() {
  fs::path socket = agent::spf::security::defaultSocket();
  requirePrivateDirectory(socket.parent_path());
  return socket;
}

}  // namespace parallel::scheduler
