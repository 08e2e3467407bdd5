#include "platform/spf/grpc/internal/ClientQueue.h"

#include "platform/spf/grpc/internal/CompletionTag.h"

namespace agent::spf::grpc_transport::internal {

void ClientQueue::serve() {
  while (serveCompletion(queue_))
    restWhileCallersServe();
}

void ClientQueue::restWhileCallersServe() {
  std::unique_lock lock(mutex_);
  if (!callersWait_ || isBusy_())
    return;
  server_ = Server::nobody;
  unsigned turnsBefore = 0;
  do {
    turnsBefore = turns_;
    threadCalled_.wait_for(lock, kRest, [this] { return needsThread_; });
  } while (turns_ != turnsBefore && !needsThread_);
  needsThread_ = true;  // no further turns
  threadCalled_.wait(lock, [this] { return server_ == Server::nobody; });
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
  const std::lock_guard lock(mutex_);
  callersWait_ = true;
  if (server_ != Server::nobody || needsThread_)
    return false;
  server_ = Server::caller;
  ++turns_;
  caller_ = std::this_thread::get_id();
  return true;
}

void ClientQueue::endTurn() {
  const std::lock_guard lock(mutex_);
  caller_ = std::thread::id();
  server_ = Server::nobody;
  needsThread_ = needsThread_ || isBusy_();
  if (needsThread_)
    threadCalled_.notify_one();
}

void ClientQueue::callThread() {
  const std::lock_guard lock(mutex_);
  if (server_ == Server::thread)
    return;
  needsThread_ = true;
  threadCalled_.notify_one();
}

}  // namespace agent::spf::grpc_transport::internal
