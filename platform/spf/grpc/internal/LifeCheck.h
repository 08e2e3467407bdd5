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
#include <mutex>

#include "platform/spf/grpc/internal/CompletionTag.h"

namespace agent::spf::grpc_transport::internal {

// Threads: any; `ask` and `lost` run on the queue's. Ownership: borrows the queue until stop().
class LifeCheck : public std::enable_shared_from_this<LifeCheck> {
 public:
  struct Options {
    std::chrono::milliseconds interval;  // of silence, before the peer is asked
    std::chrono::milliseconds timeout;   // for the answer
    std::function<void()> ask;           // does something that any living peer answers
    std::function<void()> lost;          // runs once, and ends the checking
  };

  LifeCheck(grpc::CompletionQueue& queue, Options options);

  void start();
  // Nothing is asked or said any more, but for what is being said now.
  void stop() noexcept;
  // Something has come from the peer.
  void sawLife() noexcept { signs_.fetch_add(1, std::memory_order_relaxed); }
  bool hasSeenLife() const noexcept { return signs_.load(std::memory_order_relaxed) > 0; }

 private:
  void wait(std::chrono::milliseconds time);
  void onAlarm(bool ok);

  grpc::CompletionQueue& queue_;
  const Options options_;
  std::atomic<unsigned> signs_{0};
  unsigned signsBefore_ = 0;  // belongs to the queue's thread, as the next
  bool asked_ = false;
  MemberTag<LifeCheck> tag_{&LifeCheck::onAlarm};

  std::mutex mutex_;
  grpc::Alarm alarm_;  // guarded by mutex_, as the next
  bool stopped_ = false;
};

}  // namespace agent::spf::grpc_transport::internal
