#include "python/bridge/NativeSession.h"

#include <unistd.h>

#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/interrupt/utInterruptState.h"
#include "platform/spf/grpc/routeGrpcLog.h"
#include "platform/spf/inprocess/connectInProcess.h"
#include "scheduler/SchedulerService.h"

namespace zks::bridge {

using parallel::toolbox::Connection;
using parallel::toolbox::ErrorForm;
using parallel::toolbox::SchedulerClient;

namespace {

// The first process that has connected over sockets; 0: none yet. Threads that the transport started then are missing
// in processes forked later, which would wait for them for ever.
std::atomic<pid_t> socketsProcess{0};

void claimSockets() {
  pid_t earlier = 0;
  const pid_t self = ::getpid();
  if (!socketsProcess.compare_exchange_strong(earlier, self) && earlier != self)
    throw Exception<parallel::python::ForkedTransport>(earlier);
}

Connection connectTo(const std::optional<std::string>& address, const parallel::toolbox::ConnectionOptions& options) {
  if (address) {
    claimSockets();
    agent::spf::grpc_transport::routeGrpcLog();  // this module's own gRPC; other packages bring theirs
    return Connection::connect(*address, options);
  }
  return {agent::spf::inprocess::connectInProcess(parallel::scheduler::makeSchedulerService()), "the embedded service"};
}

}  // namespace

NativeSession::NativeSession(const std::optional<std::string>& address,
                             const parallel::toolbox::ConnectionOptions& options)
    : process_(::getpid()), connection_(std::make_unique<Connection>(connectTo(address, options))) {
  ++counters().sessions;
}

NativeSession::~NativeSession() {
  if (isForked())
    static_cast<void>(connection_.release());
  else
    close();
}

bool NativeSession::isForked() const noexcept {
  return ::getpid() != process_;
}

bool NativeSession::isOpen() const {
  return !isForked() && connection_->isOpen();
}

void NativeSession::close() noexcept {
  if (isForked())
    return;
  if (closing_->cancel())
    --counters().sessions;
  abandonReplies();
  connection_->close();
}

SchedulerClient NativeSession::client() const {
  if (isForked())
    throw Exception<parallel::python::ForkedSession>(process_);
  if (closing_->isCancelled())
    throwClosed();
  return SchedulerClient(*connection_, nullptr, ErrorForm::Chain);
}

void NativeSession::throwClosed() const {
  throw Exception<parallel::python::SessionClosed>(name());
}

// A call that the closing of the session ends says so, whichever way it ends.
template <class Operation>
auto NativeSession::unlessClosed(Operation operation) const {
  try {
    return operation(client());
  } catch (const Corvane::System::InterruptException&) {
    if (!closing_->isCancelled() || !wasCancelled())
      throw;
  } catch (...) {
    if (!closing_->isCancelled() || isForked())
      throw;
  }
  throwClosed();
}

std::shared_ptr<OrderedReply> NativeSession::opened(parallel::toolbox::Reply reply) const {
  auto ordered = std::make_shared<OrderedReply>(std::move(reply), name());
  {
    const parallel::threads::MutexLock lock(mutex_);
    std::erase_if(replies_, [](const auto& weak) { return weak.expired(); });
    replies_.push_back(ordered);
  }
  if (closing_->isCancelled())  // it was closed meanwhile
    ordered->abandon();
  return ordered;
}

void NativeSession::abandonReplies() noexcept {
  std::vector<std::weak_ptr<OrderedReply>> replies;
  {
    const parallel::threads::MutexLock lock(mutex_);
    replies.swap(replies_);
  }
  for (const auto& weak : replies)
    if (const auto reply = weak.lock())
      reply->abandon();
}

std::shared_ptr<OrderedReply> NativeSession::call(const std::string& method, const Items& items) const {
  return unlessClosed([&](const SchedulerClient& client) { return opened(client.call(method, items)); });
}

std::shared_ptr<OrderedReply> NativeSession::echo(const Items& items) const {
  return unlessClosed([&](const SchedulerClient& client) { return opened(client.echo(items)); });
}

TaskOutcome NativeSession::runTask(const parallel::zksmessages::TaskDescription& task, const Items& inputs) const {
  return unlessClosed([&](const SchedulerClient& client) {
    auto result = client.runTask(task, inputs);
    return TaskOutcome{std::move(result.info), std::move(result.standardOutput), std::move(result.standardError),
                       opened(std::move(result.outputs))};
  });
}

}  // namespace zks::bridge
