#include "cli/FileContents.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "cli/CliError.h"
#include "platform/errors/systemError.h"
#include "platform/files/UniqueFd.h"
#include "platform/interrupt/throwIfInterrupted.h"

namespace zks {
namespace {

constexpr std::size_t kPieceBytes = std::size_t{4} << 20;

[[noreturn]] void refuse(const std::string& path, const std::string& reason) {
  throw CliError("cannot read the file \"" + path + "\": " + reason);
}

std::size_t sizeOf(const files::UniqueFd& file, const std::string& path) {
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0)
    refuse(path, errors::systemErrorText(errno));
  if (!S_ISREG(status.st_mode))
    refuse(path, S_ISDIR(status.st_mode) ? "it is a directory" : "it is not a regular file");
  return static_cast<std::size_t>(status.st_size);
}

void readAll(const files::UniqueFd& file, const std::string& path, std::span<std::byte> into) {
  for (std::size_t done = 0; done < into.size();) {
    throwIfInterrupted();
    const ssize_t got = ::read(file.get(), into.data() + done, std::min(into.size() - done, kPieceBytes));
    if (got == 0)
      refuse(path, "it became shorter while it was read");
    if (got > 0)
      done += static_cast<std::size_t>(got);
    else if (errno != EINTR)
      refuse(path, errors::systemErrorText(errno));
  }
}

}  // namespace

FileContents::FileContents(const std::string& path) {
  const files::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  nbytes_ = sizeOf(file, path);
  data_.reset(new std::byte[nbytes_]);  // uninitialised: make_unique would touch every page
  readAll(file, path, {data_.get(), nbytes_});
}

}  // namespace zks
