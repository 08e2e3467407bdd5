// One gRPC stream of a server: waits for a client to open it, carries messages both ways, and ends. What the messages
// mean is its user's business.
#pragma once

#include <grpcpp/generic/async_generic_service.h>

#include <memory>
#include <string>

#include "platform/spf/grpc/internal/server/StreamUser.h"
#include "platform/spf/grpc/internal/wire/CompletionTag.h"
#include "platform/spf/grpc/internal/wire/FrameSender.h"
#include "platform/spf/grpc/internal/wire/OperationGate.h"
#include "platform/threads/Mutex.h"

namespace agent::spf::grpc_transport::internal {

class ServerCore;

// Threads: any, unless said otherwise. Ownership: lives as long as an operation of it is under way or somebody shares
// it, and tells the server when it ends.
class ServerStream : public std::enable_shared_from_this<ServerStream> {
 public:
  explicit ServerStream(ServerCore& server);
  ~ServerStream();
  ServerStream(const ServerStream&) = delete;
  ServerStream& operator=(const ServerStream&) = delete;

  // Waits for a client to open it.
  void accept();
  // The server takes no more calls. A stream that is opened later asks the server.
  void drain();

  // For its user.
  // Reads the next message, unless one is being read, the user wants none or the stream is ending.
  void readNext();
  FrameSender& sender() noexcept { return sender_; }
  // Ends the stream when everything that waits has been sent. What the client still sends is dropped. Again: no effect.
  void end(const grpc::Status& status);

 private:
  enum class State { awaited, open, ending };
  enum class Reading { paused, underWay, ended };

  void onAccepted(bool ok);
  void onRead(bool ok);
  void onWritten(bool ok);
  void onEnded(bool ok);
  void onOver(bool ok);

  void opened();
  std::unique_ptr<StreamUser> makeUser(const std::string& client);
  bool startReading();
  bool isOpen();
  bool write(const grpc::ByteBuffer& message);
  void dispose();

  ServerCore& server_;
  std::unique_ptr<grpc::GenericServerContext> context_;
  std::unique_ptr<grpc::GenericServerAsyncReaderWriter> stream_;
  grpc::ByteBuffer incoming_;  // belongs to the read under way
  OperationGate gate_;         // before each use of the three above
  FrameSender sender_;
  MemberTag<ServerStream> acceptTag_{&ServerStream::onAccepted};
  MemberTag<ServerStream> readTag_{&ServerStream::onRead};
  MemberTag<ServerStream> writeTag_{&ServerStream::onWritten};
  MemberTag<ServerStream> endTag_{&ServerStream::onEnded};
  MemberTag<ServerStream> overTag_{&ServerStream::onOver};
  std::unique_ptr<StreamUser> user_;  // set while the state is `awaited`, constant afterwards; null: none

  parallel::threads::Mutex mutex_;
  State state_ ZKS_GUARDED_BY(mutex_) = State::awaited;
  Reading reading_ ZKS_GUARDED_BY(mutex_) = Reading::paused;
};

}  // namespace agent::spf::grpc_transport::internal
