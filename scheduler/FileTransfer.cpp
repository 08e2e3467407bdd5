#include "scheduler/FileTransfer.h"

#include <unistd.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

#include "scheduler/systemError.h"

namespace parallel::scheduler {

using spf::transport::ByteSink;

void FileSink::write(const std::byte* data, std::size_t n) {
  while (n > 0) {
    const ssize_t written = ::write(fd_, data, n);
    if (written < 0) {
      if (errno == EINTR)
        continue;
      throwSystemError("Writing " + what_);
    }
    data += written;
    n -= static_cast<std::size_t>(written);
  }
}

void copyFile(int fd, const std::string& what, std::uint64_t nbytes, ByteSink& sink) {
  constexpr std::uint64_t kPieceBytes = std::uint64_t{256} << 10;
  const auto capacity = static_cast<std::size_t>(std::min(nbytes, kPieceBytes));
  const std::unique_ptr<std::byte[]> buffer(new std::byte[capacity]);
  for (std::uint64_t done = 0; done < nbytes;) {
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(nbytes - done, capacity));
    const ssize_t got = ::pread(fd, buffer.get(), wanted, static_cast<off_t>(done));
    if (got < 0 && errno == EINTR)
      continue;
    if (got < 0)
      throwSystemError("Reading " + what);
    if (got == 0)
      throw std::runtime_error("Reading " + what + ": it became shorter, " + std::to_string(done) + " of " +
                               std::to_string(nbytes) + " bytes are left");
    sink.write(buffer.get(), static_cast<std::size_t>(got));
    done += static_cast<std::uint64_t>(got);
  }
}

}  // namespace parallel::scheduler
