// Looks at the bytes of a file item as they pass: counts and digests them, and compares them with the file that was sent.
#pragma once

#include <cstddef>
#include <fstream>
#include <optional>
#include <string>

#include "cli/Digest.h"
#include "transport/streams/ByteSink.h"

namespace zks {

class ContentCheck final : public parallel::spf::transport::ByteSink {
 public:
  // Without an original everything is the same. The bytes go on to `next`, if there is one, which must outlive this.
  explicit ContentCheck(const std::optional<std::string>& original, parallel::spf::transport::ByteSink* next = nullptr);

  void write(const std::byte* data, std::size_t nbytes) override;
  bool compares() const noexcept { return compares_; }
  // Whether the bytes so far are all of the original's. Reads on in the original.
  bool isSame();
  const Digest& digest() const noexcept { return digest_; }

 private:
  void compare(const char* data, std::size_t nbytes);

  parallel::spf::transport::ByteSink* next_;
  Digest digest_;
  std::ifstream original_;
  bool compares_;
  bool same_ = true;
};

}  // namespace zks
