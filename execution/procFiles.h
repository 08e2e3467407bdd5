// What /proc tells of processes. Nothing, where a process is gone or may not be looked at.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace parallel::execution {

// All processes of this user.
std::vector<pid_t> processesOfThisUser();

// The children of the main thread: orphans that this process adopts become its children.
std::vector<pid_t> childrenOfMainThread();
bool canListChildren();  // a kernel may be built without

// The value of a variable in the environment that the process's program was started with.
std::optional<std::string> environmentValue(pid_t pid, std::string_view name);

struct ProcessStatus {
  bool hasEnded = false;         // a zombie
  std::uint64_t startTicks = 0;  // since the machine's start; with the number it names one process
  bool hasMemory = false;        // not so a zombie, and a thread of the kernel
  // Where its environment lies in its memory, other addresses for each program; 0 where that is not to be seen, and
  // while it becomes another program.
  std::uint64_t environmentBegin = 0;
  std::uint64_t environmentEnd = 0;
};
std::optional<ProcessStatus> processStatus(pid_t pid);

// The ticks of this moment: no process that starts from now on has fewer.
std::uint64_t ticksNow();

}  // namespace parallel::execution
