// Bytes between descriptors and sinks.
#pragma once

#include <cstdint>
#include <string>

#include "transport/streams/ByteSink.h"

namespace parallel::scheduler {

// Writes into a descriptor. std::system_error names what was being written.
class FileSink : public spf::transport::ByteSink {
 public:
  // Ownership: borrows the descriptor. `what` names the file in errors: "the input file \"x\"".
  FileSink(int fd, std::string what) : fd_(fd), what_(std::move(what)) {}
  void write(const std::byte* data, std::size_t n) override;

 private:
  int fd_;
  std::string what_;
};

// The first `nbytes` of the file into the sink, in pieces. Throws std::system_error, or std::runtime_error when the
// file is shorter.
void copyFile(int fd, const std::string& what, std::uint64_t nbytes, spf::transport::ByteSink& sink);

}  // namespace parallel::scheduler
