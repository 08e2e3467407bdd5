#include "platform/spf/grpc/internal/BorrowedBytes.h"

#include "platform/spf/grpc/internal/tsanOrder.h"

namespace agent::spf::grpc_transport::internal {

grpc::Slice BorrowedBytes::lend(std::size_t offset, std::size_t nbytes) {
  handedOver(this);
  auto* bytes = const_cast<char*>(bytes_.data() + offset);  // gRPC only reads them
  grpc::Slice slice(bytes, nbytes, &BorrowedBytes::release, this);
  const std::lock_guard lock(mutex_);
  ++lent_;  // not before there is a slice that will be released
  return slice;
}

// Notifies under the lock: the waiter may end this object as soon as it can take the lock.
void BorrowedBytes::release(void* self) {
  takenOver(self);
  auto* borrowed = static_cast<BorrowedBytes*>(self);
  const std::lock_guard lock(borrowed->mutex_);
  if (--borrowed->lent_ == 0)
    borrowed->released_.notify_all();
}

void BorrowedBytes::waitForRelease() {
  std::unique_lock lock(mutex_);
  released_.wait(lock, [this] { return lent_ == 0; });
}

}  // namespace agent::spf::grpc_transport::internal
