// A connection to a service as the bridge holds it.
//
// Ownership: a session belongs to the process that opened it. In a process forked from that one every operation throws
//            `ForkedSession`, and the destructor lets the connection be: its threads are not there.
// Threads:   any, several calls at once; closing ends those under way. Without the interpreter's lock.
// Errors:    `SessionClosed` for what is under way when it is closed, and for what comes later; as
//            toolbox::SchedulerClient, causes nested.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/threads/Mutex.h"
#include "platform/zksmessages/zksmessages.pb.h"
#include "python/bridge/OrderedReply.h"
#include "python/bridge/blockingCall.h"
#include "python/bridge/counters.h"
#include "toolbox/Connection.h"
#include "toolbox/Item.h"
#include "toolbox/SchedulerClient.h"

namespace zks::bridge {

using Items = std::vector<parallel::toolbox::Item>;

struct TaskOutcome {
  parallel::zksmessages::TesselTaskExecutionInfo info;
  tova::factory::qxArrayProxy standardOutput;
  tova::factory::qxArrayProxy standardError;
  std::shared_ptr<OrderedReply> outputs;
};

class NativeSession {
 public:
  // Nothing: an embedded service. `ForkedTransport` for an address, where a forked process cannot have sockets any
  // more.
  NativeSession(const std::optional<std::string>& address, const parallel::toolbox::ConnectionOptions& options);
  ~NativeSession();
  NativeSession(const NativeSession&) = delete;
  NativeSession& operator=(const NativeSession&) = delete;

  const std::string& name() const noexcept { return connection_->name(); }
  bool isOpen() const;
  void close() noexcept;
  // What stops the calls under way when the session is closed: to be given to the BlockingCall around each.
  std::shared_ptr<const CallControl> closing() const noexcept { return closing_; }

  std::shared_ptr<OrderedReply> call(const std::string& method, const Items& items) const;
  std::shared_ptr<OrderedReply> echo(const Items& items) const;
  TaskOutcome runTask(const parallel::zksmessages::TaskDescription& task, const Items& inputs) const;

 private:
  parallel::toolbox::SchedulerClient client() const;
  template <class Operation>
  auto unlessClosed(Operation operation) const;
  [[noreturn]] void throwClosed() const;
  bool isForked() const noexcept;
  std::shared_ptr<OrderedReply> opened(parallel::toolbox::Reply reply) const;
  void abandonReplies() noexcept;

  const pid_t process_;
  std::unique_ptr<parallel::toolbox::Connection> connection_;
  mutable parallel::threads::Mutex mutex_;
  mutable std::vector<std::weak_ptr<OrderedReply>> replies_ ZKS_GUARDED_BY(mutex_);
  const std::shared_ptr<CallControl> closing_ = std::make_shared<CallControl>();
};

}  // namespace zks::bridge
