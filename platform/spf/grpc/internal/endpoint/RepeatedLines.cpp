#include "platform/spf/grpc/internal/endpoint/RepeatedLines.h"

#include <utility>

namespace agent::spf::grpc_transport::internal {

std::optional<std::string> RepeatedLines::take(const std::string& kind, TimePoint now) {
  const parallel::threads::MutexLock lock(mutex_);
  const bool isKnown = kinds_.size() < kKinds || kinds_.contains(kind);
  Kind& found = kinds_[isKnown ? kind : ""];
  if (now < found.next) {
    ++found.keptBack;
    return std::nullopt;
  }
  found.next = now + kInterval;
  const std::size_t keptBack = std::exchange(found.keptBack, 0);
  return keptBack == 0 ? "" : " (" + std::to_string(keptBack) + " more like this since the last one)";
}

}  // namespace agent::spf::grpc_transport::internal
