// One open stream of a client: carries one call at a time, and the next when that has ended well.
#pragma once

#include <grpcpp/client_context.h>
#include <grpcpp/generic/generic_stub.h>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>

#include "platform/spf/core/CompletionHandler.h"
#include "platform/spf/core/Invokable.h"
#include "platform/spf/core/internal/CallRequest.h"
#include "platform/spf/grpc/internal/CompletionTag.h"
#include "platform/spf/grpc/internal/Frame.h"
#include "platform/spf/grpc/internal/FrameInlet.h"
#include "platform/spf/grpc/internal/FrameSender.h"
#include "platform/spf/grpc/internal/OperationGate.h"
#include "platform/spf/grpc/internal/SendBuffers.h"
#include "platform/spf/grpc/internal/errorMessage.h"

namespace agent::spf::grpc_transport::internal {

class ClientConnection;

struct ClientCall {
  ClientCall(core::CallTag callTag, std::string callMethod, core::CompletionHandler callHandler,
             core::internal::CallRequest callRequest)
      : tag(callTag), method(std::move(callMethod)), handler(std::move(callHandler)), request(std::move(callRequest)) {}

  const core::CallTag tag;
  const std::string method;
  const core::CompletionHandler handler;
  const core::internal::CallRequest request;

  // Set by the stream that carries the call.
  std::shared_ptr<FrameInlet> reply;
  ErrorParts error;
  std::optional<std::stop_callback<std::function<void()>>> givenUp;

  // How far it has got; guarded by the stream's mutex.
  enum class Upload { underWay, ending, ended };
  Upload upload = Upload::underWay;
  bool replyBegun = false;
  bool replyEnded = false;
  bool answered = false;  // the handler has been called
};

// Threads: take(), upload() and what the reply's reader causes on any thread, the rest on the one that serves the
// queue. A stream lives
// as long as an operation of it is under way, and tells its connection when it ends.
class ClientStream : public std::enable_shared_from_this<ClientStream> {
 public:
  explicit ClientStream(std::shared_ptr<ClientConnection> connection);
  ~ClientStream();
  ClientStream(const ClientStream&) = delete;
  ClientStream& operator=(const ClientStream&) = delete;

  // Makes the stream ready for calls; nothing is sent before the first one.
  void open();
  // Opens it for nothing but to see the connection end.
  void openAsWatch();
  // Makes the call this free stream's own. upload() is due next. False, and nothing done, when the stream has ended.
  bool take(const std::shared_ptr<ClientCall>& call);
  // Sends the request. Blocks as long as that takes. Its failures go to the call.
  void upload(const std::shared_ptr<ClientCall>& call);
  // Ends the stream; the call on it, if any, fails with the error, unless that is null.
  void abort(const std::exception_ptr& error);
  bool isWatch() const noexcept { return watch_; }
  // The call's handler has its outcome, or is about to get it.
  bool isAnswered(const ClientCall& call);

 private:
  void prepare();
  void dispose();
  bool write(const grpc::ByteBuffer& message);
  void readNext();
  void takeMessage();
  void receive(Frame frame);
  void receiveReply(const std::shared_ptr<ClientCall>& call, Frame& frame);
  void endReply(const std::shared_ptr<ClientCall>& call);
  void answer(const std::shared_ptr<ClientCall>& call, const Frame& frame);
  std::shared_ptr<core::internal::ByteInlet> replyWithinLimit(const ClientCall& call) const;
  std::shared_ptr<ClientCall> current();
  void succeed(const std::shared_ptr<ClientCall>& call, core::GenericPayload payload);
  void fail(const std::shared_ptr<ClientCall>& call, const std::exception_ptr& error);
  void failCall(const std::shared_ptr<ClientCall>& call, const std::exception_ptr& error);
  void abandon(const std::shared_ptr<ClientCall>& call);
  void giveUp(const std::shared_ptr<ClientCall>& call);
  void setUpload(ClientCall& call, ClientCall::Upload state);
  void finishUpload(const std::shared_ptr<ClientCall>& call);
  bool takeAnswer(ClientCall& call);
  void askStatus();
  std::exception_ptr errorOf(const grpc::Status& status, const std::string& during) const;

  void onStarted(bool ok);
  void onRead(bool ok);
  void onWritten(bool ok);
  void onStatus(bool ok);

  const std::shared_ptr<ClientConnection> connection_;
  std::unique_ptr<grpc::ClientContext> context_;
  std::unique_ptr<grpc::GenericClientAsyncReaderWriter> stream_;
  bool watch_ = false;
  grpc::ByteBuffer incoming_;  // belongs to the read under way
  grpc::Status status_;        // belongs to the wait for the end
  OperationGate gate_;         // before each use of the two objects above
  FrameSender sender_;
  std::shared_ptr<SendBuffers> buffers_;
  MemberTag<ClientStream> startTag_{&ClientStream::onStarted};
  MemberTag<ClientStream> readTag_{&ClientStream::onRead};
  MemberTag<ClientStream> writeTag_{&ClientStream::onWritten};
  MemberTag<ClientStream> statusTag_{&ClientStream::onStatus};

  std::mutex mutex_;
  std::shared_ptr<ClientCall> call_;  // guarded by mutex_, as all below
  bool reading_ = false;
  bool aborted_ = false;
  bool statusAsked_ = false;
};

}  // namespace agent::spf::grpc_transport::internal
