#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <ios>
#include <vector>

#include "platform/files/nativePath.h"
#include "platform/logging/currentExceptionText.h"
#include "transport/data/internal/encoders.h"
#include "transport/getLogger.h"
#include "transport/streams/ByteSink.h"

namespace parallel::spf::transport::internal {

namespace {

constexpr std::streamoff kMaxChunkBytes = 65536;

// The chunk that suits the file: no larger than the file is now. Leaves the file at its beginning.
std::vector<std::byte> makeChunk(std::ifstream& file) {
  const std::streamoff size = file.rdbuf()->pubseekoff(0, std::ios::end, std::ios::in);
  if (size < 0 || file.rdbuf()->pubseekpos(0, std::ios::in) != std::streampos(0)) {
    file.setstate(std::ios::failbit);  // raises: not a file that has a size
  }
  return std::vector<std::byte>(static_cast<std::size_t>(std::min(size, kMaxChunkBytes)));
}

void streamFile(const qxArray* name, ByteSink& sink) {
  std::ifstream file(files::nativePath(qxGetString(name)), std::ios::in | std::ios::binary);
  file.exceptions(std::ios::badbit | std::ios::failbit);

  std::vector<std::byte> chunk = makeChunk(file);
  std::streamsize nread = 0;
  do {
    nread = file.rdbuf()->sgetn(reinterpret_cast<char*>(chunk.data()), static_cast<std::streamsize>(chunk.size()));
    sink.write(chunk.data(), static_cast<std::size_t>(nread));  // the last one is empty
  } while (!file.fail() && nread > 0);
  file.close();
}

}  // namespace

void encodeFile(const qxArray* array, ByteSink& sink) {
  try {
    streamFile(array, sink);
  } catch (...) {
    FOUNDATION_LOG(getLogger(), 256) << "Error caught while streaming file to ByteSink";
    FOUNDATION_LOG(getLogger(), 16) << "Exception caught: " << logging::currentExceptionText();
    throw;
  }
}

std::size_t hintFile(const qxArray* array) {
  struct stat status {};
  if (::stat(files::nativePath(qxGetString(array)).c_str(), &status) != 0 || !S_ISREG(status.st_mode))
    return 0;
  return static_cast<std::size_t>(status.st_size);
}

}  // namespace parallel::spf::transport::internal
