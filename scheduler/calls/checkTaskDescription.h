// What a task's description must be before anything is made for it.
#pragma once

#include "platform/zksmessages/zksmessages.pb.h"

namespace parallel::scheduler {

// `BadTaskField` names the first field that cannot be used. Its text goes into logs, so it shows names of files and
// variables, but no argument and no value of a variable.
void checkTaskDescription(const zksmessages::TaskDescription& task);

}  // namespace parallel::scheduler
