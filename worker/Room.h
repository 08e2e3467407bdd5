// Arithmetic on what attempts need and a worker has.
#pragma once

#include <chrono>
#include <cstdint>

#include "platform/zksmessages/jobs.pb.h"

namespace parallel::worker {

bool covers(const zksmessages::Resources& room, const zksmessages::Resources& needs);
void add(zksmessages::Resources& sum, const zksmessages::Resources& more);
// Not below nothing.
void subtract(zksmessages::Resources& from, const zksmessages::Resources& less);
zksmessages::Resources times(const zksmessages::Resources& resources, double factor);

// How many attempts to have at hand beyond those that run: a second of work, as far as it was measured.
class WorkMeasure {
 public:
  void ran(double seconds);
  // Work at hand waits for longer than expected.
  void isSlow() { average_ = kTarget; }
  std::uint32_t attemptsAhead(std::uint32_t cores) const;
  // For how long results of short attempts wait for each other, so that they are handed in together.
  std::chrono::milliseconds pauseBetweenResults() const;

 private:
  static constexpr double kTarget = 1;  // second
  double average_ = kTarget;            // seconds of an attempt, the late ones more
};

}  // namespace parallel::worker
