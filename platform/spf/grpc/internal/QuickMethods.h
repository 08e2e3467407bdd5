// Which methods of a service have handlers that do not take long, told by the last time that each of them ran.
#pragma once

#include <chrono>
#include <mutex>
#include <string>
#include <unordered_set>

namespace agent::spf::grpc_transport::internal {

// Threads: any.
class QuickMethods {
 public:
  // A few times what it costs to wake another thread.
  static constexpr std::chrono::microseconds kQuick{100};

  bool contains(const std::string& method) const {
    const std::lock_guard lock(mutex_);
    return methods_.contains(method);
  }

  void note(const std::string& method, std::chrono::steady_clock::duration took) {
    const std::lock_guard lock(mutex_);
    if (took <= kQuick)
      methods_.insert(method);
    else
      methods_.erase(method);
  }

 private:
  mutable std::mutex mutex_;
  std::unordered_set<std::string> methods_;  // guarded by mutex_
};

}  // namespace agent::spf::grpc_transport::internal
