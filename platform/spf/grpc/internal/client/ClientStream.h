// One open stream of a client: carries one call at a time, and the next when that has ended well.
#pragma once

#include <grpcpp/client_context.h>
#include <grpcpp/generic/generic_stub.h>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>

#include "platform/spf/core/CompletionHandler.h"
#include "platform/spf/core/Invokable.h"
#include "platform/spf/core/internal/CallRequest.h"
#include "platform/spf/grpc/internal/client/ClientStreamState.h"
#include "platform/spf/grpc/internal/wire/CompletionTag.h"
#include "platform/spf/grpc/internal/wire/Frame.h"
#include "platform/spf/grpc/internal/wire/FrameInlet.h"
#include "platform/spf/grpc/internal/wire/FrameSender.h"
#include "platform/spf/grpc/internal/wire/OperationGate.h"
#include "platform/spf/grpc/internal/wire/SendBuffers.h"
#include "platform/spf/grpc/internal/wire/errorMessage.h"
#include "platform/threads/Mutex.h"

namespace agent::spf::grpc_transport::internal {

class ClientConnection;

struct ClientCall {
  ClientCall(core::CallTag callTag, std::string callMethod, core::CompletionHandler callHandler,
             core::internal::CallRequest callRequest)
      : tag(callTag), method(std::move(callMethod)), handler(std::move(callHandler)), request(std::move(callRequest)) {}

  // True once: whoever gets that tells the handler the outcome.
  bool takeAnswer() noexcept { return !answered_.exchange(true); }
  bool isAnswered() const noexcept { return answered_; }

  const core::CallTag tag;
  const std::string method;
  const core::CompletionHandler handler;
  const core::internal::CallRequest request;

  // Set by the stream that carries the call.
  std::shared_ptr<FrameInlet> reply;
  ErrorParts error;  // belongs to the thread that serves the queue
  std::optional<std::stop_callback<std::function<void()>>> stopRequest;

 private:
  std::atomic<bool> answered_{false};
};

// Threads: take(), upload(), breakOff() and what the reply's reader causes on any thread, the rest on the one that
// serves the queue. Ownership: lives as long as an operation of it is under way or somebody shares it, and tells its
// connection when it ends.
class ClientStream : public std::enable_shared_from_this<ClientStream> {
 public:
  // watch: carries no call, and shows when the connection ends. lifeCheck: asks whether the service lives.
  enum class Purpose { calls, watch, lifeCheck };

  ClientStream(std::shared_ptr<ClientConnection> connection, Purpose purpose);
  ~ClientStream();
  ClientStream(const ClientStream&) = delete;
  ClientStream& operator=(const ClientStream&) = delete;

  Purpose purpose() const noexcept { return purpose_; }
  // Makes the stream ready. On one for calls nothing is sent before the first.
  void open();
  // Makes the call this free stream's own. upload() is due next. False, and nothing done, when it is broken off.
  bool take(const std::shared_ptr<ClientCall>& call);
  // Sends the request. Blocks as long as that takes. Its failures go to the call.
  void upload(const std::shared_ptr<ClientCall>& call);
  // Cancels the stream at the service; the call on it, if any, fails with the error, unless that is null.
  void breakOff(const std::exception_ptr& error);

 private:
  enum class Reading { never, paused, underWay, ended };

  void dispose();
  bool write(const grpc::ByteBuffer& message);
  void readNext();
  MemberTag<ClientStream>* startReading();
  void takeMessage();
  void receive(Frame frame);
  void receiveReply(const std::shared_ptr<ClientCall>& call, Frame& frame);
  void checkOrder(const Frame& frame);
  void endRequest();
  void endReply();
  void obey(ClientStreamState::Due due);
  void answer(const std::shared_ptr<ClientCall>& call, const Frame& frame);
  void handOverReply(const std::shared_ptr<ClientCall>& call);
  std::shared_ptr<core::internal::ByteInlet> replyWithinLimit(const ClientCall& call) const;
  std::shared_ptr<ClientCall> current();
  void succeed(const std::shared_ptr<ClientCall>& call, core::GenericPayload payload);
  void fail(const std::shared_ptr<ClientCall>& call, const std::exception_ptr& error);
  void tellHandler(const ClientCall& call, const std::function<void()>& outcome);
  void giveUp(const std::shared_ptr<ClientCall>& call);
  void giveUpForCaller(const std::shared_ptr<ClientCall>& call);
  std::exception_ptr errorOf(const grpc::Status& status, const std::string& during) const;

  void onStarted(bool ok);
  void onFirstRead(bool ok);
  void onRead(bool ok);
  void onWritten(bool ok);
  void onStatus(bool ok);

  const std::shared_ptr<ClientConnection> connection_;
  const Purpose purpose_;
  std::unique_ptr<grpc::ClientContext> context_;
  std::unique_ptr<grpc::GenericClientAsyncReaderWriter> stream_;
  grpc::ByteBuffer incoming_;  // belongs to the read under way
  grpc::Status status_;        // belongs to the wait for the end
  OperationGate gate_;         // before each use of the four above
  FrameSender sender_;
  const std::shared_ptr<SendBuffers> buffers_ = std::make_shared<SendBuffers>();
  MemberTag<ClientStream> startTag_{&ClientStream::onStarted};
  MemberTag<ClientStream> firstReadTag_{&ClientStream::onFirstRead};
  MemberTag<ClientStream> readTag_{&ClientStream::onRead};
  MemberTag<ClientStream> writeTag_{&ClientStream::onWritten};
  MemberTag<ClientStream> statusTag_{&ClientStream::onStatus};

  parallel::threads::Mutex mutex_;
  ClientStreamState state_ ZKS_GUARDED_BY(mutex_);
  std::shared_ptr<ClientCall> call_ ZKS_GUARDED_BY(mutex_);  // null while the stream carries none
  Reading reading_ ZKS_GUARDED_BY(mutex_) = Reading::never;
};

}  // namespace agent::spf::grpc_transport::internal
