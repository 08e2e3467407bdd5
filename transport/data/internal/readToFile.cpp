#include <cstddef>
#include <fstream>
#include <ios>

#include "platform/files/nativePath.h"
#include "transport/data/internal/readers.h"
#include "transport/streams/ByteStream.h"
#include "transport/streams/FunctionalByteSink.h"

namespace parallel::spf::transport::internal {

void readToFile(ByteStream& stream, const std::u16string& path) {
  std::ofstream file;
  file.exceptions(std::ios::badbit | std::ios::failbit);
  file.open(files::nativePath(path), std::ios::binary);
  FunctionalByteSink intoFile([&file](const std::byte* data, std::size_t nbytes) {
    file.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(nbytes));
  });
  stream.read(intoFile);
}

}  // namespace parallel::spf::transport::internal
