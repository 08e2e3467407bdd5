#include "scheduler/calls/durations.h"

#include <algorithm>
#include <cstdint>

namespace parallel::scheduler {

using google::protobuf::Duration;
using std::chrono::nanoseconds;

namespace {
constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
}

bool isPositiveDuration(const Duration& duration) {
  constexpr std::int64_t kMaxSeconds = 315'576'000'000;  // ten thousand years
  const bool inRange = duration.seconds() >= 0 && duration.seconds() <= kMaxSeconds && duration.nanos() >= 0 &&
                       duration.nanos() < kNanosecondsPerSecond;
  return inRange && (duration.seconds() > 0 || duration.nanos() > 0);
}

nanoseconds fromMessage(const Duration& duration) {
  constexpr std::int64_t kMaxSeconds = nanoseconds::max().count() / kNanosecondsPerSecond - 1;
  return nanoseconds(std::min(duration.seconds(), kMaxSeconds) * kNanosecondsPerSecond + duration.nanos());
}

Duration toMessage(nanoseconds duration) {
  Duration message;
  message.set_seconds(duration.count() / kNanosecondsPerSecond);
  message.set_nanos(static_cast<std::int32_t>(duration.count() % kNanosecondsPerSecond));
  return message;
}

}  // namespace parallel::scheduler
