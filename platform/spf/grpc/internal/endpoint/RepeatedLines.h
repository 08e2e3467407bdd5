// Lines of a log that a peer can cause as often as it likes: each is told once in a while, and counted in between.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <string>

#include "platform/threads/Mutex.h"

namespace agent::spf::grpc_transport::internal {

// Threads: any.
class RepeatedLines {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;
  static constexpr std::chrono::seconds kInterval{10};
  // Kinds of lines that are told apart; further ones count as one.
  static constexpr std::size_t kKinds = 100;

  // What to add to a line of that kind: nothing, or how many like it were kept back. No value: keep it back.
  std::optional<std::string> take(const std::string& kind, TimePoint now);

 private:
  struct Kind {
    TimePoint next{};
    std::size_t keptBack = 0;
  };

  parallel::threads::Mutex mutex_;
  std::map<std::string, Kind> kinds_ ZKS_GUARDED_BY(mutex_);
};

}  // namespace agent::spf::grpc_transport::internal
