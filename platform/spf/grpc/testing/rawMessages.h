// For tests: the messages of a stream as bytes.
#pragma once

#include <grpcpp/support/byte_buffer.h>
#include <grpcpp/support/slice.h>

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

namespace agent::spf::testing {

inline std::string bytesOf(const grpc::ByteBuffer& message) {
  std::vector<grpc::Slice> slices;
  if (!message.Dump(&slices).ok())
    throw std::runtime_error("the message cannot be read");
  std::string bytes;
  for (const grpc::Slice& slice : slices)
    bytes.append(slice.begin(), slice.end());
  return bytes;
}

// The bytes as a message in slices of `step` bytes each.
inline grpc::ByteBuffer messageOf(const std::string& bytes, std::size_t step) {
  std::vector<grpc::Slice> slices;
  for (std::size_t offset = 0; offset < bytes.size(); offset += step)
    slices.emplace_back(bytes.data() + offset, std::min(step, bytes.size() - offset));
  return {slices.data(), slices.size()};
}

// The bytes as a message in one slice.
inline grpc::ByteBuffer messageOf(const std::string& bytes) {
  const grpc::Slice slice(bytes);
  return {&slice, 1};
}

}  // namespace agent::spf::testing
