// Reads protobuf's wire format across the slices of a message, without joining them.
#pragma once

#include <grpcpp/support/slice.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace agent::spf::grpc_transport::internal {

// Ownership: borrows the slices. Errors: FrameworkError when the bytes end too early or are not wire format.
class SliceCursor {
 public:
  explicit SliceCursor(const std::vector<grpc::Slice>& slices);

  std::size_t remaining() const noexcept { return remaining_; }
  std::uint64_t readVarint();
  // Field number and wire type; of a number other than 0.
  std::uint32_t readTag();
  // The length of a field, checked against what is there.
  std::size_t readLength();
  std::string readBytes(std::size_t nbytes);
  // The next bytes as sub-slices that share the memory.
  std::vector<grpc::Slice> shareBytes(std::size_t nbytes);
  void skip(std::size_t nbytes);
  // A cursor over the next bytes alone; this one goes on behind them.
  SliceCursor takeMessage(std::size_t nbytes);
  // Skips the value of a field with this tag; a group with all that is in it.
  void skipField(std::uint32_t tag);
  // Throws what all of them throw: FrameworkError, "malformed frame: ...".
  [[noreturn]] static void malformed(const char* why);

 private:
  std::uint8_t readByte();
  void skipGroup(std::uint32_t number, int depth);
  void skipValue(std::uint32_t tag, int depth);
  template <class Take>
  void takeParts(std::size_t nbytes, Take take);

  const std::vector<grpc::Slice>& slices_;
  std::size_t index_ = 0;   // the slice that the next byte is in
  std::size_t offset_ = 0;  // and where in it
  std::size_t remaining_ = 0;
};

}  // namespace agent::spf::grpc_transport::internal
