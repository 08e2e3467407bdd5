// One stream of a server that carries calls of the service, one after another.
#pragma once

#include <grpcpp/support/status.h>

#include <memory>
#include <string>

#include "platform/spf/core/PeerIdentity.h"
#include "platform/spf/core/internal/CancelNotice.h"
#include "platform/spf/grpc/internal/server/ConversationState.h"
#include "platform/spf/grpc/internal/server/StreamUser.h"
#include "platform/spf/grpc/internal/wire/Frame.h"
#include "platform/spf/grpc/internal/wire/FrameInlet.h"
#include "platform/spf/grpc/internal/wire/FrameOutlet.h"
#include "platform/spf/grpc/internal/wire/SendBuffers.h"
#include "platform/spf/grpc/internal/wire/errorMessage.h"
#include "platform/threads/Mutex.h"

namespace agent::spf::grpc_transport::internal {

class ServerCore;
class ServerStream;

struct IncomingCall {
  v1::CallHead head;
  std::shared_ptr<FrameInlet> request;
  core::internal::CancelNotice notice;
  ErrorParts error;  // belongs to the thread that serves the queue
};

// Threads: handlers run on the server's threads, and share the stream, so that this is there until they have returned.
class Conversation final : public StreamUser {
 public:
  // Ownership: borrows the stream that owns it. `peer`, `identity`: who calls, for handlers and logs.
  Conversation(ServerStream& stream, ServerCore& server, std::string peer, core::PeerIdentity identity);
  ~Conversation() override;

  bool wantsMessage() override;
  void receive(const grpc::ByteBuffer& message) override;
  void halfClosed() override;
  void drain() override;
  void over() override;

 private:
  using CallPointer = std::shared_ptr<IncomingCall>;

  void receiveFrame(Frame frame);
  void beginCall(const v1::CallHead& head);
  void receiveRequest(const CallPointer& call, Frame& frame);
  void startHandler(const CallPointer& call, bool hasWholeRequest);
  std::exception_ptr refusalOf(const v1::CallHead& head) const;
  void refuse(const CallPointer& call, const std::exception_ptr& refusal);
  void serve(const CallPointer& call) noexcept;
  FrameOutlet::Options outletOptions(const IncomingCall& call);
  std::exception_ptr runHandler(const CallPointer& call) noexcept;
  void finish(IncomingCall& call);
  void replyWithError(const IncomingCall& call, FrameOutlet& outlet, const std::exception_ptr& error);
  void replyWithErrorOrLess(const IncomingCall& call, FrameOutlet& outlet, const std::exception_ptr& error);
  template <class Event>
  void advance(Event event);
  void endIfDone();
  void cancelCall(const std::exception_ptr& reason);
  void breakOff(const grpc::Status& status, const std::exception_ptr& reason);
  CallPointer current();

  ServerStream& stream_;
  ServerCore& server_;
  const std::string peer_;
  const core::PeerIdentity identity_;
  const std::shared_ptr<SendBuffers> buffers_ = std::make_shared<SendBuffers>();

  parallel::threads::Mutex mutex_;
  ConversationState state_ ZKS_GUARDED_BY(mutex_);
  CallPointer call_ ZKS_GUARDED_BY(mutex_);         // null between calls
  grpc::Status lastStatus_ ZKS_GUARDED_BY(mutex_);  // how the last call that has ended went
};

}  // namespace agent::spf::grpc_transport::internal
