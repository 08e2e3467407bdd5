#include "execution/FileTransfer.h"

#include <unistd.h>

#include <algorithm>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>

#include "platform/errors/systemError.h"

namespace parallel::execution {

using errors::throwSystemError;
using spf::transport::ByteSink;

namespace {

void writeAll(int fd, std::span<const std::byte> bytes, const std::string& what) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written >= 0)
      bytes = bytes.subspan(static_cast<std::size_t>(written));
    else if (errno != EINTR)
      throwSystemError("Writing " + what);
  }
}

// 0 at the end of the file.
std::size_t readAt(int fd, std::span<std::byte> to, std::uint64_t offset, const std::string& what) {
  for (;;) {
    const ssize_t got = ::pread(fd, to.data(), to.size(), static_cast<off_t>(offset));
    if (got >= 0)
      return static_cast<std::size_t>(got);
    if (errno != EINTR)
      throwSystemError("Reading " + what);
  }
}

}  // namespace

void FileSink::write(const std::byte* data, std::size_t n) {
  file_.use([&](int fd) { writeAll(fd, {data, n}, file_.what()); });
}

void copyFile(FilePool::File& file, std::uint64_t nbytes, ByteSink& sink) {
  constexpr std::uint64_t kPieceBytes = std::uint64_t{256} << 10;
  const auto capacity = static_cast<std::size_t>(std::min(nbytes, kPieceBytes));
  const std::unique_ptr<std::byte[]> buffer(new std::byte[capacity]);
  for (std::uint64_t done = 0; done < nbytes;) {
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(nbytes - done, capacity));
    std::size_t got = 0;
    file.use([&](int fd) { got = readAt(fd, {buffer.get(), wanted}, done, file.what()); });
    if (got == 0)
      throw std::runtime_error("Reading " + file.what() + ": it became shorter, " + std::to_string(done) + " of " +
                               std::to_string(nbytes) + " bytes are left");
    sink.write(buffer.get(), got);
    done += got;
  }
}

}  // namespace parallel::execution
