// CRC-32, for people to compare what went with what came. Not a defence against anybody.
#pragma once

#include <boost/crc.hpp>
#include <cstddef>
#include <cstdint>
#include <string>

namespace zks {

class Digest {
 public:
  void add(const void* data, std::size_t nbytes) {
    crc_.process_bytes(data, nbytes);
    nbytes_ += nbytes;
  }

  std::uint64_t nbytes() const noexcept { return nbytes_; }
  // "crc32 cbf43926"
  std::string text() const;

 private:
  boost::crc_32_type crc_;
  std::uint64_t nbytes_ = 0;
};

}  // namespace zks
