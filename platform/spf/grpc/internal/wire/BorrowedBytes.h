// Lends a caller's bytes to gRPC as slices, and waits until gRPC has let go of every one.
#pragma once

#include <grpcpp/support/slice.h>

#include <cstddef>
#include <span>

#include "platform/threads/Mutex.h"

namespace agent::spf::grpc_transport::internal {

// The destructor waits: the bytes may go when this object has gone.
class BorrowedBytes {
 public:
  explicit BorrowedBytes(std::span<const char> bytes) : bytes_(bytes) {}
  ~BorrowedBytes() { waitForRelease(); }
  BorrowedBytes(const BorrowedBytes&) = delete;
  BorrowedBytes& operator=(const BorrowedBytes&) = delete;

  grpc::Slice lend(std::size_t offset, std::size_t nbytes);
  void waitForRelease();

 private:
  static void release(void* self);

  std::span<const char> bytes_;
  parallel::threads::Mutex mutex_;
  parallel::threads::ConditionVariable released_;
  std::size_t lent_ ZKS_GUARDED_BY(mutex_) = 0;  // slices that are still in use
};

}  // namespace agent::spf::grpc_transport::internal
