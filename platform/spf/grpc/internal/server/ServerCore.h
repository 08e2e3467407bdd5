// What the streams of one server share: the listening server, its completion queue and its threads.
#pragma once

#include <grpcpp/completion_queue.h>
#include <grpcpp/generic/async_generic_service.h>
#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/spf/core/Service.h"
#include "platform/spf/core/internal/WorkerThreads.h"
#include "platform/spf/grpc/Server.h"
#include "platform/spf/grpc/internal/server/Acceptor.h"
#include "platform/spf/grpc/internal/server/ListeningSockets.h"
#include "platform/spf/grpc/internal/server/QuickMethods.h"
#include "platform/spf/grpc/internal/server/ServerQueue.h"
#include "platform/spf/grpc/internal/server/ServerStream.h"
#include "platform/threads/Mutex.h"

namespace agent::spf::grpc_transport::internal {

class ServerCore {
 public:
  // Listens at once. FrameworkError names the address when that fails.
  ServerCore(std::shared_ptr<const core::Service> service, const ServerOptions& options);
  // Drains: takes no more calls of the service, and lets those under way end within the grace time. Meanwhile health
  // checks are answered with NOT_SERVING. Then cancels what is left and waits for the handlers.
  ~ServerCore();
  ServerCore(const ServerCore&) = delete;
  ServerCore& operator=(const ServerCore&) = delete;

  const std::string& address() const noexcept { return listening_->address(); }
  const ServerOptions& options() const noexcept { return options_; }

  std::optional<std::string> endHeaviestConnection() { return acceptor_->endHeaviest(); }

  // For its streams.
  const core::Service& service() const noexcept { return *service_; }
  grpc::AsyncGenericService& generic() noexcept { return generic_; }
  grpc::ServerCompletionQueue* queue() noexcept { return queue_->queue(); }
  void acceptNext();
  // A client has opened a stream; `client` is its peerText().
  void introduced(const std::string& client) { acceptor_->introduced(client); }
  // As ConnectionTable::onlyUser.
  std::optional<uid_t> socketUser() { return acceptor_->socketUser(); }
  bool isDraining();
  // A stream has been opened for calls of the service, and has ended again.
  void conversationBegun();
  void conversationOver();
  // The last operation of a stream has ended.
  void streamGone();
  // Runs a handler on one of the service's threads, as soon as one is free.
  void runInLine(std::function<void()> handler) { handlers_->runInLine(std::move(handler)); }
  // Runs a quick handler on the thread that serves the queue, soon. Once per completion, and only from there. False when
  // that cannot be.
  bool runSoon(const std::function<void()>& handler) { return queue_->runSoon(handler); }
  // Runs what tells a handler that its call is cancelled. On a thread of its own: all others may wait for that.
  void runNotice(std::function<void()> notice) { notices_->runInLine(std::move(notice)); }
  QuickMethods& quickMethods() noexcept { return quickMethods_; }

 private:
  void listen();
  void start();
  std::string tryToStart();
  void makeAcceptor();
  void drain(std::chrono::milliseconds grace);

  const std::shared_ptr<const core::Service> service_;
  const ServerOptions options_;
  std::unique_ptr<ListeningSockets> listening_;
  grpc::AsyncGenericService generic_;
  std::unique_ptr<core::internal::WorkerThreads> handlers_;
  std::unique_ptr<core::internal::WorkerThreads> notices_;
  std::unique_ptr<ServerQueue> queue_;
  QuickMethods quickMethods_;
  std::unique_ptr<grpc::experimental::ExternalConnectionAcceptor> connections_;
  std::unique_ptr<grpc::Server> server_;
  std::unique_ptr<Acceptor> acceptor_;

  parallel::threads::Mutex mutex_;
  parallel::threads::ConditionVariable changed_;
  std::vector<std::weak_ptr<ServerStream>> streams_ ZKS_GUARDED_BY(mutex_);
  std::size_t streamCount_ ZKS_GUARDED_BY(mutex_) = 0;
  std::size_t conversationCount_ ZKS_GUARDED_BY(mutex_) = 0;
  // serving: takes calls. draining: takes no more of the service's. closed: accepts no stream.
  enum class State { serving, draining, closed };
  State state_ ZKS_GUARDED_BY(mutex_) = State::serving;
};

}  // namespace agent::spf::grpc_transport::internal
