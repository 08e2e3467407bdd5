// What a task's description must be before anything is made for it.
#pragma once

#include "platform/zksmessages/zksmessages.pb.h"

namespace parallel::scheduler {

// `BadTaskField` names the first field that cannot be used, with its value.
void checkTaskDescription(const zksmessages::TaskDescription& task);

}  // namespace parallel::scheduler
