// Times as gRPC takes them.
#pragma once

#include <algorithm>
#include <chrono>

namespace agent::spf::grpc_transport::internal {

// gRPC counts milliseconds in an int; some three weeks stand for everything longer.
inline constexpr std::chrono::milliseconds kLongestTime{2'000'000'000};

inline int millisecondsForGrpc(std::chrono::milliseconds time) {
  return static_cast<int>(std::clamp(time, std::chrono::milliseconds{1}, kLongestTime).count());
}

}  // namespace agent::spf::grpc_transport::internal
