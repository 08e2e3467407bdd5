#include "platform/spf/grpc/internal/wire/BorrowedBytes.h"

#include "platform/spf/grpc/internal/wire/tsanOrder.h"

namespace agent::spf::grpc_transport::internal {

using parallel::threads::MutexLock;

grpc::Slice BorrowedBytes::lend(std::size_t offset, std::size_t nbytes) {
  handedOver(this);
  auto* bytes = const_cast<char*>(bytes_.data() + offset);  // gRPC only reads them
  grpc::Slice slice(bytes, nbytes, &BorrowedBytes::release, this);
  const MutexLock lock(mutex_);
  ++lent_;  // not before there is a slice that will be released
  return slice;
}

// Notifies under the lock: the waiter may end this object as soon as it can take the lock.
void BorrowedBytes::release(void* self) {
  takenOver(self);
  auto* borrowed = static_cast<BorrowedBytes*>(self);
  const MutexLock lock(borrowed->mutex_);
  if (--borrowed->lent_ == 0)
    borrowed->released_.notifyAll();
}

void BorrowedBytes::waitForRelease() {
  MutexLock lock(mutex_);
  released_.wait(lock, [this]() ZKS_REQUIRES(mutex_) { return lent_ == 0; });
}

}  // namespace agent::spf::grpc_transport::internal
