#pragma once

#include <grpcpp/alarm.h>
#include <grpcpp/completion_queue.h>

#include <chrono>
#include <functional>
#include <future>
#include <thread>
#include <utility>

#include "platform/spf/core/internal/testCalls.h"
#include "platform/spf/grpc/internal/wire/CompletionTag.h"

namespace agent::spf::testing {

// An operation of a completion queue that is over at once; `action` runs where it is served.
class QueuedOperation : public grpc_transport::internal::CompletionTag {
 public:
  explicit QueuedOperation(std::function<void()> action = {}) : action_(std::move(action)) {}

  void start(grpc::CompletionQueue& queue) {
    grpc_transport::internal::handedOver(static_cast<CompletionTag*>(this));
    alarm_.Set(&queue, std::chrono::system_clock::now(), static_cast<CompletionTag*>(this));
  }

  void complete(bool /*ok*/) override {
    if (action_)
      action_();
    served_.set_value(std::this_thread::get_id());
  }

  bool isServed() const { return future_.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }
  // Where it was served.
  std::thread::id await() { return core::testing::await(future_); }

 private:
  std::function<void()> action_;
  std::promise<std::thread::id> served_;
  std::future<std::thread::id> future_ = served_.get_future();
  grpc::Alarm alarm_;
};

}  // namespace agent::spf::testing
