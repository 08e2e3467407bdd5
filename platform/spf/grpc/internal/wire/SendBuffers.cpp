#include "platform/spf/grpc/internal/wire/SendBuffers.h"

#include <utility>

#include "platform/spf/grpc/internal/wire/tsanOrder.h"

namespace agent::spf::grpc_transport::internal {

using parallel::threads::MutexLock;

namespace {

struct Loan {
  std::shared_ptr<SendBuffers> owner;
  SendBuffers::Buffer buffer;
};

void endLoan(void* pointer) {
  takenOver(pointer);
  const std::unique_ptr<Loan> loan(static_cast<Loan*>(pointer));
  loan->owner->giveBack(std::move(loan->buffer));
}

}  // namespace

SendBuffers::SendBuffers() {
  free_.reserve(kBuffers);
}

SendBuffers::Buffer SendBuffers::acquire() {
  MutexLock lock(mutex_);
  returned_.wait(lock, [this]() ZKS_REQUIRES(mutex_) { return stopped_ || !free_.empty() || made_ < kBuffers; });
  if (stopped_)
    return nullptr;
  if (free_.empty()) {
    Buffer made(new char[kBufferBytes]);  // not zeroed: pages that stay unused are never touched
    ++made_;
    return made;
  }
  Buffer buffer = std::move(free_.back());
  free_.pop_back();
  return buffer;
}

grpc::Slice SendBuffers::lend(const std::shared_ptr<SendBuffers>& self, Buffer&& buffer, std::size_t nbytes) {
  auto loan = std::make_unique<Loan>();
  grpc::Slice slice(buffer.get(), nbytes, endLoan, loan.get());
  loan->owner = self;  // not before there is a slice that will end the loan
  loan->buffer = std::move(buffer);
  handedOver(loan.release());
  return slice;
}

void SendBuffers::giveBack(Buffer buffer) noexcept {
  const MutexLock lock(mutex_);
  free_.push_back(std::move(buffer));
  returned_.notifyOne();
}

void SendBuffers::stop() {
  const MutexLock lock(mutex_);
  stopped_ = true;
  returned_.notifyAll();
}

}  // namespace agent::spf::grpc_transport::internal
