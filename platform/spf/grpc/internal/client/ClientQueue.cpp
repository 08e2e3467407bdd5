#include "platform/spf/grpc/internal/client/ClientQueue.h"

#include "platform/spf/grpc/internal/wire/CompletionTag.h"

namespace agent::spf::grpc_transport::internal {

using parallel::threads::MutexLock;

void ClientQueue::serve() {
  while (serveCompletion(queue_))
    restWhileCallersServe();
}

void ClientQueue::restWhileCallersServe() {
  MutexLock lock(mutex_);
  if (!callersWait_ || isBusy_())
    return;
  server_ = Server::nobody;
  unsigned turnsBefore = 0;
  do {
    turnsBefore = turns_;
    threadCalled_.waitFor(lock, kRest, [this]() ZKS_REQUIRES(mutex_) { return needsThread_; });
  } while (turns_ != turnsBefore && !needsThread_);
  needsThread_ = true;  // no further turns
  threadCalled_.wait(lock, [this]() ZKS_REQUIRES(mutex_) { return server_ == Server::nobody; });
  server_ = Server::thread;
  callersWait_ = false;
  needsThread_ = false;
}

void ClientQueue::serveHere(const std::function<bool()>& isDone) {
  if (!beginTurn())
    return;
  const auto deadline = std::chrono::system_clock::now() + kTurn;
  while (!isDone() && serveOne(deadline)) {
  }
  endTurn();
}

// False when the turn is over, or the queue has been shut down.
bool ClientQueue::serveOne(std::chrono::system_clock::time_point deadline) {
  void* tag = nullptr;
  bool ok = false;
  if (queue_.AsyncNext(&tag, &ok, deadline) != grpc::CompletionQueue::GOT_EVENT)
    return false;
  complete(tag, ok);
  return true;
}

bool ClientQueue::beginTurn() {
  const MutexLock lock(mutex_);
  callersWait_ = true;
  if (server_ != Server::nobody || needsThread_)
    return false;
  server_ = Server::caller;
  ++turns_;
  caller_ = std::this_thread::get_id();
  return true;
}

void ClientQueue::endTurn() {
  const MutexLock lock(mutex_);
  caller_ = std::thread::id();
  server_ = Server::nobody;
  needsThread_ = needsThread_ || isBusy_();
  if (needsThread_)
    threadCalled_.notifyOne();
}

void ClientQueue::callThread() {
  const MutexLock lock(mutex_);
  if (server_ == Server::thread)
    return;
  needsThread_ = true;
  threadCalled_.notifyOne();
}

}  // namespace agent::spf::grpc_transport::internal
