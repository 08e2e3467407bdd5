// One call inside this process: two pipes between its caller and its handler.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>

#include "platform/spf/core/CompletionHandler.h"
#include "platform/spf/core/Service.h"
#include "platform/spf/core/internal/CallRequest.h"
#include "platform/spf/core/internal/CancelNotice.h"
#include "platform/spf/core/internal/WorkerThreads.h"
#include "platform/spf/inprocess/internal/RendezvousPipe.h"

namespace agent::spf::inprocess::internal {

// Threads: upload() and serve() each on a thread of their own, cancel() on any; a deferred reply goes on on another one.
// Errors:  what goes wrong, a lack of memory included, ends the call with that error.
class EmbeddedCall : public std::enable_shared_from_this<EmbeddedCall> {
 public:
  EmbeddedCall(std::string method, core::CompletionHandler handler, core::internal::CallRequest request,
               std::shared_ptr<core::internal::WorkerThreads> workers);

  // From now on a stop request of the caller gives the call up.
  void obeyStopRequests();
  void upload() noexcept;
  void serve(const core::Service& service) noexcept;
  // Nobody waits any more: the handler is told, and both pipes break off.
  void cancel(const std::exception_ptr& reason) noexcept;
  // As above, and a caller that still waits for the reply gets the reason.
  void fail(const std::exception_ptr& reason) noexcept;

 private:
  class Outlet;
  class Inlet;

  void runHandler(const core::Service& service);
  void done(const std::exception_ptr& error) noexcept;
  void giveUp() noexcept;
  std::exception_ptr endedEarly() const noexcept;
  void stopUpload() noexcept;
  void beginReply();
  void failReply(const std::exception_ptr& error) noexcept;
  bool takeAnswer() noexcept { return !answered_.exchange(true); }

  const std::string method_;
  const core::CompletionHandler handler_;
  const core::internal::CallRequest request_;
  const std::shared_ptr<core::internal::WorkerThreads> workers_;  // a reply's reader may outlive the connection
  core::internal::CancelNotice notice_;
  RendezvousPipe requestPipe_;
  RendezvousPipe replyPipe_;
  std::atomic<bool> answered_{false};
  std::optional<std::stop_callback<std::function<void()>>> stopRequest_;
};

}  // namespace agent::spf::inprocess::internal
