#include "scheduler/methods/waitReasonText.h"

namespace parallel::scheduler::methods {

using Kind = ledger::WaitReason::Kind;

namespace {

std::string dependencyText(const ledger::Dependency& dependency) {
  const std::string job = "job " + std::to_string(static_cast<std::uint64_t>(dependency.job));
  switch (dependency.kind) {
    case ledger::Dependency::Kind::wholeJob:
      return "it waits for " + job;
    case ledger::Dependency::Kind::oneTask:
      return "it waits for task " + std::to_string(dependency.task) + " of " + job;
    case ledger::Dependency::Kind::sameIndex:
      break;
  }
  return "it waits for its counterpart among the tasks of " + job + " from " + std::to_string(dependency.task) + " on";
}

}  // namespace

std::string waitReasonText(const ledger::WaitReason& reason) {
  switch (reason.kind) {
    case Kind::dependency:
      return reason.dependency ? dependencyText(*reason.dependency) : "it waits for other tasks";
    case Kind::held:
      return "the job is held";
    case Kind::delay:
      return "it waits before it is tried again";
    case Kind::atOnce:
      return "as many tasks of its array run as may run at once";
    case Kind::noWorker:
      return "there is no worker";
    case Kind::needs:
      return "no worker has what it needs";
    case Kind::alone:
      return "a worker was lost with it: it waits for one that runs nothing else";
    case Kind::turn:
      break;
  }
  return "others go first";
}

}  // namespace parallel::scheduler::methods
