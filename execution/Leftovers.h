// Processes that outlive their task's main process and have left its group: found by the task's mark, and killed.
//
// A program that runs tasks as its purpose adopts orphans: a process whose parent ends becomes its child. Then what a task
// left is found among few, even where it has cleared its environment. A library cannot do that to its host: there the
// mark alone leads to leftovers, among all processes of this user. What is guaranteed: docs/methods.md.
// Threads: any.
#pragma once

#include <cstddef>

#include "execution/AttemptMark.h"

namespace parallel::execution {

// For the rest of this process's life. Call it before the first task, and tendOrphans() a few times a second.
void adoptOrphans();

// Kills every process with this mark, and whatever those start meanwhile. The task's main process has ended.
void killLeftovers(const AttemptMark& mark);

// Waits for adopted orphans that have ended, and kills those that no running task can have started.
void tendOrphans();

// Kills what was left by tasks of processes that are gone. Says how many.
std::size_t killLeftoversOfTheDead();

}  // namespace parallel::execution
