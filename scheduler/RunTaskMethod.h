// The method "runTask": runs a command in a scratch directory of its own. Protocol: docs/methods.md.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "execution/FilePool.h"
#include "execution/ProcessRunner.h"
#include "execution/ScratchArea.h"
#include "execution/TaskScratch.h"
#include "platform/spf/core/Service.h"
#include "platform/zksmessages/zksmessages.pb.h"
#include "scheduler/TaskSlots.h"
#include "scheduler/calls/CallLog.h"
#include "scheduler/calls/DescriptionLimit.h"

namespace parallel::scheduler {

// Threads: calls run at once; as many tasks as there are slots, the rest wait.
class RunTaskMethod {
 public:
  struct Settings {
    std::size_t slots = 1;
    std::filesystem::path scratchParent;
    std::chrono::nanoseconds killGrace{0};
    std::vector<std::string> environment;                   // the service's own, "NAME=value"
    std::optional<std::uint64_t> openFiles = std::nullopt;  // a task's soft limit unless it says otherwise
    // What a task's folders may hold that are returned; more files are better off in one.
    std::size_t mostFolderEntries = 100'000;
    DescriptionLimit descriptionLimit = {};
  };

  // Makes the scratch area; std::system_error when it cannot.
  RunTaskMethod(Settings settings, execution::ScratchArea::Logger& logger);

  // Puts into `record` what ran and how it ended. Errors: those of RequestReader, `BadTaskField`, std::system_error for
  // files, Terminated when the call was given up. Whatever happens, the task's processes and files are gone afterwards.
  void serve(agent::spf::core::ServerCall& call, CallRecord& record);

 private:
  TaskSlots::Slot awaitTurn(agent::spf::core::ServerCall& call, const std::stop_token& stop);
  execution::ProcessResult run(const zksmessages::TaskDescription& task, const execution::TaskScratch& scratch,
                               const std::stop_token& stop);
  execution::ProcessSpec processSpec(const zksmessages::TaskDescription& task,
                                     const execution::TaskDescriptors& opened) const;

  Settings settings_;
  execution::ScratchArea::Logger& logger_;
  execution::ScratchArea area_;
  execution::FilePool files_;
  TaskSlots slots_;
};

}  // namespace parallel::scheduler
