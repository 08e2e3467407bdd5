// Which methods of a service have handlers that do not take long, told by the last time that each of them ran.
#pragma once

#include <chrono>
#include <string>
#include <unordered_set>

#include "platform/threads/Mutex.h"

namespace agent::spf::grpc_transport::internal {

// Threads: any.
class QuickMethods {
 public:
  // A few times what it costs to wake another thread.
  static constexpr std::chrono::microseconds kQuick{100};

  bool contains(const std::string& method) const {
    const parallel::threads::MutexLock lock(mutex_);
    return methods_.contains(method);
  }

  void note(const std::string& method, std::chrono::steady_clock::duration took) {
    const parallel::threads::MutexLock lock(mutex_);
    if (took <= kQuick)
      methods_.insert(method);
    else
      methods_.erase(method);
  }

 private:
  mutable parallel::threads::Mutex mutex_;
  std::unordered_set<std::string> methods_ ZKS_GUARDED_BY(mutex_);
};

}  // namespace agent::spf::grpc_transport::internal
