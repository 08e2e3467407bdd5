#include "scheduler/methods/StalePins.h"

#include <cstdint>
#include <optional>
#include <sstream>
#include <utility>

#include "scheduler/methods/holders.h"

namespace parallel::scheduler::methods {

using store::Holder;

namespace {

// Of "attempt 17.3.1".
ledger::AttemptKey attemptOf(const Holder& holder) {
  std::istringstream text(holder.substr(std::string(kAttemptHolders).size()));
  std::uint64_t job = 0;
  ledger::AttemptKey key;
  char dot = 0;
  text >> job >> dot >> key.task >> dot >> key.number;
  key.job = ledger::JobId{job};
  return key;
}

}  // namespace

void StalePins::sweep() {
  sweepKeys();
  sweepAttempts();
}

void StalePins::sweepKeys() {
  const store::WallTime now = keeper_.now().wall;
  std::map<std::string, store::WallTime> seen;
  for (const Holder& holder : keeper_.store().blobs().holders(kKeyHolders)) {
    const std::string key = holder.substr(std::string(kKeyHolders).size());
    const auto first = firstSeen_.find(key);
    const store::WallTime since = first != firstSeen_.end() ? first->second : now;
    if (isKnown(key) || now - since > kKeyKept)
      keeper_.store().blobs().unpin(holder, now);
    else
      seen.emplace(key, since);
  }
  firstSeen_ = std::move(seen);
}

void StalePins::sweepAttempts() {
  for (const Holder& holder : keeper_.store().blobs().holders(kAttemptHolders)) {
    bool isAlive = false;
    keeper_.run([&](BookKeeper::Turn& turn) { isAlive = turn.ledger().workerOf(attemptOf(holder)).has_value(); });
    if (!isAlive)
      keeper_.store().blobs().unpin(holder, keeper_.now().wall);
  }
}

bool StalePins::isKnown(const std::string& key) {
  bool isKnown = false;
  keeper_.run([&](BookKeeper::Turn& turn) { isKnown = turn.ledger().knowsKey(key); });
  return isKnown;
}

}  // namespace parallel::scheduler::methods
