#include "worker/ResultQueue.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <utility>

namespace parallel::worker {

using zksmessages::AttemptResult;

ResultQueue::Waiting ResultQueue::keep(AttemptOutcome outcome) {
  Waiting waiting;
  waiting.nbytes = outcome.result.ByteSizeLong();
  waiting.outcome = std::move(outcome);
  if (inMemory_ + waiting.nbytes > memoryBytes_) {
    auto file = std::make_shared<const SpooledFile>((folder_ / ("result-" + std::to_string(++number_))).string());
    std::ofstream stream(file->path(), std::ios::binary);
    if (waiting.outcome.result.SerializeToOstream(&stream) && stream.flush()) {
      waiting.file = std::move(file);
      waiting.outcome.result.Clear();
      ++onDisk_;
      return waiting;
    }
  }
  inMemory_ += waiting.nbytes;
  return waiting;
}

AttemptOutcome ResultQueue::take(Waiting waiting) {
  if (!waiting.file) {
    inMemory_ -= waiting.nbytes;
    return std::move(waiting.outcome);
  }
  --onDisk_;
  std::ifstream stream(waiting.file->path(), std::ios::binary);
  waiting.outcome.result.ParseFromIstream(&stream);
  return std::move(waiting.outcome);
}

void ResultQueue::push(AttemptOutcome outcome) {
  waiting_.push_back(keep(std::move(outcome)));
}

void ResultQueue::putBack(std::vector<AttemptOutcome> outcomes) {
  for (auto outcome = outcomes.rbegin(); outcome != outcomes.rend(); ++outcome)
    waiting_.push_front(keep(std::move(*outcome)));
}

std::vector<AttemptOutcome> ResultQueue::pop(std::size_t most, std::uint64_t nbytes) {
  std::vector<AttemptOutcome> popped;
  std::uint64_t total = 0;
  while (!waiting_.empty() && popped.size() < most) {
    total += waiting_.front().nbytes;
    if (!popped.empty() && total > nbytes)
      break;
    popped.push_back(take(std::move(waiting_.front())));
    waiting_.pop_front();
  }
  return popped;
}

}  // namespace parallel::worker
