// The container and its framing, written a second time and as plainly as can be, for tests to compare with.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "transport/data/testing/RecordingByteSink.h"

namespace parallel::spf::transport::testing {

inline Bytes bigEndian(std::uint64_t value, int nbytes) {
  Bytes bytes;
  for (int shift = 8 * (nbytes - 1); shift >= 0; shift -= 8)
    bytes.push_back(static_cast<std::byte>(value >> shift & 0xFF));
  return bytes;
}

inline Bytes framed(const Bytes& content) {
  Bytes out;
  for (std::size_t at = 0; at < content.size(); at += 32767) {
    const std::size_t length = std::min<std::size_t>(32767, content.size() - at);
    out = concatenated({out, bigEndian(length, 2)});
    out.insert(out.end(), content.begin() + static_cast<std::ptrdiff_t>(at),
               content.begin() + static_cast<std::ptrdiff_t>(at + length));
  }
  return concatenated({out, bytesOf({0xFF, 0xFF})});
}

inline Bytes container(const std::vector<Bytes>& contents) {
  Bytes out = concatenated({bytesOf({0}), bigEndian(contents.size(), 4)});
  for (const Bytes& content : contents) {
    const Bytes item = framed(content);
    out.insert(out.end(), item.begin(), item.end());
  }
  return out;
}

// A plain item as a reply carries it.
inline Bytes replyPlain(const Bytes& content) {
  return concatenated({bigEndian(content.size(), 8), content});
}

}  // namespace parallel::spf::transport::testing
