#include "cli/standardInput.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/errors/systemError.h"
#include "platform/interrupt/throwIfInterrupted.h"
#include "toolbox/streamItem.h"

namespace zks {
namespace {

using files::UniqueFd;
using parallel::toolbox::Item;

constexpr const char* kOwn = "-";
constexpr const char* kOwnName = "standard input";

// A pipe is opened once somebody writes to it.
UniqueFd openWaiting(const std::string& path) {
  for (;;) {
    UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (file)
      return file;
    if (errno != EINTR)
      throw Exception<parallel::toolbox::CannotReadFile>(path, errors::systemErrorText(errno));
    throwIfInterrupted();
  }
}

UniqueFd copyOfOwn() {
  UniqueFd copy(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0));
  if (!copy)
    throw Exception<parallel::toolbox::CannotReadFile>(kOwnName, errors::systemErrorText(errno));
  return copy;
}

bool isStream(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode);
}

}  // namespace

Item standardInputItem(const std::string& path) {
  if (path == kOwn)
    return parallel::toolbox::streamItem(copyOfOwn(), kOwnName);
  if (isStream(path))
    return parallel::toolbox::streamItem(openWaiting(path), path);
  return parallel::toolbox::fileItem(path);
}

bool isTyped(const std::string& path) noexcept {
  return path == kOwn && ::isatty(STDIN_FILENO) == 1;
}

}  // namespace zks
