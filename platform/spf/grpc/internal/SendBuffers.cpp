#include "platform/spf/grpc/internal/SendBuffers.h"

#include <utility>

#include "platform/spf/grpc/internal/tsanOrder.h"

namespace agent::spf::grpc_transport::internal {

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

SendBuffers::Buffer SendBuffers::acquire() {
  std::unique_lock lock(mutex_);
  returned_.wait(lock, [this] { return stopped_ || !free_.empty() || made_ < kBuffers; });
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
  const std::lock_guard lock(mutex_);
  free_.push_back(std::move(buffer));
  returned_.notify_one();
}

void SendBuffers::stop() {
  const std::lock_guard lock(mutex_);
  stopped_ = true;
  returned_.notify_all();
}

}  // namespace agent::spf::grpc_transport::internal
