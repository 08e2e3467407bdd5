#include "python/bridge/NativeSession.h"

#include <unistd.h>

#include <atomic>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
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

Connection connectTo(const std::optional<std::string>& address, std::chrono::milliseconds timeout) {
  if (address) {
    claimSockets();
    return Connection::connect(*address, timeout);
  }
  return {agent::spf::inprocess::connectInProcess(parallel::scheduler::makeSchedulerService()), "the embedded service"};
}

}  // namespace

NativeSession::NativeSession(const std::optional<std::string>& address, std::chrono::milliseconds timeout)
    : process_(::getpid()), connection_(std::make_unique<Connection>(connectTo(address, timeout))) {}

NativeSession::~NativeSession() {
  if (isForked())
    static_cast<void>(connection_.release());
}

bool NativeSession::isForked() const noexcept {
  return ::getpid() != process_;
}

bool NativeSession::isOpen() const {
  return !isForked() && connection_->isOpen();
}

void NativeSession::close() noexcept {
  if (!isForked())
    connection_->close();
}

SchedulerClient NativeSession::client() const {
  if (isForked())
    throw Exception<parallel::python::ForkedSession>(process_);
  return SchedulerClient(*connection_, nullptr, ErrorForm::Chain);
}

std::shared_ptr<OrderedReply> NativeSession::call(const std::string& method, const Items& items) const {
  return std::make_shared<OrderedReply>(client().call(method, items));
}

std::shared_ptr<OrderedReply> NativeSession::echo(const Items& items) const {
  return std::make_shared<OrderedReply>(client().echo(items));
}

TaskOutcome NativeSession::runTask(const parallel::zksmessages::TaskDescription& task, const Items& inputs) const {
  auto result = client().runTask(task, inputs);
  return {std::move(result.info), std::move(result.standardOutput), std::move(result.standardError),
          std::make_shared<OrderedReply>(std::move(result.outputs))};
}

}  // namespace zks::bridge
