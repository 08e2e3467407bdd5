// A whole regular file in memory, read-only.
//
// Ownership: the bytes live as long as the object. The file must not shrink meanwhile.
// Errors:    CliError names the file and the reason.
#pragma once

#include <cstddef>
#include <span>
#include <string>

namespace zks {

class MappedFile {
 public:
  explicit MappedFile(const std::string& path);
  ~MappedFile();
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  std::span<const std::byte> bytes() const noexcept { return {data_, nbytes_}; }

 private:
  const std::byte* data_ = nullptr;
  std::size_t nbytes_ = 0;
};

}  // namespace zks
