// The method "runTask": runs a command in a scratch directory of its own. Protocol: docs/methods.md.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/spf/core/Service.h"
#include "platform/zksmessages/zksmessages.pb.h"
#include "scheduler/ProcessRunner.h"
#include "scheduler/ScratchArea.h"
#include "scheduler/TaskSlots.h"

namespace parallel::scheduler {

// Threads: calls run at once; as many tasks as there are slots, the rest wait.
class RunTaskMethod {
 public:
  struct Settings {
    std::size_t slots = 1;
    std::filesystem::path scratchParent;
    std::chrono::nanoseconds killGrace{0};
    std::vector<std::string> environment;  // the service's own, "NAME=value"
  };

  // Makes the scratch area; std::system_error when it cannot.
  RunTaskMethod(Settings settings, ScratchArea::Logger& logger);

  // Errors: those of RequestReader, `BadTaskField`, `OutputNotAFile`, std::system_error for files, Terminated when the
  // call was given up. Whatever happens, the task's processes and files are gone afterwards.
  void serve(agent::spf::core::ServerCall& call);

 private:
  ProcessSpec processSpec(const zksmessages::TaskDescription& task, const class TaskScratch& scratch) const;

  Settings settings_;
  ScratchArea area_;
  TaskSlots slots_;
};

}  // namespace parallel::scheduler
