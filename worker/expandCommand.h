// What the tasks of an array share, with one task's own values in it.
//
// In argv, the values of the environment, and the names of inputs and outputs, "{index}" and "{line}" stand for the
// task's, and "{{" for a brace.
// Errors: `UnknownPlaceholder` names any other one, also "{line}" where there are no lines; `OpenPlaceholder`.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/zksmessages/jobs.pb.h"

namespace parallel::worker {

struct TaskValues {
  std::int64_t index = 0;
  std::optional<std::string> line = std::nullopt;  // none: its array has no lines
};

std::string expandText(std::string_view text, const TaskValues& values);

zksmessages::TaskCommand expandCommand(const zksmessages::TaskCommand& command, const TaskValues& values);

// The task's environment as "NAME=value": that of the expanded command and what the worker adds. Nothing of this
// process's own gets into it.
std::vector<std::string> environmentOf(const zksmessages::TaskCommand& command, const zksmessages::AttemptKey& attempt,
                                       const TaskValues& values, std::uint32_t cores);

}  // namespace parallel::worker
