#include "platform/spf/grpc/internal/standard/StandardStream.h"

#include <string>
#include <utility>
#include <vector>

#include "platform/spf/grpc/internal/server/ServerStream.h"

namespace agent::spf::grpc_transport::internal {

using parallel::threads::MutexLock;

namespace {

std::string bytesOf(const grpc::ByteBuffer& message) {
  std::vector<grpc::Slice> slices;
  static_cast<void>(message.Dump(&slices));
  std::string bytes;
  for (const grpc::Slice& slice : slices)
    bytes.append(slice.begin(), slice.end());
  return bytes;
}

}  // namespace

StandardStream::StandardStream(ServerStream& stream, std::unique_ptr<StandardCall> call)
    : stream_(stream), call_(std::move(call)) {}

// Not before the answer is out, or a client that never reads would fill the memory with answers.
bool StandardStream::wantsMessage() {
  return stream_.sender().isIdle();
}

void StandardStream::receive(const grpc::ByteBuffer& message) {
  answer([bytes = bytesOf(message)](StandardCall& call) { return call.receive(bytes); });
}

void StandardStream::halfClosed() {
  answer(&StandardCall::halfClosed);
}

void StandardStream::drain() {
  answer(&StandardCall::drain);
}

void StandardStream::answer(const std::function<StandardAnswer(StandardCall&)>& action) {
  const MutexLock lock(mutex_);
  const StandardAnswer answer = action(*call_);
  for (const std::string& message : answer.messages) {
    const grpc::Slice slice(message);
    stream_.sender().enqueue(grpc::ByteBuffer(&slice, 1));
  }
  if (answer.status)
    stream_.end(*answer.status);
}

}  // namespace agent::spf::grpc_transport::internal
