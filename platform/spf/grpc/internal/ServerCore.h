// What the streams of one server share: the listening server, its completion queue and its threads.
#pragma once

#include <grpcpp/completion_queue.h>
#include <grpcpp/generic/async_generic_service.h>
#include <grpcpp/server.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/spf/core/Service.h"
#include "platform/spf/core/internal/WorkerThreads.h"
#include "platform/spf/grpc/Server.h"
#include "platform/spf/grpc/internal/QuickMethods.h"
#include "platform/spf/grpc/internal/ServerQueue.h"
#include "platform/spf/grpc/internal/ServerStream.h"

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

  const std::string& address() const noexcept { return address_; }
  const ServerOptions& options() const noexcept { return options_; }

  // For its streams.
  const core::Service& service() const noexcept { return *service_; }
  grpc::AsyncGenericService& generic() noexcept { return generic_; }
  grpc::ServerCompletionQueue* queue() noexcept { return queue_->queue(); }
  void acceptNext();
  bool isDraining();
  // A stream has been opened for calls of the service.
  void conversing();
  // A stream has ended, and whether it was such a one.
  void gone(bool wasConversing);
  // Runs the task on a thread that may block; on this one if there is no other to be had.
  void runBlocking(const std::function<void()>& task);
  // Runs a handler on the thread that serves the queue, soon. Once per completion, and only from there.
  void runHere(std::function<void()> handler, bool isQuick) { queue_->runNext(std::move(handler), isQuick); }
  QuickMethods& quickMethods() noexcept { return quickMethods_; }

 private:
  void listen();
  void drain(std::chrono::milliseconds grace);

  const std::shared_ptr<const core::Service> service_;
  const ServerOptions options_;
  std::string address_;
  grpc::AsyncGenericService generic_;
  std::unique_ptr<ServerQueue> queue_;
  QuickMethods quickMethods_;
  std::unique_ptr<grpc::Server> server_;
  core::internal::WorkerThreads workers_;

  std::mutex mutex_;
  std::condition_variable someGone_;
  std::vector<std::weak_ptr<ServerStream>> streams_;  // guarded by mutex_, as all below
  std::size_t streamCount_ = 0;
  std::size_t conversingCount_ = 0;
  bool draining_ = false;
  bool closed_ = false;
};

}  // namespace agent::spf::grpc_transport::internal
