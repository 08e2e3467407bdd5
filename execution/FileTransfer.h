// Bytes between files and sinks.
#pragma once

#include <cstdint>

#include "execution/FilePool.h"
#include "transport/streams/ByteSink.h"

namespace parallel::execution {

// Writes into a file, which is to be opened for appending. std::system_error names the file.
class FileSink : public spf::transport::ByteSink {
 public:
  // Ownership: borrows the file.
  explicit FileSink(FilePool::File& file) : file_(file) {}
  void write(const std::byte* data, std::size_t n) override;

 private:
  FilePool::File& file_;
};

// The first `nbytes` of the file into the sink, in pieces. Throws std::system_error, or std::runtime_error when the
// file is shorter. The file is not in use while the sink is.
void copyFile(FilePool::File& file, std::uint64_t nbytes, spf::transport::ByteSink& sink);

}  // namespace parallel::execution
