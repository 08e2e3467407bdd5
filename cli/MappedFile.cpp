#include "cli/MappedFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "cli/CliError.h"

namespace zks {
namespace {

[[noreturn]] void refuse(const std::string& path, const std::string& reason) {
  throw CliError("cannot read the file \"" + path + "\": " + reason);
}

}  // namespace

MappedFile::MappedFile(const std::string& path) {
  const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (file < 0)
    refuse(path, systemReason(errno));
  struct stat status {};
  const int failure = ::fstat(file, &status) == 0 ? 0 : errno;
  void* data = MAP_FAILED;
  int mapFailure = 0;
  if (failure == 0 && S_ISREG(status.st_mode) && status.st_size > 0) {
    data = ::mmap(nullptr, static_cast<std::size_t>(status.st_size), PROT_READ, MAP_PRIVATE, file, 0);
    mapFailure = data == MAP_FAILED ? errno : 0;
  }
  ::close(file);
  if (failure != 0)
    refuse(path, systemReason(failure));
  if (!S_ISREG(status.st_mode))
    refuse(path, S_ISDIR(status.st_mode) ? "it is a directory" : "it is not a regular file");
  if (mapFailure != 0)
    refuse(path, systemReason(mapFailure));
  if (status.st_size > 0) {
    data_ = static_cast<const std::byte*>(data);
    nbytes_ = static_cast<std::size_t>(status.st_size);
  }
}

MappedFile::~MappedFile() {
  if (data_ != nullptr)
    ::munmap(const_cast<std::byte*>(data_), nbytes_);
}

}  // namespace zks
