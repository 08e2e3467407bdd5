// The contents of a regular file, read whole.
//
// Not mapped: a file that somebody makes shorter meanwhile would end the program.
// Errors: CliError names the file and the reason; one is that the file became shorter while it was read.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>

namespace zks {

class FileContents {
 public:
  explicit FileContents(const std::string& path);

  std::span<const std::byte> bytes() const noexcept { return {data_.get(), nbytes_}; }

 private:
  std::size_t nbytes_ = 0;
  std::unique_ptr<std::byte[]> data_;
};

}  // namespace zks
