// When a peer that has gone silent is asked for a sign of life, and when it is given up: the time since its last sign,
// and no clock. A peer is given up `interval` + `timeout` after its last sign, whenever in between one looks.
#pragma once

#include <chrono>

namespace agent::spf::grpc_transport::internal {

// Threads: one at a time.
class Silence {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;
  using Duration = std::chrono::steady_clock::duration;

  Silence(Duration interval, Duration timeout) : interval_(interval), timeout_(timeout) {}

  enum class Step { Wait, Ask, GiveUp };
  // What to do at `now` about a peer whose last sign came at `lastSign`.
  Step step(TimePoint lastSign, TimePoint now) {
    if (lastSign > askedAt_)
      asked_ = false;
    if (asked_)
      return now - askedAt_ >= timeout_ ? Step::GiveUp : Step::Wait;
    if (now - lastSign < interval_)
      return Step::Wait;
    asked_ = true;
    askedAt_ = now;
    return Step::Ask;
  }

  // When to look again after that.
  TimePoint next(TimePoint lastSign) const { return asked_ ? askedAt_ + timeout_ : lastSign + interval_; }

 private:
  Duration interval_;
  Duration timeout_;
  bool asked_ = false;  // and no sign has come since
  TimePoint askedAt_;
};

}  // namespace agent::spf::grpc_transport::internal
