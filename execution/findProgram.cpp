#include "execution/findProgram.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>

#include "platform/errors/visibleText.h"

namespace parallel::execution {

using errors::inQuotes;

namespace {

// The longest text that the system passes to a program, its end counted (MAX_ARG_STRLEN).
constexpr std::size_t kMostPathBytes = std::size_t{128} << 10;
constexpr std::size_t kShownPathBytes = 1024;

bool isFile(int directory, const std::string& path) {
  struct stat status {};
  return ::fstatat(directory, path.c_str(), &status, 0) == 0 && S_ISREG(status.st_mode);
}

bool isExecutable(int directory, const std::string& path) {
  return ::faccessat(directory, path.c_str(), X_OK, AT_EACCESS) == 0;
}

}  // namespace

std::optional<std::string> findProgram(const std::string& name, std::string_view searchPath, int directory,
                                       const std::function<bool()>& giveUp) {
  if (name.find('/') != std::string::npos)
    return name;
  if (name.size() > NAME_MAX)
    throw StartFailure("No program can have the name " + inQuotes(name));
  if (searchPath.size() >= kMostPathBytes)
    throw StartFailure("The program " + inQuotes(name) + " is not searched: PATH has " +
                       std::to_string(searchPath.size()) + " bytes, and no program can be given " +
                       std::to_string(kMostPathBytes) + " or more");
  std::string notExecutable;
  for (std::string_view rest = searchPath;;) {
    if (giveUp())
      return std::nullopt;
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
  std::string text =
      "No program " + inQuotes(name) + " in PATH (" + errors::visibleText(searchPath, kShownPathBytes) + ")";
  if (!notExecutable.empty())
    text += "; " + inQuotes(notExecutable, PATH_MAX) + " is not executable";
  throw StartFailure(text);
}

}  // namespace parallel::execution
