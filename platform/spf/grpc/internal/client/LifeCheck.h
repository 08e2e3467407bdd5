// Notices a peer that has gone silent: asks it for a sign of life, and says when none came.
//
// For socket files. On TCP gRPC's own keepalive does this, helped by the kernel; but gRPC asks only once it has written
// what it was about to write, and a socket file whose owner is frozen takes nothing any more.
#pragma once

#include <grpcpp/alarm.h>
#include <grpcpp/completion_queue.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>

#include "platform/spf/grpc/internal/client/Silence.h"
#include "platform/spf/grpc/internal/wire/CompletionTag.h"
#include "platform/threads/Mutex.h"

namespace agent::spf::grpc_transport::internal {

// Threads: any; `ask` and `silent` run on the queue's. Ownership: borrows the queue until stop().
class LifeCheck : public std::enable_shared_from_this<LifeCheck> {
 public:
  struct Options {
    std::chrono::milliseconds interval;  // of silence, before the peer is asked
    std::chrono::milliseconds timeout;   // for the answer
    std::function<void()> ask;           // does something that any living peer answers
    std::function<void()> silent;        // runs once, and ends the checking
  };

  LifeCheck(grpc::CompletionQueue& queue, Options options);

  void start();
  // Nothing is asked or said any more, but for what is being said now.
  void stop() noexcept;
  // Something has come from the peer.
  void sawLife() noexcept {
    lastSign_.store(std::chrono::steady_clock::now(), std::memory_order_relaxed);
    seen_.store(true, std::memory_order_relaxed);
  }
  bool hasSeenLife() const noexcept { return seen_.load(std::memory_order_relaxed); }

 private:
  void waitUntil(Silence::TimePoint time);
  void onAlarm(bool ok);

  grpc::CompletionQueue& queue_;
  const Options options_;
  std::atomic<Silence::TimePoint> lastSign_{std::chrono::steady_clock::now()};
  std::atomic<bool> seen_{false};
  Silence silence_;  // belongs to the queue's thread
  MemberTag<LifeCheck> tag_{&LifeCheck::onAlarm};

  parallel::threads::Mutex mutex_;
  grpc::Alarm alarm_ ZKS_GUARDED_BY(mutex_);
  bool stopped_ ZKS_GUARDED_BY(mutex_) = false;
};

}  // namespace agent::spf::grpc_transport::internal
