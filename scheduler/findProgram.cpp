#include "scheduler/findProgram.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace parallel::scheduler {

namespace {

bool isFile(int directory, const std::string& path) {
  struct stat status {};
  return ::fstatat(directory, path.c_str(), &status, 0) == 0 && S_ISREG(status.st_mode);
}

bool isExecutable(int directory, const std::string& path) {
  return ::faccessat(directory, path.c_str(), X_OK, AT_EACCESS) == 0;
}

}  // namespace

std::string findProgram(const std::string& name, std::string_view searchPath, int directory) {
  if (name.find('/') != std::string::npos)
    return name;
  std::string notExecutable;
  for (std::string_view rest = searchPath;;) {
    const std::size_t colon = rest.find(':');
    const std::string_view folder = rest.substr(0, colon);
    std::string path = (folder.empty() ? std::string(".") : std::string(folder)) + "/" + name;
    if (isFile(directory, path)) {
      if (isExecutable(directory, path))
        return path;
      notExecutable = path;
    }
    if (colon == std::string_view::npos)
      break;
    rest.remove_prefix(colon + 1);
  }
  std::string text = "No program \"" + name + "\" in PATH (" + std::string(searchPath) + ")";
  if (!notExecutable.empty())
    text += "; \"" + notExecutable + "\" is not executable";
  throw StartFailure(text);
}

}  // namespace parallel::scheduler
