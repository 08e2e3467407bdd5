// One open stream of a server: serves one call after another.
#pragma once

#include <grpcpp/generic/async_generic_service.h>

#include <memory>
#include <mutex>
#include <string>

#include "platform/spf/core/internal/CancelNotice.h"
#include "platform/spf/grpc/internal/CompletionTag.h"
#include "platform/spf/grpc/internal/Frame.h"
#include "platform/spf/grpc/internal/FrameInlet.h"
#include "platform/spf/grpc/internal/FrameOutlet.h"
#include "platform/spf/grpc/internal/FrameSender.h"
#include "platform/spf/grpc/internal/OperationGate.h"
#include "platform/spf/grpc/internal/SendBuffers.h"
#include "platform/spf/grpc/internal/StandardCall.h"
#include "platform/spf/grpc/internal/errorMessage.h"

namespace agent::spf::grpc_transport::internal {

class ServerCore;

struct IncomingCall {
  v1::CallHead head;
  std::shared_ptr<FrameInlet> request;
  core::internal::CancelNotice notice;
  ErrorParts error;

  // Guarded by the stream's mutex.
  bool requestEnded = false;
  bool replyEnded = false;
};

// Threads: handlers run on the server's threads, the rest on the one that serves the queue. A stream lives as long as
// an operation or a handler of it is under way, and tells the server when it ends.
class ServerStream : public std::enable_shared_from_this<ServerStream> {
 public:
  explicit ServerStream(ServerCore& server);
  ~ServerStream();
  ServerStream(const ServerStream&) = delete;
  ServerStream& operator=(const ServerStream&) = delete;

  // Waits for a client to open it.
  void accept();
  // The server takes no more calls: ends the stream when there is none on it. One that is opened later asks the server.
  void drain();

 private:
  using CallPointer = std::shared_ptr<IncomingCall>;

  void onAccepted(bool ok);
  void onRead(bool ok);
  void onWritten(bool ok);
  void onFinished(bool ok);
  void onDone(bool ok);

  void dispose();
  bool write(const grpc::ByteBuffer& message);
  void opened();
  bool openStandard();
  bool isStandard();
  void answer(const std::function<StandardAnswer(StandardCall&)>& action);
  void takeStandardMessage(const grpc::ByteBuffer& message);
  void readNext();
  void takeMessage();
  void endOfStream();
  void receive(Frame frame);
  void beginCall(const v1::CallHead& head);
  void receiveRequest(Frame& frame);
  void endRequest(IncomingCall& call);
  void serve(const CallPointer& call) noexcept;
  void reply(IncomingCall& call, FrameOutlet& outlet);
  void replyError(const IncomingCall& call, FrameOutlet& outlet, const std::exception_ptr& error);
  void markReplyEnded(IncomingCall& call);
  void finishIfUnused();
  void cancelCall(const std::exception_ptr& reason);
  void finish(const grpc::Status& status);
  CallPointer current();

  ServerCore& server_;
  bool conversing_ = false;  // carries calls of the service, and is counted; belongs to the queue's thread
  std::unique_ptr<grpc::GenericServerContext> context_;
  std::unique_ptr<grpc::GenericServerAsyncReaderWriter> stream_;
  grpc::ByteBuffer incoming_;  // belongs to the read under way
  OperationGate gate_;         // before each use of the two objects above
  FrameSender sender_;
  std::shared_ptr<SendBuffers> buffers_;
  MemberTag<ServerStream> acceptTag_{&ServerStream::onAccepted};
  MemberTag<ServerStream> readTag_{&ServerStream::onRead};
  MemberTag<ServerStream> writeTag_{&ServerStream::onWritten};
  MemberTag<ServerStream> finishTag_{&ServerStream::onFinished};
  MemberTag<ServerStream> doneTag_{&ServerStream::onDone};

  std::mutex mutex_;
  CallPointer call_;  // guarded by mutex_, as all below
  grpc::Status lastStatus_;
  bool accepted_ = false;
  bool isStandard_ = false;
  bool reading_ = false;
  bool halfClosed_ = false;
  bool draining_ = false;
  bool finished_ = false;
  int serving_ = 0;  // handlers whose reply may not have been handed to the sender to its end

  std::mutex standardMutex_;                // taken before mutex_
  std::unique_ptr<StandardCall> standard_;  // guarded by standardMutex_; null for calls of the service
};

}  // namespace agent::spf::grpc_transport::internal
