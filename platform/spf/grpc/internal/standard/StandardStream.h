// One stream of a server that carries a call of a standard service.
#pragma once

#include <functional>
#include <memory>

#include "platform/spf/grpc/internal/server/StreamUser.h"
#include "platform/spf/grpc/internal/standard/StandardCall.h"
#include "platform/threads/Mutex.h"

namespace agent::spf::grpc_transport::internal {

class ServerStream;

class StandardStream final : public StreamUser {
 public:
  // Ownership: borrows the stream that owns it.
  StandardStream(ServerStream& stream, std::unique_ptr<StandardCall> call);

  bool wantsMessage() override;
  void receive(const grpc::ByteBuffer& message) override;
  void halfClosed() override;
  void drain() override;
  void over() override {}

 private:
  void answer(const std::function<StandardAnswer(StandardCall&)>& action);

  ServerStream& stream_;
  parallel::threads::Mutex mutex_;  // also keeps the answers to a message and to a drain in order
  const std::unique_ptr<StandardCall> call_ ZKS_PT_GUARDED_BY(mutex_);
};

}  // namespace agent::spf::grpc_transport::internal
