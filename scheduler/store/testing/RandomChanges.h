// Changes such as a ledger makes, at random: jobs come, their rows change and go, and jobs are deleted.
#pragma once

#include <cstdint>
#include <random>
#include <string>

#include "scheduler/ledger/Changes.h"

namespace parallel::scheduler::store::testing {

class RandomChanges {
 public:
  explicit RandomChanges(std::uint64_t seed) : random_(seed) {}

  // The changes of one more event.
  ledger::Changes next();

 private:
  std::uint64_t below(std::uint64_t bound) { return random_() % bound; }
  std::uint64_t anyNumber();
  std::string anyText();
  ledger::JobId anyJob();
  ledger::Resources anyResources();
  ledger::RetryRules anyRules();
  ledger::Ending anyEnding();
  void addJob(ledger::Changes& changes);
  void addRows(ledger::Changes& changes, ledger::JobId job);

  std::mt19937_64 random_;
  std::uint64_t firstJob_ = 1;  // those before it are deleted
  std::uint64_t nextJob_ = 1;
};

}  // namespace parallel::scheduler::store::testing
