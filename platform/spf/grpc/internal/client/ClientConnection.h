// One connection of a client: its channel, its completion queue and its open streams.
#pragma once

#include <grpcpp/channel.h>
#include <grpcpp/generic/generic_stub.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "platform/spf/core/internal/WorkerThreads.h"
#include "platform/spf/grpc/connect.h"
#include "platform/spf/grpc/internal/client/ClientQueue.h"
#include "platform/spf/grpc/internal/client/ClientStream.h"
#include "platform/spf/grpc/internal/client/LifeCheck.h"
#include "platform/spf/grpc/internal/client/UnixSocket.h"
#include "platform/threads/Mutex.h"

namespace agent::spf::grpc_transport::internal {

// Threads: any. Ownership: shared by its handle, its streams and its threads, so that it may be closed from any of
// them.
class ClientConnection : public std::enable_shared_from_this<ClientConnection> {
 public:
  // `socket`: what the channel runs over, where that is a socket file; null otherwise.
  ClientConnection(std::shared_ptr<grpc::Channel> channel, std::string address, const ConnectOptions& options,
                   std::unique_ptr<UnixSocket> socket = nullptr);

  // Starts the queue's thread and watches the connection.
  void start();
  // Cancels the calls under way, and fails those that come later.
  void close();
  // As close(), and waits for the connection's threads, except on one of them. Nothing may be invoked any more.
  void closeAndWait();
  void invoke(const std::shared_ptr<ClientCall>& call) { invoke(call, ClientStream::Purpose::calls); }

  // Makes a call that any living service answers, be it with an error. On a stream of its own: there is one however many
  // calls wait on the others.
  void askForLife(core::CompletionHandler handler);
  // Something has come from the service. Of connections over a socket file.
  bool hasSeenLife() const noexcept { return lifeCheck_->hasSeenLife(); }

  const std::string& address() const noexcept { return address_; }
  const ConnectOptions& options() const noexcept { return options_; }
  grpc::CompletionQueue& queue() noexcept { return queue_.queue(); }
  grpc::GenericStub& stub() noexcept { return stub_; }

  // For its streams.
  void sawLife() noexcept {
    if (lifeCheck_ != nullptr)
      lifeCheck_->sawLife();
  }
  // The stream is free for another call.
  void release(const std::shared_ptr<ClientStream>& stream);
  // The stream takes no further call.
  void retire(const ClientStream& stream);
  // The connection is dead, for this reason.
  void lose(const std::exception_ptr& reason);
  // The last operation of a stream has ended.
  void streamGone();
  // Whether this is the thread of a caller that waits for another call than that one. Its handler must not run here.
  bool isTurnOfOther(const ClientCall& call) const noexcept {
    return !call.handler.caller().waits && queue_.isCallersTurn();
  }
  // Runs the task on a thread that may block; here when no other can be had.
  void runElsewhere(const std::function<void()>& task);
  // The service has been silent for too long.
  std::exception_ptr silence(const std::string& during) const;

 private:
  void invoke(const std::shared_ptr<ClientCall>& call, ClientStream::Purpose purpose);
  std::shared_ptr<ClientStream> takeKept(ClientStream::Purpose purpose) ZKS_REQUIRES(mutex_);
  std::vector<std::shared_ptr<ClientStream>> takeAllKept() ZKS_REQUIRES(mutex_);
  // Runs the task on a thread that may block; FrameworkError when no thread can be had.
  void runBlocking(std::function<void()> task);
  bool isBusy();
  void uploadHere(ClientStream& stream, const std::shared_ptr<ClientCall>& call);
  void uploadOnWorker(const std::shared_ptr<ClientStream>& stream, const std::shared_ptr<ClientCall>& call);
  std::shared_ptr<ClientStream> freeStream(ClientStream::Purpose purpose);
  std::shared_ptr<ClientStream> newStream(ClientStream::Purpose purpose);
  void startLifeCheck();
  void cutOff() noexcept;
  void breakOffStreams(const std::exception_ptr& reason);
  std::exception_ptr deadReason();
  bool onOwnThread() const;

  const std::shared_ptr<grpc::Channel> channel_;
  const std::string address_;
  const std::unique_ptr<UnixSocket> socket_;
  ConnectOptions options_;  // without its callbacks
  ClientQueue queue_{[this] { return isBusy(); }};
  grpc::GenericStub stub_;
  core::internal::WorkerThreads workers_;
  std::thread queueThread_;
  std::shared_ptr<LifeCheck> lifeCheck_;  // null where gRPC does it; set before the first stream

  parallel::threads::Mutex mutex_;
  std::function<void()> onDisconnect_ ZKS_GUARDED_BY(mutex_);
  // The one used last comes last, and is used first.
  std::vector<std::shared_ptr<ClientStream>> free_ ZKS_GUARDED_BY(mutex_);
  std::shared_ptr<ClientStream> freeForLifeCheck_ ZKS_GUARDED_BY(mutex_);  // null while it asks
  std::vector<std::weak_ptr<ClientStream>> open_ ZKS_GUARDED_BY(mutex_);
  std::size_t openCount_ ZKS_GUARDED_BY(mutex_) = 0;
  std::exception_ptr dead_ ZKS_GUARDED_BY(mutex_);  // why the connection is lost or closed; null while it is not
  bool closed_ ZKS_GUARDED_BY(mutex_) = false;
};

}  // namespace agent::spf::grpc_transport::internal
